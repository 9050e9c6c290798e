// Literal form of Concat.
#ifndef OPKIT_TESTS_REFERENCE_CONCAT_H
#define OPKIT_TESTS_REFERENCE_CONCAT_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefConcat(LayerParam* param)
{
    const auto* attr = static_cast<const ConcatAttr*>(param->attr);
    const int32_t axis = attr->concatAxis;
    const RefTensor out = RefOutput(param, 0);
    RefCursor cursor;
    uint32_t outer = 1;
    uint32_t inner = 1;
    uint32_t offset = 0;
    for (uint32_t k = 0; k < attr->concatInputCount; ++k) {
        RefTensor in;
        if (!RefResolve(param, cursor, in)) {
            return kAllOnes;
        }
        if (k == 0) {
            for (int32_t d = 0; d < in.dimNum; ++d) {
                outer *= d < axis ? in.shape[d] : 1;
                inner *= d > axis ? in.shape[d] : 1;
            }
        }
        const uint32_t a = in.shape[axis];
        if (in.Width() != in.AlignNum()) {
            for (uint32_t i = 0; i < in.count; ++i) {
                RefMove(in.data + i, &RefAt(in, i));
            }
        }
        for (uint32_t o = 0; o < outer; ++o) {
            for (uint32_t e = 0; e < inner * a; ++e) {
                RefMove(out.data + o * out.shape[axis] * inner + offset * inner + e, in.data + o * inner * a + e);
            }
        }
        offset += a;
    }
    const uint32_t w = out.Width();
    const uint32_t s = out.AlignNum();
    uint32_t dst = out.count / w * s + w - s - 1;
    for (uint32_t left = out.count; left > 0; --left) {
        RefMove(out.data + dst, out.data + left - 1);
        dst -= (left - 1) % w == 0 ? s - w + 1 : 1;
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_CONCAT_H
