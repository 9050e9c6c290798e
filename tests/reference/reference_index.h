// Float to integer in the reference twins, without the processor's instructions: what does not fit, NaN included, gives
// the lowest number of the width.
#ifndef OPKIT_TESTS_REFERENCE_REFERENCE_INDEX_H
#define OPKIT_TESTS_REFERENCE_REFERENCE_INDEX_H

#include <cstdint>
#include <limits>

namespace opkit::reference {

inline int32_t RefToI32(double value)
{
    const bool fits = value > -2147483649.0 && value < 2147483648.0;
    return fits ? static_cast<int32_t>(value) : std::numeric_limits<int32_t>::min();
}

inline int64_t RefToI64(float value)
{
    const bool fits = value >= -9223372036854775808.0f && value < 9223372036854775808.0f;
    return fits ? static_cast<int64_t>(value) : std::numeric_limits<int64_t>::min();
}

// The low half of the 64-bit conversion.
inline uint32_t RefToU32(float value)
{
    return static_cast<uint32_t>(static_cast<uint64_t>(RefToI64(value)));
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_REFERENCE_INDEX_H
