// Literal form of Gemm, the operator.
#ifndef OPKIT_TESTS_REFERENCE_GEMM_H
#define OPKIT_TESTS_REFERENCE_GEMM_H

#include "opkit/attributes/matrix.h"
#include "tests/reference/matrix_core.h"

namespace opkit::reference {

inline bool RefGemmInput(LayerParam* param, RefCursor& cursor, RefTensor& tensor)
{
    if (!RefResolve(param, cursor, tensor)) {
        RefReport("GemmOpkitForward", "ParseInputInfo failed.\n\n");
        return false;
    }
    return RefCompact("GemmOpkitForward", tensor);
}

inline uint32_t RefGemmForward(LayerParam* param)
{
    auto* attr = static_cast<GemmAttr*>(param->attr);
    RefCursor cursor;
    RefTensor a;
    RefTensor b;
    if (!RefGemmInput(param, cursor, a)) {
        return kAllOnes;
    }
    if (!RefGemmInput(param, cursor, b)) {
        return kAllOnes;
    }
    const RefTensor y = RefOutput(param, 0);
    float* t = y.data;
    if (attr->inputCount == 3) {
        RefTensor c;
        if (!RefGemmInput(param, cursor, c)) {
            return kAllOnes;
        }
        t = static_cast<float*>(param->opkitBuf);
        RefSetStride(attr->outputStrides[0], y.shape, y.dimNum);
        const bool differ = RefShapesDiffer(y, c);
        if (differ) {
            RefSetStride(attr->inputStrides[2], c.shape, c.dimNum);
        }
        for (uint32_t i = 0; i < y.count; ++i) {
            RefMove(t + i, c.data + (differ ? RefBroadcast(i, c, y) : i));
        }
    }
    for (uint32_t i = 0; i < y.count; ++i) {
        y.data[i] = 0.0f;
    }
    const int32_t d = a.dimNum;
    const uint32_t M = attr->transA != 0 ? a.shape[d - 1] : a.shape[d - 2];
    const uint32_t K = attr->transA != 0 ? a.shape[d - 2] : a.shape[d - 1];
    const uint32_t N = attr->transB != 0 ? b.shape[d - 2] : b.shape[d - 1];
    const int32_t matrices = RefLeadingProduct(y, y.dimNum - 2);
    for (int32_t g = 0; g < matrices; ++g) {
        const uint32_t n = static_cast<uint32_t>(g);
        RefGemm({attr->transA, attr->transB, M, N, K, attr->alpha, a.data + n * M * K, b.data + n * K * N, attr->beta,
                 t + n * M * N});
    }
    if (attr->inputCount == 3) {
        for (uint32_t i = 0; i < y.count; ++i) {
            RefMove(y.data + i, t + i);
        }
    }
    return RefExpandChecked("GemmOpkitForward", y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_GEMM_H
