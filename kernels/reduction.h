// Folds of many elements into few: sums, products, extremes. An accumulator takes its elements in ascending order, one
// rounding each; what runs side by side are different accumulators. Accumulators and elements share no memory.
#ifndef OPKIT_KERNELS_REDUCTION_H
#define OPKIT_KERNELS_REDUCTION_H

#include "kernels/level.h"

namespace opkit {

struct FoldKernels {
    // acc[j] takes x[j], x[rowStride + j], ... of all rows.
    void (*columns)(float* acc, const float* x, size_t count, size_t rows, size_t rowStride);
    // acc[r] takes the `length` elements from x + r * rowStride on. A single element may be its own accumulator.
    void (*rows)(float* acc, const float* x, size_t count, size_t rowStride, size_t length);
};

struct ReductionKernels {
    FoldKernels sum;
    FoldKernels magnitude;  // sum of magnitudes
    FoldKernels square;     // sum of squares
    FoldKernels largest;    // an element replaces its accumulator only when it is above it: NaN never does
    FoldKernels smallest;   // the same below it
    FoldKernels product;
};
OPKIT_KERNEL_TABLE(ReductionKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_REDUCTION_H
