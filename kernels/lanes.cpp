// Loops along lanes; see kernels/level.h for the levels.

#include "kernels/lanes.h"

#include <immintrin.h>

#include "common/float_compare.h"
#include "kernels/folds.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// One lane of the tensor per lane of the vector: squares are turned, summed and turned back.
void SumVectorOfLanes(const float* in, float* out, size_t length, bool reverse)
{
    const float* from[kLanes];
    for (size_t lane = 0; lane < kLanes; ++lane) {
        from[lane] = in + lane * length;
    }
    const size_t whole = length / kLanes * kLanes;
    const size_t rest = length - whole;
    Vec sum = {};
    bool first = true;
    const auto add = [&](Vec elements) {
        sum = first ? elements : elements + sum;
        first = false;
        return sum;
    };
    const auto sumSquare = [&](size_t column) {
        Vec square[kLanes];
        LoadTurned(from, column, square);
        for (size_t i = 0; i < kLanes; ++i) {
            const size_t place = reverse ? kLanes - 1 - i : i;
            square[place] = add(square[place]);
        }
        TransposeSquare(square);
        for (size_t lane = 0; lane < kLanes; ++lane) {
            Store(out + lane * length + column, square[lane]);
        }
    };
    const auto sumRest = [&] {
        for (size_t i = 0; i < rest; ++i) {
            const size_t column = whole + (reverse ? rest - 1 - i : i);
            Vec elements;
            for (size_t lane = 0; lane < kLanes; ++lane) {
                elements[lane] = from[lane][column];
            }
            const Vec sums = add(elements);
            for (size_t lane = 0; lane < kLanes; ++lane) {
                out[lane * length + column] = sums[lane];
            }
        }
    };
    if (reverse) {
        sumRest();
        for (size_t column = whole; column > 0; column -= kLanes) {
            sumSquare(column - kLanes);
        }
    } else {
        for (size_t column = 0; column < whole; column += kLanes) {
            sumSquare(column);
        }
        sumRest();
    }
}

void SumLane(const float* in, float* out, size_t length, bool reverse)
{
    size_t place = reverse ? length - 1 : 0;
    float sum = in[place];
    out[place] = sum;
    for (size_t j = 1; j < length; ++j) {
        place += reverse ? static_cast<size_t>(-1) : 1;
        sum = in[place] + sum;
        out[place] = sum;
    }
}

void RunningSums(const float* in, float* out, size_t count, size_t length, bool reverse)
{
    size_t lane = 0;
    for (; lane + kLanes <= count; lane += kLanes) {
        SumVectorOfLanes(in + lane * length, out + lane * length, length, reverse);
    }
    for (; lane < count; ++lane) {
        SumLane(in + lane * length, out + lane * length, length, reverse);
    }
}

// Bit i: lanes in which a comparison holds.
inline uint32_t MaskOf(VecIndex condition)
{
#if defined(OPKIT_LEVEL_avx512)
    return _mm512_movepi32_mask((__m512i)condition);
#elif defined(OPKIT_LEVEL_avx2)
    return static_cast<uint32_t>(_mm256_movemask_ps((__m256)condition));
#else
    return static_cast<uint32_t>(_mm_movemask_ps((__m128)condition));
#endif
}

// The largest value first, then its first place: a value that is not above any other is the same wherever it stands.
size_t FirstLargest(const float* x, size_t count)
{
    constexpr size_t kVectors = 4;
    if (count == 0) {
        return 0;
    }
    Vec largest[kVectors];
    for (Vec& candidate : largest) {
        candidate = Vec{} + x[0];
    }
    size_t j = 0;
    for (; j + kVectors * kLanes <= count; j += kVectors * kLanes) {
        for (size_t v = 0; v < kVectors; ++v) {
            const Vec elements = Load(x + j + v * kLanes);
            largest[v] = elements > largest[v] ? elements : largest[v];
        }
    }
    for (size_t v = 1; v < kVectors; ++v) {
        largest[0] = largest[v] > largest[0] ? largest[v] : largest[0];
    }
    float best = x[0];
    for (size_t lane = 0; lane < kLanes; ++lane) {
        best = largest[0][lane] > best ? largest[0][lane] : best;
    }
    for (; j < count; ++j) {
        best = x[j] > best ? x[j] : best;
    }
    for (j = 0; j + kLanes <= count; j += kLanes) {
        const uint32_t equal = MaskOf(Load(x + j) == best);
        if (equal != 0) {
            return j + static_cast<size_t>(__builtin_ctz(equal));
        }
    }
    for (; j < count; ++j) {
        if (x[j] == best) {
            return j;
        }
    }
    return 0;  // a NaN came first
}

void FirstLargestOfColumns(const float* x, uint32_t* places, size_t count, size_t length, size_t rowStride)
{
    constexpr size_t kVectors = 4;
    typedef uint32_t Places
        __attribute__((vector_size(kLanes * sizeof(uint32_t)), aligned(sizeof(uint32_t)), may_alias));
    size_t column = 0;
    for (; column + kVectors * kLanes <= count; column += kVectors * kLanes) {
        Vec largest[kVectors];
        VecIndex place[kVectors] = {};
        for (size_t v = 0; v < kVectors; ++v) {
            largest[v] = Load(x + column + v * kLanes);
        }
        for (size_t j = 1; j < length; ++j) {
            const float* const row = x + j * rowStride + column;
            const VecIndex here = VecIndex{} + static_cast<int32_t>(j);
            for (size_t v = 0; v < kVectors; ++v) {
                const Vec elements = Load(row + v * kLanes);
                const auto above = elements > largest[v];
                largest[v] = above ? elements : largest[v];
                place[v] = above ? here : place[v];
            }
        }
        for (size_t v = 0; v < kVectors; ++v) {
            *reinterpret_cast<Places*>(places + column + v * kLanes) = (Places)place[v];
        }
    }
    for (; column < count; ++column) {
        size_t place = 0;
        for (size_t j = 1; j < length; ++j) {
            place = x[j * rowStride + column] > x[place * rowStride + column] ? j : place;
        }
        places[column] = static_cast<uint32_t>(place);
    }
}

uint32_t CountNonZero(const float* x, uint32_t count)
{
    uint32_t zeros = 0;
    for (uint32_t i = 0; i < count; ++i) {
        zeros += NearZero(x[i]) ? 1 : 0;
    }
    return count - zeros;
}

#if defined(OPKIT_LEVEL_avx512)

// Places are packed in a register: stored through the mask of those in use, which is fast, while packing into memory is
// not on every processor.
uint32_t NonZeroPlaces(const float* x, uint32_t count, float* out, uint32_t limit)
{
    uint32_t found = 0;
    const __m512i magnitude = _mm512_set1_epi32(0x7fffffff);
    __m512i places = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    for (uint32_t i = 0; i < count && found < limit; i += kLanes) {
        const uint32_t here = count - i < kLanes ? count - i : kLanes;
        const __mmask16 lanes = static_cast<__mmask16>((1u << here) - 1);
        const __m512i bits = _mm512_and_si512((__m512i)_mm512_maskz_loadu_ps(lanes, x + i), magnitude);
        const __mmask16 large =
            _mm512_mask_cmp_ps_mask(lanes, (__m512)bits, _mm512_set1_ps(kZeroTolerance), _CMP_NLE_UQ);
        const uint32_t more = static_cast<uint32_t>(__builtin_popcount(large));
        const __m512 packed = _mm512_maskz_compress_ps(large, _mm512_cvtepu32_ps(places));
        _mm512_mask_storeu_ps(out + found, static_cast<__mmask16>((1u << more) - 1), packed);
        found += more;
        places = _mm512_add_epi32(places, _mm512_set1_epi32(kLanes));
    }
    return found;
}

#else

// What is written for an element near zero is overwritten by the next place.
uint32_t NonZeroPlaces(const float* x, uint32_t count, float* out, uint32_t limit)
{
    uint32_t found = 0;
    for (uint32_t i = 0; i < count && found < limit; ++i) {
        out[found] = static_cast<float>(i);
        found += NearZero(x[i]) ? 0 : 1;
    }
    return found;
}

#endif

}  // namespace

extern const LaneKernels kLaneKernels = {RunningSums, FirstLargest, FirstLargestOfColumns, CountNonZero, NonZeroPlaces};

}  // namespace opkit::OPKIT_LEVEL
