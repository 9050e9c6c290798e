// Shape helpers: products of dimension ranges, and the four dimensions of an image counted from the end.

#include "common/shape.h"

#include "opkit/helpers.h"

namespace {

// Dimension `fromEnd` places before the end; shorter shapes have leading ones.
uint32_t DimensionFromEnd(const uint32_t* shape, int32_t dimNum, int32_t fromEnd)
{
    return dimNum < fromEnd ? 1 : shape[dimNum - fromEnd];
}

}  // namespace

uint32_t ShapeCount(uint32_t* shape, int32_t dimNum, int32_t first, int32_t end)
{
    const int32_t last = end < dimNum ? end : dimNum;
    uint32_t count = 1;
    for (int32_t i = first; i < last; ++i) {
        count *= shape[i];
    }
    return count;
}

uint32_t GetImgNum(uint32_t* shape, int32_t dimNum)
{
    return DimensionFromEnd(shape, dimNum, 4);
}

uint32_t GetChannels(uint32_t* shape, int32_t dimNum)
{
    return DimensionFromEnd(shape, dimNum, 3);
}

uint32_t GetHeight(uint32_t* shape, int32_t dimNum)
{
    return DimensionFromEnd(shape, dimNum, 2);
}

uint32_t GetWidth(uint32_t* shape, int32_t dimNum)
{
    return DimensionFromEnd(shape, dimNum, 1);
}
