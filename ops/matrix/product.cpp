// The one matrix product of the library: Gemm, stacks of it, and what runs them.
//
// The order of additions is contract, and the two loops behind Gemm differ on purpose: the untransposed one adds term
// by term onto the scaled C, the transposed one sums the products apart and adds C once at the end.

#include <string.h>
#include <xmmintrin.h>

#include "ops/matrix/product_plan.h"

namespace opkit {
namespace {

// As Gemm counts the elements of C.
int32_t CountOf(uint32_t M, uint32_t N)
{
    return static_cast<int32_t>(M * N);
}

Start StartOf(const GemmArgs& args)
{
    if (args.beta == 0.0f && CountOf(args.M, args.N) > 0) {
        return Start::kCleared;
    }
    return args.transA != 0 || args.transB != 0 ? Start::kApart : Start::kFromC;
}

ProductPlan PlanOf(const GemmArgs& args)
{
    const MatrixView a = args.transA != 0 ? MatrixView{args.A, 1, args.M} : MatrixView{args.A, args.K, 1};
    const MatrixView b = args.transB != 0 ? MatrixView{args.B, 1, args.K} : MatrixView{args.B, args.N, 1};
    return {args.M, args.N, args.K, args.alpha, a, b, nullptr, StartOf(args), args.C};
}

bool IsOneTallProduct(const GemmArgs& first, int32_t aCount, int32_t bCount, int32_t count)
{
    return count > 1 && aCount == count && bCount == 1 && first.transA == 0 &&
           uint64_t{first.M} * static_cast<uint32_t>(count) <= INT32_MAX / (uint64_t{first.N} + 1);
}

// Rounding to nearest, subnormal numbers as they are: what every program starts with. Elsewhere, only the plain loops.
bool HasDefaultRounding()
{
    constexpr uint32_t kRoundingAndFlushes = 0x6000 | 0x8000 | 0x0040;
    return (_mm_getcsr() & kRoundingAndFlushes) == 0;
}

size_t ElementsOf(const ProductPlan& plan)
{
    return static_cast<size_t>(CountOf(plan.M, plan.N));
}

// With few rows or columns a look at both operands costs as much as the product.
bool AddsZerosOnly(const ProductPlan& plan)
{
    constexpr uint32_t kWorthALook = 4;
    if (plan.alpha != 0.0f || plan.start != Start::kCleared || plan.M < kWorthALook || plan.N < kWorthALook ||
        !HasDefaultRounding()) {
        return false;
    }
    return plan.source != nullptr ||
           (AreSmall(plan.a.data, size_t{plan.M} * plan.K) && AreSmall(plan.b.data, size_t{plan.K} * plan.N));
}

void ClearC(const ProductPlan& plan)
{
    if (CountOf(plan.M, plan.N) > 0) {
        memset(plan.c, 0, ElementsOf(plan) * sizeof(float));
    }
}

Ways RunApart(const ProductPlan& plan)
{
    const GemmKernels& kernels = Kernels<GemmKernels>();
    if (plan.start == Start::kCleared) {
        ClearC(plan);
    }
    if (plan.source != nullptr) {
        kernels.accumulateFrom(plan.M, plan.N, plan.K, plan.alpha, plan.a, *plan.source, plan.c);
    } else if (plan.start != Start::kApart) {
        kernels.accumulate(plan.M, plan.N, plan.K, plan.alpha, plan.a, plan.b, plan.c);
    } else if (CountOf(plan.M, plan.N) != 0) {
        kernels.addSums(plan.M, plan.N, plan.K, plan.alpha, plan.a, plan.b, plan.c);
    }
    return kWayApart;
}

}  // namespace

Ways RunProduct(const ProductPlan& plan)
{
    if (AddsZerosOnly(plan)) {
        ClearC(plan);
        return kWayZeros;
    }
    return RunApart(plan);
}

void MultiplyStack(GemmArgs first, int32_t aCount, int32_t bCount, int32_t count)
{
    GemmArgs args = first;
    if (IsOneTallProduct(first, aCount, bCount, count)) {
        args.M *= static_cast<uint32_t>(count);
        count = 1;
    }
    for (int32_t i = 0; i < count; ++i) {
        args.A = first.A + size_t{static_cast<uint32_t>(i % aCount)} * first.M * first.K;
        args.B = first.B + size_t{static_cast<uint32_t>(i % bCount)} * first.K * first.N;
        args.C = first.C + size_t{static_cast<uint32_t>(i)} * first.M * first.N;
        Gemm(args);
    }
}

}  // namespace opkit

using namespace opkit;

void Gemm(GemmArgs args)
{
    // A factor of 1 changes nothing, and what it would make of a signalling NaN the first term does.
    const bool keepsC = args.beta == 1.0f && args.K != 0 && HasDefaultRounding();
    if (args.beta != 0.0f && !keepsC) {  // NaN included
        const int32_t count = CountOf(args.M, args.N);
        for (int32_t i = 0; i < count; ++i) {
            args.C[i] *= args.beta;
        }
    }
    RunProduct(PlanOf(args));
}
