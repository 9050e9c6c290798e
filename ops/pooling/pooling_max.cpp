// PoolingMax: largest element of every window over the last two dimensions, the first in scan order of equals, and on
// request its position in the plane.
// Rows: in place.
//
// The fill before the scan counts rows by the output's alignment, not by its pitch, and windows start from what then
// stands in the output: with an alignment below the width some of it is what the output held before. padValue takes
// part only where a window starts above or left of the input. The operator succeeds whatever its core says.

#include <cfloat>

#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "ops/pooling/pooling_window.h"

using namespace opkit;

namespace {

// The tensor of positions. Its width is its own, so its rows may end elsewhere than those of the output.
struct Positions {
    float* data;
    uint32_t width;
    size_t pitch;

    // Calls run(place, offset, count) for the runs of `count` positions that lie together, from column `ow` of output
    // row `row` on.
    template <class Run>
    void ForEachRun(size_t row, uint32_t ow, uint32_t outW, size_t count, Run run) const
    {
        size_t column = ow;
        if (width != outW) {
            const size_t index = row * outW + ow;
            row = index / width;
            column = index % width;
        }
        for (size_t done = 0; done < count; ++row, column = 0) {
            const size_t length = width - column < count - done ? width - column : count - done;
            run(data + row * pitch + column, done, length);
            done += length;
        }
    }
};

// Runs windows from column `ow` of output row `row` on; `position` is that of the first window's first element.
void MaxWithPositions(const PoolWindows& windows, float* best, const Positions& positions, size_t row, uint32_t ow,
                      uint32_t position, const PoolShape& shape)
{
    positions.ForEachRun(row, ow, shape.outW, windows.count, [&](float* place, size_t offset, size_t count) {
        PoolWindows part = windows;
        part.in += static_cast<ptrdiff_t>(offset) * windows.step;
        part.count = count;
        const uint32_t first = position + static_cast<uint32_t>(offset) * static_cast<uint32_t>(windows.step);
        Kernels<PoolingKernels>().maxPosition(part, best + offset, place, first, shape.inW);
    });
}

// padValue takes part in every window of a row that starts above the input, and in those that start left of it.
void BringInPadding(float* outRow, bool startsAbove, const PoolColumns& columns, float padValue)
{
    for (uint32_t ow = 0; ow < columns.count; ++ow) {
        if (!startsAbove && ow == columns.firstWhole) {
            ow = columns.endWhole;  // those between start inside
            if (ow == columns.count) {
                return;
            }
        }
        if ((startsAbove || columns.axis.Start(ow) < 0) && padValue > outRow[ow]) {
            outRow[ow] = padValue;
        }
    }
}

}  // namespace

uint32_t PoolingMaxOpkitForwardCore(LayerParam* param)
{
    const TensorInfo& outInfo = param->outputs[0];
    if (GetWidth(outInfo.shape, static_cast<int32_t>(outInfo.dimNum)) == 0) {
        return kSuccess;
    }
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kAll)) {
        return kFailure;
    }
    const PoolingMaxAttr& attr = AttrOf<PoolingMaxAttr>(param);
    const Output out = OutputOf(param, 0);
    const bool wantPositions = param->outputNum >= 2;
    const PoolShape shape(in, outInfo);

    const uint32_t fill = ((shape.Planes() * shape.outH * shape.outW) / shape.outW) * out.alignNum;
    for (uint32_t i = 0; i < fill; ++i) {
        out.data[i] = -FLT_MAX;
    }
    if (shape.Planes() == 0 || shape.outH == 0) {
        return kSuccess;
    }

    const PoolAxis rowAxis = {shape.inH, attr.kernelH, attr.strideH, attr.padTop};
    const PoolColumns columns({shape.inW, attr.kernelW, attr.strideW, attr.padLeft}, shape.outW);
    const size_t pitch = in.Pitch();
    const size_t outPitch = out.Pitch();
    Positions positions = {};
    if (wantPositions) {
        const Output output = OutputOf(param, 1);
        positions = {output.data, output.width, output.Pitch()};
    }
    const float* plane = in.data;
    float* outRow = out.data;
    size_t row = 0;  // of the output, over all planes
    for (uint32_t p = 0; p < shape.Planes(); ++p, plane += shape.inH * pitch) {
        for (uint32_t oh = 0; oh < shape.outH; ++oh, ++row, outRow += outPitch) {
            const PoolRange rows = rowAxis.Clip(oh);
            columns.ForEachRun(plane, pitch, rows, shape.outW, [&](const PoolWindows& windows, uint32_t ow) {
                if (wantPositions) {
                    const uint32_t position = static_cast<uint32_t>(rows.begin) * shape.inW +
                                              static_cast<uint32_t>(columns.axis.Clip(ow).begin);
                    MaxWithPositions(windows, outRow + ow, positions, row, ow, position, shape);
                } else {
                    Kernels<PoolingKernels>().max(windows, outRow + ow);
                }
            });
            BringInPadding(outRow, rowAxis.Start(oh) < 0, columns, attr.padValue);
        }
    }
    return kSuccess;
}

uint32_t PoolingMaxOpkitForward(LayerParam* param)
{
    PoolingMaxOpkitForwardCore(param);
    return kSuccess;
}
