// Bit shifts of floats taken as unsigned whole numbers.
#ifndef OPKIT_KERNELS_SHIFT_H
#define OPKIT_KERNELS_SHIFT_H

#include "kernels/level.h"

namespace opkit {

constexpr size_t kShiftBlock = 64;

// out[i] = a[i * stepA] shifted by b[i * stepB] modulo 64, steps 0 or 1, as long as blocks of kShiftBlock elements hold
// nothing but operands from 0 to below 2^63. Returns how many elements it wrote; the next block, or rest, is not plain.
// out may equal a or b.
using ShiftKernel = size_t (*)(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count);

struct ShiftKernels {
    ShiftKernel left;
    ShiftKernel right;
};
OPKIT_KERNEL_TABLE(ShiftKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_SHIFT_H
