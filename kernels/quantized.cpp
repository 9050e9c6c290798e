// Element loops of the quantised products; see kernels/level.h for the levels.

#include "kernels/quantized.h"

#include "kernels/round_elements.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

float SumRow(const float* row, size_t columns, float sum)
{
    for (size_t k = 0; k < columns; ++k) {
        sum += row[k];
    }
    return sum;
}

// One row per lane: squares are turned, so that each addition takes the next element of every row.
void SumRows(const float* matrix, size_t rows, size_t columns, float* sums)
{
    const size_t whole = columns / kLanes * kLanes;
    size_t i = 0;
    for (; i + kLanes <= rows; i += kLanes) {
        const float* block = matrix + i * columns;
        Vec sum = {};
        for (size_t k = 0; k < whole; k += kLanes) {
            Vec square[kLanes];
#pragma GCC unroll 16
            for (size_t r = 0; r < kLanes; ++r) {
                square[r] = Load(block + r * columns + k);
            }
            TransposeSquare(square);
#pragma GCC unroll 16
            for (size_t r = 0; r < kLanes; ++r) {
                sum += square[r];
            }
        }
        for (size_t r = 0; r < kLanes; ++r) {
            sums[i + r] = SumRow(block + r * columns + whole, columns - whole, sum[r]);
        }
    }
    for (; i < rows; ++i) {
        sums[i] = SumRow(matrix + i * columns, columns, 0.0f);
    }
}

void SumColumns(const float* matrix, size_t rows, size_t columns, size_t pitch, float* sums)
{
    for (size_t j = 0; j < columns; ++j) {
        sums[j] = 0.0f;
    }
    size_t k = 0;
    for (; k + 4 <= rows; k += 4) {
        const float* first = matrix + k * pitch;
        const float* second = first + pitch;
        const float* third = second + pitch;
        const float* fourth = third + pitch;
        for (size_t j = 0; j < columns; ++j) {
            sums[j] = (((sums[j] + first[j]) + second[j]) + third[j]) + fourth[j];
        }
    }
    for (; k < rows; ++k) {
        const float* row = matrix + k * pitch;
        for (size_t j = 0; j < columns; ++j) {
            sums[j] += row[j];
        }
    }
}

void Correct(float* c, size_t count, const float* columnTerms, float rowTerm, float scale, float zero)
{
    for (size_t j = 0; j < count; ++j) {
        c[j] = (c[j] - (columnTerms[j] + rowTerm)) * scale - zero;
    }
}

void Dequantize(float* data, size_t count, float scale, float zero)
{
    for (size_t i = 0; i < count; ++i) {
        data[i] = (data[i] - zero) * scale;
    }
}

// The sum is defined in f64 and narrowed; two floats add to the same float either way.
void Quantize(float* data, size_t count, float scale, float zero)
{
    for (size_t i = 0; i < count; ++i) {
        data[i] = RoundHalfAwayElement(data[i] / scale) + zero;
    }
}

}  // namespace

extern const QuantizedKernels kQuantizedKernels = {SumRows, SumColumns, Correct, Dequantize, Quantize};

}  // namespace opkit::OPKIT_LEVEL
