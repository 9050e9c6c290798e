// Element loops of the quantised products: sums, the zero points' correction, and the step from and to quantised
// values. Every sum takes its terms in ascending order from 0.0; sums are computed side by side.
#ifndef OPKIT_KERNELS_QUANTIZED_H
#define OPKIT_KERNELS_QUANTIZED_H

#include "kernels/level.h"

namespace opkit {

struct QuantizedKernels {
    // sums[i] of row i of a dense [rows, columns] matrix.
    void (*sumRows)(const float* matrix, size_t rows, size_t columns, float* sums);
    // sums[j] of the first `columns` columns of `rows` rows that start `pitch` floats apart.
    void (*sumColumns)(const float* matrix, size_t rows, size_t columns, size_t pitch, float* sums);
    // c[j] = (c[j] - (columnTerms[j] + rowTerm)) * scale - zero
    void (*correct)(float* c, size_t count, const float* columnTerms, float rowTerm, float scale, float zero);
    // x = (x - zero) * scale
    void (*dequantize)(float* data, size_t count, float scale, float zero);
    // x = round(x / scale) + zero, halves away from zero
    void (*quantize)(float* data, size_t count, float scale, float zero);
};
OPKIT_KERNEL_TABLE(QuantizedKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_QUANTIZED_H
