// Det: determinant of every square matrix of a stack, by elimination with full pivoting in f32 and a product of the
// pivots in f64. X is left eliminated, also in the model buffer.
// Rows: compacting.
//
// Entries within 1e-6 of zero are not eliminated. A NaN on the diagonal stays the pivot; elsewhere none becomes it.

#include "kernels/determinant.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

void GetMaxRowAndCol(float* matrix, uint32_t n, uint32_t k, uint32_t* row, uint32_t* col)
{
    if (k < n) {
        Kernels<DeterminantKernels>().findPivot(matrix, n, k, row, col);
    }
}

void SwapRow(float* matrix, uint32_t n, uint32_t a, uint32_t b)
{
    float* const rowA = matrix + size_t{a} * n;
    float* const rowB = matrix + size_t{b} * n;
    for (uint32_t c = 0; c < n; ++c) {
        const float kept = rowA[c];
        rowA[c] = rowB[c];
        rowB[c] = kept;
    }
}

void SwapCol(float* matrix, uint32_t n, uint32_t a, uint32_t b)
{
    for (uint32_t r = 0; r < n; ++r) {
        float* const row = matrix + size_t{r} * n;
        const float kept = row[a];
        row[a] = row[b];
        row[b] = kept;
    }
}

uint32_t CalculateDet(float* matrix, float* result, uint32_t n)
{
    if (matrix == nullptr || result == nullptr) {
        Report(Here(), "input/output pointer is empty.\n\n");
        return kFailure;
    }
    double product = 1.0;
    bool negative = false;
    for (uint32_t k = 0; k < n; ++k) {
        uint32_t row = k;
        uint32_t col = k;
        GetMaxRowAndCol(matrix, n, k, &row, &col);
        if (row != k) {
            SwapRow(matrix, n, row, k);
            negative = !negative;
        }
        if (col != k) {
            SwapCol(matrix, n, col, k);
            negative = !negative;
        }
        product *= static_cast<double>(matrix[size_t{k} * n + k]);
        Kernels<DeterminantKernels>().eliminate(matrix, n, k);
    }
    *result = static_cast<float>(negative ? -product : product);
    return kSuccess;
}

uint32_t DetOpkitForward(LayerParam* param)
{
    Input x;
    if (!Resolve(param, {&x}, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const size_t matrixSize = size_t{x.width} * x.width;
    for (uint32_t i = 0; i < out.count; ++i) {
        if (CalculateDet(x.data + i * matrixSize, out.data + i, x.width) != kSuccess) {
            return kFailure;
        }
    }
    return ExpandOutputChecked(out);
}
