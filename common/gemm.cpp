// The one matrix product of the library.
//
// The order of additions is contract, and the two walks differ on purpose: the untransposed one adds term by term onto
// the scaled C, the transposed one sums the products apart and adds C once at the end. Both multiply alpha into A first.

#include <cstring>

#include "opkit/helpers.h"

namespace {

void ScaleResult(const GemmArgs& args, int32_t count)
{
    if (args.beta == 0.0f) {
        std::memset(args.C, 0, static_cast<size_t>(count) * sizeof(float));  // whatever C held, NaN included, is gone
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        args.C[i] *= args.beta;
    }
}

void AccumulateRows(const GemmArgs& args)
{
    for (size_t i = 0; i < args.M; ++i) {
        for (size_t k = 0; k < args.K; ++k) {
            const float a = args.A[i * args.K + k] * args.alpha;
            const float* b = args.B + k * args.N;
            float* c = args.C + i * args.N;
            for (size_t j = 0; j < args.N; ++j) {
                c[j] = a * b[j] + c[j];
            }
        }
    }
}

void AddTransposedSums(const GemmArgs& args)
{
    const size_t aRow = args.transA ? 1 : args.K;
    const size_t aStep = args.transA ? args.M : 1;
    const size_t bColumn = args.transB ? args.K : 1;
    const size_t bStep = args.transB ? 1 : args.N;
    for (size_t i = 0; i < args.M; ++i) {
        for (size_t j = 0; j < args.N; ++j) {
            const float* a = args.A + i * aRow;
            const float* b = args.B + j * bColumn;
            float sum = 0.0f;
            for (size_t k = 0; k < args.K; ++k) {
                sum += (a[k * aStep] * args.alpha) * b[k * bStep];
            }
            args.C[i * args.N + j] = sum + args.C[i * args.N + j];
        }
    }
}

}  // namespace

void Gemm(GemmArgs args)
{
    const int32_t count = static_cast<int32_t>(args.M * args.N);
    if (count > 0) {
        ScaleResult(args, count);
    }
    if (!args.transA && !args.transB) {
        if (args.M != 0 && args.K != 0) {
            AccumulateRows(args);
        }
    } else if (count != 0) {
        AddTransposedSums(args);
    }
}
