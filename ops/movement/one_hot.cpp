// OneHot: the first of two values everywhere, the second at one position per index along the axis. The depth is the
// output's extent there.
// Rows: compacting.
//
// The values tensor is the one behind the flag of logical input 2; flag 1 is not looked at and skips no tensor.
// Adjusted indices go back into the index tensor.

#include <algorithm>

#include "common/convert.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

struct HotAxis {
    int32_t depth;        // positions along the axis
    uint32_t inner;       // elements from one position to the next
    uint32_t depthInner;  // elements of all positions
};

// Sets the elements that the indices choose; null, or the first index that is refused. What is still negative after the
// adjustment, and NaN, is used as it stands while its element lies inside the output.
const float* SetHot(float* indices, int32_t count, const HotAxis& axis, float on, const Output& out)
{
    const float depth = static_cast<float>(axis.depth);
    uint32_t block = 0;   // i / inner * depthInner
    uint32_t column = 0;  // i % inner
    for (int32_t i = 0; i < count; ++i) {
        float index = indices[i];
        if (index < 0.0f) {
            index += depth;
        }
        indices[i] = index;
        if (index >= depth) {
            return &indices[i];
        }
        const uint32_t at = block + column + static_cast<uint32_t>(TruncateToI32(index)) * axis.inner;
        if (!(index >= 0.0f) && (static_cast<int32_t>(at) < 0 || at >= out.Span())) {
            return &indices[i];
        }
        out.data[at] = on;
        if (++column == axis.inner) {
            column = 0;
            block += axis.depthInner;
        }
    }
    return nullptr;
}

}  // namespace

uint32_t OneHotOpkitForward(LayerParam* param)
{
    Input indices;
    Input values;
    InputCursor cursor = {param};
    if (!ResolveNext(&cursor, &indices, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    cursor.logical = 2;
    if (!ResolveNext(&cursor, &values, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const int32_t a = AttrOf<OneHotAttr>(param).oneHotAxis;
    const HotAxis axis = {static_cast<int32_t>(out.shape[a]), ShapeCount(out.shape, out.dimNum, a + 1, out.dimNum),
                          ShapeCount(out.shape, out.dimNum, a, out.dimNum)};
    const int32_t indexCount = static_cast<int32_t>(out.count) / axis.depth;
    if (axis.inner == 0) {
        Report(Here(), "Illegal value, inOffset is 0\n");
        return kFailure;
    }
    const float off = values.data[0];
    const float on = values.data[1];
    if (static_cast<int32_t>(out.count) > 0) {
        std::fill_n(out.data, out.count, off);
    }
    if (const float* refused = SetHot(indices.data, indexCount, axis, on, out)) {
        Report(Here(), "Invalid input idx : %f\n\n", static_cast<double>(*refused));
        return kFailure;
    }
    return ExpandOutputChecked(out);
}
