// CumSum: running sums along one axis. There are no checks and no messages: there must be an input, and a last
// dimension.
// Rows: compacting.
//
// An exclusive sum is the inclusive one minus the element: the first of a line is x - x, a NaN for an infinite x.

#include <cstddef>
#include <cstring>

#include "common/move_floats.h"
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

// One line whose elements lie `step` apart.
void SumLine(const float* in, float* out, size_t length, size_t step, bool reverse)
{
    size_t at = reverse ? (length - 1) * step : 0;
    MoveFloats(out + at, in + at, 1);
    for (size_t j = 1; j < length; ++j) {
        const size_t next = reverse ? at - step : at + step;
        out[next] = in[next] + out[at];
        at = next;
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
    const size_t block = inner * lines.length;
    if (in != out && RangesOverlap(in, total, out, total)) {  // sums are read again as elements: one line at a time
        for (size_t g = 0; g < lines.count; ++g) {
            const size_t start = g / inner * block + g % inner;
            SumLine(in + start, out + start, lines.length, inner, reverse);
        }
    } else if (inner == 1) {
        Kernels<AxisLineKernels>().runningSums(in, out, lines.count, lines.length, reverse);
    } else {
        for (size_t begin = 0; begin < total; begin += block) {
            SumRows(in + begin, out + begin, lines.length, inner, reverse);
        }
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
