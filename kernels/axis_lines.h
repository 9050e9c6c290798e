// Loops along lines: the elements of a tensor along one of its axes. Running sums, the place of the largest element,
// the places of those that are not zero.
#ifndef OPKIT_KERNELS_AXIS_LINES_H
#define OPKIT_KERNELS_AXIS_LINES_H

#include "kernels/level.h"

namespace opkit {

struct AxisLineKernels {
    // Running sums of `count` lines of `length` elements, at least one, one line behind the other, each from its first
    // element or from its last. out is in, or shares no memory with it.
    void (*runningSums)(const float* in, float* out, size_t count, size_t length, bool reverse);
    // Place of the first largest element; NaN never replaces a candidate, and one that comes first stays it.
    size_t (*firstLargest)(const float* x, size_t count);
    // The same for each of `count` neighbouring columns of [length, rowStride], length at least 1.
    void (*firstLargestOfColumns)(const float* x, uint32_t* places, size_t count, size_t length, size_t rowStride);
    // How many elements are above 1e-6 in magnitude, NaN included.
    uint32_t (*countNonZero)(const float* x, uint32_t count);
    // Writes the places of those elements as floats and returns how many there are, at most `limit`; out has room for
    // that many.
    uint32_t (*nonZeroPlaces)(const float* x, uint32_t count, float* out, uint32_t limit);
};
OPKIT_KERNEL_TABLE(AxisLineKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_AXIS_LINES_H
