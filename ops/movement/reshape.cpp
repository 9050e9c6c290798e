// Reshape: the same elements in the same order under another row width.
// The target width comes from the attribute, and the input's stride from the first online tensor even when the data is
// offline: such a layer carries a tensor record that describes the constant.
// Rows: in place.

#include "common/move_floats.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t ReshapeOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    if (in.count == 0) {
        return kSuccess;
    }
    const ReshapeAttr& attr = AttrOf<ReshapeAttr>(param);
    const uint32_t width = attr.reshapeDims[attr.reshapeDimCount - 1];
    const uint32_t pitchIn = RowPitch(in.width, param->inputs[0].stride >> 2);
    const uint32_t pitchOut = RowPitch(width, param->outputs[0].stride >> 2);
    float* const out = static_cast<float*>(param->outputs[0].data);
    ForEachRowRun(in.count, in.width, pitchIn, width, pitchOut,
                  [&](size_t from, size_t to, uint32_t length) { MoveFloats(out + to, in.data + from, length); });
    return kSuccess;
}
