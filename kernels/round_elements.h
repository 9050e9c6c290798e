// Rounding one float to a whole number, without a conversion to integer, so that any level runs it in lanes.
//
// From 2^23 on every float is whole; such values and NaN come back as they are.
#ifndef OPKIT_KERNELS_ROUND_ELEMENTS_H
#define OPKIT_KERNELS_ROUND_ELEMENTS_H

#include <stdint.h>

#include "common/float_compare.h"
#include "kernels/choose.h"

namespace opkit {
namespace {

inline constexpr float kAllWhole = 8388608.0f;

inline float WithSignOf(float magnitude, float x)
{
    const uint32_t sign = __builtin_bit_cast(uint32_t, x) & 0x80000000u;
    return __builtin_bit_cast(float, __builtin_bit_cast(uint32_t, magnitude) | sign);
}

// Toward zero, of a magnitude below 2^23: adding 2^23 drops the fraction, at times upward.
inline float TruncateMagnitude(float magnitude)
{
    const float nearest = (magnitude + kAllWhole) - kAllWhole;
    return nearest - Choose(nearest > magnitude, 1.0f, 0.0f);
}

inline bool HasFraction(float x)
{
    return __builtin_fabsf(x) < kAllWhole;
}

inline float CeilElement(float x)
{
    const float truncated = WithSignOf(TruncateMagnitude(__builtin_fabsf(x)), x);
    const float rounded = truncated + Choose(x > truncated, 1.0f, 0.0f);
    return Choose(HasFraction(x), WithSignOf(rounded, x), x);
}

inline float FloorElement(float x)
{
    const float truncated = WithSignOf(TruncateMagnitude(__builtin_fabsf(x)), x);
    const float rounded = truncated - Choose(truncated > x, 1.0f, 0.0f);
    return Choose(HasFraction(x), WithSignOf(rounded, x), x);
}

// Whether the distance from the floor is 0.5 within the tolerance.
inline bool IsHalf(float x)
{
    return NearZero((x - FloorElement(x)) - 0.5f);
}

// Nearest, halves away from zero, as roundf.
inline float RoundHalfAwayElement(float x)
{
    const float magnitude = __builtin_fabsf(x);
    const float truncated = TruncateMagnitude(magnitude);
    const float rounded = truncated + Choose(magnitude - truncated >= 0.5f, 1.0f, 0.0f);
    return Choose(HasFraction(x), WithSignOf(rounded, x), x);
}

// Nearest; what counts as a half loses exactly 0.5 and its fraction, and then goes up to even. So a value just below a
// half may end one lower than its neighbours. A result of zero is positive.
inline float RoundHalfEvenElement(float x)
{
    const float lower = x - 0.5f;
    const float whole = WithSignOf(TruncateMagnitude(__builtin_fabsf(lower)), lower);
    const float even = CeilElement(whole * 0.5f) * 2.0f + 0.0f;
    return Choose(IsHalf(x), even, RoundHalfAwayElement(x));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_ROUND_ELEMENTS_H
