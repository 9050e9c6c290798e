// Pad's one pass over the output. Each kept input row is copied with its innermost padding around it; whenever an outer
// axis completes, that axis's padding is made from what the output already holds.

#include "ops/movement/pad_rows.h"

#include <cstring>

namespace opkit {
namespace {

// The padding of one axis around its finished blocks of `step` floats, single elements on the innermost axis. Mirrored
// blocks must lie inside the tensor.
struct Padder {
    uint32_t mode;
    float constant;
    const float* begin;  // the output tensor
    const float* end;

    // Copies `count` blocks from `from` downward to `to` upward, up to the first that lies outside.
    bool Mirror(float* to, const float* from, uint32_t count, uint32_t step) const
    {
        if (count == 0) {
            return true;
        }
        if (from < begin || end - from < ptrdiff_t{step}) {
            return false;
        }
        const size_t above = static_cast<size_t>(from - begin);
        const bool fits = above >= size_t{count - 1} * step;
        const uint32_t blocks = fits ? count : static_cast<uint32_t>(above / step) + 1;
        if (step == 1) {
            for (uint32_t k = 0; k < blocks; ++k) {
                to[k] = from[-ptrdiff_t{k}];
            }
            return fits;
        }
        for (uint32_t k = 0; k < blocks; ++k) {
            std::memcpy(to + size_t{k} * step, from - size_t{k} * step, size_t{step} * sizeof(float));
        }
        return fits;
    }

    static void Repeat(float* to, const float* from, uint32_t count, uint32_t step)
    {
        if (step == 1) {
            PadAxisConstant(to, static_cast<int32_t>(count), *from);
            return;
        }
        for (uint32_t k = 0; k < count; ++k, to += step) {
            std::memcpy(to, from, size_t{step} * sizeof(float));
        }
    }

    bool Before(float* blocks, uint32_t count, uint32_t step) const
    {
        float* const to = blocks - size_t{count} * step;
        if (mode == OPKIT_PAD_REFLECT) {
            return Mirror(to, blocks + size_t{count} * step, count, step);
        }
        if (mode == OPKIT_PAD_EDGE) {
            Repeat(to, blocks, count, step);
        } else {
            PadAxisConstant(to, static_cast<int32_t>(count * step), constant);
        }
        return true;
    }

    bool Behind(float* to, uint32_t count, uint32_t step) const
    {
        if (mode == OPKIT_PAD_REFLECT) {
            return Mirror(to, to - 2 * size_t{step}, count, step);
        }
        if (mode == OPKIT_PAD_EDGE) {
            Repeat(to, to - step, count, step);
        } else {
            PadAxisConstant(to, static_cast<int32_t>(count * step), constant);
        }
        return true;
    }
};

// Returns false when a mirrored block lies outside the output.
bool Walk(const PadScratch& scratch, int32_t r, PadSliceIterator* rows, ExtentAxisCounts* axes, const uint32_t* pitches,
          float* cursor, const Padder& padder)
{
    const uint32_t* const before = scratch.reshapedPads;
    const uint32_t* const behind = scratch.reshapedPads + r;
    uint32_t alignSkip = 0;  // floats up to the next kept element
    for (int32_t i = 0; i < r; ++i) {
        alignSkip += before[i] * pitches[i];
    }
    while (axes->running != 0) {
        cursor += alignSkip;
        float* const row = cursor;
        cursor = CopyInnermostAxisSolitaryInnerStep(rows, row);
        if (!padder.Before(row, before[r - 1], 1) || !padder.Behind(cursor, behind[r - 1], 1)) {
            return false;
        }
        cursor += behind[r - 1];
        alignSkip = before[r - 1];
        while (ExtentAxisCountsIncrement(axes) != 0) {
            const int32_t axis = axes->axis;
            const uint32_t step = pitches[axis];
            if (!padder.Before(cursor - size_t{scratch.extents[axis]} * step, before[axis], step) ||
                !padder.Behind(cursor, behind[axis], step)) {
                return false;
            }
            cursor += size_t{step} * behind[axis];
            alignSkip += step * before[axis];
        }
    }
    return true;
}

}  // namespace

bool PadRows(const Input& in, const Output& out, const PadAttr& attr, const PadScratch& scratch, int32_t r,
             int32_t innerNoPadSize)
{
    const int32_t rank = in.dimNum;
    uint32_t* const positions = scratch.extents + r;
    uint32_t* const skips = positions + rank;
    TensorPitches pitches = {skips + rank, r};
    TensorPictchesInit(&pitches, scratch.reshapedOutputDims, r);

    PadSliceIterator rows = {};
    rows.input = in.data;
    rows.dims = scratch.inputDims;
    rows.rank = r;
    rows.extents = scratch.extents;
    rows.starts = scratch.starts;
    rows.positionCount = r;
    rows.positions = positions;
    rows.skips = reinterpret_cast<int32_t*>(skips);
    PadSliceIteratorInit(&rows, static_cast<int32_t>(in.alignNum), innerNoPadSize);

    ExtentAxisCounts axes = {};
    axes.counters = pitches.pitches + rank;
    ExtentAxisCountsInit(&axes, scratch.extents, static_cast<uint32_t>(r));

    Padder padder = {attr.padMode, attr.padConstant, out.data, nullptr};
    if (attr.padMode == OPKIT_PAD_REFLECT) {
        padder.end = out.data + out.Span();
    }
    return Walk(scratch, r, &rows, &axes, pitches.pitches, out.data, padder);
}

}  // namespace opkit
