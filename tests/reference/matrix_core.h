// Literal forms of the matrix product, its quantised emulation and im2col.
#ifndef OPKIT_TESTS_REFERENCE_MATRIX_CORE_H
#define OPKIT_TESTS_REFERENCE_MATRIX_CORE_H

#include "opkit/helpers/matrix.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline void RefGemm(const GemmArgs& g)
{
    const int32_t count = static_cast<int32_t>(g.M * g.N);
    for (int32_t i = 0; i < count; ++i) {
        if (g.beta == 0.0f) {
            std::memset(g.C + i, 0, 4);
        } else {
            g.C[i] *= g.beta;
        }
    }
    if (g.transA == 0 && g.transB == 0) {
        for (uint32_t i = 0; i < g.M; ++i) {
            for (uint32_t k = 0; k < g.K; ++k) {
                for (uint32_t j = 0; j < g.N; ++j) {
                    const float scaled = g.A[i * g.K + k] * g.alpha;
                    const float term = scaled * g.B[k * g.N + j];
                    g.C[i * g.N + j] = term + g.C[i * g.N + j];
                }
            }
        }
        return;
    }
    for (int32_t idx = 0; idx < count; ++idx) {
        const uint32_t i = static_cast<uint32_t>(idx) / g.N;
        const uint32_t j = static_cast<uint32_t>(idx) % g.N;
        float sum = 0.0f;
        for (uint32_t k = 0; k < g.K; ++k) {
            const float a = g.transA != 0 ? g.A[k * g.M + i] : g.A[i * g.K + k];
            const float b = g.transB != 0 ? g.B[j * g.K + k] : g.B[k * g.N + j];
            const float scaled = a * g.alpha;
            sum += scaled * b;
        }
        g.C[idx] = sum + g.C[idx];
    }
}

inline void RefProduct(float* a, float* b, float* c, uint32_t M, uint32_t N, uint32_t K, float alpha, float beta)
{
    RefGemm({0, 0, M, N, K, alpha, a, b, beta, c});
}

inline void RefQGemm(float* a, float* b, float* c, int32_t M, int32_t N, int32_t K, float aScale, float aZero,
                     float bScale, float bZero, float cScale, float cZero)
{
    const float alpha = aScale * bScale;
    const float beta = bZero * aZero * 4.0f;
    RefProduct(a, b, c, static_cast<uint32_t>(M), static_cast<uint32_t>(N), static_cast<uint32_t>(K), alpha, beta);
    const float columnFactor = bScale * aZero;
    const float rowFactor = aScale * bZero;
    for (int32_t i = 0; i < M; ++i) {
        for (int32_t j = 0; j < N; ++j) {
            float rowSum = 0.0f;
            float colSum = 0.0f;
            for (int32_t k = 0; k < K; ++k) {
                rowSum += a[i * K + k];
                colSum += b[k * N + j];
            }
            const float fromColumns = colSum * columnFactor;
            const float fromRows = rowSum * rowFactor;
            const float t = fromColumns + fromRows;
            const float shifted = c[i * N + j] - t;
            const float scaled = shifted * cScale;
            c[i * N + j] = scaled - cZero;
        }
    }
}

// Output positions along one axis.
inline int32_t RefPositions(uint32_t size, uint32_t padA, uint32_t padB, uint32_t kernel, uint32_t dilation,
                            uint32_t stride)
{
    return static_cast<int32_t>(size + padA + padB - ((kernel - 1) * dilation + 1)) / static_cast<int32_t>(stride) + 1;
}

inline uint32_t RefIm2col(const Im2colArgs& g)
{
    if (g.src == nullptr || g.dst == nullptr) {
        RefReport("Im2col", "null point error!\n\n");
        return kAllOnes;
    }
    if (g.strideH == 0 || g.strideW == 0) {
        RefReport("Im2col", "Im2Col Error: the divisor is 0!\n\n");
        return kAllOnes;
    }
    const uint32_t outH =
        static_cast<uint32_t>(RefPositions(g.height, g.padTop, g.padBottom, g.kernelH, g.dilationH, g.strideH));
    const uint32_t outW =
        static_cast<uint32_t>(RefPositions(g.width, g.padLeft, g.padRight, g.kernelW, g.dilationW, g.strideW));
    if (g.channels == 0 || static_cast<int32_t>(g.kernelH) < 1) {
        return 0;
    }
    uint32_t at = 0;
    for (uint32_t c = 0; c < g.channels; ++c) {
        for (uint32_t kh = 0; kh < g.kernelH; ++kh) {
            for (uint32_t kw = 0; kw < g.kernelW; ++kw) {
                for (uint32_t oh = 0; oh < outH; ++oh) {
                    for (uint32_t ow = 0; ow < outW; ++ow) {
                        const uint32_t h = kh * g.dilationH + oh * g.strideH - g.padTop;
                        const uint32_t w = kw * g.dilationW + ow * g.strideW - g.padLeft;
                        const float padding = static_cast<float>(g.padValue);
                        const bool inside = h < g.height && w < g.width;
                        RefMove(g.dst + at, inside ? g.src + c * g.height * g.width + h * g.width + w : &padding);
                        at += 1;
                    }
                }
            }
        }
    }
    return 0;
}

// The product of the first `last` dimensions, 1 when `last` is not above 0.
inline int32_t RefLeadingProduct(const RefTensor& tensor, int32_t last)
{
    uint32_t product = 1;
    for (int32_t d = 0; d < last; ++d) {
        product *= tensor.shape[d];
    }
    return static_cast<int32_t>(product);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_MATRIX_CORE_H
