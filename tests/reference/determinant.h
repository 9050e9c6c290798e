// Literal form of Det.
#ifndef OPKIT_TESTS_REFERENCE_DETERMINANT_H
#define OPKIT_TESTS_REFERENCE_DETERMINANT_H

#include <utility>

#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline void RefFindPivot(const float* m, uint32_t n, uint32_t k, uint32_t& row, uint32_t& col)
{
    if (k >= n) {
        return;
    }
    float best = std::fabs(m[k * n + k]);
    for (uint32_t r = k; r < n; ++r) {
        for (uint32_t c = k; c < n; ++c) {
            if (std::fabs(m[r * n + c]) > best) {
                best = std::fabs(m[r * n + c]);
                row = r;
                col = c;
            }
        }
    }
}

inline void RefSwap(float* a, float* b)
{
    uint32_t kept;
    std::memcpy(&kept, a, 4);
    RefMove(a, b);
    std::memcpy(b, &kept, 4);
}

inline float RefDeterminant(float* m, uint32_t n)
{
    double det = 1.0;
    int swaps = 0;
    for (uint32_t k = 0; k < n; ++k) {
        uint32_t row = k;
        uint32_t col = k;
        RefFindPivot(m, n, k, row, col);
        if (row != k) {
            for (uint32_t c = 0; c < n; ++c) {
                RefSwap(&m[row * n + c], &m[k * n + c]);
            }
            swaps += 1;
        }
        if (col != k) {
            for (uint32_t r = 0; r < n; ++r) {
                RefSwap(&m[r * n + col], &m[r * n + k]);
            }
            swaps += 1;
        }
        det = det * static_cast<double>(m[k * n + k]);
        for (uint32_t r = k + 1; r < n; ++r) {
            if (RefIsEqual(m[r * n + k], 0.0f)) {
                continue;
            }
            const float factor = -m[r * n + k] / m[k * n + k];
            for (uint32_t c = k; c < n; ++c) {
                const float product = m[k * n + c] * factor;
                m[r * n + c] = m[r * n + c] + product;
            }
        }
    }
    return static_cast<float>(swaps % 2 == 1 ? -det : det);
}

inline uint32_t RefDet(LayerParam* param)
{
    const char* const name = "DetOpkitForward";
    RefCursor cursor;
    RefTensor x;
    if (!RefResolve(param, cursor, x)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    if (!RefCompact(name, x)) {
        return kAllOnes;
    }
    const RefTensor y = RefOutput(param, 0);
    const uint32_t n = x.Width();
    for (uint32_t i = 0; i < y.count; ++i) {
        if (x.data == nullptr || y.data == nullptr) {
            RefReport("CalculateDet", "input/output pointer is empty.\n\n");
            return kAllOnes;
        }
        y.data[i] = RefDeterminant(x.data + i * n * n, n);
    }
    return RefExpandChecked(name, y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_DETERMINANT_H
