// The one matrix product of the library.
//
// The order of additions is contract, and the two walks differ on purpose: the untransposed one adds term by term onto
// the scaled C, the transposed one sums the products apart and adds C once at the end. Both multiply alpha into A
// first.

#include <cstring>

#include "kernels/gemm.h"
#include "opkit/helpers.h"

using namespace opkit;

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

}  // namespace

void Gemm(GemmArgs args)
{
    const int32_t count = static_cast<int32_t>(args.M * args.N);
    if (count > 0) {
        ScaleResult(args, count);
    }
    const MatrixView a = args.transA ? MatrixView{args.A, 1, args.M} : MatrixView{args.A, args.K, 1};
    const MatrixView b = args.transB ? MatrixView{args.B, 1, args.K} : MatrixView{args.B, args.N, 1};
    // Onto a cleared C both walks give the same, since a sum that starts from 0.0 is never -0.0.
    const bool cleared = count > 0 && args.beta == 0.0f;
    if ((!args.transA && !args.transB) || cleared) {
        Kernels<GemmKernels>().accumulate(args.M, args.N, args.K, args.alpha, a, b, args.C);
    } else if (count != 0) {
        Kernels<GemmKernels>().addSums(args.M, args.N, args.K, args.alpha, a, b, args.C);
    }
}
