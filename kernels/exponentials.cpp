// Sigmoid and Softplus over vectors of doubles.

#include "kernels/exponentials.h"

#include "kernels/wide.h"
#include "opkit/helpers/frame.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// 1 / (exp(-x) + 1). Results below the normal floats are left to the formula until they are 0 for certain.
void Sigmoid(const float* in, float* out, size_t count)
{
    MapCertain(
        in, out, count,
        [](Narrow x) {
            Result result = RoundCertain(Reciprocal(Exp(Widen(Clamp(-x, 110.0f))) + 1.0));
            result.doubtful |= Lanes(((x < -87.0f) & (x > -105.0f)) | (x != x));
            return result;
        },
        SigmoidCalcFunc);
}

// log(exp(x) + 1). The sum rounds, so both ends of exp go through it; next to 0 that rounding is most of the result.
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
            Result result = RoundBetween(log - logMargin, log + (logMargin + 2.0 * spread * Reciprocal(sum)));
            result.doubtful |= Lanes((x > 120.0f) | (x != x));
            return result;
        },
        SoftplusCalcFunc);
}

}  // namespace

extern const ExponentialKernels exponentialKernels = {Sigmoid, Softplus};

}  // namespace opkit::OPKIT_LEVEL
