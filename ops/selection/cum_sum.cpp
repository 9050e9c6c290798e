// CumSum: running sums along one axis. There are no checks and no messages: there must be an input, and a last
// dimension.
// Rows: compacting.
//
// An exclusive sum is the inclusive one minus the element: the first of a line is x - x, a NaN for an infinite x.

#include <cstddef>
#include <cstring>

#include "kernels/axis_lines.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lines.h"

using namespace opkit;

namespace {

void AddRows(const float* in, const float* previous, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = in[i] + previous[i];
    }
}

// All lines of a block [length, inner], row after row.
void SumRows(const float* in, float* out, size_t length, size_t inner, bool reverse)
{
    size_t row = reverse ? length - 1 : 0;
    std::memmove(out + row * inner, in + row * inner, inner * sizeof(float));
    for (size_t j = 1; j < length; ++j) {
        const size_t next = reverse ? row - 1 : row + 1;
        AddRows(in + next * inner, out + row * inner, out + next * inner, inner);
        row = next;
    }
}

void Subtract(const float* in, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] -= in[i];
    }
}

void SumLines(const float* in, float* out, const Lines& lines, bool reverse, bool exclusive)
{
    const size_t inner = lines.inner;
    const size_t total = size_t{lines.count} * lines.length;
    if (inner == 1) {
        Kernels<AxisLineKernels>().runningSums(in, out, lines.count, lines.length, reverse);
    }
    for (size_t begin = 0; inner != 1 && begin < total; begin += inner * lines.length) {
        SumRows(in + begin, out + begin, lines.length, inner, reverse);
    }
    if (exclusive) {
        Subtract(in, out, total);
    }
}

}  // namespace

uint32_t CumSumOpkitForward(LayerParam* param)
{
    Input in;
    Resolve(param, {&in}, Rows::kCompacting, Messages::kNone);
    const Output out = OutputOf(param, 0);
    const CumSumAttr& attr = AttrOf<CumSumAttr>(param);
    SumLines(in.data, out.data, LinesAlong(in, attr.axis), attr.reverse == 1, attr.exclusive != 0);
    ExpandOutputUnchecked(out);
    return kSuccess;
}
