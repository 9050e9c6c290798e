// Bit shifts; see kernels/level.h for the levels. Operands in range convert the same way whether one by one or side by
// side, and the result rounds once, from the whole 64 bits.

#include "kernels/shift.h"

#include "kernels/contract.h"

namespace opkit::OPKIT_LEVEL {
namespace {

template <size_t kStep>
bool IsPlain(const float* x)
{
    constexpr float kLimit = 9223372036854775808.0f;
    uint32_t odd = 0;
    for (size_t i = 0; i < (kStep != 0 ? kShiftBlock : 1); ++i) {
        odd |= (x[i] >= 0.0f ? 0u : 1u) | (x[i] < kLimit ? 0u : 1u);
    }
    return odd == 0;
}

struct Left {
    static uint64_t Shift(uint64_t x, uint64_t distance) { return x << distance; }
};

struct Right {
    static uint64_t Shift(uint64_t x, uint64_t distance) { return x >> distance; }
};

template <class Direction, size_t kStepA, size_t kStepB>
size_t ShiftPlain(const float* a, const float* b, float* out, size_t count)
{
    size_t done = 0;
    for (; count - done >= kShiftBlock; done += kShiftBlock) {
        const float* const x = a + done * kStepA;
        const float* const y = b + done * kStepB;
        if (!IsPlain<kStepA>(x) || !IsPlain<kStepB>(y)) {
            break;
        }
        float* const to = out + done;
        for (size_t i = 0; i < kShiftBlock; ++i) {
            const uint64_t value = static_cast<uint64_t>(static_cast<int64_t>(x[i * kStepA]));
            const uint64_t distance = static_cast<uint64_t>(static_cast<int64_t>(y[i * kStepB])) & 63;
            to[i] = static_cast<float>(Direction::Shift(value, distance));
        }
    }
    return done;
}

template <class Direction>
size_t Shift(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count)
{
    assert(stepA <= 1 && stepB <= 1);
    assert(Present(a, count) && Present(b, count) && Present(out, count));
    if (stepA != 0) {
        return stepB != 0 ? ShiftPlain<Direction, 1, 1>(a, b, out, count)
                          : ShiftPlain<Direction, 1, 0>(a, b, out, count);
    }
    return stepB != 0 ? ShiftPlain<Direction, 0, 1>(a, b, out, count) : ShiftPlain<Direction, 0, 0>(a, b, out, count);
}

}  // namespace

extern const ShiftKernels kShiftKernels = {Shift<Left>, Shift<Right>};

}  // namespace opkit::OPKIT_LEVEL
