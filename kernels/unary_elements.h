// The element functions behind the unary kernels and their exported scalar forms.
#ifndef OPKIT_KERNELS_UNARY_ELEMENTS_H
#define OPKIT_KERNELS_UNARY_ELEMENTS_H

#include <stdint.h>

namespace opkit {
namespace {

// Flips the sign bit, of NaN too.
inline float NegElement(float x)
{
    return __builtin_bit_cast(float, __builtin_bit_cast(uint32_t, x) ^ 0x80000000u);
}

// No small input gives an infinity: up to 2^-23 the result is +-2^23, and -0.0 counts as positive.
inline float ReciprocalElement(float x)
{
    constexpr float kSmallest = 1.1920929e-7f;
    constexpr float kLargest = 8388608.0f;
    const float inverse = 1.0f / x;
    const float limit = x < 0.0f ? -kLargest : kLargest;
    return __builtin_fabsf(x) <= kSmallest ? limit : inverse;
}

inline float SignElement(float x)
{
    const float positive = x > 0.0f ? 1.0f : 0.0f;
    return x < 0.0f ? -1.0f : positive;
}

inline float SoftsignElement(float x)
{
    const double wide = x;
    return static_cast<float>(wide / (__builtin_fabs(wide) + 1.0));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_UNARY_ELEMENTS_H
