#include "common/float_compare.h"

#include "opkit/helpers.h"

using namespace opkit;

static_assert(static_cast<double>(kZeroTolerance) <= 1e-6, "the tolerance rounds down to f32");

int32_t IsEqualToZero(float x)
{
    return NearZero(x) ? 1 : 0;
}

int32_t IsEqualFloat(float a, float b)
{
    return NearlyEqual(a, b) ? 1 : 0;
}

int32_t IsFloatEqZero(float x)
{
    constexpr float kSmallestNormal = 1.17549435e-38f;
    return __builtin_fabsf(x) < kSmallestNormal ? 1 : 0;
}
