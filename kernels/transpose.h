// Transposition of a plane of floats, bit by bit.
#ifndef OPKIT_KERNELS_TRANSPOSE_H
#define OPKIT_KERNELS_TRANSPOSE_H

#include "kernels/level.h"

namespace opkit {

struct TransposeKernels {
    // out[r * outStep + c] = in[c * inStep + r] for r below `rows` and c below `columns`. The two do not overlap.
    void (*plane)(const float* in, size_t inStep, float* out, size_t outStep, uint32_t rows, uint32_t columns);
};
OPKIT_KERNEL_TABLE(TransposeKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_TRANSPOSE_H
