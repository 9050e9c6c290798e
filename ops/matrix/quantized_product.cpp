// Float emulation of a quantised matrix product: no integers, no rounding, no saturation. The correction subtracts the
// zero points' share by row and column sums, and the stale result stays in, scaled by 4 * bZero * aZero.

#include "common/smaller.h"
#include "kernels/image_columns.h"
#include "kernels/quantized.h"
#include "kernels/reduction.h"
#include "ops/matrix/product_plan.h"

namespace opkit {
namespace {

constexpr uint32_t kMostTerms = 1 << 24;
constexpr float kSmall = 1e30f;  // as many of these have a finite sum
constexpr size_t kRowBlock = 256;
constexpr size_t kColumnBlock = 1024;

struct Correction {
    float columnFactor;
    float rowFactor;
    float scale;
    float zero;
};

// Rows [0, rows) of C, at most kRowBlock. Column sums are taken again for each such block, row sums once.
void CorrectRows(const float* a, const float* b, float* c, size_t rows, size_t N, size_t K,
                 const Correction& correction)
{
    const QuantizedKernels& kernels = Kernels<QuantizedKernels>();
    const FoldKernels& sum = Kernels<ReductionKernels>().sum;
    float rowTerms[kRowBlock] = {};
    sum.rows(rowTerms, a, rows, K, K);
    for (size_t i = 0; i < rows; ++i) {
        rowTerms[i] *= correction.rowFactor;
    }
    for (size_t j = 0; j < N; j += kColumnBlock) {
        const size_t columns = Smaller(N - j, kColumnBlock);
        float columnTerms[kColumnBlock] = {};
        sum.columns(columnTerms, b + j, columns, K, N);
        for (size_t q = 0; q < columns; ++q) {
            columnTerms[q] *= correction.columnFactor;
        }
        for (size_t i = 0; i < rows; ++i) {
            kernels.correct(c + i * N + j, columns, columnTerms, rowTerms[i], correction.scale, correction.zero);
        }
    }
}

}  // namespace

bool CorrectionVanishes(const QGemmArgs& args)
{
    return (args.a.zeroPoint | args.b.zeroPoint | args.c.zeroPoint) == 0 && args.c.scale == 1 && args.K <= kMostTerms;
}

bool AreSmall(const float* values, size_t count)
{
    return Kernels<ImageColumnKernels>().areWithin(values, count, kSmall);
}

}  // namespace opkit

using namespace opkit;

int32_t QGemmWithoutEigen(float* A, float* B, float* C, int32_t M, int32_t N, int32_t K, float aScale, float aZero,
                          float bScale, float bZero, float cScale, float cZero)
{
    Gemm({0, 0, static_cast<uint32_t>(M), static_cast<uint32_t>(N), static_cast<uint32_t>(K), aScale * bScale, A, B,
          (bZero * aZero) * 4.0f, C});
    if (M < 1 || N < 1) {
        return 0;
    }
    const size_t rows = static_cast<size_t>(M);
    const size_t columns = static_cast<size_t>(N);
    const size_t depth = K > 0 ? static_cast<size_t>(K) : 0;
    const Correction correction = {bScale * aZero, aScale * bZero, cScale, cZero};
    for (size_t i = 0; i < rows; i += kRowBlock) {
        CorrectRows(A + i * depth, B, C + i * columns, Smaller(rows - i, kRowBlock), columns, depth, correction);
    }
    return 0;
}

int32_t QGemm(QGemmArgs args)
{
    return QGemmWithoutEigen(args.a.data, args.b.data, args.c.data, static_cast<int32_t>(args.M),
                             static_cast<int32_t>(args.N), static_cast<int32_t>(args.K), args.a.scale, args.a.zeroPoint,
                             args.b.scale, args.b.zeroPoint, args.c.scale, args.c.zeroPoint);
}
