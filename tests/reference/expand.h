// Literal form of Expand.
#ifndef OPKIT_TESTS_REFERENCE_EXPAND_H
#define OPKIT_TESTS_REFERENCE_EXPAND_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefExpandOperator(LayerParam* param)
{
    const char* const name = "ExpandOpkitForward";
    auto* attr = static_cast<ExpandAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    if (!RefCompact(name, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    RefSetStride(attr->outputStrides[0], out.shape, out.dimNum);
    const bool differ = RefShapesDiffer(out, in);
    if (differ) {
        RefSetStride(attr->inputStrides[0], in.shape, in.dimNum);
    }
    for (uint32_t i = 0; i < out.count; ++i) {
        RefMove(out.data + i, in.data + (differ ? RefBroadcast(i, in, out) : i));
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_EXPAND_H
