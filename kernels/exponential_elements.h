// The element functions that exponentials.cpp computes: the definitions over libm, used where a vector is in doubt.
#ifndef OPKIT_KERNELS_EXPONENTIAL_ELEMENTS_H
#define OPKIT_KERNELS_EXPONENTIAL_ELEMENTS_H

#include "common/convert.h"

namespace opkit {
namespace {

inline float SigmoidElement(float x)
{
    return RoundToF32(1.0 / (__builtin_exp(static_cast<double>(-x)) + 1.0));
}

inline float SoftplusElement(float x)
{
    return RoundToF32(__builtin_log(__builtin_exp(static_cast<double>(x)) + 1.0));
}

// The quotient rounds to f32. NaN gives +0.0: it is neither at least 0 nor leads to a negative second term.
inline float CeluElement(float x, float alpha)
{
    if (x >= 0.0f) {
        return x + 0.0f;  // the exponential term is not negative here, whatever alpha's sign
    }
    const double growth = __builtin_exp(static_cast<double>(x / alpha)) - 1.0;
    const float term = RoundToF32(growth * static_cast<double>(alpha));
    return term < 0.0f ? term : 0.0f;
}

// The difference rounds to f32. NaN takes the upper side.
inline float SeluElement(float x, float alpha, float gamma)
{
    if (!(x <= 0.0f)) {
        return x * gamma;
    }
    const double exponential = __builtin_exp(static_cast<double>(x - alpha));
    return RoundToF32(exponential * static_cast<double>(alpha) * static_cast<double>(gamma));
}

inline float SinhElement(float x)
{
    return RoundToF32(__builtin_sinh(static_cast<double>(x)));
}

inline float AcoshElement(float x)
{
    return RoundToF32(__builtin_acosh(static_cast<double>(x)));
}

inline float AddExpElement(float acc, float x)
{
    return RoundToF32(__builtin_exp(static_cast<double>(x)) + static_cast<double>(acc));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_EXPONENTIAL_ELEMENTS_H
