// Pad's arithmetic on shapes and pad counts, and the plain copy for a layer that pads nothing.

#include <cstring>

#include "opkit/helpers.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t FlattenInnerShape(FlattenContext* context, uint32_t* reshapedDims, uint32_t alignedInnerDim)
{
    const uint32_t rank = context->rank;
    const uint32_t* dims = context->dims;
    // A last dimension that is no multiple of 4 is taken for a row with a gap and never merged, whatever the stride.
    const bool mergeable = dims[rank - 1] == alignedInnerDim;
    uint32_t product = 1;
    for (uint32_t axis = rank - 1;; --axis) {
        product *= dims[axis];
        const bool padded = (context->pads[axis] | context->pads[rank + axis] | context->slices[axis] |
                             context->slices[rank + axis]) != 0;
        if (axis == 0 || padded || !mergeable) {
            std::memmove(reshapedDims, dims, size_t{axis} * sizeof(uint32_t));
            reshapedDims[axis] = product;
            return axis + 1;
        }
    }
}

void ReshapePads(uint32_t* src, uint32_t srcRank, uint32_t newRank, uint32_t innerNoPadSize, uint32_t* reshaped)
{
    const uint32_t last = newRank - 1;
    for (uint32_t i = 0; i < last; ++i) {
        reshaped[i] = src[i];
        reshaped[newRank + i] = src[srcRank + i];
    }
    reshaped[last] = src[last] * innerNoPadSize;
    reshaped[newRank + last] = innerNoPadSize * src[srcRank + last];
}

uint32_t PadInputWithDimValueOfZero(int32_t mode, uint32_t* inputDims, uint32_t* outputDims, uint32_t rank)
{
    constexpr int32_t kReflect = 1;
    constexpr int32_t kEdge = 2;
    for (uint32_t i = 0; i < rank; ++i) {
        if (inputDims[i] != 0) {
            continue;
        }
        if (mode == kReflect) {
            outputDims[i] = 0;
        } else if (mode == kEdge && static_cast<int32_t>(outputDims[i]) >= 1) {
            return kFailure;
        }
    }
    return kSuccess;
}

bool IsPadAllZero(uint32_t* pads, uint32_t count)
{
    for (int32_t i = 0; i < static_cast<int32_t>(count); ++i) {
        if (pads[i] != 0) {
            return false;
        }
    }
    return true;
}

bool ProcessPadAllZero(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kNone)) {
        return true;
    }
    const Output out = OutputOf(param, 0);
    if (in.count != out.count) {
        Report(Here(), "pad is all zero, but input data num is not equal to output data num.\n\n");
        return false;
    }
    if (!CompactInput(in)) {
        return false;
    }
    if (in.count != 0) {
        std::memmove(out.data, in.data, size_t{in.count} * sizeof(float));
    }
    return ExpandOutput(out) == kSuccess;
}
