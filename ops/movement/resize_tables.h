// What Resize finds out once per axis before it samples.
#ifndef OPKIT_OPS_MOVEMENT_RESIZE_TABLES_H
#define OPKIT_OPS_MOVEMENT_RESIZE_TABLES_H

#include "ops/movement/resize.h"

namespace opkit {

struct NearestContext {
    uint32_t dimNum;
    const uint32_t* inShape;
    const uint32_t* outShape;
    const uint32_t* steps;  // of X, compact
    const float* scales;
    const float* roi;
    bool extrapolate;
    uint32_t coordinateMode;
    uint32_t nearestMode;
};

// What an output position outside the input gets as its offset: minus the element count, above every real offset.
inline uint32_t OutsideOffset(const NearestContext& context)
{
    return 0 - context.steps[0] * context.inShape[0];
}

// Compact offsets into X of one axis's output positions.
void BuildNearestOffsets(const NearestContext& context, uint32_t* offsets, int32_t axis);

// The tables of linear resampling, per output row and column.
struct BilinearParams {
    float* sourceX;  // coordinates before clamping
    float* sourceY;
    uint8_t* indexBlock;  // the one allocation of all that follows
    int64_t* inY1;        // offsets of the two source rows in a plane
    int64_t* inY2;
    int64_t* inX1;  // the two source columns
    int64_t* inX2;
    float* dx1;  // distances to them
    float* dx2;
    float* dy1;
    float* dy2;
};

// Null, with a message, when memory runs out.
BilinearParams* BuildBilinearParams(const ResizeAxis& y, const ResizeAxis& x, uint32_t pitchIn);
void FreeBilinearParams(BilinearParams* params);

}  // namespace opkit

#endif  // OPKIT_OPS_MOVEMENT_RESIZE_TABLES_H
