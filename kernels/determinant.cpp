// Elimination loops; see kernels/level.h for the levels.

#include "kernels/determinant.h"

#include "common/float_compare.h"
#include "kernels/contract.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// Magnitudes compare as the integers of their bits, which run in lanes without a word about NaN; a NaN counts as 0,
// which beats nothing.
int32_t MagnitudeBits(float x)
{
    constexpr int32_t kInfinity = 0x7f800000;
    const int32_t bits = __builtin_bit_cast(int32_t, x) & 0x7fffffff;
    return bits > kInfinity ? 0 : bits;
}

int32_t LargestMagnitude(const float* row, size_t count)
{
    int32_t largest = 0;
    for (size_t i = 0; i < count; ++i) {
        const int32_t bits = MagnitudeBits(row[i]);
        largest = bits > largest ? bits : largest;
    }
    return largest;
}

void FindPivot(const float* matrix, size_t n, size_t k, uint32_t* row, uint32_t* col)
{
    assert(matrix != nullptr && k < n && row != nullptr && col != nullptr);
    const float start = matrix[k * n + k];
    if (start != start) {
        return;  // nothing is greater than NaN
    }
    int32_t best = MagnitudeBits(start);
    for (size_t r = k; r < n; ++r) {
        const float* entries = matrix + r * n;
        const int32_t largest = LargestMagnitude(entries + k, n - k);
        if (largest <= best) {
            continue;
        }
        size_t c = k;
        while (MagnitudeBits(entries[c]) != largest) {
            ++c;
        }
        best = largest;
        *row = static_cast<uint32_t>(r);
        *col = static_cast<uint32_t>(c);
    }
}

void Eliminate(float* matrix, size_t n, size_t k)
{
    assert(matrix != nullptr && k < n);
    const float* pivotRow = matrix + k * n;
    for (size_t r = k + 1; r < n; ++r) {
        float* row = matrix + r * n;
        if (NearlyEqual(row[k], 0.0f)) {
            continue;
        }
        const float factor = -row[k] / pivotRow[k];
        for (size_t c = k; c < n; ++c) {
            row[c] += pivotRow[c] * factor;
        }
    }
}

}  // namespace

extern const DeterminantKernels kDeterminantKernels = {FindPivot, Eliminate};

}  // namespace opkit::OPKIT_LEVEL
