// Whole numbers held as floats: what values there are, and how they are laid out as words of bytes or shorts.
#ifndef OPKIT_KERNELS_WHOLE_WORDS_H
#define OPKIT_KERNELS_WHOLE_WORDS_H

#include "common/smaller.h"
#include "kernels/vector.h"
#include "kernels/whole.h"

namespace opkit {
namespace {

// Values to a word.
template <WordForm kForm>
constexpr size_t kPerWord = kForm == WordForm::kBytes ? 4 : 2;

inline VecWord Splat(uint32_t word)
{
    return VecWord{} + word;
}

// One word in every lane, by one load.
inline VecWord BroadcastWord(const uint32_t* from)
{
    VecWord value;
#if defined(OPKIT_LEVEL_avx512)
    __asm__("vpbroadcastd %1, %0" : "=v"(value) : "m"(*from));
#else
    __asm__("vpbroadcastd %1, %0" : "=x"(value) : "m"(*from));
#endif
    return value;
}

// sum + the products of the words' parts; bytes of b are unsigned, those of a signed. Assembly, because GCC 12 copies
// the sums of these intrinsics around.
template <WordForm kForm>
inline VecWord AddProducts(VecWord sum, VecWord b, VecWord a)
{
#if defined(OPKIT_LEVEL_vnni)
    if constexpr (kForm == WordForm::kBytes) {
        __asm__("vpdpbusd %2, %1, %0" : "+v"(sum) : "v"(b), "v"(a));
    } else {
        __asm__("vpdpwssd %2, %1, %0" : "+v"(sum) : "v"(b), "v"(a));
    }
    return sum;
#else
    return sum + (VecWord)_mm256_madd_epi16((__m256i)b, (__m256i)a);
#endif
}

template <WordForm kForm>
inline VecWord Ones()
{
    return Splat(kForm == WordForm::kBytes ? 0x01010101 : 0x00010001);
}

inline int32_t SumOf(VecWord lanes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < kLanes; ++i) {
        sum += lanes[i];
    }
    return static_cast<int32_t>(sum);
}

inline Vec LoadSome(const float* from, size_t count)
{
    return count >= kLanes ? Load(from) : LoadTail(from, count);
}

// ---- Examining ------------------------------------------------------------------------------------------------------

struct RangeNotes {
    VecWord broken = {};  // bits other than the sign are set where a value is not whole
    VecInt lowest = {};
    VecInt highest = {};
};

// A value that an i32 does not hold becomes the lowest of them, and so does not count as whole.
inline void Note(RangeNotes& notes, Vec values)
{
    const VecInt numbers = TruncateToInts(values);
    notes.broken |= (VecWord)values ^ (VecWord) __builtin_convertvector(numbers, Vec);
    notes.lowest = numbers < notes.lowest ? numbers : notes.lowest;
    notes.highest = numbers > notes.highest ? numbers : notes.highest;
}

inline bool AnyBroken(const RangeNotes& notes)
{
    return AnyBitSet(notes.broken & 0x7fffffffu);
}

inline WholeRange RangeOf(const RangeNotes& notes)
{
    WholeRange range = {!AnyBroken(notes), 0, 0};
    for (size_t i = 0; i < kLanes; ++i) {
        range.lowest = notes.lowest[i] < range.lowest ? notes.lowest[i] : range.lowest;
        range.highest = notes.highest[i] > range.highest ? notes.highest[i] : range.highest;
    }
    range.whole = range.whole && range.lowest >= -kLargestWhole && range.highest <= kLargestWhole;
    return range;
}

// `rows` rows of `width` values. The first vectors are looked at right away: values of another kind show there.
inline WholeRange ExamineRows(const float* values, size_t rows, size_t step, size_t width)
{
    constexpr size_t kStretch = 64 * kLanes;
    if (step == width) {
        width *= rows;
        rows = 1;
    }
    RangeNotes notes;
    for (size_t r = 0; r < rows; ++r) {
        const float* const row = values + r * step;
        for (size_t i = 0, end = 0; i < width;) {
            end = Smaller(width, i == 0 ? 4 * kLanes : i + kStretch);
            for (; i + kLanes <= end; i += kLanes) {
                Note(notes, Load(row + i));
            }
            if (i < end && end == width) {
                Note(notes, LoadTail(row + i, end - i));
                i = end;
            }
            if (AnyBroken(notes)) {
                return {false, 0, 0};
            }
        }
    }
    return RangeOf(notes);
}

// The largest magnitude of `count` floats, none of them NaN.
inline float LargestMagnitude(const float* values, size_t count)
{
    VecInt largest = {};  // as bits, which order as magnitudes do
    for (size_t i = 0; i < count; i += kLanes) {
        const VecInt bits = (VecInt)Magnitude(LoadSome(values + i, count - i));
        largest = bits > largest ? bits : largest;
    }
    float most = 0.0f;
    for (size_t i = 0; i < kLanes; ++i) {
        const float magnitude = ((Vec)largest)[i];
        most = magnitude > most ? magnitude : most;
    }
    return most;
}

// Whether a product may start from these: whole numbers of at most 2^24, none of them -0.0.
inline bool MayStartFrom(const float* values, size_t count)
{
    VecWord broken = {};
    for (size_t i = 0; i < count; i += kLanes) {
        const Vec x = LoadSome(values + i, count - i);
        const Vec number = __builtin_convertvector(TruncateToInts(x), Vec);  // +0.0 for -0.0
        broken |= ((VecWord)x ^ (VecWord)number) | (VecWord) ~(Magnitude(x) <= 0x1p24f);
        if (i % (64 * kLanes) == 0 && AnyBitSet(broken)) {
            return false;
        }
    }
    return !AnyBitSet(broken);
}

// ---- Laying out words -----------------------------------------------------------------------------------------------

// words[i] of the values i of up to 4 or 2 runs, `pitch` floats apart; missing runs count as zeros. Bytes are added up
// as numbers from 0 to 255, so signed ones are raised by 128, which the last step takes back.
template <WordForm kForm, bool kSigned>
void WordsAcross(const float* from, size_t pitch, size_t runs, size_t count, int32_t offset, uint32_t* words)
{
    constexpr bool kBytes = kForm == WordForm::kBytes;
    const VecWord none = Splat(static_cast<uint32_t>(offset));
    const VecWord base = Splat(static_cast<uint32_t>(kSigned ? offset - 128 : offset) * 0x01010101u);
    for (size_t i = 0; i < count; i += kLanes) {
        VecWord x[kPerWord<kForm>];
#pragma GCC unroll 4
        for (size_t q = 0; q < kPerWord<kForm>; ++q) {
            x[q] = q < runs ? (VecWord)TruncateToInts(LoadSome(from + q * pitch + i, count - i)) : none;
        }
        if constexpr (kBytes) {
            const VecWord sum = (x[0] + (x[1] << 8)) + ((x[2] << 16) + (x[3] << 24)) - base;
            StoreWords(words + i, kSigned ? sum ^ 0x80808080u : sum);
        } else {
            StoreWords(words + i, (x[0] & 0xffffu) | (x[1] << 16));
        }
    }
}

// The low bytes or shorts of whole numbers, side by side.
template <WordForm kForm>
inline void StoreNarrowed(void* to, VecInt x)
{
#if defined(OPKIT_LEVEL_avx512)
    if constexpr (kForm == WordForm::kBytes) {
        _mm_storeu_si128(static_cast<__m128i*>(to), _mm512_cvtepi32_epi8((__m512i)x));
    } else {
        _mm256_storeu_si256(static_cast<__m256i*>(to), _mm512_cvtepi32_epi16((__m512i)x));
    }
#else
    const __m256i shorts = _mm256_permute4x64_epi64(_mm256_packs_epi32((__m256i)x, (__m256i)x), 0x08);
    _mm_storeu_si128(static_cast<__m128i*>(to), _mm256_castsi256_si128(shorts));
#endif
}

// Words of `count` values that lie side by side; zeros fill up the last kLanes values. `offset` is 0 for shorts.
template <WordForm kForm>
void WordsAlong(const float* from, size_t count, int32_t offset, uint32_t* words)
{
    const VecInt offsets = VecInt{} + offset;
    for (size_t i = 0; i < count; i += kLanes) {
        VecInt x = TruncateToInts(LoadSome(from + i, count - i));
        x -= count - i >= kLanes                                      ? offsets
             : (VecInt)FirstWords() < static_cast<int32_t>(count - i) ? offsets
                                                                      : VecInt{};
        StoreNarrowed<kForm>(words + i / kPerWord<kForm>, x);
    }
}

// A square of words, `step` words from row to row, transposed.
inline void TransposeWords(const uint32_t* from, size_t step, uint32_t* to, size_t toStep)
{
    Vec square[kLanes];
#pragma GCC unroll 16
    for (size_t i = 0; i < kLanes; ++i) {
        square[i] = (Vec)LoadWords(from + i * step);
    }
    TransposeSquare(square);
#pragma GCC unroll 16
    for (size_t i = 0; i < kLanes; ++i) {
        StoreWords(to + i * toStep, (VecWord)square[i]);
    }
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_WHOLE_WORDS_H
