// Broadcasting without index arithmetic per element.
//
// The mapping itself is BroadCast: the operand's dimensions align with the output's last ones, and each output
// coordinate is taken modulo the operand's dimension. So a dimension of 1 repeats, and one that neither equals the
// output's nor is 1 wraps around. An operand with more dimensions than the output is read at element 0 only.
//
// A walk calls its run function for stretches of the output in which every operand either advances with the output
// (step 1) or stands still (step 0). Inner dimensions that allow it are merged into one stretch.
#ifndef OPKIT_COMMON_BROADCAST_H
#define OPKIT_COMMON_BROADCAST_H

#include <stddef.h>
#include <stdint.h>

#include "common/shape.h"
#include "opkit/records.h"

namespace opkit {

// One side of a walk: a shape and the distance between its rows in floats (the width itself when compact).
struct RowShape {
    const uint32_t* shape;
    uint32_t dimNum;
    uint32_t rowPitch;
};

class BroadcastOperand {
public:
    void Prepare(const RowShape& operand, const RowShape& output);

    // How many inner dimensions of the output this operand can cover with one step; at least 1.
    uint32_t MergeableDims(const RowShape& output) const;

    // Settles the step over the last `innerDims` dimensions, at most MergeableDims().
    void Merge(const RowShape& output, uint32_t innerDims);

    size_t Offset() const { return offset_; }
    uint32_t Step() const { return step_; }
    uint32_t WrapWidth() const { return wrapWidth_; }  // 0: no wrap within the last dimension

    // Moves one step on in outer dimension d of the output.
    void Advance(uint32_t d)
    {
        offset_ += stride_[d];
        if (++position_[d] == dim_[d]) {
            Restart(d);
        }
    }

    // Moves back to the start of outer dimension d.
    void Restart(uint32_t d)
    {
        offset_ -= stride_[d] * position_[d];
        position_[d] = 0;
    }

private:
    bool Advances(uint32_t d, const RowShape& output, size_t innerLength) const;

    size_t offset_ = 0;
    uint32_t step_ = 0;
    uint32_t wrapWidth_ = 0;
    size_t stride_[OPKIT_MAX_DIMS] = {};  // floats, by output dimension
    uint32_t dim_[OPKIT_MAX_DIMS] = {};   // coordinates in use, by output dimension; 1 where the operand has none
    uint32_t position_[OPKIT_MAX_DIMS] = {};
};

// Where the operand stands for an element of the output, in floats.
size_t SourceOffset(const RowShape& operand, const RowShape& output, size_t element);

// The same as ForEachBroadcastRun() element by element: for outputs with more dimensions than a walk keeps in mind, and
// for those that overwrite an operand.
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

// Calls run(outOffset, offsets[N], steps[N], length) over the whole output in ascending order. The output has at least
// one dimension; nothing is called when it is empty.
template <uint32_t N, class Run>
void ForEachBroadcastRun(const RowShape& output, const RowShape (&operands)[N], Run run)
{
    const uint32_t dims = output.dimNum;
    if (ElementCount(output.shape, dims) == 0) {
        return;
    }
    if (dims > OPKIT_MAX_DIMS) {
        ForEachBroadcastElement(output, operands, run);
        return;
    }
    BroadcastOperand sides[N];
    const bool outputContiguous = output.rowPitch == output.shape[dims - 1];
    uint32_t innerDims = outputContiguous ? dims : 1;
    for (uint32_t s = 0; s < N; ++s) {
        sides[s].Prepare(operands[s], output);
        const uint32_t mergeable = sides[s].MergeableDims(output);
        innerDims = mergeable < innerDims ? mergeable : innerDims;
    }
    uint32_t steps[N];
    bool wraps = false;
    for (uint32_t s = 0; s < N; ++s) {
        sides[s].Merge(output, innerDims);
        steps[s] = sides[s].Step();
        wraps = wraps || sides[s].WrapWidth() != 0;
    }
    uint32_t length = 1;
    for (uint32_t d = dims - innerDims; d < dims; ++d) {
        length *= output.shape[d];
    }
    const uint32_t outerDims = dims - innerDims;
    const size_t outStep = innerDims > 1 ? length : output.rowPitch;
    size_t outOffset = 0;
    uint32_t position[OPKIT_MAX_DIMS] = {};
    for (;;) {
        size_t offsets[N];
        for (uint32_t s = 0; s < N; ++s) {
            offsets[s] = sides[s].Offset();
        }
        if (!wraps) {
            run(outOffset, offsets, steps, length);
        } else {
            for (uint32_t done = 0, part = 0; done < length; done += part) {
                part = length - done;
                size_t at[N];
                for (uint32_t s = 0; s < N; ++s) {
                    const uint32_t wrap = sides[s].WrapWidth();
                    const uint32_t column = wrap != 0 ? done % wrap : done * steps[s];
                    part = wrap != 0 && wrap - column < part ? wrap - column : part;
                    at[s] = offsets[s] + column;
                }
                run(outOffset + done, at, steps, part);
            }
        }
        outOffset += outStep;
        uint32_t d = outerDims;
        for (;;) {
            if (d == 0) {
                return;
            }
            --d;
            if (++position[d] < output.shape[d]) {
                break;
            }
            position[d] = 0;
            for (uint32_t s = 0; s < N; ++s) {
                sides[s].Restart(d);
            }
        }
        for (uint32_t s = 0; s < N; ++s) {
            sides[s].Advance(d);
        }
    }
}

}  // namespace opkit

#endif  // OPKIT_COMMON_BROADCAST_H
