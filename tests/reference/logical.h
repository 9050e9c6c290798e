// Literal forms of Logical and of the two operators behind it.
#ifndef OPKIT_TESTS_REFERENCE_LOGICAL_H
#define OPKIT_TESTS_REFERENCE_LOGICAL_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline uint32_t RefAndOrXor(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 2, "AndOrXorForward", true, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 2, 3932, 7452, operands);
    const uint32_t type = RefAttrAt<uint32_t>(param, 3928);
    if (type < 3) {
        RefWalk(operands, false, false, [type](float a, float b) {
            const bool left = !RefIsZero(a);
            const bool right = !RefIsZero(b);
            const bool both = left && right;
            const bool any = left || right;
            const bool result = type == 0 ? both : type == 1 ? any : any && !both;
            return result ? 1.0f : 0.0f;
        });
    }
    return RefExpandChecked("AndOrXorForward", operands.out);
}

inline uint32_t RefNot(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 1, "NotForward", true, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 1, 3932, 7452, operands);
    for (uint32_t i = 0; i < operands.out.count; ++i) {
        operands.out.data[i] = RefIsZero(RefOperand(operands, 0, i, false)) ? 1.0f : 0.0f;
    }
    return RefExpandChecked("NotForward", operands.out);
}

inline uint32_t RefLogical(LayerParam* param)
{
    return RefAttrAt<uint32_t>(param, 3928) == 3 ? RefNot(param) : RefAndOrXor(param);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_LOGICAL_H
