// The element loop of linear resampling.
#ifndef OPKIT_KERNELS_RESIZE_H
#define OPKIT_KERNELS_RESIZE_H

#include "kernels/level.h"

namespace opkit {

// One output row lies between two input rows, each of its elements between two columns.
struct LinearRow {
    const float* row1;
    const float* row2;
    float dy1;  // distances to the two rows
    float dy2;
    const int64_t* x1;  // per output column
    const int64_t* x2;
    const float* dx1;
    const float* dx2;
};

struct ResizeKernels {
    // Elements begin to end - 1 of the output row at `out`.
    void (*linearRow)(const LinearRow& row, float* out, int64_t begin, int64_t end);
};
OPKIT_KERNEL_TABLE(ResizeKernels, resizeKernels, ResizeLoops)

}  // namespace opkit

#endif  // OPKIT_KERNELS_RESIZE_H
