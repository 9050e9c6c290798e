// Hardmax: 1.0 where the largest element of a line stands, 0.0 elsewhere. Up to opset 12 a line is everything
// from the axis on, above it the elements along the axis.
// Rows: compacting.
//
// Of equal elements the first counts. A NaN never replaces a candidate, and one that comes first stays the candidate.

#include <cstring>

#include "kernels/axis_lines.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr size_t kBlock = 512;

// Marks the first largest of each of `count` neighbouring columns of [length, inner]: of `block` of them, once all of
// these are found.
void MarkColumns(const float* x, float* out, size_t count, size_t length, size_t inner, size_t block)
{
    for (size_t begin = 0; begin < count; begin += block) {
        const size_t n = count - begin < block ? count - begin : block;
        uint32_t places[kBlock];
        Kernels<AxisLineKernels>().firstLargestOfColumns(x + begin, places, n, length, inner);
        for (size_t i = 0; i < n; ++i) {
            out[places[i] * inner + begin + i] = 1.0f;
        }
    }
}

void MarkRows(const float* x, float* out, size_t rows, size_t length)
{
    for (size_t row = 0; row < rows; ++row) {
        out[row * length + Kernels<AxisLineKernels>().firstLargest(x + row * length, length)] = 1.0f;
    }
}

}  // namespace

uint32_t HardmaxOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kCompacting, Messages::kAll)) {
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
        // An empty line has its mark at the front too; there must be a place for it.
        if (rest != 0 || out.count != 0) {
            MarkRows(in.data, out.data, outer, rest);
        }
    } else {
        const uint32_t length = in.shape[axis];
        const size_t inner = rest / length;
        const size_t lines = in.count / length;
        if (inner == 1) {
            MarkRows(in.data, out.data, lines, length);
        } else {
            // Where marks fall on the input, but not on their own line of it, each line sees those of the lines before.
            const bool overwrites = in.data != out.data && RangesOverlap(in.data, in.count, out.data, in.count);
            for (size_t line = 0; line < lines; line += inner) {
                MarkColumns(in.data + line * length, out.data + line * length, inner, length, inner,
                            overwrites ? 1 : kBlock);
            }
        }
    }
    return ExpandOutputChecked(out);
}
