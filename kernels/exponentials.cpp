// Formulas over exp and log on vectors of doubles. How each stays exact stands with it; kernels/wide.h has the method.

#include "kernels/exponentials.h"

#include <float.h>

#include "kernels/exponential_elements.h"
#include "kernels/folds.h"
#include "kernels/wide.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// 1 / (exp(-x) + 1). Results below the normal floats, other than 0, are left to the formula. No float gives a value so
// near to the ends of that range, 2^-126 and 2^-150, that its error would take it across.
void Sigmoid(const float* in, float* out, size_t count)
{
    MapCertain(
        in, out, count,
        [](Narrow x) {
            Result result = RoundCertain(Reciprocal(Exp<-1>(Widen(Clamp(x, 110.0f))) + 1.0));
            result.doubtful |= NanOrSubnormal(result.value);
            return result;
        },
        SigmoidElement);
}

// log(exp(x) + 1). The definition rounds the sum to f64, and far below 0 that rounding shows: e^-36 is 2.32e-16, the
// sum 1 + 2^-52, and its logarithm 2.22e-16. So both ends of the exponential are added to 1, and the definition's
// rounded sum lies between the results, `sum` and sum + spread.
void Softplus(const float* in, float* out, size_t count)
{
    MapCertain(
        in, out, count,
        [](Narrow x) {
            const Wide exponential = Exp(Widen(Clamp(x, 120.0f)));
            const Wide margin = exponential * kWideError;
            const Wide sum = (exponential - margin) + 1.0;
            const Wide spread = ((exponential + margin) + 1.0) - sum;
            const Wide log = Log(sum);
            const Wide logMargin = log * (2 * kWideError);
            // From sum to sum + spread the logarithm grows by less than spread / sum. As sum is at least 1, that is no
            // more than spread; as spread is two margins, each at most sum * kWideError, and a rounding, it is no more
            // than the limit either.
            const Wide limit = Splat(4 * kWideError);
            const Wide growth = spread < limit ? spread : limit;
            Result result = RoundBetween(log - logMargin, log + (logMargin + growth));
            result.doubtful |= NotAtMost(x, 120.0f);
            return result;
        },
        SoftplusElement);
}

// The ends between which a value lies that is known up to a relative error.
struct Ends {
    Wide low;
    Wide high;

    Ends(Wide value, Wide error) : low(MultiplyAdd(value, -error, value)), high(MultiplyAdd(value, error, value)) {}
};

// Ends of e^x. They hold up to `kLimit`; below -kLimit they are those of -kLimit, 2^-173.
struct ExpEnds : Ends {
    static constexpr float kLimit = 120.0f;

    explicit ExpEnds(Narrow x) : ExpEnds(Widen(Clamp(x, kLimit))) {}
    explicit ExpEnds(Wide clamped) : Ends(Exp(clamped), Splat(kWideError)) {}
};

// x + 0 from 0 on; below, (e^(x / alpha) - 1) * alpha where that is negative, else 0. Both ends of the exponential go
// through these steps. Each is monotonic, so the formula's own value lies between the results.
//
// An exponent below -kLimit may stand for -kLimit: e^-120 - 1 is -1 in f64, as for every exponential below 2^-54.
// Next to 0 subtracting 1 cancels, and an error of kWideError would be most of what is left. There the error of Exp is
// smaller, too: it takes 1 from its table and so errs by what its series leaves out, less than the exponent's sixth
// power, and by its last roundings. At an exponent of -0.001 the bound is 0.001 * 2^-36 + 2^-51.
void Celu(const float* in, float* out, size_t count, float alpha)
{
    MapCertain(
        in, out, count,
        [alpha](Narrow x) {
            const Narrow quotient = x / alpha;
            const Wide exponent = Widen(Clamp(quotient, ExpEnds::kLimit));
            const Wide shrinking = (Wide)((WideBits)exponent & INT64_MAX) * (16 * kWideError);
            const Wide error = (shrinking < kWideError ? shrinking : Splat(kWideError)) + 0x1p-51;
            const Ends ends(Exp(exponent), error);
            const Result term = RoundBetween((ends.low - 1.0) * static_cast<double>(alpha),
                                             (ends.high - 1.0) * static_cast<double>(alpha));
            const Narrow below = term.value < 0.0f ? term.value : Narrow{};
            Flags doubtful = term.doubtful | NotAtMost(quotient, ExpEnds::kLimit);
            doubtful &= NotAtLeast(x, 0.0f);
            return Result{x >= 0.0f ? x + 0.0f : below, doubtful};
        },
        [alpha](float x) { return CeluElement(x, alpha); });
}

// The lower side is monotonic in the exponential, too.
void Selu(const float* in, float* out, size_t count, float alpha, float gamma)
{
    MapCertain(
        in, out, count,
        [alpha, gamma](Narrow x) {
            const Narrow difference = x - alpha;
            const ExpEnds ends(difference);
            const Result below = RoundBetween(ends.low * static_cast<double>(alpha) * static_cast<double>(gamma),
                                              ends.high * static_cast<double>(alpha) * static_cast<double>(gamma));
            Flags doubtful = below.doubtful | NotAtLeast(difference, -ExpEnds::kLimit);
            doubtful |= NotAtMost(difference, ExpEnds::kLimit);
            doubtful &= ~NotAtMost(x, 0.0f);
            return Result{x <= 0.0f ? below.value : x * gamma, doubtful};
        },
        [alpha, gamma](float x) { return SeluElement(x, alpha, gamma); });
}

// (e^a - e^-a) / 2 for a = |x| from 1 on, where the difference costs less than one bit; below, the series, cut below
// 2^-48. What is below the normal floats comes out as it went in, and exactly so. From kLimit on all are infinite.
void Sinh(const float* in, float* out, size_t count)
{
    MapCertain(
        in, out, count,
        [](Narrow x) {
            const Wide a = Widen(Clamp(x, ExpEnds::kLimit));
            const WideBits sign = (WideBits)a & INT64_MIN;
            const Wide magnitude = (Wide)((WideBits)a ^ sign);
            const Wide exponential = Exp(magnitude);
            const Wide difference = 0.5 * exponential - 0.5 * Reciprocal(exponential);
            const Wide square = magnitude * magnitude;
            constexpr double kSeries[] = {1.0 / 6,        1.0 / 120,        1.0 / 5040,         1.0 / 362880,
                                          1.0 / 39916800, 1.0 / 6227020800, 1.0 / 1307674368000};
            const Wide series = MultiplyAdd(magnitude * square, Polynomial(kSeries, square), magnitude);
            const Wide value = magnitude < 1.0 ? series : difference;
            Result result = RoundCertain((Wide)((WideBits)value | sign));
            result.doubtful |= Differ(x, x);
            return result;
        },
        SinhElement);
}

// ln(x + sqrt(x^2 - 1)). The square of a float is exact; what the other steps round moves the argument of the logarithm
// by less than 2^-51 of it, and the logarithm by as much.
void Acosh(const float* in, float* out, size_t count)
{
    MapCertain(
        in, out, count,
        [](Narrow x) {
            const Wide wide = Widen(x);
            const Wide log = Log(wide + SquareRoot(wide * wide - 1.0));
            const Wide margin = log * (2 * kWideError) + 0x1p-50;
            Result result = RoundBetween(log - margin, log + margin);
            result.doubtful |= NotAtLeast(x, 0x1.000002p+0f) | NotAtMost(x, FLT_MAX);
            return result;
        },
        AcoshElement);
}

// Adds e^x to an accumulator, rounded as the definition has it: the sum is monotonic in the exponential. What lies
// below -kLimit adds less than half of the smallest float, and so nothing, like the ends that stand for it.
struct AddExp {
    static Vec Step(Vec acc, Vec x)
    {
        const Vec clamped = Clamp(x, ExpEnds::kLimit);
        const ExpEnds first(WidenLow(clamped));
        const ExpEnds second(WidenHigh(clamped));
        const Wide low = WidenLow(acc);
        const Wide high = WidenHigh(acc);
        Vec sum = RoundToF32(first.low + low, second.low + high);
        const Vec above = RoundToF32(first.high + low, second.high + high);
        const uint32_t doubtful = LaneBits(sum != above) | LaneBitsNotAtMost(x, Vec{} + ExpEnds::kLimit);
        if (__builtin_expect(doubtful != 0, 0)) {
            for (size_t lane = 0; lane < kLanes; ++lane) {
                sum[lane] = ((doubtful >> lane) & 1) != 0 ? AddExpElement(acc[lane], x[lane]) : sum[lane];
            }
        }
        return sum;
    }
};

struct AddExpExactly {
    static float Step(float acc, float x) { return AddExpElement(acc, x); }
};

// One accumulator: exponentials side by side, then sums one by one.
void SumRow(float* acc, const float* x, size_t length)
{
    constexpr size_t kBlock = 8 * kWide;
    float sum = *acc;
    size_t j = 0;
    for (; j + kBlock <= length; j += kBlock) {
        alignas(64) double low[kBlock];
        alignas(64) double high[kBlock];
        Flags outside = {};
        for (size_t i = 0; i < kBlock; i += kWide) {
            const Narrow terms = LoadNarrow(x + j + i);
            const ExpEnds ends(terms);
            *reinterpret_cast<Wide*>(low + i) = ends.low;
            *reinterpret_cast<Wide*>(high + i) = ends.high;
            outside |= NotAtMost(terms, ExpEnds::kLimit);
        }
        const bool certain = !AnyOf(outside);
        for (size_t i = 0; i < kBlock; ++i) {
            const float below = RoundToF32(low[i] + static_cast<double>(sum));
            const float above = RoundToF32(high[i] + static_cast<double>(sum));
            sum = __builtin_expect(certain && below == above, 1) ? below : AddExpElement(sum, x[j + i]);
        }
    }
    *acc = sum;
    FoldRow<AddExpExactly>(acc, x + j, length - j);
}

void SumRowsExactly(float* acc, const float* x, size_t count, size_t rowStride, size_t length)
{
    assert(MayFoldRows(acc, x, count, rowStride, length));
    for (size_t r = 0; r < count; ++r) {
        FoldRow<AddExpExactly>(acc + r, x + r * rowStride, length);
    }
}

constexpr FoldKernels kSum = kWideRepays ? FoldKernels{VectorColumns<AddExp>, Rows<AddExp, SumRow>}
                                         : FoldKernels{Columns<AddExpExactly>, SumRowsExactly};

}  // namespace

extern const ExponentialKernels kExponentialKernels = {Sigmoid, Softplus, Celu, Selu, Sinh, Acosh, kSum};

}  // namespace opkit::OPKIT_LEVEL
