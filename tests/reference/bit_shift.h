// Literal form of BitShift.
#ifndef OPKIT_TESTS_REFERENCE_BIT_SHIFT_H
#define OPKIT_TESTS_REFERENCE_BIT_SHIFT_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

// Below -2^63 and for NaN only the top bit.
inline uint64_t RefToU64(float x)
{
    if (x >= 9223372036854775808.0f) {
        const float rest = x - 9223372036854775808.0f;
        const uint64_t low = rest < 9223372036854775808.0f ? static_cast<uint64_t>(static_cast<int64_t>(rest)) : 0;
        return low | 0x8000000000000000u;
    }
    if (x >= -9223372036854775808.0f) {
        return static_cast<uint64_t>(static_cast<int64_t>(x));
    }
    return 0x8000000000000000u;
}

inline float RefShift(bool left, float a, float b)
{
    if (a < 0 || b < 0) {
        RefReport(left ? "BitShiftLeft" : "BitShiftRight", "bit_shift op input[%f, %f] is neg number.\n\n",
                  static_cast<double>(a), static_cast<double>(b));
    }
    const uint64_t value = RefToU64(a);
    const uint64_t distance = RefToU64(b) % 64;
    return static_cast<float>(left ? value << distance : value >> distance);
}

inline uint32_t RefBitShift(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 2, nullptr, false, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 2, 3928, 7448, operands);
    const bool left = RefAttrAt<uint8_t>(param, 8768) != 0;
    RefWalk(operands, true, true, [left](float a, float b) { return RefShift(left, a, b); });
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_BIT_SHIFT_H
