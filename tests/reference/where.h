// Literal form of Where.
#ifndef OPKIT_TESTS_REFERENCE_WHERE_H
#define OPKIT_TESTS_REFERENCE_WHERE_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline uint32_t RefWhere(LayerParam* param)
{
    if (RefAttrAt<uint32_t>(param, 3924) != 3) {
        return kAllOnes;
    }
    RefOperands operands;
    if (!RefOperandsOf(param, 3, "WhereOpkitForward", true, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 3, 3928, 7448, operands);
    for (uint32_t i = 0; i < operands.out.count; ++i) {
        const RefTensor& chosen = operands.in[RefIsZero(RefOperand(operands, 0, i, false)) ? 2 : 1];
        const uint32_t from = RefShapesDiffer(operands.out, chosen) ? RefBroadcast(i, chosen, operands.out) : i;
        RefMove(operands.out.data + i, chosen.data + from);
    }
    return RefExpandChecked("WhereOpkitForward", operands.out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_WHERE_H
