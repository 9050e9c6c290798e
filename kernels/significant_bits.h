// How many bits of floats are in use, for products that need no rounding: where all of them are floats,
// fma(a, b, c) = round(round(a * b) + c), so that a fused step has the bits of the two apart.
#ifndef OPKIT_KERNELS_SIGNIFICANT_BITS_H
#define OPKIT_KERNELS_SIGNIFICANT_BITS_H

#include "kernels/level.h"

namespace opkit {

struct BitRange {
    uint32_t mantissa;  // what any value has in its 23 bits behind the first
    uint32_t smallest;  // bits of the smallest magnitude but for zeros, all bits if there is none
    uint32_t largest;   // bits of the largest magnitude
};

struct SignificantBitsKernels {
    // Stops early, with what it has seen, where one of the last two bits of a mantissa is in use.
    BitRange (*examine)(const float* values, size_t count);
};
OPKIT_KERNEL_TABLE(SignificantBitsKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_SIGNIFICANT_BITS_H
