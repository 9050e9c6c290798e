// Float emulation of a quantised matrix product: no integers, no rounding, no saturation. The correction subtracts the
// zero points' share by row and column sums, and the stale result stays in, scaled by 4 * bZero * aZero.

#include "opkit/helpers.h"

namespace {

constexpr int32_t kColumnBlock = 256;

// Column sums of a block of columns, each in its own ascending order.
void SumColumns(const float* b, int32_t K, int32_t N, int32_t columns, float* sums)
{
    for (int32_t j = 0; j < columns; ++j) {
        sums[j] = 0.0f;
    }
    for (int32_t k = 0; k < K; ++k) {
        const float* row = b + static_cast<int64_t>(k) * N;
        for (int32_t j = 0; j < columns; ++j) {
            sums[j] += row[j];
        }
    }
}

float SumRow(const float* a, int32_t K)
{
    float sum = 0.0f;
    for (int32_t k = 0; k < K; ++k) {
        sum += a[k];
    }
    return sum;
}

}  // namespace

int32_t QGemmWithoutEigen(float* A, float* B, float* C, int32_t M, int32_t N, int32_t K, float aScale, float aZero,
                          float bScale, float bZero, float cScale, float cZero)
{
    const float alpha = aScale * bScale;
    const float beta = (bZero * aZero) * 4.0f;
    GemmArgs args = {};
    args.M = static_cast<uint32_t>(M);
    args.N = static_cast<uint32_t>(N);
    args.K = static_cast<uint32_t>(K);
    args.alpha = alpha;
    args.A = A;
    args.B = B;
    args.beta = beta;
    args.C = C;
    Gemm(args);

    const float columnFactor = bScale * aZero;
    const float rowFactor = aScale * bZero;
    for (int32_t j0 = 0; j0 < N; j0 += kColumnBlock) {
        const int32_t columns = N - j0 < kColumnBlock ? N - j0 : kColumnBlock;
        float columnSums[kColumnBlock];
        SumColumns(B + j0, K, N, columns, columnSums);
        for (int32_t i = 0; i < M; ++i) {
            const float rowSum = SumRow(A + static_cast<int64_t>(i) * K, K);
            float* c = C + static_cast<int64_t>(i) * N + j0;
            for (int32_t j = 0; j < columns; ++j) {
                const float correction = columnSums[j] * columnFactor + rowSum * rowFactor;
                c[j] = (c[j] - correction) * cScale - cZero;
            }
        }
    }
    return 0;
}

int32_t QGemm(QGemmArgs args)
{
    return QGemmWithoutEigen(args.a.data, args.b.data, args.c.data, static_cast<int32_t>(args.M),
                             static_cast<int32_t>(args.N), static_cast<int32_t>(args.K), args.a.scale,
                             args.a.zeroPoint, args.b.scale, args.b.zeroPoint, args.c.scale, args.c.zeroPoint);
}
