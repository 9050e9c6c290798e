// Element loops of the operators that broadcast two or three operands. An operand's step is 1 where it advances with
// the output and 0 where it stands still; out may equal an operand that advances.
#ifndef OPKIT_KERNELS_BINARY_H
#define OPKIT_KERNELS_BINARY_H

#include "kernels/level.h"

namespace opkit {

using BinaryKernel = void (*)(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count);

struct BinaryKernels {
    BinaryKernel math[5];     // by OPKIT_BINARY_...
    BinaryKernel compare[6];  // by OPKIT_CMP_...
    BinaryKernel logical[3];  // by OPKIT_LOGICAL_..., without not
    // out[i] = y where the condition is false, else x, bits unchanged; the condition advances.
    void (*select)(const float* condition, const float* x, size_t stepX, const float* y, size_t stepY, float* out,
                   size_t count);
};
OPKIT_KERNEL_TABLE(BinaryKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_BINARY_H
