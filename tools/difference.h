// How far two tensors are apart.
#ifndef OPKIT_TOOLS_DIFFERENCE_H
#define OPKIT_TOOLS_DIFFERENCE_H

#include <cstdint>
#include <span>
#include <string>

#include "modelkit/model.h"

namespace opkit::tools {

struct Difference {
    size_t elements = 0;
    size_t firstElement = 0;
    uint64_t ulps = 0;    // largest distance, in units in the last place
    double distance = 0;  // largest distance, also of elements that the tolerance lets pass
    bool nan = false;     // one side is NaN somewhere

    void Add(const Difference& other);  // all but firstElement
};

// Elements are alike when their bits are, when both are NaN, or when they are no further apart than the tolerance times
// the larger magnitude, or than the tolerance itself where both magnitudes are below 1.
Difference Compare(std::span<const float> here, std::span<const float> there, double tolerance);

// "3 ulps apart".
std::string DistanceText(float here, float there);
// What Compare found in all: "elements 12, largest distance 3 ulps".
std::string DifferenceText(const Difference& difference);
// "bit for bit", or what the tolerance let pass.
std::string AgreementText(const Difference& difference, double tolerance);
// The place of an element in a tensor of that shape: "[0, 2, 1]".
std::string ElementText(const modelkit::Shape& shape, size_t index);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_DIFFERENCE_H
