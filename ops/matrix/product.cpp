// The one matrix product of the library: Gemm, stacks of it, and what runs them.
//
// The order of additions is contract, and the two loops behind Gemm differ on purpose: the untransposed one adds term
// by term onto the scaled C, the transposed one sums the products apart and adds C once at the end.

#include <string.h>
#include <xmmintrin.h>

#include "common/overlap.h"
#include "kernels/significant_bits.h"
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

// Below this, examining the operands and laying out words costs more than integers gain.
bool IsLargeEnough(const ProductPlan& plan)
{
    constexpr uint32_t kFewestRows = 6;
    constexpr uint32_t kFewestColumns = 16;
    constexpr uint32_t kFewestTerms = 8;
    constexpr uint64_t kLeastWork = 1 << 16;
    const uint64_t elements = uint64_t{plan.M} * plan.N;
    return plan.M >= kFewestRows && plan.N >= kFewestColumns && plan.K >= kFewestTerms && elements <= INT32_MAX &&
           elements * plan.K >= kLeastWork;
}

// An operand that C covers changes while C is written, in an order that is the f32 kernels' own.
bool IsCApart(const ProductPlan& plan)
{
    const size_t count = ElementsOf(plan);
    return !RangesOverlap(plan.a.data, size_t{plan.M} * plan.K, plan.c, count) &&
           (plan.source != nullptr || !RangesOverlap(plan.b.data, size_t{plan.K} * plan.N, plan.c, count));
}

int SignificantBits(const BitRange& range)
{
    constexpr uint32_t kFirstBit = 1 << 23;
    return 24 - __builtin_ctz(range.mantissa | kFirstBit);
}

int ExponentOf(uint32_t bits)
{
    return static_cast<int>(bits >> 23) - 127;
}

// Whether each product of a value of one and a value of the other is a float: it has at most as many bits as both
// together, the lowest of them not below the smallest float, the highest not above the largest.
bool ProductsAreExact(const BitRange& a, const BitRange& b)
{
    constexpr uint32_t kInfinity = 0x7f800000;
    constexpr uint32_t kSmallestNormal = 0x00800000;
    if (a.largest >= kInfinity || b.largest >= kInfinity) {
        return false;
    }
    if (a.largest == 0 || b.largest == 0) {
        return true;
    }
    if (a.smallest < kSmallestNormal || b.smallest < kSmallestNormal) {
        return false;
    }
    const int bits = SignificantBits(a) + SignificantBits(b);
    return bits <= 24 && ExponentOf(a.smallest) + ExponentOf(b.smallest) - (bits - 2) >= -149 &&
           ExponentOf(a.largest) + ExponentOf(b.largest) + 1 <= 127;
}

bool MayFuse(const ProductPlan& plan)
{
    if (plan.source != nullptr || plan.alpha != 1.0f || FusedKernelsInUse() == nullptr || !IsLargeEnough(plan) ||
        !HasDefaultRounding() || !IsCApart(plan)) {
        return false;
    }
    const auto examine = Kernels<SignificantBitsKernels>().examine;
    constexpr uint32_t kTooManyBits = 3;  // 23 or 24, where even one more on the other side is the whole of it
    const BitRange b = examine(plan.b.data, size_t{plan.K} * plan.N);
    return (b.mantissa & kTooManyBits) == 0 && ProductsAreExact(examine(plan.a.data, size_t{plan.M} * plan.K), b);
}

Ways RunFloats(const ProductPlan& plan)
{
    const bool fused = MayFuse(plan);
    const GemmKernels& kernels = fused ? *FusedKernelsInUse() : Kernels<GemmKernels>();  // NOLINT: rows of a source
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
    return fused ? kWayFused : kWayApart;
}

bool MayBeWhole(const ProductPlan& plan)
{
    return IsLargeEnough(plan) && plan.alpha == 1.0f && plan.start != Start::kApart && WholeKernelsInUse() != nullptr &&
           (plan.source == nullptr || plan.sourceRange.whole) && HasDefaultRounding() && IsCApart(plan);
}

// A source from its row k0 on.
struct LaterRows {
    const PanelSource* source;
    size_t k0;
};

void FillLaterRows(const void* context, size_t k0, size_t depth, size_t j0, size_t columns, float* to, size_t step)
{
    const LaterRows& rows = *static_cast<const LaterRows*>(context);
    rows.source->fill(rows.source->context, rows.k0 + k0, depth, j0, columns, to, step);
}

Ways RunWhole(const ProductPlan& plan, WordForm form);

// What integers have left over of a product: rows from `row` on, terms k0 to k1 - 1. Those of a C that has taken terms
// before go onto it.
Ways RunRest(const ProductPlan& plan, bool inShorts, size_t row, size_t k0, size_t k1)
{
    const LaterRows later = {plan.source, k0};
    const PanelSource source = {FillLaterRows, &later};
    ProductPlan rest = plan;
    rest.M = plan.M - static_cast<uint32_t>(row);
    rest.K = static_cast<uint32_t>(k1 - k0);
    rest.a.data = plan.a.data + row * plan.a.rowStep + k0 * plan.a.columnStep;
    if (plan.source != nullptr) {
        rest.source = &source;
    } else {
        rest.b.data = plan.b.data + k0 * plan.b.rowStep;
    }
    rest.start = k0 == 0 ? plan.start : Start::kFromC;
    rest.c = plan.c + row * plan.N;
    return inShorts ? RunWhole(rest, WordForm::kShorts) : RunFloats(rest);
}

Ways RunWhole(const ProductPlan& plan, WordForm form)
{
    const WholeProgress done = WholeKernelsInUse()->multiply({form, plan.M, plan.N, plan.K, plan.a, plan.b, plan.source,
                                                              plan.sourceRange, plan.start == Start::kCleared, plan.c});
    const bool inShorts = done.wide && form == WordForm::kBytes;
    Ways ways = done.rows == 0 && done.from == 0 ? 0 : form == WordForm::kBytes ? kWayBytes : kWayShorts;
    if (done.from < done.to) {
        ways |= RunRest(plan, inShorts, done.rows, done.from, done.to);
    }
    if (done.to < plan.K) {
        ways |= RunRest(plan, inShorts, 0, done.to, plan.K);
    }
    return ways;
}

}  // namespace

Ways RunProduct(const ProductPlan& plan)
{
    if (AddsZerosOnly(plan)) {
        ClearC(plan);
        return kWayZeros;
    }
    if (MayBeWhole(plan)) {
        return RunWhole(plan, WholeKernelsInUse()->hasBytes ? WordForm::kBytes : WordForm::kShorts);
    }
    return RunFloats(plan);
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
