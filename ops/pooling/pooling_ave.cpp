// PoolingAve: mean of every window over the last two dimensions.
// Rows: in place.
//
// With countIncludePad padded places count as padValue, as far as bottom and right padding reach; without, only
// elements count, and a window without any ends the operator. The operator succeeds whatever its core says.

#include "common/smaller.h"
#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "ops/pooling/pooling_window.h"

using namespace opkit;

namespace {

// Places that one axis of window i spans, the padded ones included; the start is not clipped, the end is.
uint32_t PaddedLength(const PoolAxis& axis, uint32_t paddedSize, uint32_t i)
{
    return Smaller(axis.End(i), paddedSize) - static_cast<uint32_t>(axis.Start(i));
}

void Divide(float* sums, uint32_t count, float divisor)
{
    for (uint32_t i = 0; i < count; ++i) {
        sums[i] = sums[i] / divisor;
    }
}

// Areas are signed when they become f32: those of huge windows wrap.
void DivideWithPadding(float* sums, uint32_t count, uint32_t area, uint32_t elements, float padValue)
{
    const float padding = static_cast<float>(static_cast<int32_t>(area - elements)) * padValue;
    const float divisor = static_cast<float>(static_cast<int32_t>(area));
    for (uint32_t i = 0; i < count; ++i) {
        sums[i] = (padding + sums[i]) / divisor;
    }
}

// Columns before the first one whose windows hold no element.
uint32_t ColumnsBeforeEmpty(const PoolColumns& columns)
{
    uint32_t column = 0;
    while (column < columns.count && columns.axis.Clip(column).Length() != 0) {
        ++column;
    }
    return column;
}

}  // namespace

int32_t PoolingAveOpkitForwardCore(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kAll)) {
        return -1;
    }
    const PoolingAveAttr& attr = AttrOf<PoolingAveAttr>(param);
    const Output out = OutputOf(param, 0);
    const PoolShape shape(in, param->outputs[0]);
    const uint32_t paddedH = shape.inH + attr.padBottom;
    const uint32_t paddedW = shape.inW + attr.padRight;
    const PoolAxis rowAxis = {Smaller(paddedH, shape.inH), attr.kernelH, attr.strideH, attr.padTop};
    const PoolColumns columns({Smaller(paddedW, shape.inW), attr.kernelW, attr.strideW, attr.padLeft}, shape.outW);
    const bool includePad = attr.countIncludePad != 0;
    const uint32_t columnsBeforeEmpty = includePad ? shape.outW : ColumnsBeforeEmpty(columns);
    if (shape.Planes() == 0 || shape.outH == 0 || shape.outW == 0) {
        return 0;
    }

    const size_t pitch = in.Pitch();
    const size_t outPitch = out.Pitch();
    const float* plane = in.data;
    float* outRow = out.data;
    for (uint32_t p = 0; p < shape.Planes(); ++p, plane += shape.inH * pitch) {
        for (uint32_t oh = 0; oh < shape.outH; ++oh, outRow += outPitch) {
            const PoolRange rows = rowAxis.Clip(oh);
            const uint32_t count = includePad || rows.Length() != 0 ? columnsBeforeEmpty : 0;
            for (uint32_t ow = 0; ow < count; ++ow) {
                outRow[ow] = 0.0f;
            }
            columns.ForEachRun(plane, pitch, rows, count, [&](const PoolWindows& windows, uint32_t ow) {
                Kernels<PoolingKernels>().sum(windows, outRow + ow);
            });
            const uint32_t height = PaddedLength(rowAxis, paddedH, oh);
            for (uint32_t ow = 0; ow < count;) {
                const uint32_t end = columns.RunEnd(ow, count);
                const uint32_t elements = rows.Length() * columns.axis.Clip(ow).Length();
                if (includePad) {
                    const uint32_t area = height * PaddedLength(columns.axis, paddedW, ow);
                    DivideWithPadding(outRow + ow, end - ow, area, elements, attr.padValue);
                } else {
                    Divide(outRow + ow, end - ow, static_cast<float>(elements));
                }
                ow = end;
            }
            if (count < shape.outW) {
                outRow[count] = 0.0f;
                Report(Here(), "PoolAve Layer: divisor is zero.\n\n");
                return -1;
            }
        }
    }
    return 0;
}

uint32_t PoolingAveOpkitForward(LayerParam* param)
{
    PoolingAveOpkitForwardCore(param);
    return kSuccess;
}
