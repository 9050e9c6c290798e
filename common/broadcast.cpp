// Broadcast index mapping: the exported routines, which map one element, and the preparation of the walks.

#include "common/broadcast.h"

#include "opkit/helpers.h"

namespace opkit {

void BroadcastOperand::Prepare(const RowShape& operand, const RowShape& output)
{
    for (uint32_t d = 0; d < output.dimNum; ++d) {
        dim_[d] = 1;
    }
    if (operand.dimNum > output.dimNum) {
        return;  // read at element 0 only
    }
    size_t stride = 1;
    for (uint32_t e = operand.dimNum; e-- > 0;) {
        const uint32_t d = e + output.dimNum - operand.dimNum;
        const bool covered = output.shape[d] / operand.shape[e] > 0;
        dim_[d] = covered ? operand.shape[e] : output.shape[d];  // of a longer dimension the front is read
        stride_[d] = stride;
        stride = e + 1 == operand.dimNum ? operand.rowPitch : stride * operand.shape[e];
    }
}

// Whether the operand runs through dimension d in step with the output, right behind `innerLength` elements.
bool BroadcastOperand::Advances(uint32_t d, const RowShape& output, size_t innerLength) const
{
    return dim_[d] == output.shape[d] && (dim_[d] == 1 || stride_[d] == innerLength);
}

uint32_t BroadcastOperand::MergeableDims(const RowShape& output) const
{
    bool advances = true;
    bool stands = true;
    size_t innerLength = 1;
    uint32_t merged = 0;
    for (uint32_t d = output.dimNum; d-- > 0; ++merged) {
        advances = advances && Advances(d, output, innerLength);
        stands = stands && dim_[d] == 1;
        if (!advances && !stands) {
            break;
        }
        innerLength *= output.shape[d];
    }
    return merged > 0 ? merged : 1;
}

void BroadcastOperand::Merge(const RowShape& output, uint32_t innerDims)
{
    bool advances = true;
    bool stands = true;
    size_t innerLength = 1;
    for (uint32_t d = output.dimNum; d-- > output.dimNum - innerDims;) {
        advances = advances && Advances(d, output, innerLength);
        stands = stands && dim_[d] == 1;
        innerLength *= output.shape[d];
    }
    step_ = stands ? 0 : 1;
    wrapWidth_ = advances || stands ? 0 : dim_[output.dimNum - 1];
}

size_t SourceOffset(const RowShape& operand, const RowShape& output, size_t element)
{
    if (operand.dimNum > output.dimNum) {
        return 0;
    }
    size_t offset = 0;
    size_t stride = 1;
    for (uint32_t e = operand.dimNum; e-- > 0;) {
        const uint32_t extent = output.shape[e + output.dimNum - operand.dimNum];
        offset += element % extent % operand.shape[e] * stride;
        element /= extent;
        stride = e + 1 == operand.dimNum ? operand.rowPitch : stride * operand.shape[e];
    }
    return offset;
}

}  // namespace opkit

uint32_t JudgeBroadCast(uint32_t* shapeA, uint32_t countA, uint32_t* shapeB, int32_t countB)
{
    if (countA != static_cast<uint32_t>(countB)) {
        return 1;
    }
    for (uint32_t i = 0; i < countA; ++i) {
        if (shapeA[i] != shapeB[i]) {
            return 1;
        }
    }
    return 0;
}

void SetStride(uint32_t* strides, uint32_t* count, uint32_t* shape, uint32_t dimNum)
{
    *count = dimNum;
    if (static_cast<int32_t>(dimNum) <= 0) {
        return;
    }
    uint32_t stride = 1;
    for (uint32_t d = dimNum; d-- > 0;) {
        strides[d] = stride;
        stride *= shape[d];
    }
}

uint64_t GenSrcIdxFlag(uint32_t index, int32_t flag)
{
    return (uint64_t{static_cast<uint8_t>(flag)} << 32) | index;
}

uint32_t GetIndBroadCast(uint64_t indexAndFlag, DimPair srcStrides, DimPair outStrides, DimPair srcShape,
                         DimPair outShape)
{
    const uint32_t index = static_cast<uint32_t>(indexAndFlag);
    const bool broadcast = static_cast<uint8_t>(indexAndFlag >> 32) != 0;
    return broadcast ? BroadCast(index, srcStrides, outStrides, srcShape, outShape) : index;
}

uint32_t BroadCast(uint32_t index, DimPair srcStrides, DimPair outStrides, DimPair srcShape, DimPair outShape)
{
    const uint32_t outDims = outShape.count;
    if (outDims == 0) {
        return 0;
    }
    const uint32_t missing = outDims - srcShape.count;  // wraps when the source has more dimensions
    uint32_t rest = index;
    uint32_t d = 0;
    for (; d < missing && d < outDims; ++d) {
        rest %= outStrides.data[d];
    }
    uint32_t source = 0;
    for (; d < outDims; ++d) {
        const uint32_t e = d - missing;
        source += (rest / outStrides.data[d] % srcShape.data[e]) * srcStrides.data[e];
        rest %= outStrides.data[d];
    }
    return source;
}
