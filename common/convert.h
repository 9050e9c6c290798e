// Conversions from float to integer, defined for every input the way the x86-64 instructions do them: what does not
// fit, NaN included, gives the "integer indefinite" value, the lowest number of the instruction's width. The empty asm
// statements hide constants from the compiler, which would convert them by rules of its own (it saturates).
// Kernel files include this: see kernels/level.h for the linkage.
#ifndef OPKIT_COMMON_CONVERT_H
#define OPKIT_COMMON_CONVERT_H

#include <emmintrin.h>
#include <stddef.h>
#include <stdint.h>

namespace opkit {
namespace {

inline int32_t TruncateToI32(float value)
{
    __asm__("" : "+x"(value));
    return _mm_cvttss_si32(_mm_set_ss(value));
}

inline int32_t TruncateToI32(double value)
{
    __asm__("" : "+x"(value));
    return _mm_cvttsd_si32(_mm_set_sd(value));
}

inline int64_t TruncateToI64(float value)
{
    __asm__("" : "+x"(value));
    return _mm_cvttss_si64(_mm_set_ss(value));
}

inline int64_t TruncateToI64(double value)
{
    __asm__("" : "+x"(value));
    return _mm_cvttsd_si64(_mm_set_sd(value));
}

// roundf, then the i32 truncation. Up to 2^23 the distance from the whole part is exact; beyond, all floats are whole.
inline int32_t RoundToI32(float value)
{
    const int32_t whole = TruncateToI32(value);
    if (!(__builtin_fabsf(value) < 8388608.0f)) {
        return whole;
    }
    const float rest = value - static_cast<float>(whole);
    return whole + (rest >= 0.5f) - (rest <= -0.5f);
}

// The low half of the 64-bit truncation, so that -1.0 gives 0xFFFFFFFF and 2^32 gives 0.
inline uint32_t TruncateToU32(float value)
{
    return static_cast<uint32_t>(TruncateToI64(value));
}

// From 2^63 on the truncation of value - 2^63 with the top bit set; below, the bits of the signed truncation.
inline uint64_t TruncateToU64(float value)
{
    constexpr float kTwoTo63 = 9223372036854775808.0f;
    if (value >= kTwoTo63) {
        return static_cast<uint64_t>(TruncateToI64(value - kTwoTo63)) | (uint64_t{1} << 63);
    }
    return static_cast<uint64_t>(TruncateToI64(value));
}

// GCC 12, where it works on vectors, drops a rounding to f32 whose result is widened again: (double)(float)x becomes x.
// What has passed through here, floats or vectors of them, was rounded.
template <class T>
inline T KeepRounding(T value)
{
    __asm__("" : "+v"(value));
    return value;
}

// The same for a block of floats, which the compiler may still turn into vectors: they pass through memory.
template <size_t kCount>
inline void KeepRounding(float (&values)[kCount])
{
    if constexpr (kCount == 1) {
        values[0] = KeepRounding(values[0]);
    } else {
        __asm__("" : "+m"(values));
    }
}

inline float RoundToF32(double value)
{
    return KeepRounding(static_cast<float>(value));
}

// The low byte of the 32-bit truncation.
inline uint8_t TruncateToByte(float value)
{
    return static_cast<uint8_t>(TruncateToI32(value));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_COMMON_CONVERT_H
