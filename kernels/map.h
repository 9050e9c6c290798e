// Element loops: over one operand, and over two that each advance with the output (step 1) or stand still (step 0).
#ifndef OPKIT_KERNELS_MAP_H
#define OPKIT_KERNELS_MAP_H

#include <stddef.h>

#include "kernels/contract.h"

namespace opkit {
namespace {

// out[i] = Element(in[i]). out may equal in, or lie in front of it.
template <float (*Element)(float)>
void Map(const float* in, float* out, size_t count)
{
    assert(MayMap(in, out, count));
    for (size_t i = 0; i < count; ++i) {
        out[i] = Element(in[i]);
    }
}

// out[i] = Element(a[i * stepA], b[i * stepB]). Element is pure; out may equal a or b.
template <float (*Element)(float, float)>
void MapBinary(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count)
{
    assert(stepA <= 1 && stepB <= 1);
    assert(Present(a, count) && Present(b, count) && Present(out, count));
    constexpr size_t kShort = 8;  // below, telling the cases apart costs more than it saves
    if (count < kShort) {
        for (size_t i = 0; i < count; ++i) {
            out[i] = Element(a[i * stepA], b[i * stepB]);
        }
    } else if (stepA != 0 && stepB != 0) {
        for (size_t i = 0; i < count; ++i) {
            out[i] = Element(a[i], b[i]);
        }
    } else if (stepA != 0) {
        const float right = *b;
        for (size_t i = 0; i < count; ++i) {
            out[i] = Element(a[i], right);
        }
    } else if (stepB != 0) {
        const float left = *a;
        for (size_t i = 0; i < count; ++i) {
            out[i] = Element(left, b[i]);
        }
    } else {
        const float value = Element(*a, *b);
        for (size_t i = 0; i < count; ++i) {
            out[i] = value;
        }
    }
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_MAP_H
