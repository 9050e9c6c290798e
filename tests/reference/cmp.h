// Literal form of Cmp.
#ifndef OPKIT_TESTS_REFERENCE_CMP_H
#define OPKIT_TESTS_REFERENCE_CMP_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline bool RefCompare(uint32_t type, float a, float b)
{
    switch (type) {
        case 0:
            return a > b;
        case 1:
            return RefIsEqual(a, b);
        case 2:
            return a < b;
        case 3:
            return !RefIsEqual(a, b);
        case 4:
            return a >= b;
        default:
            return a <= b;
    }
}

inline uint32_t RefCmp(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 2, "CmpOpkitForward", false, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 2, 3932, 7452, operands);
    const uint32_t type = RefAttrAt<uint32_t>(param, 3928);
    if (type > 5) {
        return 0;
    }
    RefWalk(operands, true, true, [type](float a, float b) { return RefCompare(type, a, b) ? 1.0f : 0.0f; });
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_CMP_H
