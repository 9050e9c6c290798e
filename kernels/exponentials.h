// Element functions defined by f64 formulas over exp and log, narrowed to f32. Results are those of the formula over
// libm, bit for bit: see kernels/wide.h. in may equal out.
#ifndef OPKIT_KERNELS_EXPONENTIALS_H
#define OPKIT_KERNELS_EXPONENTIALS_H

#include "kernels/level.h"

namespace opkit {

struct ExponentialKernels {
    void (*sigmoid)(const float* in, float* out, size_t count);
    void (*softplus)(const float* in, float* out, size_t count);
};
OPKIT_KERNEL_TABLE(ExponentialKernels, exponentialKernels, Exponentials)

}  // namespace opkit

#endif  // OPKIT_KERNELS_EXPONENTIALS_H
