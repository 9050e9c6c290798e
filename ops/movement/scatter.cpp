// Scatter: a copy of the data in which updates replace elements; each update has its own coordinates except along the
// axis, where its index stands. The last of several updates to one element wins.
// Rows: compacting.
//
// Indices are rounded, checked, all of them before the output is touched, and kept as whole numbers in the work space.

#include <algorithm>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "common/loop_nest.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// False when an index lies outside [-extent, extent - 1].
bool ResolveIndices(const Input& indices, int32_t extent, uint32_t* resolved, Caller caller)
{
    for (uint32_t i = 0; i < indices.count; ++i) {
        const int32_t index = RoundToI32(indices.data[i]);
        if (index >= extent || index < -extent) {
            Report(caller, "indices element out of data bounds, idx=%d must be within the inclusive range [%d,%d]\n",
                   index, -extent, extent - 1);
            return false;
        }
        resolved[i] = static_cast<uint32_t>(index < 0 ? index + extent : index);
    }
    return true;
}

// The walk over the updates' coordinates, the axis left out, by what they select in the compact output. The number of
// indices ends it; an extent of 0 counts as 1.
LoopNest<1> PlanWalk(const Input& data, const Input& updates, int32_t axis)
{
    LoopNest<1> nest;
    uint32_t pitch = 1;
    for (int32_t d = data.dimNum - 1; d >= 0; --d) {
        nest.AddOuter({std::max(updates.shape[d], 1u), {d == axis ? 0 : pitch}});
        pitch *= data.shape[d];
    }
    return nest;
}

// A run of updates along one axis of the walk, `step` apart in the output but for their indices.
void ScatterRun(const float* updates, const uint32_t* indices, uint32_t count, float* out, uint32_t axisPitch,
                size_t step)
{
    for (uint32_t i = 0; i < count; ++i, out += step) {
        out[indices[i] * axisPitch] = updates[i];
    }
}

}  // namespace

uint32_t ScatterOpkitForward(LayerParam* param)
{
    Input data;
    Input indices;
    Input updates;
    if (!ResolveThenCompact(param, {&data, &indices, &updates})) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const int32_t axis = AttrOf<ScatterAttr>(param).scatterAxis;
    if (static_cast<int32_t>(indices.count) <= 0) {
        indices.count = 0;
    }
    uint32_t* const resolved = static_cast<uint32_t*>(param->opkitBuf);
    if (!ResolveIndices(indices, static_cast<int32_t>(data.shape[axis]), resolved, Here())) {
        return kFailure;
    }
    const int32_t copied = memcpy_s(out.data, out.size, data.data, size_t{data.count} * sizeof(float));
    if (copied != 0) {
        Report(Here(), "memcpy failed, errnum = %d\n", copied);
        return kFailure;
    }

    LoopNest<1> nest = PlanWalk(data, updates, axis);
    const LoopAxis<1> run = nest.Take(0);
    const uint32_t axisPitch = ShapeCount(data.shape, data.dimNum, axis + 1, data.dimNum);
    LoopWalk<1> walk(nest);
    for (uint32_t i = 0, count = 0; i < indices.count; i += count, walk.Next()) {
        count = static_cast<uint32_t>(std::min(run.extent, size_t{indices.count} - i));
        float* const base = out.data + static_cast<uint32_t>(walk.Offset(0));
        ScatterRun(updates.data + i, resolved + i, count, base, axisPitch, run.steps[0]);
    }
    return ExpandOutput(out);
}
