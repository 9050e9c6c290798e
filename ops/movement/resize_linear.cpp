// Resize, linear: every output element is a weighted sum of four input elements, two rows by two columns. H is
// dimension 2 and W the last one; N and C are the input's. Rows, columns and weights are found once per axis.

#include <cmath>
#include <cstdlib>

#include "common/convert.h"
#include "kernels/resize.h"
#include "ops/movement/resize.h"

namespace opkit {
namespace {

struct BilinearParams {
    float* sourceX;  // coordinates before clamping
    float* sourceY;
    uint8_t* indexBlock;  // the one allocation of all that follows
    int64_t* inY1;        // offsets of the two source rows in a plane
    int64_t* inY2;
    int64_t* inX1;  // the two source columns
    int64_t* inX2;
    float* dx1;  // distances to them
    float* dx2;
    float* dy1;
    float* dy2;
};

static_assert(sizeof(BilinearParams) == 88, "a failing allocation names the size");

constexpr size_t kBytesPerPosition = 2 * sizeof(int64_t) + 2 * sizeof(float);

void FreeBilinearParams(BilinearParams* params)
{
    if (params != nullptr) {
        std::free(params->sourceX);
        std::free(params->sourceY);
        std::free(params->indexBlock);
        std::free(params);
    }
}

void* Allocate(size_t bytes, Caller caller = Here())
{
    void* const block = std::malloc(bytes);
    if (block == nullptr) {
        Report(caller, "Malloc %ld failed!\n\n", static_cast<long>(bytes));
    }
    return block;
}

// The tables of one axis; offsets are in units of `pitch`.
void BuildAxis(const ResizeAxis& axis, int64_t pitch, float* source, int64_t* low, int64_t* high, float* toLow,
               float* toHigh)
{
    const bool keep = axis.KeepsPosition();
    const float last = axis.Last();
    const int64_t lastIndex = int64_t{axis.in} - 1;
    for (uint32_t i = 0; i < axis.out; ++i) {
        const float unclamped = keep ? static_cast<float>(i) : SourceCoordinate(axis, i);
        const float x = unclamped > 0.0f ? (unclamped < last ? unclamped : last) : 0.0f;  // NaN goes to 0
        const int64_t truncated = TruncateToI64(x);
        const int64_t first = truncated < lastIndex ? truncated : lastIndex;
        const int64_t second = first < lastIndex ? first + 1 : lastIndex;
        source[i] = unclamped;
        low[i] = first * pitch;
        high[i] = second * pitch;
        toLow[i] = first == second ? 0.5f : __builtin_fabsf(x - static_cast<float>(first));
        toHigh[i] = first == second ? 0.5f : __builtin_fabsf(x - static_cast<float>(second));
    }
}

// Null, with a message, when memory runs out.
BilinearParams* BuildBilinearParams(const ResizeAxis& y, const ResizeAxis& x, uint32_t pitchIn)
{
    BilinearParams* const params = static_cast<BilinearParams*>(Allocate(sizeof(BilinearParams)));
    if (params == nullptr) {
        return nullptr;
    }
    *params = {};
    params->sourceX = static_cast<float*>(Allocate(size_t{x.out} * sizeof(float)));
    if (params->sourceX != nullptr) {
        params->sourceY = static_cast<float*>(Allocate(size_t{y.out} * sizeof(float)));
    }
    if (params->sourceY != nullptr) {
        params->indexBlock = static_cast<uint8_t*>(Allocate((size_t{y.out} + x.out) * kBytesPerPosition));
    }
    if (params->indexBlock == nullptr) {
        FreeBilinearParams(params);
        return nullptr;
    }
    params->inY1 = reinterpret_cast<int64_t*>(params->indexBlock);
    params->inY2 = params->inY1 + y.out;
    params->inX1 = params->inY2 + y.out;
    params->inX2 = params->inX1 + x.out;
    params->dy1 = reinterpret_cast<float*>(params->inX2 + x.out);
    params->dy2 = params->dy1 + y.out;
    params->dx1 = params->dy2 + y.out;
    params->dx2 = params->dx1 + x.out;
    BuildAxis(y, pitchIn, params->sourceY, params->inY1, params->inY2, params->dy1, params->dy2);
    BuildAxis(x, 1, params->sourceX, params->inX1, params->inX2, params->dx1, params->dx2);
    return params;
}

LinearRow RowOf(const BilinearParams& params, const float* plane, uint32_t y)
{
    return {plane + params.inY1[y], plane + params.inY2[y], params.dy1[y], params.dy2[y],
            params.inX1,            params.inX2,            params.dx1,    params.dx2};
}

// A row of which some or all elements lie outside the input. Those take the value, and take it at their compact place
// in the plane, where it overwrites what was stored there before.
void SampleRowWithOutside(const BilinearParams& params, const ResizeAxis& yAxis, const ResizeAxis& xAxis,
                          const LinearRow& row, float* plane, size_t pitchOut, uint32_t y, float value)
{
    const uint32_t width = xAxis.out;
    const bool rowOutside = yAxis.Outside(params.sourceY[y]);
    float* const rowOut = plane + y * pitchOut;
    float* const compactOut = plane + size_t{y} * width;
    for (uint32_t x = 0; x < width;) {
        const uint32_t begin = x;
        while (x < width && !rowOutside && !xAxis.Outside(params.sourceX[x])) {
            ++x;
        }
        ResizeLoops().linearRow(row, rowOut, begin, x);
        for (; x < width && (rowOutside || xAxis.Outside(params.sourceX[x])); ++x) {
            compactOut[x] = value;
        }
    }
}

}  // namespace

uint32_t ResizeLinear(const ResizeLayer& layer)
{
    ResizeTensor in;
    ResizeTensor out;
    if (!ResolveResize(layer.param, &in, &out)) {
        return kSuccess;
    }
    const int32_t rank = in.desc.dimNum;
    const uint32_t rule = layer.attr->coordinateMode;
    const float* const region = layer.region;
    const ResizeAxis yAxis = {rule, in.shape[2], out.shape[2], layer.scales[2], region[rank - 2], region[2 * rank - 2]};
    const ResizeAxis xAxis = {rule, in.Width(), out.Width(), layer.scales[3], region[rank - 1], region[2 * rank - 1]};
    const bool extrapolate = layer.attr->extrapolate != 0;
    if (in.desc.count == 0 && !extrapolate) {
        return kSuccess;  // nothing to take
    }
    BilinearParams* const params = BuildBilinearParams(yAxis, xAxis, in.Pitch());
    if (params == nullptr) {
        return kSuccess;
    }
    const size_t pitchOut = out.Pitch();
    const size_t planeIn = yAxis.in * size_t{in.Pitch()};
    const size_t planeOut = yAxis.out * pitchOut;
    const size_t planes = size_t{in.shape[0]} * in.shape[1];
    for (size_t p = 0; p < planes; ++p) {
        float* const to = out.data + p * planeOut;
        for (uint32_t y = 0; y < yAxis.out; ++y) {
            const LinearRow row = RowOf(*params, in.data + p * planeIn, y);
            if (extrapolate) {
                SampleRowWithOutside(*params, yAxis, xAxis, row, to, pitchOut, y, layer.attr->extrapolationValue);
            } else {
                ResizeLoops().linearRow(row, to + y * pitchOut, 0, xAxis.out);
            }
        }
    }
    FreeBilinearParams(params);
    return kSuccess;
}

}  // namespace opkit
