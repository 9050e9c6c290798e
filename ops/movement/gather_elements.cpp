// GatherElements: out[i][j] = data[indices[i][j]][j], for an axis of 0 in two dimensions; each index has its element's
// own coordinates except along the axis.
// Rows: in place.
//
// Indices are first clipped to [-D, D - 1], in the index tensor itself, then rounded. The sign that decides whether D
// is added is that of the unrounded index, so one just below 0 becomes D, one past the axis. That, and NaN, may lead
// out of the data tensor and then fails the layer.

#include <algorithm>

#include "common/convert.h"
#include "common/loop_nest.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

void ClipRow(float* indices, uint32_t count, float low, float high)
{
    for (uint32_t i = 0; i < count; ++i) {
        const float raised = low > indices[i] ? low : indices[i];
        indices[i] = raised > high ? high : raised;
    }
}

// Where elements are read. An index and a column below the plain limits need no division: they do not leave their row.
struct ElementSource {
    const float* data;
    uint32_t width;
    uint32_t pitch;
    size_t extent;
    uint32_t axisExtent;
    uint32_t axisPitch;   // compact elements for a step of the index
    uint32_t columnStep;  // and for a column; 0 where the index is the column
    size_t axisStep;      // the same as axisPitch over padded rows
    uint32_t plainIndices;
    uint32_t plainColumns;
};

ElementSource SourceOf(const Input& data, int32_t axis, bool alongRows)
{
    const uint32_t pitch = data.Pitch();
    const uint32_t extent = data.shape[axis];
    ElementSource source = {data.data, data.width, pitch, data.Span(), extent, 1, 0, 1, data.width, UINT32_MAX};
    if (!alongRows) {
        source.axisPitch = ShapeCount(data.shape, data.dimNum, axis + 1, data.dimNum);
        source.columnStep = 1;
        source.axisStep = size_t{source.axisPitch / data.width} * pitch;
        source.plainIndices = extent + 1;
        source.plainColumns = source.axisPitch % data.width == 0 ? data.width : 0;
    }
    return source;
}

// A stretch of one row of indices.
struct IndexRow {
    const float* indices;
    uint32_t firstColumn;
    uint32_t count;
    uint32_t baseRow;  // row of the data that the other coordinates select
};

// Null, or the first index that leads out of the data.
const float* GatherRow(const ElementSource& source, const IndexRow& row, float* out)
{
    const size_t baseOffset = size_t{row.baseRow} * source.pitch;
    for (uint32_t i = 0; i < row.count; ++i) {
        const float value = row.indices[i];
        const uint32_t column = (row.firstColumn + i) * source.columnStep;
        const uint32_t index = static_cast<uint32_t>(RoundToI32(value)) + (value < 0.0f ? source.axisExtent : 0);
        size_t from = baseOffset + index * source.axisStep + column;
        if (index >= source.plainIndices || column >= source.plainColumns) {
            const uint32_t element = index * source.axisPitch + row.baseRow * source.width + column;
            from = size_t{element / source.width} * source.pitch + element % source.width;
        }
        if (from >= source.extent) {
            return &row.indices[i];
        }
        out[i] = source.data[from];
    }
    return nullptr;
}

// The walk over the rows of indices, by the rows of the data that their coordinates select; the axis selects none.
LoopNest<1> PlanBaseRows(const Input& data, const Input& indices, int32_t axis)
{
    LoopNest<1> nest;
    const int32_t last = data.dimNum - 1;
    for (int32_t d = indices.dimNum - 2; d >= 0; --d) {
        const bool selects = d < last && d != axis;
        nest.AddOuter({indices.shape[d], {selects ? ShapeCount(data.shape, data.dimNum, d + 1, last) : 0}});
    }
    return nest;
}

}  // namespace

uint32_t GatherElementsOpkitForward(LayerParam* param)
{
    Input data;
    Input indices;
    if (!Resolve(param, {&data, &indices}, Rows::kInPlace, Messages::kAll)) {
        return kFailure;
    }
    if (indices.count == 0) {
        return kSuccess;
    }
    const int32_t axis = AttrOf<GatherElementsAttr>(param).gatherAxis;
    const int32_t axisExtent = static_cast<int32_t>(data.shape[axis]);
    const uint32_t rows = ShapeCount(indices.shape, indices.dimNum, 0, indices.dimNum - 1);
    const size_t indexPitch = indices.Pitch();
    for (uint32_t row = 0; row < rows; ++row) {
        ClipRow(indices.data + row * indexPitch, indices.width, static_cast<float>(-axisExtent),
                static_cast<float>(axisExtent - 1));
    }

    const Output out = OutputOf(param, 0);
    const ElementSource source = SourceOf(data, axis, axis == indices.dimNum - 1);
    const LoopNest<1> nest = PlanBaseRows(data, indices, axis);
    LoopWalk<1> base(nest);
    RowCursor place(out.width, out.Pitch());
    for (uint32_t row = 0; row < rows; ++row, base.Next()) {
        const uint32_t baseRow = static_cast<uint32_t>(base.Offset(0));
        const float* const line = indices.data + row * indexPitch;
        for (uint32_t first = 0, count = 0; first < indices.width; first += count) {
            count = std::min(indices.width - first, place.LeftInRow());
            const IndexRow stretch = {line + first, first, count, baseRow};
            if (const float* outside = GatherRow(source, stretch, out.data + place.Offset())) {
                Report(Here(), "GatherElements index %f reads outside the data.\n\n", static_cast<double>(*outside));
                return kFailure;
            }
            place.Advance(count);
        }
    }
    return kSuccess;
}
