// CumSum: running sums along one axis. The input is compacted in place, the output written compactly and expanded, all
// without a check or a message: there must be an input, and a last dimension.
//
// An exclusive sum is the inclusive one minus the element: the first of a lane is x - x, a NaN for an infinite x.

#include <cstddef>
#include <cstring>

#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lanes.h"

using namespace opkit;

namespace {

constexpr size_t kSideBySide = 8;

// kCount neighbouring lanes of contiguous elements, walked together.
template <size_t kCount>
void SumContiguousLanes(const float* in, float* out, size_t length, bool reverse)
{
    const ptrdiff_t step = reverse ? -1 : 1;
    const ptrdiff_t begin = reverse ? static_cast<ptrdiff_t>(length) - 1 : 0;
    const float* x = in + begin;
    float* y = out + begin;
    float sums[kCount];
    for (size_t lane = 0; lane < kCount; ++lane) {
        sums[lane] = x[lane * length];
        y[lane * length] = sums[lane];
    }
    for (size_t j = 1; j < length; ++j) {
        x += step;
        y += step;
        for (size_t lane = 0; lane < kCount; ++lane) {
            sums[lane] = x[lane * length] + sums[lane];
            y[lane * length] = sums[lane];
        }
    }
}

void AddRows(const float* in, const float* previous, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = in[i] + previous[i];
    }
}

// All lanes of a block [length, inner], row after row.
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

void SumLanes(const float* in, float* out, const Lanes& lanes, bool reverse, bool exclusive)
{
    const size_t inner = lanes.inner;
    for (size_t lane = 0; lane < lanes.count;) {
        const bool together = inner == 1 && lanes.count - lane >= kSideBySide;
        const size_t step = together ? kSideBySide : inner;
        const size_t begin = lane * lanes.length;
        if (together) {
            SumContiguousLanes<kSideBySide>(in + begin, out + begin, lanes.length, reverse);
        } else if (inner == 1) {
            SumContiguousLanes<1>(in + begin, out + begin, lanes.length, reverse);
        } else {
            SumRows(in + begin, out + begin, lanes.length, inner, reverse);
        }
        if (exclusive) {
            Subtract(in + begin, out + begin, step * lanes.length);
        }
        lane += step;
    }
}

}  // namespace

uint32_t CumSumOpkitForward(LayerParam* param)
{
    Input in;
    ResolveOnlyInput(param, &in);
    if (in.alignNum != in.width && in.count != 0) {
        CompactRows(in.data, in.count, in.width, in.alignNum);
    }
    const Output out = OutputOf(param, 0);
    const CumSumAttr& attr = AttrOf<CumSumAttr>(param);
    SumLanes(in.data, out.data, LanesAlong(in, attr.axis), attr.reverse == 1, attr.exclusive != 0);
    if (out.count != 0) {
        SpreadRows(out.data, out.count, static_cast<int32_t>(out.width), out.alignNum,
                   LastIndex(out.count, out.width, out.alignNum));
    }
    return kSuccess;
}
