// Resize, linear: every output element is a weighted sum of four input elements, two rows by two columns. H is
// dimension 2 and W the last one; N and C are the input's.

#include "kernels/resize.h"
#include "kernels/resize_elements.h"
#include "ops/movement/resize_tables.h"

namespace opkit {
namespace {

// Elements begin to end - 1 of output row y of a plane.
void SampleRow(const BilinearParams& params, const float* plane, uint32_t y, float* out, uint32_t begin, uint32_t end)
{
    const float* const row1 = plane + params.inY1[y];
    const float* const row2 = plane + params.inY2[y];
    const float dy1 = params.dy1[y];
    const float dy2 = params.dy2[y];
    for (uint32_t x = begin; x < end; ++x) {
        const int64_t x1 = params.inX1[x];
        const int64_t x2 = params.inX2[x];
        out[x] = BlendFour(row1[x1], row1[x2], row2[x1], row2[x2], params.dx1[x], params.dx2[x], dy1, dy2);
    }
}

// The columns of one source row, gathered for a block of output columns.
constexpr uint32_t kBlockColumns = 512;
struct BlockColumns {
    uint32_t count;
    uint32_t first[kBlockColumns];
    uint32_t second[kBlockColumns];
};

struct Line {
    int64_t source = -1;
    float left[kBlockColumns];
    float right[kBlockColumns];

    void Gather(const float* plane, int64_t row, uint32_t width, const BlockColumns& columns)
    {
        if (source == row) {
            return;
        }
        source = row;
        Kernels<ResizeKernels>().pick(plane + row, width, columns.first, left, columns.count);
        Kernels<ResizeKernels>().pick(plane + row, width, columns.second, right, columns.count);
    }
};

// A plane with more rows than its source: a source row serves several output rows and is gathered once for them.
void SamplePlaneByLines(const BilinearParams& params, const float* plane, uint32_t width, float* out, uint32_t rows,
                        uint32_t columns, size_t pitchOut)
{
    for (uint32_t begin = 0; begin < columns; begin += kBlockColumns) {
        const uint32_t count = columns - begin < kBlockColumns ? columns - begin : kBlockColumns;
        BlockColumns block;
        block.count = count;
        for (uint32_t x = 0; x < count; ++x) {
            block.first[x] = static_cast<uint32_t>(params.inX1[begin + x]);
            block.second[x] = static_cast<uint32_t>(params.inX2[begin + x]);
        }
        Line lines[2];
        Line* first = &lines[0];
        Line* second = &lines[1];
        for (uint32_t y = 0; y < rows; ++y) {
            if (second->source == params.inY1[y]) {
                Line* const moved = first;
                first = second;
                second = moved;
            }
            first->Gather(plane, params.inY1[y], width, block);
            second->Gather(plane, params.inY2[y], width, block);
            Kernels<ResizeKernels>().blendRows({first->left, first->right}, {second->left, second->right},
                                               params.dx1 + begin, params.dx2 + begin, params.dy1[y], params.dy2[y],
                                               out + y * pitchOut + begin, count);
        }
    }
}

// A row of which some or all elements lie outside the input. Those take the value, and take it at their compact place
// in the plane, where it overwrites what was stored there before.
void SampleRowWithOutside(const BilinearParams& params, const ResizeAxis& yAxis, const ResizeAxis& xAxis,
                          const float* plane, float* planeOut, size_t pitchOut, uint32_t y, float value)
{
    const uint32_t width = xAxis.out;
    const bool rowOutside = yAxis.Outside(params.sourceY[y]);
    float* const compactOut = planeOut + size_t{y} * width;
    for (uint32_t x = 0; x < width;) {
        const uint32_t begin = x;
        while (x < width && !rowOutside && !xAxis.Outside(params.sourceX[x])) {
            ++x;
        }
        SampleRow(params, plane, y, planeOut + y * pitchOut, begin, x);
        for (; x < width && (rowOutside || xAxis.Outside(params.sourceX[x])); ++x) {
            compactOut[x] = value;
        }
    }
}

}  // namespace

uint32_t ResizeLinear(const ResizeLayer& layer)
{
    Input in;
    Output out;
    if (!ResolveResize(layer.param, &in, &out)) {
        return kSuccess;
    }
    const int32_t rank = in.dimNum;
    const uint32_t rule = layer.attr->coordinateMode;
    const float* const region = layer.region;
    const ResizeAxis yAxis = {rule, in.shape[2], out.shape[2], layer.scales[2], region[rank - 2], region[2 * rank - 2]};
    const ResizeAxis xAxis = {rule, in.width, out.width, layer.scales[3], region[rank - 1], region[2 * rank - 1]};
    const bool extrapolate = layer.attr->extrapolate != 0;
    if (in.count == 0 && !extrapolate) {
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
        const float* const from = in.data + p * planeIn;
        float* const to = out.data + p * planeOut;
        if (!extrapolate && yAxis.out > yAxis.in) {
            SamplePlaneByLines(*params, from, xAxis.in, to, yAxis.out, xAxis.out, pitchOut);
            continue;
        }
        for (uint32_t y = 0; y < yAxis.out; ++y) {
            if (extrapolate) {
                SampleRowWithOutside(*params, yAxis, xAxis, from, to, pitchOut, y, layer.attr->extrapolationValue);
            } else {
                SampleRow(*params, from, y, to + y * pitchOut, 0, xAxis.out);
            }
        }
    }
    FreeBilinearParams(params);
    return kSuccess;
}

}  // namespace opkit
