// Vectors of doubles, half as many as a level has float lanes, with an exponential and a logarithm of known error.
//
// They serve formulas that are defined in f64 and narrowed to f32: a result with a bound on its error is narrowed at
// both ends of the bound. Where the ends agree, every f64 value between them narrows to the same float, the formula's
// own among them; where they differ, the caller computes that lane by the formula itself.
#ifndef OPKIT_KERNELS_WIDE_H
#define OPKIT_KERNELS_WIDE_H

#include <immintrin.h>

#include "kernels/vector.h"

namespace opkit {
namespace {  // internal linkage: levels must not share code

constexpr size_t kWide = kLanes / 2;

typedef double Wide __attribute__((vector_size(kWide * sizeof(double)), may_alias));
typedef int64_t WideBits __attribute__((vector_size(kWide * sizeof(int64_t)), may_alias));
typedef uint64_t WideWords __attribute__((vector_size(kWide * sizeof(uint64_t)), may_alias));  // wrap around
typedef float Narrow __attribute__((vector_size(kWide * sizeof(float)), aligned(sizeof(float)), may_alias));
typedef int32_t NarrowBits __attribute__((vector_size(kWide * sizeof(int32_t)), may_alias));

inline Wide Widen(Narrow x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_cvtps_pd((__m256)x);  // one instruction; the generic form converts by halves
#else
    return __builtin_convertvector(x, Wide);
#endif
}

inline Narrow Narrowed(Wide x)
{
    return __builtin_convertvector(x, Narrow);
}

inline Wide Splat(double x)
{
    return Wide{} + x;
}

// Lanes beyond a limit, and NaN, take the limit; such lanes come out the same or are the caller's to decide.
inline Narrow Clamp(Narrow x, float limit)
{
    const Narrow high = Narrow{} + limit;
    x = x < high ? x : high;
    return x > -high ? x : -high;
}

// 1 / x, relative error below 2^-50: the division unit is slow for whole vectors, so AVX-512 refines an estimate.
inline Wide Reciprocal(Wide x)
{
#if defined(OPKIT_LEVEL_avx512)
    Wide y = (Wide)_mm512_rcp14_pd((__m512d)x);
    y = y + y * (1.0 - x * y);
    return y + y * (1.0 - x * y);
#else
    return 1.0 / x;
#endif
}

// 2^(i / kWide) for every lane's i, rounded to f64.
inline Wide FractionalPower(WideWords i)
{
    alignas(64) static constexpr double kEighths[] = {
        1.0,
        0x1.172b83c7d517bp+0,
        0x1.306fe0a31b715p+0,
        0x1.4bfdad5362a27p+0,
        0x1.6a09e667f3bcdp+0,
        0x1.8ace5422aa0dbp+0,
        0x1.ae89f995ad3adp+0,
        0x1.d5818dcfba487p+0,
    };
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_permutexvar_pd((__m512i)i, _mm512_load_pd(kEighths));
#else
    Wide powers;
    for (size_t lane = 0; lane < kWide; ++lane) {
        powers[lane] = kEighths[i[lane] * (8 / kWide)];
    }
    return powers;
#endif
}

// Relative error of Exp (for |x| <= 128) and Log, with room.
constexpr double kWideError = 0x1p-43;

// e^x for |x| <= 700. x = (k / kWide) ln 2 + r: a table entry for the fraction of k / kWide, the exponent for its whole
// part, and the series of e^r - 1, whose remainder is below 2^-44 for |r| <= ln 2 / (2 kWide).
inline Wide Exp(Wide x)
{
    constexpr double kLn2 = 0x1.62e42fefa39efp-1;
    constexpr double kRounder = 0x1.8p52;
    const Wide shifted = x * (kWide / kLn2) + kRounder;
    const Wide k = shifted - kRounder;
    const Wide r = x - k * (kLn2 / kWide);
    constexpr double kFactorials[] = {1.0, 2.0, 6.0, 24.0, 120.0, 720.0, 5040.0, 40320.0, 362880.0, 3628800.0};
    constexpr int kDegree = kWide == 8 ? 6 : kWide == 4 ? 7 : 9;
    Wide series = Splat(1.0 / kFactorials[kDegree - 1]);
#pragma GCC unroll 10
    for (int i = kDegree - 2; i >= 0; --i) {
        series = series * r + 1.0 / kFactorials[i];
    }
    const WideWords steps = (WideWords)shifted - (WideWords)Splat(kRounder);
    const WideWords fraction = steps & static_cast<uint64_t>(kWide - 1);
    const Wide base = FractionalPower(fraction);
    const Wide scaled = base + base * (series * r);
    constexpr int kFractionBits = kWide == 8 ? 3 : kWide == 4 ? 2 : 1;
    return (Wide)((WideWords)scaled + ((steps - fraction) << (52 - kFractionBits)));
}

// ln s for normal positive s; the relative error holds next to 1, too. s = m 2^e with m around 1, and
// ln m = 2 artanh((m - 1) / (m + 1)), whose series is cut below 2^-50.
inline Wide Log(Wide s)
{
    constexpr uint64_t kSqrtHalf = 0x3fe6a09e667f3bcd;
    constexpr uint64_t kMantissa = 0x000fffffffffffff;
    const WideWords bits = (WideWords)s;
    const WideWords exponentBits = (bits - kSqrtHalf) & ~kMantissa;
    const Wide m = (Wide)(bits - exponentBits);
    // The exponent as a double: its 11 bits land on the mantissa of 2^52 + 2^51.
    constexpr int64_t kBias = 0x4338000000000000;
    const WideBits exponent = ((WideBits)exponentBits >> 52) + kBias;
    const Wide e = (Wide)exponent - 0x1.8p52;
    const Wide z = (m - 1.0) * Reciprocal(m + 1.0);
    const Wide z2 = z * z;
    constexpr double kOdd[] = {2.0 / 3, 2.0 / 5, 2.0 / 7, 2.0 / 9, 2.0 / 11, 2.0 / 13, 2.0 / 15, 2.0 / 17, 2.0 / 19};
    Wide series = Splat(2.0 / 21);
#pragma GCC unroll 9
    for (int i = 8; i >= 0; --i) {
        series = series * z2 + kOdd[i];
    }
    return e * 0x1.62e42fefa39efp-1 + (z * z2 * series + (z + z));
}

// What a formula came to, and the lanes (non-zero) in which its float is not certain.
struct Result {
    Narrow value;
    WideBits doubtful;
};

// A value with a relative error below 2^-42. Narrowing drops 29 bits of the mantissa: only when these lie next to one
// half can the error change the float. Valid where the float is normal or the value narrows to 0 or 1 for certain.
inline Result RoundCertain(Wide value)
{
    constexpr uint64_t kDropped = 0x1fffffff;
    constexpr uint64_t kHalf = 0x10000000;
    constexpr uint64_t kMargin = 0x800;  // 2^-42 of a mantissa between 1 and 2, in units of 2^-52, and as much again
    const WideBits distance = (WideBits)(((WideWords)value + (kMargin - kHalf)) & kDropped);
    return {Narrowed(value), distance < static_cast<int64_t>(2 * kMargin)};
}

// A value known to lie between two ends.
inline Result RoundBetween(Wide low, Wide high)
{
    const Narrow value = Narrowed(low);
    return {value, __builtin_convertvector((NarrowBits)value != (NarrowBits)Narrowed(high), WideBits)};
}

inline bool AnyLane(WideBits flags)
{
#if defined(OPKIT_LEVEL_avx512)
    return _mm512_test_epi64_mask((__m512i)flags, (__m512i)flags) != 0;
#elif defined(OPKIT_LEVEL_avx2)
    return _mm256_testz_si256((__m256i)flags, (__m256i)flags) == 0;
#else
    return (flags[0] | flags[1]) != 0;
#endif
}

// Lanes in which a float condition holds, as flags of a Result.
inline WideBits Lanes(NarrowBits condition)
{
    return __builtin_convertvector(condition, WideBits);
}

// Computes `kVectors` vectors from in to out, those lanes that are not certain by exact. in may equal out.
template <size_t kVectors, class Formula, class Exact>
inline void MapBlock(const float* in, float* out, Formula formula, Exact exact)
{
    Narrow x[kVectors];
    WideBits doubtful[kVectors];
    WideBits any = {};
    for (size_t v = 0; v < kVectors; ++v) {
        x[v] = *reinterpret_cast<const Narrow*>(in + v * kWide);
        const Result result = formula(x[v]);
        doubtful[v] = result.doubtful;
        any |= result.doubtful;
        *reinterpret_cast<Narrow*>(out + v * kWide) = result.value;
    }
    if (__builtin_expect(!AnyLane(any), 1)) {
        return;
    }
    for (size_t v = 0; v < kVectors; ++v) {
        for (size_t lane = 0; lane < kWide; ++lane) {
            if (doubtful[v][lane] != 0) {
                out[v * kWide + lane] = exact(x[v][lane]);
            }
        }
    }
}

// out[i] = exact(in[i]): by the vector formula where its float is certain, by exact itself elsewhere. The formula calls
// NaN doubtful. in may equal out.
template <class Formula, class Exact>
inline void MapCertain(const float* in, float* out, size_t count, Formula formula, Exact exact)
{
    constexpr size_t kVectors = 8;
    constexpr size_t kBlock = kVectors * kWide;
    size_t i = 0;
#if defined(OPKIT_LEVEL_baseline)
    for (; i < count; ++i) {
        out[i] = exact(in[i]);  // two lanes do not repay the longer way
    }
#endif
    for (; i + kBlock <= count; i += kBlock) {
        MapBlock<kVectors>(in + i, out + i, formula, exact);
    }
    for (; i + kWide <= count; i += kWide) {
        MapBlock<1>(in + i, out + i, formula, exact);
    }
    if (i < count) {
        float rest[kWide] = {};
        __builtin_memcpy(rest, in + i, (count - i) * sizeof(float));
        MapBlock<1>(rest, rest, formula, exact);
        __builtin_memcpy(out + i, rest, (count - i) * sizeof(float));
    }
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_WIDE_H
