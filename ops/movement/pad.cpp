// Pad: adds a constant, the mirror image or the edge around a tensor, and crops where a count is negative.
//
// One forward pass over the output, which is written compactly and expanded at the end. Each kept input row is copied
// with its innermost padding around it; whenever an outer axis completes, that axis's padding is made from what the
// output already holds. Inner axes without padding are merged first. The arrays lie in the work space in an order that
// the model compiler knows, and where it gives one of them less room than is written, the next one is overwritten.

#include <cstring>

#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// The arrays of the work space, of 32-bit words.
struct Scratch {
    uint32_t* pads;
    uint32_t* slices;  // what crops, negative numbers as they wrap
    uint32_t* outputDims;
    uint32_t* inputDims;  // this and the next four after merging
    uint32_t* reshapedOutputDims;
    uint32_t* reshapedPads;
    uint32_t* reshapedSlices;
    int32_t* starts;
    uint32_t* extents;  // r entries; the walk's own arrays follow
};

Scratch Divide(void* opkitBuf, const PadAttr& attr)
{
    Scratch scratch;
    uint32_t* next = static_cast<uint32_t*>(opkitBuf);
    const auto take = [&next](int64_t entries) {
        uint32_t* const begin = next;
        next += entries;
        return begin;
    };
    scratch.pads = take(attr.padCount);
    scratch.slices = take(attr.padCount);
    scratch.outputDims = take(attr.outputDimsSize);
    scratch.inputDims = take(attr.reshapedInputDimsSize);
    scratch.reshapedOutputDims = take(attr.reshapedOutputDimsSize);
    scratch.reshapedPads = take(attr.reshapedPadsSize);
    scratch.reshapedSlices = take(attr.reshapedSlicesSize);
    scratch.starts = reinterpret_cast<int32_t*>(take(attr.inputStartsSize));
    scratch.extents = next;
    return scratch;
}

void SplitPads(const PadAttr& attr, const Scratch& scratch)
{
    const int32_t* counts = attr.padsAttr;
    for (uint32_t i = 0; i < attr.padCount; ++i) {
        scratch.pads[i] = counts[i] < 0 ? 0 : static_cast<uint32_t>(counts[i]);
        scratch.slices[i] = counts[i] < 0 ? static_cast<uint32_t>(counts[i]) : 0;
    }
}

bool ScratchSuffices(const PadAttr& attr, int32_t rank, int32_t r)
{
    return r <= attr.inputExtentsSize && r <= attr.inputStartsSize && r <= attr.reshapedSlicesSize &&
           2 * r <= attr.reshapedPadsSize && r <= attr.reshapedOutputDimsSize && attr.outputDimsSize == rank;
}

// Fills everything behind outputDims; returns how many elements of the input a merged innermost element stands for.
int32_t Reshape(const Scratch& scratch, uint32_t rank, uint32_t r)
{
    const int32_t inner = static_cast<int32_t>(scratch.outputDims[r - 1]);  // an axis before merging
    const int32_t innerNoPadSize = inner > 0 ? static_cast<int32_t>(scratch.inputDims[r - 1]) / inner : 0;
    ReshapePads(scratch.pads, rank, r, static_cast<uint32_t>(innerNoPadSize), scratch.reshapedPads);
    ReshapePads(scratch.slices, rank, r, static_cast<uint32_t>(innerNoPadSize), scratch.reshapedSlices);
    std::memmove(scratch.reshapedOutputDims, scratch.inputDims, size_t{r} * sizeof(uint32_t));
    // starts first: with a short reshapedSlices it lies on the end counts.
    const uint32_t* const slices = scratch.reshapedSlices;
    for (uint32_t i = 0; i < r; ++i) {
        scratch.starts[i] = static_cast<int32_t>(0 - slices[i]);
        scratch.extents[i] = slices[i] + scratch.inputDims[i] + slices[r + i];
        scratch.reshapedOutputDims[i] +=
            scratch.reshapedPads[r + i] + scratch.reshapedPads[i] + slices[i] + slices[r + i];
    }
    return innerNoPadSize;
}

// The padding of one axis around `extent` finished blocks of `pitch` floats, the rows of the innermost axis with a
// pitch of 1. Mirrored blocks must lie inside the tensor.
struct Padder {
    uint32_t mode;
    float constant;
    const float* begin;  // the output tensor
    const float* end;

    // Copies `count` blocks from `from` downward to `to` upward, up to the first that lies outside.
    bool Mirror(float* to, const float* from, uint32_t count, uint32_t pitch) const
    {
        if (count == 0) {
            return true;
        }
        if (from < begin || end - from < ptrdiff_t{pitch}) {
            return false;
        }
        const size_t above = static_cast<size_t>(from - begin);
        const bool fits = above >= size_t{count - 1} * pitch;
        const uint32_t blocks = fits ? count : static_cast<uint32_t>(above / pitch) + 1;
        if (pitch == 1) {
            for (uint32_t k = 0; k < blocks; ++k) {
                to[k] = from[-ptrdiff_t{k}];
            }
            return fits;
        }
        for (uint32_t k = 0; k < blocks; ++k) {
            std::memcpy(to + size_t{k} * pitch, from - size_t{k} * pitch, size_t{pitch} * sizeof(float));
        }
        return fits;
    }

    static void Repeat(float* to, const float* from, uint32_t count, uint32_t pitch)
    {
        if (pitch == 1) {
            PadAxisConstant(to, static_cast<int32_t>(count), *from);
            return;
        }
        for (uint32_t k = 0; k < count; ++k, to += pitch) {
            std::memcpy(to, from, size_t{pitch} * sizeof(float));
        }
    }

    bool Before(float* blocks, uint32_t count, uint32_t pitch) const
    {
        float* const to = blocks - size_t{count} * pitch;
        if (mode == OPKIT_PAD_REFLECT) {
            return Mirror(to, blocks + size_t{count} * pitch, count, pitch);
        }
        if (mode == OPKIT_PAD_EDGE) {
            Repeat(to, blocks, count, pitch);
        } else {
            PadAxisConstant(to, static_cast<int32_t>(count * pitch), constant);
        }
        return true;
    }

    bool Behind(float* to, uint32_t count, uint32_t pitch) const
    {
        if (mode == OPKIT_PAD_REFLECT) {
            return Mirror(to, to - 2 * size_t{pitch}, count, pitch);
        }
        if (mode == OPKIT_PAD_EDGE) {
            Repeat(to, to - pitch, count, pitch);
        } else {
            PadAxisConstant(to, static_cast<int32_t>(count * pitch), constant);
        }
        return true;
    }
};

// Returns false when a mirrored block lies outside the output.
bool Walk(const Scratch& scratch, int32_t r, PadSliceIterator* rows, ExtentAxisCounts* axes, const uint32_t* pitches,
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
            const uint32_t pitch = pitches[axis];
            if (!padder.Before(cursor - size_t{scratch.extents[axis]} * pitch, before[axis], pitch) ||
                !padder.Behind(cursor, behind[axis], pitch)) {
                return false;
            }
            cursor += size_t{pitch} * behind[axis];
            alignSkip += pitch * before[axis];
        }
    }
    return true;
}

bool PadRows(const Input& in, const Output& out, const PadAttr& attr, const Scratch& scratch, int32_t r,
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
        padder.end = out.data + size_t{out.count / out.width} * out.Pitch();
    }
    return Walk(scratch, r, &rows, &axes, pitches.pitches, out.data, padder);
}

// An input without elements: only the constant has something to write. Rows are not expanded.
uint32_t PadNothing(const Input& in, const Output& out, const PadAttr& attr, uint32_t* outputDims)
{
    const uint32_t rank = static_cast<uint32_t>(in.dimNum);
    if (PadInputWithDimValueOfZero(static_cast<int32_t>(attr.padMode), in.shape, outputDims, rank) != kSuccess) {
        return kFailure;
    }
    if (attr.padMode == OPKIT_PAD_CONSTANT) {
        PadAxisConstant(out.data, static_cast<int32_t>(ElementCount(outputDims, rank)), attr.padConstant);
    }
    return kSuccess;
}

}  // namespace

uint32_t PadOpkitForward(LayerParam* param)
{
    const PadAttr& attr = AttrOf<PadAttr>(param);
    Input in;
    if (!ResolveOnlyInput(param, &in)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const uint32_t rank = static_cast<uint32_t>(in.dimNum);
    if (attr.padCount != attr.padCountCheck || attr.padCount != 2 * rank) {
        return kFailure;
    }
    const Scratch scratch = Divide(param->opkitBuf, attr);
    SplitPads(attr, scratch);
    std::memcpy(scratch.outputDims, in.shape, size_t{rank} * sizeof(uint32_t));
    FlattenContext context = {scratch.outputDims, scratch.pads, scratch.slices, rank};
    const uint32_t alignedWidth = ((in.width * 4 + 15) / 4) & ~3u;
    const uint32_t r = FlattenInnerShape(&context, scratch.inputDims, alignedWidth);
    if (!ScratchSuffices(attr, in.dimNum, static_cast<int32_t>(r))) {
        return kFailure;
    }
    const int32_t innerNoPadSize = Reshape(scratch, rank, r);
    for (uint32_t i = 0; i < rank; ++i) {
        scratch.outputDims[i] += scratch.pads[i] + scratch.pads[rank + i] + scratch.slices[i] + scratch.slices[rank + i];
    }
    if (in.count == 0) {
        return PadNothing(in, out, attr, scratch.outputDims);
    }
    if (attr.padMode <= OPKIT_PAD_EDGE && !PadRows(in, out, attr, scratch, static_cast<int32_t>(r), innerNoPadSize)) {
        Report(Here(), "reflect pad is larger than the tensor.\n\n");
        return kFailure;
    }
    return ExpandOutput(out);
}
