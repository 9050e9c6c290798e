// Literal forms of MatMul and QLinearMatMul.
#ifndef OPKIT_TESTS_REFERENCE_MATMUL_H
#define OPKIT_TESTS_REFERENCE_MATMUL_H

#include "opkit/attributes/matrix.h"
#include "tests/reference/matrix_core.h"

namespace opkit::reference {

inline uint32_t RefMatMul(LayerParam* param)
{
    const char* const name = "MatMulOpkitForward";
    if (param->attr == nullptr) {
        return kAllOnes;
    }
    RefCursor cursor;
    RefTensor in[2];
    for (RefTensor& tensor : in) {
        if (!RefResolve(param, cursor, tensor)) {
            RefReport(name, "ParseInputInfo failed.\n\n");
            return kAllOnes;
        }
        if (!RefCompact(name, tensor)) {
            return kAllOnes;
        }
    }
    const RefTensor& a = in[0];
    const RefTensor& b = in[1];
    const RefTensor y = RefOutput(param, 0);
    const uint32_t M = a.dimNum == 1 ? 1 : a.shape[a.dimNum - 2];
    const uint32_t K = a.Width();
    const uint32_t N = y.Width();
    const int32_t aBatch = RefLeadingProduct(a, a.dimNum - 2);
    const int32_t bBatch = RefLeadingProduct(b, b.dimNum - 2);
    const int32_t yBatch = RefLeadingProduct(y, y.dimNum - 2);
    if (yBatch > 0 && (aBatch == 0 || bBatch == 0)) {
        RefReport(name, "cannot divisor zero, len0 = %d, len1 = %d\n", aBatch, bBatch);
        return kAllOnes;
    }
    for (int32_t i = 0; i < yBatch; ++i) {
        RefProduct(a.data + static_cast<uint32_t>(i % aBatch) * M * K,
                   b.data + static_cast<uint32_t>(i % bBatch) * K * N, y.data + static_cast<uint32_t>(i) * M * N, M, N,
                   K, 1.0f, 0.0f);
    }
    return RefExpandChecked(name, y);
}

inline void RefDequantize(const RefTensor& tensor, float scale, float zero)
{
    for (uint32_t i = 0; i < tensor.count; ++i) {
        const float shifted = tensor.data[i] - zero;
        tensor.data[i] = shifted * scale;
    }
}

inline float RefQuantized(float x, float scale, float zero)
{
    const float quotient = x / scale;
    return static_cast<float>(static_cast<double>(roundf(quotient)) + static_cast<double>(zero));
}

inline uint32_t RefQLinearMatMul(LayerParam* param)
{
    const char* const name = "QLinearMatMulOpkitForward";
    if (param->attr == nullptr) {
        return kAllOnes;
    }
    const int32_t inputCount = static_cast<const QLinearMatMulAttr*>(param->attr)->inputCount;
    int32_t reads = 8;
    if (inputCount < 2) {
        reads = 0;
    } else if (inputCount == 2 || inputCount == 3 || inputCount == 4) {
        reads = inputCount;
    }
    RefCursor cursor;
    RefTensor in[8];
    for (int32_t k = 0; k < reads; ++k) {
        if (!RefResolve(param, cursor, in[k])) {
            return kAllOnes;
        }
        if (!RefCompact(name, in[k])) {
            return kAllOnes;
        }
    }
    const RefTensor& a = in[0];
    const RefTensor& b = inputCount == 8 ? in[3] : in[1];
    const RefTensor y = RefOutput(param, 0);
    if (y.dimNum == 0 || y.dimNum == 1 || inputCount < 2 || a.dimNum < 1) {
        RefReport(name, "dimNumOut(%u) < 2,  dimNumIn0:%d < 1, inputNum:%d < 2\n", static_cast<uint32_t>(y.dimNum),
                  a.dimNum, inputCount);
        return kAllOnes;
    }
    const uint32_t M = y.shape[y.dimNum - 2];
    const uint32_t N = y.Width();
    const uint32_t K = a.Width();
    const int32_t aBatch = RefLeadingProduct(a, a.dimNum - 2);
    const int32_t bBatch = RefLeadingProduct(b, b.dimNum - 2);
    const int32_t yBatch = RefLeadingProduct(y, y.dimNum - 2);
    if (inputCount == 8) {
        RefDequantize(a, in[1].data[0], in[2].data[0]);
        RefDequantize(b, in[4].data[0], in[5].data[0]);
    } else if (inputCount == 3) {
        RefDequantize(a, 1.0f, in[2].data[0]);
    } else if (inputCount != 2) {
        RefDequantize(a, 1.0f, in[2].data[0]);
        RefDequantize(b, 1.0f, in[3].data[0]);
    }
    if (yBatch > 0 && (aBatch == 0 || bBatch == 0)) {
        RefReport(name, "cannot divisor zero, aBatch = %d, bBatch = %d\n", aBatch, bBatch);
        return kAllOnes;
    }
    for (int32_t i = 0; i < yBatch; ++i) {
        RefProduct(a.data + static_cast<uint32_t>(i % aBatch) * M * K,
                   b.data + static_cast<uint32_t>(i % bBatch) * K * N, y.data + static_cast<uint32_t>(i) * M * N, M, N,
                   K, 1.0f, 0.0f);
    }
    if (inputCount == 8) {
        for (uint32_t i = 0; i < y.count; ++i) {
            y.data[i] = RefQuantized(y.data[i], in[6].data[0], in[7].data[0]);
        }
    }
    return RefExpand(name, y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_MATMUL_H
