// Element loops of the activations that need no libm, of the square root and of the logical not. in may equal out, and
// out may lie in front of in, as when padded rows are read and compact ones written in place.
#ifndef OPKIT_KERNELS_ACTIVATION_H
#define OPKIT_KERNELS_ACTIVATION_H

#include "kernels/level.h"

namespace opkit {

using MapKernel = void (*)(const float* in, float* out, size_t count);

struct ActivationKernels {
    void (*hardSigmoid)(const float* in, float* out, size_t count, float alpha, float beta);
    void (*shrink)(const float* in, float* out, size_t count, float bias, float lambd);
    void (*threshold)(const float* in, float* out, size_t count, float alpha);
    MapKernel round[3];  // by OPKIT_ROUND_...
    MapKernel squareRoot;
    MapKernel logicalNot;
};
OPKIT_KERNEL_TABLE(ActivationKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_ACTIVATION_H
