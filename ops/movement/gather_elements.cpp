// GatherElements: out[i][j] = data[indices[i][j]][j], for an axis of 0 in two dimensions; each index has its element's
// own coordinates except along the axis. Rows are read and written in place, padded.
//
// Indices are first clipped to [-D, D - 1], in the index tensor itself, then rounded. The sign that decides whether D is
// added is that of the unrounded index, so one just below 0 becomes D, one past the axis. That, and NaN, may lead out of
// the data tensor and then fails the layer.

#include <algorithm>

#include "common/convert.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

namespace opkit {
namespace {

void ClipRow(float* indices, uint32_t count, float low, float high)
{
    for (uint32_t i = 0; i < count; ++i) {
        const float raised = low > indices[i] ? low : indices[i];
        indices[i] = raised > high ? high : raised;
    }
}

// One row of indices and what it needs to find its elements.
struct ElementRow {
    const float* indices;
    float* out;
    uint32_t first;  // of the index row's elements that out starts at
    uint32_t count;
    uint32_t base;  // compact index of the data that all other coordinates but the last select
};

struct ElementSource {
    const float* data;
    uint32_t width;
    uint32_t pitch;
    size_t extent;
    uint32_t axisExtent;
    uint32_t axisPitch;  // compact elements
    bool alongRows;      // the axis is the last one
};

// Null, or the first index that leads out of the data.
const float* GatherRow(const ElementSource& source, const ElementRow& row)
{
    // Within these limits the padded offset needs no division of its own: neither part of the sum crosses a row.
    const uint32_t plainIndices = source.alongRows ? source.width : source.axisExtent + 1;
    const uint32_t plainColumns = source.alongRows ? UINT32_MAX : source.width;
    const size_t axisStep = source.alongRows ? 1 : size_t{source.axisPitch / source.width} * source.pitch;
    const size_t baseOffset = size_t{row.base / source.width} * source.pitch;
    for (uint32_t i = 0; i < row.count; ++i) {
        const float value = row.indices[i];
        const uint32_t column = source.alongRows ? 0 : row.first + i;
        const uint32_t index =
            static_cast<uint32_t>(RoundToI32(value)) + (value < 0.0f ? source.axisExtent : 0);
        size_t from = baseOffset + index * axisStep + column;
        if (index >= plainIndices || column >= plainColumns) {
            const uint32_t element = index * (source.alongRows ? 1 : source.axisPitch) + row.base + column;
            from = size_t{element / source.width} * source.pitch + element % source.width;
        }
        if (from >= source.extent) {
            return &row.indices[i];
        }
        row.out[i] = source.data[from];
    }
    return nullptr;
}

}  // namespace
}  // namespace opkit

using namespace opkit;

uint32_t GatherElementsOpkitForward(LayerParam* param)
{
    InputCursor cursor = {param};
    Input data;
    Input indices;
    if (!NextInputOrReport(&cursor, &data) || !NextInputOrReport(&cursor, &indices)) {
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
    const ElementSource source = {data.data,
                                  data.width,
                                  data.Pitch(),
                                  data.Extent(),
                                  static_cast<uint32_t>(axisExtent),
                                  ShapeCount(data.shape, data.dimNum, axis + 1, data.dimNum),
                                  axis == indices.dimNum - 1};
    // Counters over the outer axes of the indices, and how far each moves the base; the axis itself does not.
    const uint32_t outerAxes = static_cast<uint32_t>(indices.dimNum) - 1;
    auto* const counters = static_cast<uint32_t*>(__builtin_alloca((outerAxes + 1) * sizeof(uint32_t)));
    auto* const steps = static_cast<uint32_t*>(__builtin_alloca((outerAxes + 1) * sizeof(uint32_t)));
    for (uint32_t i = 0; i < outerAxes; ++i) {
        const int32_t d = static_cast<int32_t>(i);
        counters[i] = 0;
        steps[i] = d < data.dimNum - 1 && d != axis ? ShapeCount(data.shape, data.dimNum, d + 1, data.dimNum) : 0;
    }
    RowCursor place(out.width, out.Pitch());
    uint32_t base = 0;
    for (uint32_t row = 0; row < rows; ++row) {
        const float* const line = indices.data + row * indexPitch;
        for (uint32_t first = 0, count = 0; first < indices.width; first += count) {
            count = std::min(indices.width - first, place.LeftInRow());
            const float* outside =
                GatherRow(source, {line + first, out.data + place.Offset(), first, count, base});
            if (outside != nullptr) {
                Report(Here(), "GatherElements index %f reads outside the data.\n\n", static_cast<double>(*outside));
                return kFailure;
            }
            place.Advance(count);
        }
        for (uint32_t i = outerAxes; i-- > 0;) {
            base += steps[i];
            if (++counters[i] < indices.shape[i]) {
                break;
            }
            base -= steps[i] * indices.shape[i];
            counters[i] = 0;
        }
    }
    return kSuccess;
}
