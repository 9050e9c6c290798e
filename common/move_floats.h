// Moving runs of floats, bit by bit. Rows are often only a few floats long, where calling memmove costs more than
// moving.
#ifndef OPKIT_COMMON_MOVE_FLOATS_H
#define OPKIT_COMMON_MOVE_FLOATS_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <xmmintrin.h>

namespace opkit {

// As memmove: the whole run is read before it is written, so ranges may overlap.
inline void MoveFloats(float* to, const float* from, size_t count)
{
    if (count > 16) {
        memmove(to, from, count * sizeof(float));
    } else if (count >= 8) {
        const __m128 a = _mm_loadu_ps(from);
        const __m128 b = _mm_loadu_ps(from + 4);
        const __m128 c = _mm_loadu_ps(from + count - 8);
        const __m128 d = _mm_loadu_ps(from + count - 4);
        _mm_storeu_ps(to, a);
        _mm_storeu_ps(to + 4, b);
        _mm_storeu_ps(to + count - 8, c);
        _mm_storeu_ps(to + count - 4, d);
    } else if (count >= 4) {
        const __m128 a = _mm_loadu_ps(from);
        const __m128 b = _mm_loadu_ps(from + count - 4);
        _mm_storeu_ps(to, a);
        _mm_storeu_ps(to + count - 4, b);
    } else if (count > 0) {
        const float first = from[0];
        const float middle = from[count / 2];
        const float last = from[count - 1];
        to[0] = first;
        to[count / 2] = middle;
        to[count - 1] = last;
    }
}

inline void RepeatFloat(float* to, float value, size_t count)
{
    const __m128 four = _mm_set1_ps(value);
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        _mm_storeu_ps(to + i, four);
        _mm_storeu_ps(to + i + 4, four);
    }
    for (; i < count; ++i) {
        to[i] = value;
    }
}

// Moves a run that advances, with step 1, or repeats the element at which it stands, with step 0.
inline void MoveOrRepeat(float* to, const float* from, uint32_t step, size_t count)
{
    if (step != 0) {
        MoveFloats(to, from, count);
    } else {
        RepeatFloat(to, *from, count);
    }
}

// Moves rows of `width` floats, first to last.
inline void MoveRows(float* to, size_t toPitch, const float* from, size_t fromPitch, size_t rows, size_t width)
{
    if (toPitch == width && fromPitch == width) {
        MoveFloats(to, from, rows * width);
        return;
    }
    for (size_t row = 0; row < rows; ++row) {
        MoveFloats(to + row * toPitch, from + row * fromPitch, width);
    }
}

}  // namespace opkit

#endif  // OPKIT_COMMON_MOVE_FLOATS_H
