// Expand: broadcasts the input to the output's shape. An extent that neither matches nor is 1 wraps around.
// Compacts the input and expands the output; leaves the stride records of both in the attribute block.

#include <algorithm>

#include "common/broadcast.h"
#include "common/move_floats.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

namespace opkit {
namespace {

void Broadcast(const Input& in, const Output& out)
{
    const RowShape outRows = {out.shape, static_cast<uint32_t>(out.dimNum), out.width};
    const RowShape inRows[1] = {{in.shape, static_cast<uint32_t>(in.dimNum), in.width}};
    ForEachBroadcastRun(outRows, inRows,
                        [&](size_t to, const size_t(&from)[1], const uint32_t(&steps)[1], uint32_t length) {
                            if (steps[0] != 0) {
                                MoveFloats(out.data + to, in.data + from[0], length);
                            } else {
                                std::fill_n(out.data + to, length, in.data[from[0]]);
                            }
                        });
}

}  // namespace
}  // namespace opkit

using namespace opkit;

uint32_t ExpandOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    ExpandAttr& attr = AttrOf<ExpandAttr>(param);
    StrideRecord& outStrides = attr.outputStrides[0];
    SetStride(outStrides.strides, &outStrides.count, out.shape, static_cast<uint32_t>(out.dimNum));
    if (JudgeBroadCast(out.shape, static_cast<uint32_t>(out.dimNum), in.shape, in.dimNum) != 0) {
        StrideRecord& inStrides = attr.inputStrides[0];
        SetStride(inStrides.strides, &inStrides.count, in.shape, static_cast<uint32_t>(in.dimNum));
        Broadcast(in, out);
    } else {
        MoveFloats(out.data, in.data, out.count);
    }
    return ExpandOutputChecked(out);
}
