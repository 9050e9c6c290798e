// Concat: joins inputs along an axis, each with its own extent there; the other extents are the first input's. Nothing
// is printed: a missing input fails silently and leaves what was joined so far unexpanded.
// Rows: compacting.

#include "common/move_floats.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t ConcatOpkitForward(LayerParam* param)
{
    const ConcatAttr& attr = AttrOf<ConcatAttr>(param);
    const int32_t axis = attr.concatAxis;
    const Output out = OutputOf(param, 0);
    InputCursor cursor = {param};
    uint32_t outer = 1;
    uint32_t inner = 1;
    uint32_t joined = 0;  // along the axis
    for (uint32_t k = 0; k < attr.concatInputCount; ++k) {
        Input in;
        if (!ResolveNext(&cursor, &in, Rows::kCompacting, Messages::kNone)) {
            return kFailure;
        }
        if (k == 0) {
            outer = ShapeCount(in.shape, in.dimNum, 0, axis);
            inner = ShapeCount(in.shape, in.dimNum, axis + 1, in.dimNum);
        }
        const uint32_t extent = in.shape[axis];
        const size_t block = extent * inner;
        MoveRows(out.data + size_t{joined} * inner, out.shape[axis] * inner, in.data, block, outer, block);
        joined += extent;
    }
    if (static_cast<int32_t>(out.count) > 0) {
        ExpandOutputUnchecked(out);
    }
    return kSuccess;
}
