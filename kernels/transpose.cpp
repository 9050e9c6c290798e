// Transposition; see kernels/level.h for the levels. Only moves.

#include "kernels/transpose.h"

#include <xmmintrin.h>

#include "kernels/contract.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

void Square(const float* in, size_t inStep, float* out, size_t outStep)
{
    Vec square[kLanes];
#pragma GCC unroll 16
    for (size_t i = 0; i < kLanes; ++i) {
        square[i] = Load(in + i * inStep);
    }
    TransposeSquare(square);
#pragma GCC unroll 16
    for (size_t i = 0; i < kLanes; ++i) {
        Store(out + i * outStep, square[i]);
    }
}

// What is left beside the squares: by four, then one by one.
void Edge(const float* in, size_t inStep, float* out, size_t outStep, uint32_t rows, uint32_t columns)
{
    const uint32_t wholeRows = rows / 4 * 4;
    const uint32_t wholeColumns = columns / 4 * 4;
    for (uint32_t c = 0; c < wholeColumns; c += 4) {
        const float* const from = in + c * inStep;
        for (uint32_t r = 0; r < wholeRows; r += 4) {
            __m128 first = _mm_loadu_ps(from + r);
            __m128 second = _mm_loadu_ps(from + inStep + r);
            __m128 third = _mm_loadu_ps(from + 2 * inStep + r);
            __m128 fourth = _mm_loadu_ps(from + 3 * inStep + r);
            _MM_TRANSPOSE4_PS(first, second, third, fourth);
            float* const to = out + r * outStep + c;
            _mm_storeu_ps(to, first);
            _mm_storeu_ps(to + outStep, second);
            _mm_storeu_ps(to + 2 * outStep, third);
            _mm_storeu_ps(to + 3 * outStep, fourth);
        }
        for (uint32_t r = wholeRows; r < rows; ++r) {
            for (uint32_t i = 0; i < 4; ++i) {
                out[r * outStep + c + i] = from[i * inStep + r];
            }
        }
    }
    for (uint32_t c = wholeColumns; c < columns; ++c) {
        for (uint32_t r = 0; r < rows; ++r) {
            out[r * outStep + c] = in[c * inStep + r];
        }
    }
}

// By strips of rows: whole cache lines of both sides are done with while they are near.
void Plane(const float* in, size_t inStep, float* out, size_t outStep, uint32_t rows, uint32_t columns)
{
    assert(Present(in, size_t{rows} * columns) && Present(out, size_t{rows} * columns));
    assert(Apart(in, FloatsSpanned(columns, inStep, rows), out, FloatsSpanned(rows, outStep, columns)));
    constexpr uint32_t kStrip = 64;
    constexpr uint32_t kSide = kLanes;
    const uint32_t wholeColumns = columns / kSide * kSide;
    for (uint32_t strip = 0; strip < rows; strip += kStrip) {
        const uint32_t height = rows - strip < kStrip ? rows - strip : kStrip;
        const uint32_t wholeRows = height / kSide * kSide;
        const float* const from = in + strip;
        float* const to = out + strip * outStep;
        for (uint32_t c = 0; c < wholeColumns; c += kSide) {
            for (uint32_t r = 0; r < wholeRows; r += kSide) {
                Square(from + c * inStep + r, inStep, to + r * outStep + c, outStep);
            }
            Edge(from + c * inStep + wholeRows, inStep, to + wholeRows * outStep + c, outStep, height - wholeRows,
                 kSide);
        }
        Edge(from + wholeColumns * inStep, inStep, to + wholeColumns, outStep, height, columns - wholeColumns);
    }
}

}  // namespace

extern const TransposeKernels kTransposeKernels = {Plane};

}  // namespace opkit::OPKIT_LEVEL
