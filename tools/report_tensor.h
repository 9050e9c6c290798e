// What a report page shows of a tensor instead of its elements.
#ifndef OPKIT_TOOLS_REPORT_TENSOR_H
#define OPKIT_TOOLS_REPORT_TENSOR_H

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "modelkit/model.h"

namespace opkit::tools {

// A tensor's planes side by side, each averaged down to few cells. Cells hold 0 to 254 from `low` to `high`, or
// kNotFinite where a NaN or an infinity is among the elements.
struct TensorPicture {
    static constexpr uint8_t kNotFinite = 255;

    uint64_t planes = 0;   // of the tensor
    uint32_t shown = 0;    // the first so many of them
    uint32_t columns = 0;  // of planes
    uint32_t height = 0;   // of a plane, in cells
    uint32_t width = 0;
    uint64_t planeHeight = 0;  // of a plane, in elements
    uint64_t planeWidth = 0;
    double low = 0;
    double high = 0;
    std::vector<uint8_t> cells;  // plane by plane, row by row
};

// At most `side` x `side` cells for a tensor of that shape. The elements of a vector make one row.
TensorPicture PictureOf(std::span<const float> values, const modelkit::Shape& shape, uint32_t side);

std::string Base64(std::span<const uint8_t> bytes);

// Numbers of all that is added; a histogram of what comes first, and the picture of its first item.
class TensorSummary {
public:
    static constexpr size_t kBins = 64;

    void Add(std::span<const float> values, const modelkit::Shape& itemShape, uint32_t side);
    nlohmann::ordered_json ToJson() const;

private:
    void FillHistogram(std::span<const float> values);

    uint64_t count_ = 0;
    uint64_t finite_ = 0;
    uint64_t nan_ = 0;
    uint64_t infinite_ = 0;
    uint64_t zeros_ = 0;
    double sum_ = 0;
    double minimum_ = 0;  // of finite elements
    double maximum_ = 0;
    double binsBegin_ = 0;
    double binsEnd_ = 0;
    std::array<uint64_t, kBins> bins_ = {};
    TensorPicture picture_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_REPORT_TENSOR_H
