// Resize. Source positions are clamped to the input, except on an axis that keeps its positions.

#include <cmath>

#include "modelkit/check/layer_check.h"
#include "opkit/attributes/movement.h"

namespace opkit::modelkit::check {
namespace {

constexpr size_t kRank = 4;

bool IsTiny(float x)
{
    return std::fabs(static_cast<double>(x)) < 1e-6;
}

// The logical input that scales or sizes come from; 0 when they are attributes.
uint32_t ScalesInput(const ResizeAttr& attr, uint32_t fromInput)
{
    if (attr.useSizes == 1) {
        return attr.sizes[0] == -1 ? fromInput : 0;
    }
    return IsTiny(1.0f + attr.scales[0]) ? fromInput : 0;
}

// Values read as they lie, rows or no rows.
const Tensor& ReadRaw(LayerCheck& layer, uint32_t logical, uint64_t floats, const char* reason)
{
    const Tensor& tensor = layer.Logical(logical);
    layer.Floats(tensor, floats, reason);
    return tensor;
}

// An axis that keeps its positions reads as far as the output goes.
void CheckKeptAxes(LayerCheck& layer, const ResizeAttr& attr, const Tensor& in, const Tensor& out, bool fromInput)
{
    for (size_t axis = 0; axis < kRank; ++axis) {
        layer.AtMost(in.Dim(axis), in.dims[axis], 1 << 24, "positions beyond 24 bits round outside");
        if (out.dims[axis] <= in.dims[axis]) {
            continue;
        }
        if (fromInput) {
            layer.Condition("the scale of axis " + std::to_string(axis) +
                            ", which comes from an input, differs from 1 by 1e-6 or more");
        } else if (IsTiny(attr.scales[axis] - 1.0f)) {
            layer.Refuse(layer.AttrField("scales[" + std::to_string(axis) + "]",
                                         offsetof(ResizeAttr, scales) + axis * sizeof(float)),
                         out.dims[axis], in.dims[axis], "a scale of 1 keeps positions, and the output is longer");
        }
    }
}

}  // namespace

void CheckResize(LayerCheck& layer)
{
    const ResizeAttr attr = layer.Attr<ResizeAttr>();
    const Tensor& in = layer.Logical(0);
    layer.Rows(in);
    layer.Rank(in, kRank, kRank, "the operator takes four dimensions");
    uint32_t scalesInput = 1;
    if (attr.hasRoi == 1 && attr.roiCount > 10) {
        scalesInput = 2;
        if (IsTiny(attr.roi[0])) {
            const Tensor& region = ReadRaw(layer, 1, 2 * kRank, "the region has a start and an end per axis");
            scalesInput = region.offline ? 1 : 2;
        }
    }
    scalesInput = ScalesInput(attr, scalesInput);
    if (scalesInput != 0) {
        ReadRaw(layer, scalesInput, kRank, "one scale or size per axis");
    }
    if (attr.resizeMode > OPKIT_RESIZE_LINEAR) {
        return;
    }
    const Tensor& out = layer.Out();
    layer.Rank(out, kRank, kRank, "the operator takes four dimensions");
    if (attr.resizeMode == OPKIT_RESIZE_NEAREST) {
        CheckKeptAxes(layer, attr, in, out, scalesInput != 0);
        return;
    }
    layer.AtLeast(out.shapeField, Mul(out.dims[0], out.dims[1]), Mul(in.dims[0], in.dims[1]),
                  "the output has fewer planes than the input");
}

}  // namespace opkit::modelkit::check
