// PoolingLp: norm of every window over the last two dimensions.
// Rows: compacting.
//
// normP 1 is the sum of magnitudes, 2 the Euclidean norm, anything else the bare sum of squares.

#include <cmath>

#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "ops/pooling/pooling_window.h"

using namespace opkit;

int32_t PoolingLpOpkitForwardCore(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kCompacting, Messages::kOfRows)) {
        return -1;
    }
    const PoolingLpAttr& attr = AttrOf<PoolingLpAttr>(param);
    const PoolShape shape(in, param->outputs[0]);
    const PoolAxis rowAxis = {shape.inH, attr.kernelH, attr.strideH, attr.padTop};
    const PoolColumns columns({shape.inW, attr.kernelW, attr.strideW, attr.padLeft}, shape.outW);
    const auto accumulate =
        attr.normP == 1 ? Kernels<PoolingKernels>().sumMagnitudes : Kernels<PoolingKernels>().sumSquares;

    const float* plane = in.data;
    float* outRow = static_cast<float*>(param->outputs[0].data);
    for (uint32_t p = 0; p < shape.Planes(); ++p, plane += size_t{shape.inH} * shape.inW) {
        for (uint32_t oh = 0; oh < shape.outH; ++oh, outRow += shape.outW) {
            for (uint32_t ow = 0; ow < shape.outW; ++ow) {
                outRow[ow] = 0.0f;
            }
            columns.ForEachRun(plane, shape.inW, rowAxis.Clip(oh), shape.outW,
                               [&](const PoolWindows& windows, uint32_t ow) { accumulate(windows, outRow + ow); });
            if (attr.normP == 2) {
                for (uint32_t ow = 0; ow < shape.outW; ++ow) {
                    outRow[ow] = std::sqrt(outRow[ow]);
                }
            }
        }
    }
    return 0;
}

uint32_t PoolingLpOpkitForward(LayerParam* param)
{
    if (PoolingLpOpkitForwardCore(param) != 0) {
        return kFailure;
    }
    return ExpandOutput(OutputOf(param, 0));
}
