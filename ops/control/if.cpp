// If: decides a conditional. It looks at the first element of one or two operands, writes the condition as 1.0 or 0.0
// and leaves the segment id of the branch to take; acting on it is the caller's.

#include "common/float_compare.h"
#include "opkit/attributes/control.h"
#include "opkit/operators.h"
#include "ops/control/pass_tensors.h"

using namespace opkit;

namespace {

// The first element of the cursor's next operand. Neither counts nor ranks are looked at.
float NextFirstElement(InputCursor* cursor)
{
    const LayerParam& param = *cursor->param;
    const LayerAttrHead& head = AttrOf<LayerAttrHead>(cursor->param);
    if (head.inputFlags[cursor->logical++] == '1') {
        return *reinterpret_cast<const float*>(Address(param.model, head.offlineOffset[cursor->offline++]));
    }
    return *static_cast<const float*>(param.inputs[cursor->online++].data);
}

}  // namespace

uint32_t IfOpkitForward(LayerParam* param)
{
    const IfAttr& attr = AttrOf<IfAttr>(param);
    InputCursor cursor = {param};
    const float a = NextFirstElement(&cursor);
    bool holds = !NearZero(a);  // NaN is true
    if (attr.hasSecondOperand != 0) {
        const float b = NextFirstElement(&cursor);
        if (attr.cmpType == OPKIT_IF_GREATER) {
            holds = a > b;
        } else if (attr.cmpType == OPKIT_IF_EQUAL) {
            holds = NearlyEqual(a, b);
        } else {
            Report(Here(), "Unrecong cmp type for if opkit propagation.\n");  // spelt so
            return kRefused;
        }
    }
    *static_cast<float*>(param->outputs[0].data) = holds ? 1.0f : 0.0f;
    param->segId = holds ? attr.thenSegId : attr.elseSegId;
    return kSuccess;
}
