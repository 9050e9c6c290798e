// Resampling; see kernels/level.h for the levels.

#include "kernels/resize.h"

#include <immintrin.h>

#include "kernels/resize_elements.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

void BlendRows(GatheredRow row1, GatheredRow row2, const float* dx1, const float* dx2, float dy1, float dy2,
               float* __restrict out, size_t count)
{
    for (size_t x = 0; x < count; ++x) {
        out[x] = BlendFour(row1.left[x], row1.right[x], row2.left[x], row2.right[x], dx1[x], dx2[x], dy1, dy2);
    }
}

void PickOneByOne(const float* row, const uint32_t* columns, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = row[columns[i]];
    }
}

#if defined(OPKIT_LEVEL_baseline)

void Pick(const float* row, size_t /*width*/, const uint32_t* columns, float* out, size_t count)
{
    PickOneByOne(row, columns, out, count);
}

#else

#if defined(OPKIT_LEVEL_avx512)
constexpr size_t kWindow = 2 * kLanes;

inline Vec FromWindow(const float* window, VecIndex places)
{
    return (Vec)_mm512_permutex2var_ps((__m512)Load(window), (__m512i)places, (__m512)Load(window + kLanes));
}
#else
constexpr size_t kWindow = kLanes;

inline Vec FromWindow(const float* window, VecIndex places)
{
    return (Vec)_mm256_permutevar8x32_ps((__m256)Load(window), (__m256i)places);
}
#endif

// A vector of columns that lie close together, as they do wherever a row grows, comes out of one stretch of the row.
void Pick(const float* row, size_t width, const uint32_t* columns, float* out, size_t count)
{
    typedef uint32_t Columns
        __attribute__((vector_size(kLanes * sizeof(uint32_t)), aligned(sizeof(uint32_t)), may_alias));
    size_t i = 0;
    for (; width >= kWindow && i + kLanes <= count; i += kLanes) {
        const uint32_t lastBegin = static_cast<uint32_t>(width - kWindow);
        const uint32_t begin = columns[i] < lastBegin ? columns[i] : lastBegin;
        const Columns places = *reinterpret_cast<const Columns*>(columns + i) - begin;
#if defined(OPKIT_LEVEL_avx512)
        const bool together = _mm512_cmplt_epu32_mask((__m512i)places, _mm512_set1_epi32(kWindow)) == 0xffff;
#else
        const __m256i within = _mm256_cmpeq_epi32(
            _mm256_and_si256((__m256i)places, _mm256_set1_epi32(-static_cast<int>(kWindow))), _mm256_setzero_si256());
        const bool together = _mm256_movemask_epi8(within) == -1;
#endif
        if (together) {
            Store(out + i, FromWindow(row + begin, (VecIndex)places));
        } else {
            PickOneByOne(row, columns + i, out + i, kLanes);
        }
    }
    PickOneByOne(row, columns + i, out + i, count - i);
}

#endif

}  // namespace

extern const ResizeKernels kResizeKernels = {BlendRows, Pick};

}  // namespace opkit::OPKIT_LEVEL
