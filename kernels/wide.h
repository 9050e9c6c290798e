// Vectors of doubles, half as many as a level has float lanes, with an exponential and a logarithm of known error.
//
// They serve formulas that are defined over libm in f64 and rounded to f32. An approximation with a bound on its error
// says between which two values the formula's own lies. Where both round to the same float, that float is the result;
// where they do not, or no bound holds, the lane is "doubtful" and computed by the formula itself.
#ifndef OPKIT_KERNELS_WIDE_H
#define OPKIT_KERNELS_WIDE_H

#include <float.h>
#include <immintrin.h>

#include "common/convert.h"
#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/vector.h"

namespace opkit {
namespace {

constexpr size_t kWide = kLanes / 2;
constexpr bool kWideRepays = kWide > 2;  // two lanes are no faster than the formula over libm

typedef double Wide __attribute__((vector_size(kWide * sizeof(double)), may_alias));
typedef int64_t WideBits __attribute__((vector_size(kWide * sizeof(int64_t)), may_alias));
typedef uint64_t WideWords __attribute__((vector_size(kWide * sizeof(uint64_t)), may_alias));  // wrap around
typedef float Narrow __attribute__((vector_size(kWide * sizeof(float)), aligned(sizeof(float)), may_alias));

inline Narrow LoadNarrow(const float* from)
{
    return *reinterpret_cast<const Narrow*>(from);
}

inline void StoreNarrow(float* to, Narrow value)
{
    *reinterpret_cast<Narrow*>(to) = value;
}

// One instruction; the generic form converts by halves or one by one.
inline Wide Widen(Narrow x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_cvtps_pd((__m256)x);
#elif defined(OPKIT_LEVEL_avx2)
    return (Wide)_mm256_cvtps_pd((__m128)x);
#else
    return (Wide)_mm_cvtps_pd((__m128)__builtin_shufflevector(x, x, 0, 1, 0, 1));
#endif
}

inline Narrow Narrowed(Wide x)
{
    return __builtin_convertvector(x, Narrow);
}

// The first and the second half of a float vector, and both halves rounded to floats again.
inline Wide WidenLow(Vec x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_cvtps_pd(_mm512_castps512_ps256((__m512)x));
#elif defined(OPKIT_LEVEL_avx2)
    return (Wide)_mm256_cvtps_pd(_mm256_castps256_ps128((__m256)x));
#else
    return (Wide)_mm_cvtps_pd((__m128)x);
#endif
}

inline Wide WidenHigh(Vec x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_cvtps_pd(_mm512_extractf32x8_ps((__m512)x, 1));
#elif defined(OPKIT_LEVEL_avx2)
    return (Wide)_mm256_cvtps_pd(_mm256_extractf128_ps((__m256)x, 1));
#else
    return (Wide)_mm_cvtps_pd(_mm_movehl_ps((__m128)x, (__m128)x));
#endif
}

inline Vec RoundToF32(Wide low, Wide high)
{
#if defined(OPKIT_LEVEL_avx512)
    const __m256 first = KeepRounding(_mm512_cvtpd_ps((__m512d)low));
    return (Vec)_mm512_insertf32x8(_mm512_castps256_ps512(first), KeepRounding(_mm512_cvtpd_ps((__m512d)high)), 1);
#elif defined(OPKIT_LEVEL_avx2)
    const __m128 first = KeepRounding(_mm256_cvtpd_ps((__m256d)low));
    return (Vec)_mm256_insertf128_ps(_mm256_castps128_ps256(first), KeepRounding(_mm256_cvtpd_ps((__m256d)high)), 1);
#else
    return (Vec)_mm_movelh_ps(KeepRounding(_mm_cvtpd_ps((__m128d)low)), KeepRounding(_mm_cvtpd_ps((__m128d)high)));
#endif
}

// Applies a step in f64 to both halves of two float vectors.
template <class Step>
inline Vec InF64(Vec a, Vec b, Step step)
{
    return RoundToF32(step(WidenLow(a), WidenLow(b)), step(WidenHigh(a), WidenHigh(b)));
}

inline Wide Splat(double x)
{
    return Wide{} + x;
}

// a * b + c, rounded once where the level can: an approximation's error is bounded either way.
inline Wide MultiplyAdd(Wide a, Wide b, Wide c)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_fmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
#elif defined(OPKIT_LEVEL_avx2)
    return (Wide)_mm256_fmadd_pd((__m256d)a, (__m256d)b, (__m256d)c);
#else
    return a * b + c;
#endif
}

inline Wide SquareRoot(Wide x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Wide)_mm512_sqrt_pd((__m512d)x);
#elif defined(OPKIT_LEVEL_avx2)
    return (Wide)_mm256_sqrt_pd((__m256d)x);
#else
    return (Wide)_mm_sqrt_pd((__m128d)x);
#endif
}

// coefficients[0] + coefficients[1] x + ...
template <size_t kCount>
inline Wide Polynomial(const double (&coefficients)[kCount], Wide x)
{
    Wide sum = Splat(coefficients[kCount - 1]);
#pragma GCC unroll 16
    for (size_t i = kCount - 1; i > 0; --i) {
        sum = MultiplyAdd(sum, x, Splat(coefficients[i - 1]));
    }
    return sum;
}

// One flag for each lane: a bit of a mask register, or all bits of the lane.
#if defined(OPKIT_LEVEL_avx512)
typedef __mmask8 Flags;
#else
typedef WideBits Flags;
#endif

inline bool AnyOf(Flags flags)
{
#if defined(OPKIT_LEVEL_avx512)
    return flags != 0;
#elif defined(OPKIT_LEVEL_avx2)
    return _mm256_testz_si256((__m256i)flags, (__m256i)flags) == 0;
#else
    return (flags[0] | flags[1]) != 0;
#endif
}

inline bool IsSet(Flags flags, size_t lane)
{
#if defined(OPKIT_LEVEL_avx512)
    return ((flags >> lane) & 1) != 0;
#else
    return flags[lane] != 0;
#endif
}

// Comparisons that NaN answers with yes.
inline Flags NotAtLeast(Narrow x, float limit)
{
#if defined(OPKIT_LEVEL_avx512)
    return _mm256_cmp_ps_mask((__m256)x, _mm256_set1_ps(limit), _CMP_NGE_UQ);
#else
    return __builtin_convertvector(~(x >= limit), WideBits);
#endif
}

inline Flags NotAtMost(Narrow x, float limit)
{
#if defined(OPKIT_LEVEL_avx512)
    return _mm256_cmp_ps_mask((__m256)x, _mm256_set1_ps(limit), _CMP_NLE_UQ);
#else
    return __builtin_convertvector(~(x <= limit), WideBits);
#endif
}

inline Flags Differ(Narrow a, Narrow b)
{
#if defined(OPKIT_LEVEL_avx512)
    return _mm256_cmp_ps_mask((__m256)a, (__m256)b, _CMP_NEQ_UQ);
#else
    return __builtin_convertvector(a != b, WideBits);
#endif
}

// NaN and what is positive but less than the least normal float.
inline Flags NanOrSubnormal(Narrow x)
{
#if defined(OPKIT_LEVEL_avx512)
    constexpr int kNanOrSubnormal = 0x81 | 0x20;  // both kinds of NaN
    return _mm256_fpclass_ps_mask((__m256)x, kNanOrSubnormal);
#else
    return __builtin_convertvector(~(x >= FLT_MIN) & ~(x <= 0.0f), WideBits);
#endif
}

// Lanes beyond a limit take the limit; they come out the same or are the caller's to decide. NaN stays.
inline Narrow Clamp(Narrow x, float limit)
{
    const Narrow high = Narrow{} + limit;
#if defined(OPKIT_LEVEL_avx512)
    return (Narrow)_mm256_max_ps((__m256)-high, _mm256_min_ps((__m256)high, (__m256)x));
#elif defined(OPKIT_LEVEL_avx2)
    return (Narrow)_mm_max_ps((__m128)-high, _mm_min_ps((__m128)high, (__m128)x));
#else
    return Larger(-high, Smaller(high, x));
#endif
}

inline Vec Clamp(Vec x, float limit)
{
    const Vec high = Vec{} + limit;
#if defined(OPKIT_LEVEL_avx512)
    return (Vec)_mm512_max_ps((__m512)-high, _mm512_min_ps((__m512)high, (__m512)x));
#elif defined(OPKIT_LEVEL_avx2)
    return (Vec)_mm256_max_ps((__m256)-high, _mm256_min_ps((__m256)high, (__m256)x));
#else
    return (Vec)_mm_max_ps((__m128)-high, _mm_min_ps((__m128)high, (__m128)x));
#endif
}

// 1 / x, relative error below 2^-41: the division unit is slow for whole vectors, so AVX-512 refines an estimate.
inline Wide Reciprocal(Wide x)
{
#if defined(OPKIT_LEVEL_avx512)
    const Wide estimate = (Wide)_mm512_rcp14_pd((__m512d)x);
    const Wide error = MultiplyAdd(-x, estimate, Splat(1.0));
    return MultiplyAdd(estimate, MultiplyAdd(error, error, error), estimate);
#else
    return 1.0 / x;
#endif
}

// The bits of 2^(i / 16), i from 0 to 15, less i << 48. The exponent begins at bit 52, so that adding k << 48 to entry
// k % 16 gives 2^(k / 16). For k = 35 = 2 * 16 + 3: entry 3 plus (35 << 48) is 2^(3 / 16) with 32 << 48 on top, which
// is 2 in the exponent: 2^(2 + 3 / 16).
struct FractionalPowers {
    uint64_t bits[16];
};

constexpr FractionalPowers MakeFractionalPowers()
{
    constexpr double kPowers[] = {
        0x1.0000000000000p+0, 0x1.0b5586cf9890fp+0, 0x1.172b83c7d517bp+0, 0x1.2387a6e756238p+0,
        0x1.306fe0a31b715p+0, 0x1.3dea64c123422p+0, 0x1.4bfdad5362a27p+0, 0x1.5ab07dd485429p+0,
        0x1.6a09e667f3bcdp+0, 0x1.7a11473eb0187p+0, 0x1.8ace5422aa0dbp+0, 0x1.9c49182a3f090p+0,
        0x1.ae89f995ad3adp+0, 0x1.c199bdd85529cp+0, 0x1.d5818dcfba487p+0, 0x1.ea4afa2a490dap+0,
    };
    FractionalPowers powers = {};
    for (uint64_t i = 0; i < 16; ++i) {
        powers.bits[i] = __builtin_bit_cast(uint64_t, kPowers[i]) - (i << 48);
    }
    return powers;
}

// 2^(k / 16) for every lane's k.
inline Wide PowerOfSixteenths(WideWords k)
{
    alignas(64) static constexpr FractionalPowers kTable = MakeFractionalPowers();
#if defined(OPKIT_LEVEL_avx512)
    const WideWords powers = (WideWords)_mm512_permutex2var_epi64(_mm512_load_si512(kTable.bits), (__m512i)k,
                                                                  _mm512_load_si512(kTable.bits + kWide));
#elif defined(OPKIT_LEVEL_avx2)
    const WideWords powers = (WideWords)_mm256_i64gather_epi64(reinterpret_cast<const long long*>(kTable.bits),
                                                               (__m256i)(k & uint64_t{15}), sizeof(uint64_t));
#else
    WideWords powers;
    for (size_t lane = 0; lane < kWide; ++lane) {
        powers[lane] = kTable.bits[k[lane] % 16];
    }
#endif
    return (Wide)(powers + (k << 48));
}

// Relative error of Exp (for |x| <= 128) and Log, with room.
constexpr double kWideError = 0x1p-40;

// e^x, or e^-x with a sign of -1, for |x| <= 700. The exponent is k ln 2 / 16 + sign * r, and the series that of
// e^(sign * r) - 1, whose remainder is below 2^-42 for |r| <= ln 2 / 32.
template <int kSign = 1>
inline Wide Exp(Wide x)
{
    constexpr double kSixteenth = kSign * 0x1.62e42fefa39efp-1 / 16;
    constexpr double kRounder = 0x1.8p52;  // a whole number added to it lands on the lowest bits
    const Wide shifted = MultiplyAdd(x, Splat(1 / kSixteenth), Splat(kRounder));
    const Wide r = MultiplyAdd(shifted - kRounder, Splat(-kSixteenth), x);
    constexpr double kSeries[] = {kSign, 1.0 / 2, kSign / 6.0, 1.0 / 24, kSign / 120.0};
    const Wide power = PowerOfSixteenths((WideWords)shifted);
    return MultiplyAdd(power, r * Polynomial(kSeries, r), power);
}

// ln s for normal positive s; the relative error holds next to 1, too. s = m 2^e with m around 1, and
// ln m = 2 artanh((m - 1) / (m + 1)), whose series is cut below 2^-44.
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
    const Wide square = z * z;
    constexpr double kSeries[] = {2.0 / 3, 2.0 / 5, 2.0 / 7, 2.0 / 9, 2.0 / 11, 2.0 / 13, 2.0 / 15};
    return MultiplyAdd(e, Splat(0x1.62e42fefa39efp-1), MultiplyAdd(z * square, Polynomial(kSeries, square), z + z));
}

// What a formula came to, and the lanes in which its float is not certain.
struct Result {
    Narrow value;
    Flags doubtful;
};

// Rounds a value with a relative error below 2^-40. Rounding drops the low 29 bits of the mantissa, upward from half of
// their range on, 0x10000000. The error moves the mantissa by less than kMargin, so that the float is in doubt only
// when the dropped bits lie within kMargin of that half: 0x10000123 is in doubt, 0x10012345 is not. Valid where the
// float is normal (more bits are dropped from smaller ones) or certainly 0 or 1.
inline Result RoundCertain(Wide value)
{
    constexpr uint64_t kDropped = 0x1fffffff;
    constexpr uint64_t kHalf = 0x10000000;
    constexpr uint64_t kMargin = 0x2000;  // 2^-40 of a mantissa below 2, in units of 2^-52
    constexpr uint64_t kBeyondMargin = kDropped & ~(2 * kMargin - 1);
    const WideWords distance = (WideWords)value + (kMargin - kHalf);  // doubtful from 0 to 2 * kMargin - 1
#if defined(OPKIT_LEVEL_avx512)
    return {Narrowed(value), _mm512_testn_epi64_mask((__m512i)distance, _mm512_set1_epi64(kBeyondMargin))};
#else
    return {Narrowed(value), (WideBits)(distance & kBeyondMargin) == 0};
#endif
}

// Rounds a value that lies between two others, of which none is NaN.
inline Result RoundBetween(Wide low, Wide high)
{
    const Narrow value = Narrowed(low);
    return {value, Differ(value, Narrowed(high))};
}

// One vector from in to out, those lanes that are not certain by exact. in may equal out.
template <class Formula, class Exact>
__attribute__((noinline)) void MapVector(const float* in, float* out, Formula formula, Exact exact)
{
    const Narrow x = LoadNarrow(in);
    Result result = formula(x);
    for (size_t lane = 0; lane < kWide; ++lane) {
        if (IsSet(result.doubtful, lane)) {
            result.value[lane] = exact(x[lane]);
        }
    }
    StoreNarrow(out, result.value);
}

// out[i] = exact(in[i]): by the vector formula where its float is certain, by exact itself elsewhere. The formula calls
// NaN doubtful. in may equal out.
template <class Formula, class Exact>
inline void MapCertain(const float* in, float* out, size_t count, Formula formula, Exact exact)
{
    assert(MayMap(in, out, count));
    if constexpr (!kWideRepays) {
        for (size_t i = 0; i < count; ++i) {
            out[i] = exact(in[i]);
        }
        return;
    }
    size_t i = 0;
    constexpr size_t kVectors = 4;
    constexpr size_t kBlock = kVectors * kWide;
    for (; i + kBlock <= count; i += kBlock) {
        Narrow value[kVectors];
        Flags any = {};
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            const Result result = formula(LoadNarrow(in + i + v * kWide));
            value[v] = result.value;
            any |= result.doubtful;
        }
        if (__builtin_expect(AnyOf(any), 0)) {
            for (size_t v = 0; v < kBlock; v += kWide) {
                MapVector(in + i + v, out + i + v, formula, exact);
            }
            continue;
        }
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            StoreNarrow(out + i + v * kWide, value[v]);
        }
    }
    for (; i + kWide <= count; i += kWide) {
        MapVector(in + i, out + i, formula, exact);
    }
    if (i < count) {
        float rest[kWide] = {};
        __builtin_memcpy(rest, in + i, (count - i) * sizeof(float));
        MapVector(rest, rest, formula, exact);
        __builtin_memcpy(out + i, rest, (count - i) * sizeof(float));
    }
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_WIDE_H
