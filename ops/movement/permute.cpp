// Permute: axis d of the output is axis perm[d] of the input.
// Rows: expanding.
//
// A walk whose output shape is the permuted input shape runs over merged axes, row by row or plane by plane. Any other
// combination of perm and shapes still has a meaning, by index arithmetic on the compact pitches of both shapes; it is
// followed while it stays inside the two tensors.

#include "common/loop_nest.h"
#include "common/move_floats.h"
#include "kernels/transpose.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

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

constexpr uint32_t kIn = 0;  // operands of the walk
constexpr uint32_t kOut = 1;

// The axes in output order.
LoopNest<2> PlanWalk(const Input& in, const uint32_t* perm)
{
    size_t inSteps[OPKIT_MAX_DIMS];
    inSteps[in.dimNum - 1] = 1;
    size_t inStep = in.Pitch();
    for (int32_t a = in.dimNum - 2; a >= 0; --a) {
        inSteps[a] = inStep;
        inStep *= in.shape[a];
    }
    LoopNest<2> nest;
    size_t outStep = 1;
    for (int32_t d = in.dimNum; d-- > 0;) {
        const uint32_t extent = in.shape[perm[d]];
        nest.AddOuter({extent, {inSteps[perm[d]], outStep}});
        outStep *= extent;
    }
    return nest;
}

void MoveByRows(const float* in, float* out, LoopNest<2>* nest, size_t width)
{
    const LoopAxis<2> rows = nest->Take(0);
    for (LoopWalk<2> walk(*nest); !walk.Done(); walk.Next()) {
        MoveRows(out + walk.Offset(kOut), rows.steps[kOut], in + walk.Offset(kIn), rows.steps[kIn], rows.extent, width);
    }
}

// The planes are those of the innermost axis of the output and the contiguous one of the input.
void MoveByPlanes(const float* in, float* out, LoopNest<2>* nest, const LoopAxis<2>& inner)
{
    uint32_t unit = 0;
    while (unit < nest->count && nest->axes[unit].steps[kIn] != 1) {
        ++unit;
    }
    const LoopAxis<2> rows = nest->Take(unit);
    for (LoopWalk<2> walk(*nest); !walk.Done(); walk.Next()) {
        Kernels<TransposeKernels>().plane(in + walk.Offset(kIn), inner.steps[kIn], out + walk.Offset(kOut),
                                          rows.steps[kOut], static_cast<uint32_t>(rows.extent),
                                          static_cast<uint32_t>(inner.extent));
    }
}

void Transpose(const float* in, float* out, LoopNest<2>* nest)
{
    const LoopAxis<2> inner = nest->Take(0);
    if (inner.steps[kIn] == 1 || inner.extent == 1) {
        MoveByRows(in, out, nest, inner.extent);
    } else {
        MoveByPlanes(in, out, nest, inner);
    }
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
            LoopNest<2> nest = PlanWalk(in, attr.perm);
            Transpose(in.data, out.data, &nest);
        } else if (!PermuteByIndex(in, out, attr.perm)) {
            Report(Here(), "perm leads outside the tensor.\n\n");
            return kFailure;
        }
    }
    return ExpandOutputChecked(out);
}
