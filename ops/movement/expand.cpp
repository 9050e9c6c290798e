// Expand: broadcasts the input to the output's shape. An extent that neither matches nor is 1 wraps around. The stride
// records of both stay in the attribute block.
// Rows: compacting.

#include "common/broadcast.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

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
    }
    CopyBroadcast(out.data, CompactShape(out.shape, out.dimNum), in.data, CompactShape(in.shape, in.dimNum));
    return ExpandOutputChecked(out);
}
