#include "kernels/significant_bits.h"

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

constexpr uint32_t kMantissa = 0x007fffff;
constexpr uint32_t kNoSign = 0x7fffffff;
constexpr uint32_t kLastBits = 3;

struct Notes {
    VecWord mantissa = {};
    VecWord smallestLessOne = ~VecWord{};  // a zero wraps to the largest
    VecWord largest = {};
};

void Note(Notes& notes, Vec values)
{
    const VecWord bits = (VecWord)values & kNoSign;
    const VecWord lessOne = bits - 1;
    notes.mantissa |= bits & kMantissa;
    notes.smallestLessOne = lessOne < notes.smallestLessOne ? lessOne : notes.smallestLessOne;
    notes.largest = bits > notes.largest ? bits : notes.largest;
}

BitRange RangeOf(const Notes& notes)
{
    BitRange range = {0, UINT32_MAX, 0};
    for (size_t i = 0; i < kLanes; ++i) {
        const uint32_t lessOne = notes.smallestLessOne[i];
        range.mantissa |= notes.mantissa[i];
        range.smallest = lessOne < range.smallest ? lessOne : range.smallest;
        range.largest = notes.largest[i] > range.largest ? notes.largest[i] : range.largest;
    }
    range.smallest = range.smallest == UINT32_MAX ? UINT32_MAX : range.smallest + 1;
    return range;
}

BitRange Examine(const float* values, size_t count)
{
    assert(Present(values, count));
    constexpr size_t kStretch = 64 * kLanes;
    Notes notes;
    for (size_t i = 0, end = 0; i < count;) {
        end = Smaller(count, i == 0 ? 4 * kLanes : i + kStretch);
        for (; i + kLanes <= end; i += kLanes) {
            Note(notes, Load(values + i));
        }
        if (i < end && end == count) {
            Note(notes, LoadTail(values + i, end - i));
            i = end;
        }
        if (AnyBitSet(notes.mantissa & kLastBits)) {
            break;
        }
    }
    return RangeOf(notes);
}

}  // namespace

extern const SignificantBitsKernels kSignificantBitsKernels = {Examine};

}  // namespace opkit::OPKIT_LEVEL
