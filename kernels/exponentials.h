// Element functions defined by f64 formulas over exp and log, narrowed to f32. Results are those of the formula over
// libm, bit for bit: see kernels/wide.h. out may equal in or lie in front of it.
#ifndef OPKIT_KERNELS_EXPONENTIALS_H
#define OPKIT_KERNELS_EXPONENTIALS_H

#include "kernels/level.h"
#include "kernels/reduction.h"

namespace opkit {

struct ExponentialKernels {
    void (*sigmoid)(const float* in, float* out, size_t count);
    void (*softplus)(const float* in, float* out, size_t count);
    void (*celu)(const float* in, float* out, size_t count, float alpha);
    void (*selu)(const float* in, float* out, size_t count, float alpha, float gamma);
    void (*sinh)(const float* in, float* out, size_t count);
    void (*acosh)(const float* in, float* out, size_t count);
    FoldKernels sum;  // of exponentials: each is added in f64 and the sum rounds to f32
};
OPKIT_KERNEL_TABLE(ExponentialKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_EXPONENTIALS_H
