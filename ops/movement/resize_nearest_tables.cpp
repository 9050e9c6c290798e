// The tables of nearest resampling: which input position every output position of an axis rounds to.

#include <cmath>

#include "common/convert.h"
#include "ops/movement/resize_tables.h"

namespace opkit {
namespace {

float RoundCoordinate(uint32_t nearestMode, float x, float scale)
{
    switch (nearestMode) {
        case OPKIT_RESIZE_ROUND:
            return roundf(x);
        case OPKIT_RESIZE_FLOOR:
            return floorf(x);
        case OPKIT_RESIZE_CEIL:
            return ceilf(x);
        case OPKIT_RESIZE_SIMPLE:
            return scale < 1.0f ? ceilf(x) : x;
        default: {
            // The half is added, not subtracted, so this holds about -0.5 only: 2.5 still rounds up.
            const float truncated = static_cast<float>(TruncateToU32(x));
            const bool half = __builtin_fabs(static_cast<double>(0.5f + (x - truncated))) < 1e-6;
            return half ? floorf(x) : roundf(x);
        }
    }
}

}  // namespace

void BuildNearestOffsets(const NearestContext& context, uint32_t* offsets, int32_t axis)
{
    const ResizeAxis map = {context.coordinateMode, context.inShape[axis], context.outShape[axis],
                            context.scales[axis],   context.roi[axis],     context.roi[context.dimNum + axis]};
    const uint32_t step = context.steps[axis];
    const bool keep = map.KeepsPosition();
    for (uint32_t i = 0; i < map.out; ++i) {
        if (keep) {
            offsets[i] = i * step;
            continue;
        }
        const float x = SourceCoordinate(map, i);
        if (context.extrapolate && map.Outside(x)) {
            offsets[i] = OutsideOffset(context);
            continue;
        }
        float rounded = RoundCoordinate(context.nearestMode, x, map.scale);
        if (rounded >= static_cast<float>(map.in)) {
            rounded = map.Last();
        } else {
            rounded = rounded > 0.0f ? rounded : 0.0f;  // NaN goes to the first element
        }
        offsets[i] = static_cast<uint32_t>(TruncateToI64(rounded)) * step;
    }
}

}  // namespace opkit
