// What the files of Resize share: one layer's resolved attributes, the coordinate rules, and the two sampling modes.
#ifndef OPKIT_OPS_MOVEMENT_RESIZE_H
#define OPKIT_OPS_MOVEMENT_RESIZE_H

#include "common/convert.h"
#include "opkit/attributes/movement.h"
#include "opkit/helpers.h"
#include "runtime/frame.h"

namespace opkit {

// What both modes sample with.
struct ResizeLayer {
    LayerParam* param;
    const ResizeAttr* attr;
    const float* scales;  // per axis
    const float* region;  // starts of all axes, then ends
};

uint32_t ResizeNearest(const ResizeLayer& layer, Caller caller = Here());
uint32_t ResizeLinear(const ResizeLayer& layer);

// X, and the output; false when X does not resolve.
inline bool ResolveResize(LayerParam* param, Input* in, Output* out)
{
    DescribedTensor x;
    if (!Describe(param, 0, &x)) {
        return false;
    }
    *in = TensorOf(x);
    *out = OutputOf(param, 0);
    return true;
}

// One axis on its way from the output to the input.
struct ResizeAxis {
    uint32_t coordinateMode;
    uint32_t in;
    uint32_t out;
    float scale;
    float start;  // of the region
    float end;

    bool KeepsPosition() const { return __builtin_fabs(static_cast<double>(scale - 1.0f)) < 1e-6; }
    float Last() const { return static_cast<float>(int64_t{in} - 1); }
    bool Outside(float x) const { return x < 0.0f || x > Last(); }
};

// Where output position i lies in the input. All of it in f32, rounded at each step, but for the centre of a region.
inline float SourceCoordinate(const ResizeAxis& axis, uint32_t i)
{
    const float position = static_cast<float>(i);
    const float lastOut = static_cast<float>(axis.out - 1);
    const bool several = axis.out > 1;
    switch (axis.coordinateMode) {
        case OPKIT_RESIZE_HALF_PIXEL_OR_ZERO:
            return several ? (position + 0.5f) / axis.scale - 0.5f : 0.0f;
        case OPKIT_RESIZE_ALIGN_CORNERS:
            return axis.out == 1 ? 0.0f : (position * axis.Last()) / lastOut;
        case OPKIT_RESIZE_ASYMMETRIC:
            return position / axis.scale;
        case OPKIT_RESIZE_CROP:
            if (several) {
                return ((position * (axis.end - axis.start)) * axis.Last()) / lastOut + axis.Last() * axis.start;
            }
            return RoundToF32(0.5 * static_cast<double>(axis.start + axis.end) * static_cast<double>(axis.Last()));
        case OPKIT_RESIZE_HALF_PIXEL_UNSHIFTED:
            return (position + 0.5f) / axis.scale;
        default:
            return (position + 0.5f) / axis.scale - 0.5f;
    }
}

}  // namespace opkit

#endif  // OPKIT_OPS_MOVEMENT_RESIZE_H
