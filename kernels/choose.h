// Choosing between two floats by their bits. The compiler may not turn a conditional into lanes when a side of it could
// trap; with both sides computed and masked there is no conditional left.
#ifndef OPKIT_KERNELS_CHOOSE_H
#define OPKIT_KERNELS_CHOOSE_H

#include <stdint.h>

namespace opkit {
namespace {

inline float Choose(bool condition, float yes, float no)
{
    const uint32_t mask = condition ? 0xFFFFFFFFu : 0u;
    return __builtin_bit_cast(float,
                              (__builtin_bit_cast(uint32_t, yes) & mask) | (__builtin_bit_cast(uint32_t, no) & ~mask));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_CHOOSE_H
