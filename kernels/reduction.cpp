// Reduction folds; see kernels/level.h for the levels.

#include "kernels/reduction.h"

#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

struct Add {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + x;
    }
};

struct AddMagnitude {
    static float Step(float acc, float x) { return acc + __builtin_fabsf(x); }
    static Vec Step(Vec acc, Vec x) { return acc + (Vec)((VecIndex)x & 0x7fffffff); }
};

struct AddSquare {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + x * x;
    }
};

struct Largest {
    template <class T>
    static T Step(T acc, T x)
    {
        return x > acc ? x : acc;
    }
};

struct Smallest {
    template <class T>
    static T Step(T acc, T x)
    {
        return x < acc ? x : acc;
    }
};

struct Multiply {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc * x;
    }
};

// Four rows at a time: their accumulators are loaded and stored once. A block of accumulators stays in the first cache.
template <class Kind>
void Columns(float* __restrict acc, const float* __restrict x, size_t count, size_t rows, size_t rowStride)
{
    constexpr size_t kBlock = 2048;
    for (size_t begin = 0; begin < count; begin += kBlock) {
        const size_t n = count - begin < kBlock ? count - begin : kBlock;
        float* const a = acc + begin;
        const float* row = x + begin;
        size_t left = rows;
        for (; left >= 4; left -= 4, row += 4 * rowStride) {
            const float* const second = row + rowStride;
            const float* const third = row + 2 * rowStride;
            const float* const fourth = row + 3 * rowStride;
            for (size_t j = 0; j < n; ++j) {
                const float half = Kind::Step(Kind::Step(a[j], row[j]), second[j]);
                a[j] = Kind::Step(Kind::Step(half, third[j]), fourth[j]);
            }
        }
        for (; left > 0; --left, row += rowStride) {
            for (size_t j = 0; j < n; ++j) {
                a[j] = Kind::Step(a[j], row[j]);
            }
        }
    }
}

template <class Kind>
void OneRow(float* acc, const float* x, size_t length)
{
    float a = *acc;
    for (size_t j = 0; j < length; ++j) {
        a = Kind::Step(a, x[j]);
    }
    *acc = a;
}

// One row per lane. Squares of elements are transposed, so that a vector holds one element of every row. Lanes without
// a row of their own repeat the last one.
template <class Kind>
void Rows(float* acc, const float* x, size_t count, size_t rowStride, size_t length)
{
    for (size_t begin = 0; begin < count; begin += kLanes) {
        const size_t rows = count - begin < kLanes ? count - begin : kLanes;
        if (rows == 1) {
            OneRow<Kind>(acc + begin, x + begin * rowStride, length);
            continue;
        }
        const float* row[kLanes];
        Vec a;
        for (size_t lane = 0; lane < kLanes; ++lane) {
            const size_t r = begin + (lane < rows ? lane : rows - 1);
            row[lane] = x + r * rowStride;
            a[lane] = acc[r];
        }
        size_t j = 0;
        for (; j + kLanes <= length; j += kLanes) {
            Vec square[kLanes];
            for (size_t lane = 0; lane < kLanes; ++lane) {
                square[lane] = Load(row[lane] + j);
            }
            TransposeSquare(square);
            for (size_t lane = 0; lane < kLanes; ++lane) {
                a = Kind::Step(a, square[lane]);
            }
        }
        for (; j < length; ++j) {
            Vec column;
            for (size_t lane = 0; lane < kLanes; ++lane) {
                column[lane] = row[lane][j];
            }
            a = Kind::Step(a, column);
        }
        for (size_t lane = 0; lane < rows; ++lane) {
            acc[begin + lane] = a[lane];
        }
    }
}

template <class Kind>
constexpr FoldKernels kFold = {Columns<Kind>, Rows<Kind>};

}  // namespace

extern const ReductionKernels reductionKernels = {
    kFold<Add>, kFold<AddMagnitude>, kFold<AddSquare>, kFold<Largest>, kFold<Smallest>, kFold<Multiply>,
};

}  // namespace opkit::OPKIT_LEVEL
