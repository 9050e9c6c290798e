// Literal form of Reshape.
#ifndef OPKIT_TESTS_REFERENCE_RESHAPE_H
#define OPKIT_TESTS_REFERENCE_RESHAPE_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefReshape(LayerParam* param)
{
    const auto* attr = static_cast<const ReshapeAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    float* const out = static_cast<float*>(param->outputs[0].data);
    const uint32_t widthOut = attr->reshapeDims[attr->reshapeDimCount - 1];
    for (uint32_t i = 0; i < in.count; ++i) {
        RefMove(out + RefPadded(i, widthOut, param->outputs[0].stride / 4),
                in.data + RefPadded(i, in.Width(), param->inputs[0].stride / 4));
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_RESHAPE_H
