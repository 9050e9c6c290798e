// Custom operators. What the function does is its own affair; here is what the library reads on the way to it.

#include "opkit/attributes/custom.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

void CheckParams(LayerCheck& layer, const CustomAttr& attr)
{
    const uint64_t room = layer.AttrSize() - offsetof(CustomAttr, params);
    if (attr.params.sized.marker != OPKIT_CUSTOM_SIZED_MARKER) {
        layer.AtMost(OPKIT_ATTR_FIELD(layer, CustomAttr, fixedSize), attr.fixedSize, room,
                     "the parameters end behind the attribute block");
        return;
    }
    const Field field = OPKIT_ATTR_FIELD(layer, CustomAttr, params.sized.sizedSize);
    layer.AtLeast(field, attr.params.sized.sizedSize, 4, "the size counts the marker");
    layer.AtMost(field, attr.params.sized.sizedSize, room - 4, "the parameters end behind the attribute block");
}

}  // namespace

void CheckCustom(LayerCheck& layer)
{
    const CustomAttr attr = layer.Attr<CustomAttr>();
    const Field totalField = OPKIT_ATTR_FIELD(layer, CustomAttr, totalInputNum);
    const uint32_t offlineNum = attr.head.offlineInputNum;
    layer.AtMost(totalField, attr.totalInputNum, OPKIT_MAX_LAYER_INPUTS, "a layer has at most 80 inputs");
    if (attr.totalInputNum != offlineNum + layer.InputNum()) {
        layer.Refuse(totalField, attr.totalInputNum, int64_t{offlineNum} + layer.InputNum(),
                     "not the sum of online and offline inputs");
    }
    uint32_t online = 0;
    for (uint32_t k = 0; k < attr.totalInputNum; ++k) {
        if (layer.Flag(k) == '0') {
            layer.OnlineRaw(online++, "logical input " + std::to_string(k) + " is missing");
        } else {
            layer.Constant(k - online);
        }
    }
    const char* const nameEnd = attr.funcName + sizeof(attr.funcName);
    const char* const end = std::find(attr.funcName, nameEnd, '\0');
    if (end == nameEnd) {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, CustomAttr, funcName), sizeof(attr.funcName), sizeof(attr.funcName) - 1,
                     "the name does not end");
    }
    CheckParams(layer, attr);
    layer.Condition("the function \"" + std::string(attr.funcName, end) +
                    "\" of libtvr_opkit_custom_x86.so keeps to the tensors and parameters that it is given");
}

}  // namespace opkit::modelkit::check
