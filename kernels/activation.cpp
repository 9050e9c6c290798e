// Activation element loops; see kernels/level.h for the levels.

#include "kernels/activation.h"

#include "common/float_compare.h"
#include "kernels/choose.h"
#include "kernels/contract.h"
#include "kernels/map.h"
#include "kernels/round_elements.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// NaN passes both limits.
void HardSigmoid(const float* in, float* out, size_t count, float alpha, float beta)
{
    assert(MayMap(in, out, count));
    for (size_t i = 0; i < count; ++i) {
        const float line = in[i] * alpha + beta;
        out[i] = Choose(line > 1.0f, 1.0f, Choose(line < 0.0f, 0.0f, line));
    }
}

// The lower side is tested first: with a negative lambd both tests may hold.
void Shrink(const float* in, float* out, size_t count, float bias, float lambd)
{
    assert(MayMap(in, out, count));
    for (size_t i = 0; i < count; ++i) {
        const float x = in[i];
        out[i] = Choose(x < -lambd, x + bias, Choose(x > lambd, x - bias, 0.0f));
    }
}

void Threshold(const float* in, float* out, size_t count, float alpha)
{
    assert(MayMap(in, out, count));
    for (size_t i = 0; i < count; ++i) {
        out[i] = Choose(in[i] > alpha, in[i], 0.0f);
    }
}

float SquareRoot(float x)
{
    return __builtin_sqrtf(x);
}

float LogicalNot(float x)
{
    return Choose(NearZero(x), 1.0f, 0.0f);
}

}  // namespace

extern const ActivationKernels kActivationKernels = {
    HardSigmoid,     Shrink,          Threshold, {Map<CeilElement>, Map<FloorElement>, Map<RoundHalfEvenElement>},
    Map<SquareRoot>, Map<LogicalNot>,
};

}  // namespace opkit::OPKIT_LEVEL
