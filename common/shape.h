// Shape arithmetic. All products are u32 and wrap.
#ifndef OPKIT_COMMON_SHAPE_H
#define OPKIT_COMMON_SHAPE_H

#include <stdint.h>

namespace opkit {

// Product of `dimNum` dimensions; 1 when there are none.
inline uint32_t ElementCount(const uint32_t* shape, uint32_t dimNum)
{
    uint32_t count = 1;
    for (uint32_t i = 0; i < dimNum; ++i) {
        count *= shape[i];
    }
    return count;
}

// The innermost dimension; 0 for a tensor without dimensions.
inline uint32_t LastDimension(const uint32_t* shape, int32_t dimNum)
{
    return dimNum > 0 ? shape[dimNum - 1] : 0;
}

}  // namespace opkit

#endif  // OPKIT_COMMON_SHAPE_H
