// Broadcast index mapping: the exported routines, which map one element, and what the walks share.

#include "common/broadcast.h"

#include "common/move_floats.h"
#include "opkit/helpers.h"

namespace opkit {

uint32_t OperandExtent(const RowShape& operand, const RowShape& output, uint32_t d)
{
    const uint32_t missing = output.dimNum - operand.dimNum;
    return operand.dimNum > output.dimNum || d < missing ? 1 : operand.shape[d - missing];  // NOLINT: never null here
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

void CopyBroadcast(float* to, const RowShape& output, const float* from, const RowShape& operand)
{
    const RowShape operands[1] = {operand};
    ForEachBroadcastRun(output, operands,
                        [=](size_t at, const size_t(&source)[1], const uint32_t(&steps)[1], uint32_t length) {
                            MoveOrRepeat(to + at, from + source[0], steps[0], length);
                        });
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
