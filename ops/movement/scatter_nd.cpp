// ScatterND: a copy of the data in which tuples of indices name slices that updates replace, in order.
// Rows: in place, the output's stepping; all offsets count padded elements, one tuple per row of the indices.
//
// A slice is as long as the updates' padded rows make it, its tail goes along. Steps and offsets live in the work
// space, whose size is checked. All tuples are resolved before the first slice is written, so a refused index leaves
// the plain copy.

#include <algorithm>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

struct ScatterInputs {
    Input data;
    Input indices;
    Input updates;
    int32_t tupleLength;
};

uint32_t ScatterNDOpkitCheck(const ScatterInputs& in)
{
    const int32_t rank = in.data.dimNum;
    const int32_t indexRank = in.indices.dimNum;
    if (rank == 0 || indexRank == 0) {
        Report(Here(),
               "data tensor and indices tensor must has rank larger than 0. dataDimNum: %d, indicesDimNum: %d\n\n",
               rank, indexRank);
        return kFailure;
    }
    if (in.indices.width > static_cast<uint32_t>(rank)) {
        Report(Here(),
               "last dimension of indices must not be larger than rank of data tensor. lastIndiceDimension: %d, "
               "dataDimNum: %d\n\n",
               in.tupleLength, rank);
        return kFailure;
    }
    if (in.updates.dimNum != indexRank + rank - 1 - in.tupleLength) {
        Report(Here(),
               "the rank of the update tensor should be: dataDimNum + indicesDimNum - 1 - lastIndiceDimension.\n\n");
        return kFailure;
    }
    for (int32_t i = 0; i < indexRank - 1; ++i) {
        if (in.indices.shape[i] != in.updates.shape[i]) {
            Report(Here(),
                   "The shape of the update tensor upto (indiceRank - 1) should match the shape of the indices tensor "
                   "upto (indiceRank - 1)).\n\n");
            return kFailure;
        }
    }
    for (int32_t i = in.tupleLength, j = indexRank - 1; i < rank; ++i, ++j) {
        if (in.data.shape[i] != in.updates.shape[j]) {
            Report(Here(),
                   "The shape of the update tensor after (indiceRank - 1) should match the shape of the input tensor "
                   "after lastIndiceDimension.\n\n");
            return kFailure;
        }
    }
    return kSuccess;
}

// One offset per tuple, in padded elements of the output.
uint32_t ScatterNDGetElementOffsets(const ScatterInputs& in, int32_t tuples, size_t tuplePitch, const int32_t* steps,
                                    int32_t* offsets)
{
    for (int32_t t = 0; t < tuples; ++t) {
        const float* const tuple = in.indices.data + t * tuplePitch;
        uint32_t offset = 0;
        for (int32_t j = 0; j < in.tupleLength; ++j) {
            const float extent = static_cast<float>(in.data.shape[j]);
            float index = tuple[j];
            if (index < 0.0f) {
                index += extent;
            }
            if (index < 0.0f || index >= extent) {
                Report(Here(), "Indice out of range: indiceVal=%f, dim=%d, shape=%d\n\n", static_cast<double>(index), j,
                       static_cast<int32_t>(in.data.shape[j]));
                return kFailure;
            }
            offset += static_cast<uint32_t>(TruncateToI32(index)) * static_cast<uint32_t>(steps[j]);
        }
        offsets[t] = static_cast<int32_t>(offset);
    }
    return kSuccess;
}

// The bound is the whole output's wherever the slice starts.
int32_t WriteSlice(float* to, uint32_t size, const float* from, uint32_t slice)
{
    if (slice == 1 && size >= sizeof(float) && from != nullptr) {
        *to = *from;
        return 0;
    }
    return memcpy_s(to, size, from, size_t{slice} * sizeof(float));
}

uint32_t ScatterNDOpkitForwardInner(LayerParam* param, const ScatterInputs& in)
{
    const Input& data = in.data;
    const Output out = OutputOf(param, 0);
    const int32_t rank = data.dimNum;
    const uint32_t updateWidth = in.updates.dimNum > 0 ? in.updates.width : 1;
    const uint32_t updatePitch = RowPitch(updateWidth, in.updates.alignNum);
    const size_t dataElements = size_t{data.count / data.width} * data.Pitch();
    const uint32_t slice =
        in.tupleLength == rank ? 1 : ShapeCount(data.shape, rank, in.tupleLength, rank - 1) * updatePitch;
    const uint32_t tuples = ShapeCount(in.indices.shape, in.indices.dimNum, 0, in.indices.dimNum - 1);
    const size_t required = size_t{tuples + static_cast<uint32_t>(rank)} * sizeof(uint32_t);
    if (required > param->opkitBufSize) {
        Report(Here(), "opkitBuf.size[%u] < required[%zu]\n", param->opkitBufSize, required);
        return kFailure;
    }
    int32_t code = memcpy_s(out.data, out.size, data.data, dataElements * sizeof(float));
    if (code != 0) {
        Report(Here(), "memcpy_s for dataOut failed, ret = %d\n", code);
        return kFailure;
    }
    if (out.alignNum > data.Pitch() && !ProcessAlignSpace(&param->outputs[0], out.data)) {
        return kFailure;
    }

    int32_t* const steps = static_cast<int32_t*>(param->opkitBuf);
    uint32_t step = out.alignNum;
    steps[rank - 1] = 1;
    for (int32_t d = rank - 2; d >= 0; --d) {
        steps[d] = static_cast<int32_t>(step);
        step *= data.shape[d];
    }
    if (static_cast<int32_t>(tuples) < 1) {
        return kSuccess;
    }
    int32_t* const offsets = steps + rank;
    if (ScatterNDGetElementOffsets(in, static_cast<int32_t>(tuples), in.indices.Pitch(), steps, offsets) != kSuccess) {
        return kFailure;
    }
    // A slice, or what a refused copy of it clears, stays within the output's rows, however large the memory behind
    // them. Without updates that is all of the bound.
    const size_t sliceBytes = size_t{slice} * sizeof(float);
    const size_t touched = in.updates.data != nullptr ? std::min<size_t>(sliceBytes, out.size) : out.size;
    const size_t room = out.Span() * sizeof(float);
    const float* from = in.updates.data;
    uint32_t column = 0;  // of a row of single updates
    for (uint32_t t = 0; t < tuples; ++t) {
        const int32_t offset = offsets[t];
        if (offset < 0 || static_cast<size_t>(offset) * sizeof(float) + touched > room) {
            Report(Here(), "ScatterND slice at offset %d leaves the output.\n\n", offset);
            return kFailure;
        }
        code = WriteSlice(out.data + offset, out.size, from, slice);
        if (code != 0) {
            Report(Here(), "memcpy_s failed at offset %d, ret = %d\n", offset, code);
            return kFailure;
        }
        from += slice;
        if (slice == 1 && ++column == updateWidth) {
            from += static_cast<int32_t>(in.updates.alignNum - updateWidth);  // over the gap of the row
            column = 0;
        }
    }
    return kSuccess;
}

}  // namespace

uint32_t ScatterNDOpkitForward(LayerParam* param)
{
    ScatterInputs in;
    if (!Resolve(param, {&in.data, &in.indices, &in.updates}, Rows::kInPlace, Messages::kAll)) {
        return kFailure;
    }
    in.tupleLength = static_cast<int32_t>(in.indices.width);
    if (ScatterNDOpkitCheck(in) != kSuccess || ScatterNDOpkitForwardInner(param, in) != kSuccess) {
        return kFailure;
    }
    return kSuccess;
}
