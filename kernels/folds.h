// The loops of folds. Kinds give Step(accumulator, element) for floats and for vectors, see kernels/fold_steps.h.
#ifndef OPKIT_KERNELS_FOLDS_H
#define OPKIT_KERNELS_FOLDS_H

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/reduction.h"
#include "kernels/vector.h"

namespace opkit {
namespace {

// The contract of FoldKernels.
inline bool MayFoldColumns(const float* acc, const float* x, size_t count, size_t rows, size_t rowStride)
{
    return Present(acc, count) && Present(x, rows * count) &&
           Apart(acc, count, x, FloatsSpanned(rows, rowStride, count));
}

inline bool MayFoldRows(const float* acc, const float* x, size_t count, size_t rowStride, size_t length)
{
    return Present(acc, count) && Present(x, count * length) &&
           (count * length == 1 || Apart(acc, count, x, FloatsSpanned(count, rowStride, length)));
}

// Four rows at a time: their accumulators are loaded and stored once. A block of accumulators stays in the first cache.
template <class Kind>
void Columns(float* __restrict acc, const float* __restrict x, size_t count, size_t rows, size_t rowStride)
{
    assert(MayFoldColumns(acc, x, count, rows, rowStride));
    constexpr size_t kBlock = 2048;
    for (size_t begin = 0; begin < count; begin += kBlock) {
        const size_t n = Smaller(count - begin, kBlock);
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

// Neighbouring accumulators are the lanes of a vector that takes a whole column at a time: for steps that cost more
// than walking down the rows.
template <class Kind>
void VectorColumns(float* acc, const float* x, size_t count, size_t rows, size_t rowStride)
{
    assert(MayFoldColumns(acc, x, count, rows, rowStride));
    for (size_t j = 0; j < count; j += kLanes) {
        const size_t tail = Smaller(count - j, kLanes);
        const bool whole = tail == kLanes;
        Vec sums = whole ? Load(acc + j) : LoadTail(acc + j, tail);
        for (size_t r = 0; r < rows; ++r) {
            const float* const row = x + r * rowStride + j;
            sums = Kind::Step(sums, whole ? Load(row) : LoadTail(row, tail));
        }
        if (whole) {
            Store(acc + j, sums);
        } else {
            StoreTail(acc + j, sums, tail);
        }
    }
}

// Loads a square of elements and turns it, so that square[i] holds element i of every row.
inline void LoadTurned(const float* const (&row)[kLanes], size_t column, Vec (&square)[kLanes])
{
    for (size_t lane = 0; lane < kLanes; ++lane) {
        square[lane] = Load(row[lane] + column);
    }
    TransposeSquare(square);
}

// One row per lane, up to kLanes of them; lanes without a row of their own repeat the last one. step(acc, elements)
// takes vectors.
template <class Step>
void FoldRowGroup(float* acc, const float* x, size_t rows, size_t rowStride, size_t length, Step step)
{
    const float* row[kLanes];
    Vec a;
    for (size_t lane = 0; lane < kLanes; ++lane) {
        const size_t r = Smaller(lane, rows - 1);
        row[lane] = x + r * rowStride;
        a[lane] = acc[r];
    }
    size_t j = 0;
    for (; j + kLanes <= length; j += kLanes) {
        Vec square[kLanes];
        LoadTurned(row, j, square);
        for (size_t i = 0; i < kLanes; ++i) {
            a = step(a, square[i]);
        }
    }
    for (; j < length; ++j) {
        Vec column;
        for (size_t lane = 0; lane < kLanes; ++lane) {
            column[lane] = row[lane][j];
        }
        a = step(a, column);
    }
    for (size_t lane = 0; lane < rows; ++lane) {
        acc[lane] = a[lane];
    }
}

template <class Kind>
void FoldRow(float* acc, const float* x, size_t length)
{
    float a = *acc;
    for (size_t j = 0; j < length; ++j) {
        a = Kind::Step(a, x[j]);
    }
    *acc = a;
}

template <class Kind, void (*SingleRow)(float*, const float*, size_t) = FoldRow<Kind>>
void Rows(float* acc, const float* x, size_t count, size_t rowStride, size_t length)
{
    assert(MayFoldRows(acc, x, count, rowStride, length));
    for (size_t begin = 0; begin < count; begin += kLanes) {
        const size_t rows = Smaller(count - begin, kLanes);
        const float* const first = x + begin * rowStride;
        if (rows == 1) {
            SingleRow(acc + begin, first, length);
        } else {
            FoldRowGroup(acc + begin, first, rows, rowStride, length, [](Vec a, Vec b) { return Kind::Step(a, b); });
        }
    }
}

template <class Kind>
constexpr FoldKernels kFold = {Columns<Kind>, Rows<Kind>};

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_FOLDS_H
