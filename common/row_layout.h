// The padded row layout: rows of `width` floats start `rowPitch` floats apart, the width rounded up to a multiple of
// the tensor's alignment. Compact index n lies at (n / width) * rowPitch + n % width.
#ifndef OPKIT_COMMON_ROW_LAYOUT_H
#define OPKIT_COMMON_ROW_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

namespace opkit {

// Floats from one row to the next. An alignment of 0 is a division fault, as everywhere in this layout.
constexpr uint32_t RowPitch(uint32_t width, uint32_t alignNum)
{
    return ((width + alignNum - 1) / alignNum) * alignNum;  // NOLINT(clang-analyzer-core.DivideZero): see above
}

// Rows without width have no places: a hardware fault, as the division by the width would be.
inline void TrapWithoutWidth(uint32_t width)
{
    if (width == 0) {
        __builtin_trap();
    }
}

// Where the last element of a tensor of `count` compact elements goes when its rows spread to `rowDistance`.
constexpr uint32_t LastIndex(uint32_t count, uint32_t width, uint32_t rowDistance)
{
    return (count / width) * rowDistance + (width - rowDistance - 1);
}

// Moves `count` padded elements to the front, in place. Width and alignment are not zero.
void CompactRows(float* data, uint32_t count, uint32_t width, uint32_t alignNum);

// Moves `count` compact elements to rows `rowDistance` floats apart, in place and from the last element down; the
// last one goes to `lastIndex`. The row distance is taken as it is, not rounded: below the width, rows overlap.
void SpreadRows(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex);

// Rows that were written `rowDistance` floats apart, at least the width, get what SpreadRows would have left between
// them: the compact elements that it does not overwrite.
void FillSpreadGaps(float* data, uint32_t count, uint32_t width, uint32_t rowDistance);

// A walk over compact indices that yields padded offsets without a division per element.
class RowCursor {
public:
    RowCursor(uint32_t width, uint32_t rowPitch) : width_(width), gap_(size_t{rowPitch} - width), left_(width) {}

    size_t Offset() const { return offset_; }
    uint32_t LeftInRow() const
    {
        TrapWithoutWidth(width_);
        return left_;
    }

    // Steps over `count` elements of the current row, at most LeftInRow().
    void Advance(uint32_t count)
    {
        offset_ += count;
        left_ -= count;
        if (left_ == 0) {
            offset_ += gap_;
            left_ = width_;
        }
    }

private:
    uint32_t width_;
    size_t gap_;
    uint32_t left_;
    size_t offset_ = 0;
};

// Calls run(offset, offset2, length) for the longest runs in which both layouts are contiguous, in ascending order,
// until `count` elements, at least one, are covered. Each side has its own width and pitch.
template <class Run>
void ForEachRowRun(uint32_t count, uint32_t width, uint32_t pitch, uint32_t width2, uint32_t pitch2, Run run)
{
    TrapWithoutWidth(width);
    TrapWithoutWidth(width2);
    if (width == pitch && width2 == pitch2) {
        run(size_t{0}, size_t{0}, count);
        return;
    }
    RowCursor first(width, pitch);
    RowCursor second(width2, pitch2);
    while (count > 0) {
        uint32_t length = first.LeftInRow() < second.LeftInRow() ? first.LeftInRow() : second.LeftInRow();
        length = length < count ? length : count;
        run(first.Offset(), second.Offset(), length);
        first.Advance(length);
        second.Advance(length);
        count -= length;
    }
}

}  // namespace opkit

#endif  // OPKIT_COMMON_ROW_LAYOUT_H
