// Element loops of unary operators that the compiler can run several lanes at a time. out may equal in or lie in front
// of it.
#ifndef OPKIT_KERNELS_UNARY_H
#define OPKIT_KERNELS_UNARY_H

#include "kernels/level.h"

namespace opkit {

struct UnaryKernels {
    void (*neg)(const float* in, float* out, size_t count);
    void (*reciprocal)(const float* in, float* out, size_t count);
    void (*sign)(const float* in, float* out, size_t count);
    void (*softsign)(const float* in, float* out, size_t count);
};
OPKIT_KERNEL_TABLE(UnaryKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_UNARY_H
