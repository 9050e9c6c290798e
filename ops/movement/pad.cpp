// Pad: adds a constant, the mirror image or the edge around a tensor, and crops where a count is negative.
// Rows: expanding.
//
// One forward pass over the output. Each kept input row is copied with its innermost padding around it; whenever an
// outer axis completes, that axis's padding is made from what the output already holds. Inner axes without padding are
// merged first. The arrays lie in the work space in an order that the model compiler knows, and where it gives one of
// them less room than is written, the next one is overwritten.

#include <cstring>

#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "ops/movement/pad_rows.h"

using namespace opkit;

namespace {

PadScratch Divide(void* opkitBuf, const PadAttr& attr)
{
    PadScratch scratch;
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

void SplitPads(const PadAttr& attr, const PadScratch& scratch)
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
int32_t Reshape(const PadScratch& scratch, uint32_t rank, uint32_t r)
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
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kNone)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const uint32_t rank = static_cast<uint32_t>(in.dimNum);
    if (attr.padCount != attr.padCountCheck || attr.padCount != 2 * rank) {
        return kFailure;
    }
    const PadScratch scratch = Divide(param->opkitBuf, attr);
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
        scratch.outputDims[i] +=
            scratch.pads[i] + scratch.pads[rank + i] + scratch.slices[i] + scratch.slices[rank + i];
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
