// Sums behind the normalisations; see kernels/reduction.h for the order of the elements.
#ifndef OPKIT_KERNELS_NORMALIZATION_H
#define OPKIT_KERNELS_NORMALIZATION_H

#include "kernels/level.h"
#include "kernels/reduction.h"

namespace opkit {

struct NormalizationKernels {
    FoldKernels wholeMagnitudes;  // of elements truncated to whole numbers; -2^31, which has none, stays
    FoldKernels wholeSquares;     // squares of these; each step in f64, rounded to f32
    // acc[r] takes the squared distances of row r from centres[r]. acc and x share no memory.
    void (*squaredDistances)(float* acc, const float* centres, const float* x, size_t count, size_t rowStride,
                             size_t length);
    // out = x * scale + shift, product and sum rounded apart. out may equal x or lie in
    // front of it.
    void (*scaleAndShift)(const float* x, float* out, size_t count, float scale, float shift);
};
OPKIT_KERNEL_TABLE(NormalizationKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_NORMALIZATION_H
