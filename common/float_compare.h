// Float comparisons with the library's absolute tolerance, inlined for element loops.
// Kernel files include this: see kernels/level.h for the linkage.
#ifndef OPKIT_COMMON_FLOAT_COMPARE_H
#define OPKIT_COMMON_FLOAT_COMPARE_H

namespace opkit {
namespace {

// |x| <= 1e-6, decided in f64; false for NaN. The f32 nearest to 1e-6 lies below the f64 constant, the next one above,
// so that comparing with that f32 decides the same for every input.
inline constexpr float kZeroTolerance = 1e-6f;

inline bool NearZero(float x)
{
    return __builtin_fabsf(x) <= kZeroTolerance;
}

// |a - b| <= 1e-6 with the difference rounded to f32. Two infinities of one sign are not equal.
inline bool NearlyEqual(float a, float b)
{
    return NearZero(a - b);
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_COMMON_FLOAT_COMPARE_H
