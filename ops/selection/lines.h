// Lines: the elements of a tensor along one axis. With `inner` elements behind the axis, line g starts at compact index
// (g / inner) * length * inner + g % inner, and its elements lie `inner` apart.
#ifndef OPKIT_OPS_SELECTION_LINES_H
#define OPKIT_OPS_SELECTION_LINES_H

#include "common/merge_sort.h"
#include "runtime/frame.h"

namespace opkit {

struct Lines {
    uint32_t length;
    uint32_t inner;
    uint32_t count;
};

// The axis lies within the dimensions, and its dimension is not 0: a division fault otherwise.
inline Lines LinesAlong(const Input& in, int32_t axis)
{
    const uint32_t length = in.shape[axis];
    return {length, ShapeCount(in.shape, in.dimNum, axis + 1, in.dimNum), in.count / length};
}

// Calls visit(g, start, step) for every line in order, of which there is at least one: where its first element lies in
// the padded rows, and how far apart its elements lie there.
template <class Visit>
void ForEachLine(const Input& in, int32_t axis, const Lines& lines, Visit visit)
{
    const size_t pitch = in.Pitch();
    const bool alongRow = axis == in.dimNum - 1;
    const size_t step = alongRow ? 1 : lines.inner / in.width * pitch;
    const size_t block = alongRow ? pitch : lines.length * step;
    for (uint32_t g = 0, outer = 0; g < lines.count; ++outer) {
        RowCursor start(in.width, static_cast<uint32_t>(pitch));
        for (uint32_t i = 0; i < lines.inner; ++i, ++g) {
            visit(g, outer * block + start.Offset(), step);
            start.Advance(1);
        }
    }
}

// The first `keep` entries, at most `length`, of the line's elements with their places along the axis, sorted.
template <class Compare>
void SortLine(const float* line, size_t step, SortEntry* entries, uint32_t length, uint32_t keep, SortEntry* buffer,
              Compare compare)
{
    for (uint32_t c = 0; c < length; ++c) {
        entries[c] = {line[c * step], static_cast<int32_t>(c)};
    }
    MergeSortFirst(entries, length, keep, buffer, compare);
}

}  // namespace opkit

#endif  // OPKIT_OPS_SELECTION_LINES_H
