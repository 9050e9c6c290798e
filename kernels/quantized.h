// Element loops of the quantised products: the zero points' correction, and the step from and to quantised values.
#ifndef OPKIT_KERNELS_QUANTIZED_H
#define OPKIT_KERNELS_QUANTIZED_H

#include "kernels/level.h"

namespace opkit {

struct QuantizedKernels {
    // c[j] = (c[j] - (columnTerms[j] + rowTerm)) * scale - zero. The two share no memory.
    void (*correct)(float* c, size_t count, const float* columnTerms, float rowTerm, float scale, float zero);
    // x = (x - zero) * scale
    void (*dequantize)(float* data, size_t count, float scale, float zero);
    // x = round(x / scale) + zero, halves away from zero
    void (*quantize)(float* data, size_t count, float scale, float zero);
};
OPKIT_KERNEL_TABLE(QuantizedKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_QUANTIZED_H
