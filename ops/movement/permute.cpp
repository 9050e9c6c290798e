// Permute: axis d of the output is axis perm[d] of the input. Reads padded rows, writes compactly, expands at the end.
//
// A walk whose output shape is the permuted input shape runs over merged axes, row by row or plane by plane. Any other
// combination of perm and shapes still has a meaning, by index arithmetic on the compact pitches of both shapes; it is
// followed while it stays inside the two tensors.

#include "common/move_floats.h"
#include "kernels/transpose.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

namespace opkit {
namespace {

// An axis of the walk, in output order.
struct Axis {
    uint32_t extent;
    size_t inStep;  // floats, padding included
    size_t outStep;
};

struct Walk {
    Axis axes[OPKIT_MAX_DIMS];
    uint32_t rank = 0;
};

// Whether the output's shape is the permuted shape of the input, with a number of elements that 32 bits hold.
bool IsTransposition(const Input& in, const Output& out, const uint32_t* perm)
{
    if (out.dimNum != in.dimNum) {
        return false;
    }
    uint32_t seen = 0;
    uint64_t elements = 1;
    for (int32_t d = 0; d < in.dimNum; ++d) {
        if (perm[d] >= static_cast<uint32_t>(in.dimNum) || out.shape[d] != in.shape[perm[d]]) {
            return false;
        }
        seen |= 1u << perm[d];
        elements *= out.shape[d];
        if (elements > INT32_MAX) {
            return false;
        }
    }
    return seen == (1u << in.dimNum) - 1;
}

// Axes of extent 1 are dropped, neighbours that the input holds in one piece merged.
Walk PlanWalk(const Input& in, const uint32_t* perm)
{
    size_t steps[OPKIT_MAX_DIMS];
    steps[in.dimNum - 1] = 1;
    size_t step = in.Pitch();
    for (int32_t a = in.dimNum - 2; a >= 0; --a) {
        steps[a] = step;
        step *= in.shape[a];
    }
    Walk walk;
    for (int32_t d = 0; d < in.dimNum; ++d) {
        const Axis axis = {in.shape[perm[d]], steps[perm[d]], 0};
        if (axis.extent == 1) {
            continue;
        }
        Axis* const before = walk.rank > 0 ? &walk.axes[walk.rank - 1] : nullptr;
        if (before != nullptr && before->inStep == axis.extent * axis.inStep) {
            *before = {before->extent * axis.extent, axis.inStep, 0};
        } else {
            walk.axes[walk.rank++] = axis;
        }
    }
    size_t outStep = 1;
    for (uint32_t d = walk.rank; d-- > 0;) {
        walk.axes[d].outStep = outStep;
        outStep *= walk.axes[d].extent;
    }
    return walk;
}

Axis TakeAxis(Walk* walk, uint32_t d)
{
    const Axis axis = walk->axes[d];
    for (--walk->rank; d < walk->rank; ++d) {
        walk->axes[d] = walk->axes[d + 1];
    }
    return axis;
}

// Calls body(inOffset, outOffset) for every position of the walk, none of its extents 0.
template <class Body>
void ForEachPosition(const Walk& walk, Body body)
{
    uint32_t position[OPKIT_MAX_DIMS] = {};
    size_t inOffset = 0;
    size_t outOffset = 0;
    for (;;) {
        body(inOffset, outOffset);
        uint32_t d = walk.rank;
        for (;;) {
            if (d-- == 0) {
                return;
            }
            const Axis& axis = walk.axes[d];
            inOffset += axis.inStep;
            outOffset += axis.outStep;
            if (++position[d] < axis.extent) {
                break;
            }
            inOffset -= axis.inStep * axis.extent;
            outOffset -= axis.outStep * axis.extent;
            position[d] = 0;
        }
    }
}

void Transpose(const float* in, float* out, Walk walk)
{
    constexpr Axis kNone = {1, 0, 0};
    const Axis inner = walk.rank > 0 ? TakeAxis(&walk, walk.rank - 1) : Axis{1, 1, 1};
    if (inner.inStep == 1) {
        const Axis rows = walk.rank > 0 ? TakeAxis(&walk, walk.rank - 1) : kNone;
        ForEachPosition(walk, [&](size_t from, size_t to) {
            MoveRows(out + to, rows.outStep, in + from, rows.inStep, rows.extent, inner.extent);
        });
        return;
    }
    uint32_t unit = 0;
    while (unit < walk.rank && walk.axes[unit].inStep != 1) {
        ++unit;
    }
    const Axis rows = unit < walk.rank ? TakeAxis(&walk, unit) : kNone;
    ForEachPosition(walk, [&](size_t from, size_t to) {
        Kernels<TransposeKernels>().plane(in + from, inner.inStep, out + to, rows.outStep, rows.extent, inner.extent);
    });
}

// The index arithmetic itself. An entry of perm may also name a pitch of the output, which lie behind the input's.
// False when it leaves one of the tensors.
bool PermuteByIndex(const Input& in, const Output& out, const uint32_t* perm)
{
    const int32_t rank = in.dimNum;
    uint32_t pitches[2 * OPKIT_MAX_DIMS] = {};
    uint32_t* const outPitches = pitches + rank;
    for (int32_t d = 0; d < rank; ++d) {
        if (perm[d] >= 2u * static_cast<uint32_t>(rank)) {
            return false;
        }
        pitches[d] = d + 1 < rank ? ShapeCount(in.shape, rank, d + 1, rank) : 1;
        outPitches[d] = d + 1 < rank ? ShapeCount(out.shape, out.dimNum, d + 1, out.dimNum) : 1;
    }
    const size_t inExtent = in.Span();
    const size_t outExtent = out.Span();
    const uint32_t pitchIn = in.Pitch();
    for (uint32_t i = 0; i < in.count; ++i) {
        uint32_t rest = i;
        uint32_t source = 0;
        for (int32_t d = 0; d < rank; ++d) {
            source += rest / outPitches[d] * pitches[perm[d]];
            rest %= outPitches[d];
        }
        const uint32_t from = source / in.width * pitchIn + source % in.width;
        if (from >= inExtent || i >= outExtent) {
            return false;
        }
        out.data[i] = in.data[from];
    }
    return true;
}

}  // namespace
}  // namespace opkit

using namespace opkit;

uint32_t PermuteOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const PermuteAttr& attr = AttrOf<PermuteAttr>(param);
    const uint32_t rank = static_cast<uint32_t>(in.dimNum);
    if (attr.permLength > rank || attr.permOutDimCount != rank || attr.permDimCount != rank ||
        rank - 1 >= OPKIT_MAX_DIMS) {
        return kFailure;
    }
    if (static_cast<int32_t>(in.count) > 0) {
        if (IsTransposition(in, out, attr.perm)) {
            Transpose(in.data, out.data, PlanWalk(in, attr.perm));
        } else if (!PermuteByIndex(in, out, attr.perm)) {
            Report(Here(), "perm leads outside the tensor.\n\n");
            return kFailure;
        }
    }
    return ExpandOutputChecked(out);
}
