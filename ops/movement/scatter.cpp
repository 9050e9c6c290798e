// Scatter: a copy of the data in which updates replace elements; each update has its own coordinates except along the
// axis, where its index stands. The last of several updates to one element wins.
//
// Compacts all three inputs, writes the output compactly and expands it. Indices are rounded, checked, all of them
// before the output is touched, and kept as whole numbers in the work space, with the counters and pitches of the walk.

#include <algorithm>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

namespace opkit {
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

// One row of updates. Along the rows themselves an index is the column, elsewhere each column keeps its own.
void ScatterRow(const float* updates, const uint32_t* indices, uint32_t count, float* out, uint32_t axisPitch,
                bool alongRows)
{
    for (uint32_t i = 0; i < count; ++i) {
        out[alongRows ? indices[i] : indices[i] * axisPitch + i] = updates[i];
    }
}

}  // namespace
}  // namespace opkit

using namespace opkit;

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

    const int32_t last = data.dimNum - 1;
    uint32_t* const counters = resolved + indices.count;
    uint32_t* const pitches = counters + data.dimNum;
    uint32_t pitch = 1;
    for (int32_t d = last; d >= 0; --d) {
        counters[d] = 0;
        pitches[d] = pitch;
        pitch *= data.shape[d];
    }
    const uint32_t rowLength = std::max(updates.shape[last], 1u);
    uint32_t base = 0;  // what the counters select, the axis left out
    for (uint32_t i = 0, count = 0; i < indices.count; i += count) {
        count = std::min(rowLength, indices.count - i);
        ScatterRow(updates.data + i, resolved + i, count, out.data + base, pitches[axis], axis == last);
        for (int32_t d = last - 1; d >= 0; --d) {
            const uint32_t step = d == axis ? 0 : pitches[d];
            base += step;
            if (++counters[d] < updates.shape[d]) {
                break;
            }
            base -= step * counters[d];
            counters[d] = 0;
        }
    }
    return ExpandOutput(out);
}
