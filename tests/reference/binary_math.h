// Literal form of BinaryMath.
#ifndef OPKIT_TESTS_REFERENCE_BINARY_MATH_H
#define OPKIT_TESTS_REFERENCE_BINARY_MATH_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline float RefBinaryElement(uint32_t type, float a, float b)
{
    switch (type) {
        case 0:
            return a + b;
        case 1:
            return a - b;
        case 2:
            return RefIsZero(b) ? 0.0f : a * b;
        case 3:
            return RefIsZero(b) ? 0.0f : a / b;
        default:
            return a > b ? a : b;
    }
}

inline uint32_t RefBinaryMath(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 2, nullptr, false, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 2, 3928, 7448, operands);
    const uint32_t type = RefAttrAt<uint32_t>(param, 8768);
    if (type > 4) {
        RefReport("BinaryMathOpkitForward", "Binary math type[%d] error. failed.\n\n", static_cast<int32_t>(type));
        return kAllOnes;
    }
    RefWalk(operands, true, true, [type](float a, float b) { return RefBinaryElement(type, a, b); });
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_BINARY_MATH_H
