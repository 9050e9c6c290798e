// Sums of the normalisations; see kernels/level.h for the levels.

#include "kernels/normalization.h"

#include <immintrin.h>

#include "common/convert.h"
#include "kernels/folds.h"

namespace opkit::OPKIT_LEVEL {
namespace {

inline float WholeMagnitude(float x)
{
    const int32_t n = TruncateToI32(x);
    const uint32_t magnitude = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
    return static_cast<float>(static_cast<int32_t>(magnitude));
}

inline Vec WholeMagnitude(Vec x)
{
#if defined(OPKIT_LEVEL_avx512)
    return (Vec)_mm512_cvtepi32_ps(_mm512_abs_epi32(_mm512_cvttps_epi32((__m512)x)));
#elif defined(OPKIT_LEVEL_avx2)
    return (Vec)_mm256_cvtepi32_ps(_mm256_abs_epi32(_mm256_cvttps_epi32((__m256)x)));
#else
    const __m128i n = _mm_cvttps_epi32((__m128)x);
    const __m128i sign = _mm_srai_epi32(n, 31);
    return (Vec)_mm_cvtepi32_ps(_mm_sub_epi32(_mm_xor_si128(n, sign), sign));
#endif
}

// An f64 sum of two f32 values rounds to the same f32 as their f32 sum.
struct AddWholeMagnitude {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + WholeMagnitude(x);
    }
};

// The square of an f32 is exact in f64; the sum rounds there, and again to f32. Intrinsics keep that second rounding.
struct AddWholeSquare {
    static float Step(float acc, float x)
    {
        const double n = WholeMagnitude(x);
        return RoundToF32(static_cast<double>(acc) + n * n);
    }

#if defined(OPKIT_LEVEL_avx512)
    static __m256 Half(__m256 acc, __m256 n)
    {
        const __m512d wide = _mm512_cvtps_pd(n);
        return _mm512_cvtpd_ps(_mm512_add_pd(_mm512_cvtps_pd(acc), _mm512_mul_pd(wide, wide)));
    }
    static Vec Step(Vec acc, Vec x)
    {
        const __m512 n = (__m512)WholeMagnitude(x);
        const __m512 sums = (__m512)acc;
        const __m256 low = Half(_mm512_castps512_ps256(sums), _mm512_castps512_ps256(n));
        const __m256 high = Half(_mm512_extractf32x8_ps(sums, 1), _mm512_extractf32x8_ps(n, 1));
        return (Vec)_mm512_insertf32x8(_mm512_castps256_ps512(low), high, 1);
    }
#elif defined(OPKIT_LEVEL_avx2)
    static __m128 Half(__m128 acc, __m128 n)
    {
        const __m256d wide = _mm256_cvtps_pd(n);
        return _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(acc), _mm256_mul_pd(wide, wide)));
    }
    static Vec Step(Vec acc, Vec x)
    {
        const __m256 n = (__m256)WholeMagnitude(x);
        const __m256 sums = (__m256)acc;
        const __m128 low = Half(_mm256_castps256_ps128(sums), _mm256_castps256_ps128(n));
        const __m128 high = Half(_mm256_extractf128_ps(sums, 1), _mm256_extractf128_ps(n, 1));
        return (Vec)_mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
    }
#else
    static __m128 Half(__m128 acc, __m128 n)
    {
        const __m128d wide = _mm_cvtps_pd(n);
        return _mm_cvtpd_ps(_mm_add_pd(_mm_cvtps_pd(acc), _mm_mul_pd(wide, wide)));
    }
    static Vec Step(Vec acc, Vec x)
    {
        const __m128 n = (__m128)WholeMagnitude(x);
        const __m128 sums = (__m128)acc;
        return (Vec)_mm_movelh_ps(Half(sums, n), Half(_mm_movehl_ps(sums, sums), _mm_movehl_ps(n, n)));
    }
#endif
};

// Neighbouring accumulators are the lanes.
template <class Kind>
void WholeColumns(float* acc, const float* x, size_t count, size_t rows, size_t rowStride)
{
    size_t j = 0;
    for (; j + kLanes <= count; j += kLanes) {
        Vec sums = Load(acc + j);
        for (size_t r = 0; r < rows; ++r) {
            sums = Kind::Step(sums, Load(x + r * rowStride + j));
        }
        Store(acc + j, sums);
    }
    for (; j < count; ++j) {
        for (size_t r = 0; r < rows; ++r) {
            acc[j] = Kind::Step(acc[j], x[r * rowStride + j]);
        }
    }
}

template <class Kind>
constexpr FoldKernels kWholeFold = {WholeColumns<Kind>, Rows<Kind>};

void SquaredDistances(float* acc, const float* centres, const float* x, size_t count, size_t rowStride, size_t length)
{
    for (size_t begin = 0; begin < count; begin += kLanes) {
        const size_t rows = count - begin < kLanes ? count - begin : kLanes;
        Vec centre;
        for (size_t lane = 0; lane < kLanes; ++lane) {
            centre[lane] = centres[begin + (lane < rows ? lane : rows - 1)];
        }
        FoldRowGroup(acc + begin, x + begin * rowStride, rows, rowStride, length, [centre](Vec sum, Vec element) {
            const Vec distance = element - centre;
            return sum + distance * distance;
        });
    }
}

void ScaleAndShift(const float* x, float* out, size_t count, float scale, float shift)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = x[i] * scale + shift;
    }
}

}  // namespace

extern const NormalizationKernels kNormalizationKernels = {kWholeFold<AddWholeMagnitude>, kWholeFold<AddWholeSquare>,
                                                           SquaredDistances, ScaleAndShift};

}  // namespace opkit::OPKIT_LEVEL
