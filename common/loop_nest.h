// Nested loops over tensors whose elements lie at regular distances.
//
// A nest is a list of axes, the innermost first. An axis has an extent and one step for each of N operands: the floats
// between neighbours along it, 0 where an operand stands still. Axes are added from the inside outwards. One of extent
// 1 moves nothing and is dropped; one that, in every operand, goes on where the axis inside it ends is merged with
// that.
//
// Example: rows of 3 floats, 4 floats apart, in a tensor of shape [2, 5, 3], go to compact rows.
//
//     LoopNest<2> nest;                //             steps when read, when written
//     nest.AddOuter({3, {1, 1}});      // columns
//     nest.AddOuter({5, {4, 3}});      // rows:       3 columns of 1 are not 4, so they stay apart
//     nest.AddOuter({2, {20, 15}});    // matrices:   5 rows of 4 are 20, of 3 are 15, so {5, ...} becomes {10, {4, 3}}
//     const LoopAxis<2> row = nest.Take(0);
//     for (LoopWalk<2> walk(nest); !walk.Done(); walk.Next()) {
//         MoveFloats(to + walk.Offset(1), from + walk.Offset(0), row.extent);    // ten times
//     }
#ifndef OPKIT_COMMON_LOOP_NEST_H
#define OPKIT_COMMON_LOOP_NEST_H

#include <stddef.h>
#include <stdint.h>

namespace opkit {

template <uint32_t N>
struct LoopAxis {
    size_t extent;
    size_t steps[N];
};

// Axes that are kept. Each has at least two positions, so they have 2^32 together: counts of 32 bits end before an axis
// that did not find room would move.
constexpr uint32_t kMaxLoopAxes = 32;

template <uint32_t N>
struct LoopNest {
    LoopAxis<N> axes[kMaxLoopAxes];
    uint32_t count = 0;

    void AddOuter(const LoopAxis<N>& axis)
    {
        if (axis.extent == 1) {
            return;
        }
        if (count > 0 && Continues(axes[count - 1], axis)) {
            axes[count - 1].extent *= axis.extent;
        } else if (count < kMaxLoopAxes) {
            axes[count++] = axis;
        }
    }

    // Removes axis i, for the caller to walk in a loop of its own; where there is none, that is one of a single
    // position.
    LoopAxis<N> Take(uint32_t i)
    {
        if (i >= count) {
            return {1, {}};
        }
        const LoopAxis<N> taken = axes[i];
        for (--count; i < count; ++i) {
            axes[i] = axes[i + 1];
        }
        return taken;
    }

private:
    static bool Continues(const LoopAxis<N>& inner, const LoopAxis<N>& outer)
    {
        bool continues = true;
        for (uint32_t n = 0; n < N; ++n) {
            continues = continues && outer.steps[n] == inner.extent * inner.steps[n];
        }
        return continues;
    }
};

// Steps through the positions of a nest, which must outlive it. A nest without axes has one position, one with an axis
// of extent 0 none.
template <uint32_t N>
class LoopWalk {
public:
    explicit LoopWalk(const LoopNest<N>& nest) : nest_(nest)
    {
        for (uint32_t i = 0; i < nest.count; ++i) {
            position_[i] = 0;
            done_ = done_ || nest.axes[i].extent == 0;
        }
    }

    bool Done() const { return done_; }
    size_t Offset(uint32_t operand) const { return offsets_[operand]; }

    // Behind the last position the walk is done, and stands at the first one again.
    void Next()
    {
        for (uint32_t i = 0; i < nest_.count; ++i) {
            const LoopAxis<N>& axis = nest_.axes[i];
            for (uint32_t n = 0; n < N; ++n) {
                offsets_[n] += axis.steps[n];
            }
            if (++position_[i] < axis.extent) {
                return;
            }
            for (uint32_t n = 0; n < N; ++n) {
                offsets_[n] -= axis.steps[n] * axis.extent;
            }
            position_[i] = 0;
        }
        done_ = true;
    }

private:
    const LoopNest<N>& nest_;
    bool done_ = false;
    size_t offsets_[N] = {};
    size_t position_[kMaxLoopAxes];  // in use up to the nest's axes
};

}  // namespace opkit

#endif  // OPKIT_COMMON_LOOP_NEST_H
