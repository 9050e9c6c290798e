// Hardmax: 1.0 where the largest element of a lane stands, 0.0 elsewhere. Compacts its input, writes compactly and
// expands. Up to opset 12 a lane is everything from the axis on, above it the elements along the axis.
//
// Of equal elements the first counts. A NaN never replaces a candidate, and one that comes first stays the candidate.

#include <cstring>

#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Place of the first largest of `count` contiguous elements; 0 when there are none.
size_t FirstLargest(const float* x, size_t count)
{
    constexpr size_t kSideBySide = 16;
    if (count == 0) {
        return 0;
    }
    float largest[kSideBySide];
    for (float& candidate : largest) {
        candidate = x[0];
    }
    size_t j = 0;
    for (; j + kSideBySide <= count; j += kSideBySide) {
        for (size_t i = 0; i < kSideBySide; ++i) {
            largest[i] = x[j + i] > largest[i] ? x[j + i] : largest[i];
        }
    }
    for (; j < count; ++j) {
        largest[0] = x[j] > largest[0] ? x[j] : largest[0];
    }
    for (size_t i = 1; i < kSideBySide; ++i) {
        largest[0] = largest[i] > largest[0] ? largest[i] : largest[0];
    }
    for (j = 0; j < count; ++j) {
        if (x[j] == largest[0]) {
            return j;
        }
    }
    return 0;  // a NaN came first
}

// Marks the first largest of each of `count` neighbouring columns of [length, inner].
void MarkColumns(const float* x, float* out, size_t count, size_t length, size_t inner)
{
    constexpr size_t kBlock = 64;
    for (size_t begin = 0; begin < count; begin += kBlock) {
        const size_t n = count - begin < kBlock ? count - begin : kBlock;
        float largest[kBlock];
        uint32_t places[kBlock] = {};
        std::memcpy(largest, x + begin, n * sizeof(float));
        for (size_t j = 1; j < length; ++j) {
            const float* const row = x + j * inner + begin;
            for (size_t i = 0; i < n; ++i) {
                const bool above = row[i] > largest[i];
                largest[i] = above ? row[i] : largest[i];
                places[i] = above ? static_cast<uint32_t>(j) : places[i];
            }
        }
        for (size_t i = 0; i < n; ++i) {
            out[places[i] * inner + begin + i] = 1.0f;
        }
    }
}

void MarkRows(const float* x, float* out, size_t rows, size_t length)
{
    for (size_t row = 0; row < rows; ++row) {
        out[row * length + FirstLargest(x + row * length, length)] = 1.0f;
    }
}

}  // namespace

uint32_t HardmaxOpkitForward(LayerParam* param)
{
    InputCursor cursor = {param};
    Input in;
    if (!NextInputOrReport(&cursor, &in) || !CompactInput(in)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const HardmaxAttr& attr = AttrOf<HardmaxAttr>(param);
    const int32_t axis = attr.axis < 0 ? attr.axis + in.dimNum : attr.axis;
    const uint32_t rest = ShapeCount(in.shape, in.dimNum, axis, in.dimNum);
    if (out.count != 0) {
        std::memset(out.data, 0, size_t{out.count} * sizeof(float));
    }
    if (attr.opsetVersion <= 12) {
        const uint32_t outer = ShapeCount(in.shape, in.dimNum, 0, axis);
        // An empty lane has its mark at the front too; there must be a place for it.
        if (rest != 0 || out.count != 0) {
            MarkRows(in.data, out.data, outer, rest);
        }
    } else {
        const uint32_t length = in.shape[axis];
        const size_t inner = rest / length;
        const size_t lanes = in.count / length;
        if (inner == 1) {
            MarkRows(in.data, out.data, lanes, length);
        } else {
            for (size_t lane = 0; lane < lanes; lane += inner) {
                MarkColumns(in.data + lane * length, out.data + lane * length, inner, length, inner);
            }
        }
    }
    return ExpandOutputChecked(out);
}
