// Broadcasting without index arithmetic per element.
//
// The mapping itself is BroadCast: the operand's dimensions align with the output's last ones, and each output
// coordinate is taken modulo the operand's dimension. So a dimension of 1 repeats, of a longer one the front is read,
// and a shorter one wraps around. An operand with more dimensions than the output is read at element 0 only.
//
// A walk calls its run function for stretches of the output in which every operand either advances with the output
// (step 1) or stands still (step 0).
#ifndef OPKIT_COMMON_BROADCAST_H
#define OPKIT_COMMON_BROADCAST_H

#include <stddef.h>
#include <stdint.h>

#include "common/loop_nest.h"
#include "common/shape.h"

namespace opkit {

// One side of a walk: a shape and the distance between its rows in floats (the width itself when compact).
struct RowShape {
    const uint32_t* shape;
    uint32_t dimNum;
    uint32_t rowPitch;
};

inline RowShape CompactShape(const uint32_t* shape, int32_t dimNum)
{
    return {shape, static_cast<uint32_t>(dimNum), LastDimension(shape, dimNum)};
}

// Where the operand stands for an element of the output, in floats.
size_t SourceOffset(const RowShape& operand, const RowShape& output, size_t element);

// How many coordinates along dimension d of the output the operand has: 1 where it lacks the dimension, and everywhere
// when it has more dimensions than the output.
uint32_t OperandExtent(const RowShape& operand, const RowShape& output, uint32_t d);

// The walk over the output (operand 0 of the nest) and its operands. A dimension that wraps around is cut into an axis
// that runs through it and one that repeats it: 6 against 2 become 2 inside of 3. False when it cannot be cut into
// whole parts, as 5 against 2, or for an operand without elements.
template <uint32_t N>
bool PlanBroadcast(const RowShape& output, const RowShape (&operands)[N], LoopNest<N + 1>* nest)
{
    RowShape sides[N + 1] = {output};
    size_t steps[N + 1] = {1};
    for (uint32_t s = 1; s <= N; ++s) {
        sides[s] = operands[s - 1];
        steps[s] = 1;
    }
    for (uint32_t d = output.dimNum; d-- > 0;) {
        uint32_t extents[N + 1];
        for (uint32_t s = 0; s <= N; ++s) {
            extents[s] = OperandExtent(sides[s], output, d);
            if (extents[s] == 0) {
                return false;
            }
        }
        for (uint32_t inner = 1, end = 0; inner < extents[0]; inner = end) {
            end = extents[0];
            for (const uint32_t extent : extents) {
                end = extent > inner && extent < end ? extent : end;
            }
            if (end % inner != 0) {
                return false;
            }
            LoopAxis<N + 1> axis = {end / inner, {}};
            for (uint32_t s = 0; s <= N; ++s) {
                axis.steps[s] = extents[s] > inner ? steps[s] * inner : 0;
            }
            nest->AddOuter(axis);
        }
        for (uint32_t s = 0; s <= N; ++s) {
            steps[s] = d + 1 == output.dimNum ? sides[s].rowPitch : steps[s] * extents[s];
        }
    }
    return true;
}

// The innermost axis when it is a run, else a run of one element.
template <uint32_t N>
LoopAxis<N> TakeRun(LoopNest<N>* nest)
{
    bool isRun = nest->count > 0 && nest->axes[0].steps[0] == 1;
    for (uint32_t s = 1; isRun && s < N; ++s) {
        isRun = nest->axes[0].steps[s] <= 1;
    }
    return isRun ? nest->Take(0) : LoopAxis<N>{1, {}};
}

// The same as ForEachBroadcastRun() element by element: for outputs that overwrite an operand.
template <uint32_t N, class Run>
void ForEachBroadcastElement(const RowShape& output, const RowShape (&operands)[N], Run run)
{
    const uint32_t count = ElementCount(output.shape, output.dimNum);
    const uint32_t width = output.shape[output.dimNum - 1];
    uint32_t steps[N];
    for (uint32_t& step : steps) {
        step = 1;
    }
    for (uint32_t i = 0; i < count; ++i) {
        size_t offsets[N];
        for (uint32_t s = 0; s < N; ++s) {
            offsets[s] = SourceOffset(operands[s], output, i);
        }
        run(size_t{i / width} * output.rowPitch + i % width, offsets, steps, 1);
    }
}

// Calls run(outOffset, offsets[N], steps[N], length) over the whole output in ascending order; nothing is called when
// it is empty.
template <uint32_t N, class Run>
void ForEachBroadcastRun(const RowShape& output, const RowShape (&operands)[N], Run run)
{
    const uint32_t count = ElementCount(output.shape, output.dimNum);
    if (count == 0) {
        return;
    }
    LoopNest<N + 1> nest;
    if (!PlanBroadcast(output, operands, &nest)) {
        ForEachBroadcastElement(output, operands, run);
        return;
    }
    const LoopAxis<N + 1> inner = TakeRun(&nest);
    uint32_t steps[N];
    for (uint32_t s = 0; s < N; ++s) {
        steps[s] = static_cast<uint32_t>(inner.steps[s + 1]);
    }
    LoopWalk<N + 1> walk(nest);
    for (uint32_t left = count, length = 0; left > 0; left -= length, walk.Next()) {
        length = inner.extent < left ? static_cast<uint32_t>(inner.extent) : left;
        size_t offsets[N];
        for (uint32_t s = 0; s < N; ++s) {
            offsets[s] = walk.Offset(s + 1);
        }
        run(walk.Offset(0), offsets, steps, length);
    }
}

// Fills a tensor with another, broadcast to its shape.
void CopyBroadcast(float* to, const RowShape& output, const float* from, const RowShape& operand);

}  // namespace opkit

#endif  // OPKIT_COMMON_BROADCAST_H
