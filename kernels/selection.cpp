// Selection of the first entries of a line; see kernels/level.h for the levels.
//
// The entries found so far stand sorted. An element enters when it belongs strictly before the last of them: one that
// equals it has the later place. Most elements do not, and a block of them is dismissed by comparisons side by side. An
// unordered comparison lets NaN pass, too, so that none goes unseen.

#include "kernels/selection.h"

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

constexpr size_t kBlock = 4 * kLanes;

struct Largest {
    static bool Before(float a, float b) { return a > b; }
    static uint64_t Passes(Vec x, Vec limit) { return LaneBitsNotAtMost(x, limit); }
};

struct Smallest {
    static bool Before(float a, float b) { return a < b; }
    static uint64_t Passes(Vec x, Vec limit) { return LaneBitsNotAtMost(-x, -limit); }
};

// Bit i: element i of the block belongs before the limit, or is NaN.
template <class Order>
uint64_t PassingOf(const float* block, float limit)
{
    uint64_t passing = 0;
    for (size_t v = 0; v < kBlock / kLanes; ++v) {
        passing |= Order::Passes(Load(block + v * kLanes), Vec{} + limit) << (v * kLanes);
    }
    return passing;
}

// Moves what comes behind the entry; best[held] is free or falls out.
template <class Order>
void Insert(SortEntry* best, size_t held, SortEntry entry)
{
    size_t place = held;
    for (; place > 0 && Order::Before(entry.value, best[place - 1].value); --place) {
        best[place] = best[place - 1];
    }
    best[place] = entry;
}

template <class Order>
bool Select(const float* line, size_t step, size_t count, SortEntry* best, size_t keep)
{
    assert(line != nullptr && best != nullptr && keep >= 1 && keep <= count && count <= INT32_MAX);
    size_t i = 0;
    for (; i < keep; ++i) {
        const float x = line[i * step];
        if (x != x) {
            return false;
        }
        Insert<Order>(best, i, {x, static_cast<int32_t>(i)});
    }
    float gathered[kBlock];
    for (; i < count; i += kBlock) {
        const size_t here = Smaller(count - i, kBlock);
        const float* block = line + i * step;
        if (step != 1 || here < kBlock) {
            for (size_t j = 0; j < here; ++j) {
                gathered[j] = block[j * step];
            }
            for (size_t j = here; j < kBlock; ++j) {
                gathered[j] = best[keep - 1].value;  // does not pass
            }
            block = gathered;
        }
        for (uint64_t passing = PassingOf<Order>(block, best[keep - 1].value); passing != 0; passing &= passing - 1) {
            const size_t j = static_cast<size_t>(__builtin_ctzll(passing));
            if (block[j] != block[j]) {
                return false;
            }
            if (Order::Before(block[j], best[keep - 1].value)) {
                Insert<Order>(best, keep - 1, {block[j], static_cast<int32_t>(i + j)});
            }
        }
    }
    return true;
}

}  // namespace

extern const SelectionKernels kSelectionKernels = {Select<Largest>, Select<Smallest>};

}  // namespace opkit::OPKIT_LEVEL
