// Literal form of Mod.
#ifndef OPKIT_TESTS_REFERENCE_MOD_H
#define OPKIT_TESTS_REFERENCE_MOD_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline int32_t RefToI32(float x)
{
    return x >= -2147483648.0f && x < 2147483648.0f ? static_cast<int32_t>(x) : INT32_MIN;
}

inline float RefWholeMod(float a, float b)
{
    const int32_t bi = RefToI32(b);
    if (bi == 0) {
        return 0.0f;
    }
    const int32_t ai = RefToI32(a);
    const int32_t r = ai % bi;
    if (r != 0 && (ai < 0) != (bi < 0)) {
        return static_cast<float>(r) + static_cast<float>(bi);
    }
    return static_cast<float>(r);
}

inline float RefFloatMod(float a, float b)
{
    return RefIsZero(b) ? 0.0f : static_cast<float>(::fmod(static_cast<double>(a), static_cast<double>(b)));
}

inline uint32_t RefMod(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 2, "ModOpkitForward", false, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 2, 3928, 7448, operands);
    const bool ofFloats = RefAttrAt<uint8_t>(param, 8768) != 0;
    RefWalk(operands, true, false, [&](float a, float b) { return ofFloats ? RefFloatMod(a, b) : RefWholeMod(a, b); });
    return RefExpandChecked("ModOpkitForward", operands.out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_MOD_H
