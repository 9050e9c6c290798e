// Gather: slices of the data along an axis, one per index.
// Rows: stepping.
//
// An index is truncated to its low 32 bits and multiplied as it stands: a negative or too large one that still leads
// into the data tensor is followed, one that leads out of it fails the layer.

#include "common/convert.h"
#include "common/move_floats.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Calls take(index, row, column) for every index in order until one is refused; null, or that one.
template <class Take>
const float* ForEachIndex(const Input& indices, uint32_t rows, Take take)
{
    for (uint32_t row = 0; row < rows; ++row) {
        const float* const line = indices.data + size_t{row} * indices.alignNum;
        for (uint32_t column = 0; column < indices.width; ++column) {
            if (!take(line[column], row, column)) {
                return &line[column];
            }
        }
    }
    return nullptr;
}

// Along the last axis: single elements, written in rows of the indices' width.
const float* GatherFromRows(const Input& data, const Input& indices, const Output& out, uint32_t outer)
{
    const size_t span = data.Span();
    const uint32_t rows = indices.count / indices.width;
    const size_t outOuterStep = size_t{rows} * out.alignNum;
    for (uint32_t o = 0; o < outer; ++o) {
        float* const to = out.data + o * outOuterStep;
        const uint32_t rowStart = data.alignNum * o;
        const float* refused = ForEachIndex(indices, rows, [&](float index, uint32_t row, uint32_t column) {
            const uint32_t from = TruncateToU32(index) + rowStart;
            if (from >= span) {
                return false;
            }
            to[size_t{row} * out.alignNum + column] = data.data[from];
            return true;
        });
        if (refused != nullptr) {
            return refused;
        }
    }
    return nullptr;
}

// Along an outer axis: slices of `inner` rows.
const float* GatherSlices(const Input& data, const Input& indices, const Output& out, uint32_t outer, int32_t axis)
{
    const int32_t last = data.dimNum - 1;
    const uint32_t inner = ShapeCount(data.shape, data.dimNum, axis + 1, last);
    const uint32_t inStep = data.alignNum * inner;
    const uint32_t inOuterStep = data.alignNum * ShapeCount(data.shape, data.dimNum, axis, last);
    if (inner == 0 || data.width == 0) {
        return nullptr;
    }
    const size_t reach = size_t{data.alignNum} * (inner - 1) + data.width;
    const size_t span = data.Span();
    const uint32_t rows = indices.count / indices.width;
    float* to = out.data;
    for (uint32_t o = 0; o < outer; ++o) {
        const float* refused = ForEachIndex(indices, rows, [&](float index, uint32_t, uint32_t) {
            const uint32_t from = TruncateToU32(index) * inStep + inOuterStep * o;
            if (from + reach > span) {
                return false;
            }
            MoveRows(to, out.alignNum, data.data + from, data.alignNum, inner, data.width);
            to += size_t{out.alignNum} * inner;
            return true;
        });
        if (refused != nullptr) {
            return refused;
        }
    }
    return nullptr;
}

}  // namespace

uint32_t GatherOpkitForward(LayerParam* param)
{
    Input data;
    Input indices;
    if (!Resolve(param, {&data, &indices}, Rows::kStepping, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const int32_t axis = static_cast<int32_t>(AttrOf<GatherAttr>(param).gatherAxis);
    const uint32_t outer = ShapeCount(data.shape, data.dimNum, 0, axis);
    if (outer * indices.count == 0) {
        return kSuccess;
    }
    const float* refused = axis + 1 == data.dimNum ? GatherFromRows(data, indices, out, outer)
                                                   : GatherSlices(data, indices, out, outer, axis);
    if (refused != nullptr) {
        Report(Here(), "Gather index %f reads outside the data.\n\n", static_cast<double>(*refused));
        return kFailure;
    }
    return kSuccess;
}
