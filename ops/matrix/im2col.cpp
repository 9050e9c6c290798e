// Image to columns: row (c * kernelH + kh) * kernelW + kw of the column matrix holds, for every output position, the
// image element under that place of the kernel, or the padding value outside the image.

#include "ops/matrix/im2col.h"

#include "common/report.h"

namespace opkit {
namespace {

constexpr uint32_t kMostPlaces = 1 << 16;
constexpr size_t kChannelsAtATime = 8;

// Signed division: a numerator just below zero still counts as one position.
int32_t OutputExtent(uint32_t size, uint32_t padBegin, uint32_t padEnd, uint32_t kernel, uint32_t dilation,
                     uint32_t stride)
{
    const uint32_t room = size + padBegin + padEnd - ((kernel - 1) * dilation + 1);
    return static_cast<int32_t>(room) / static_cast<int32_t>(stride) + 1;
}

int32_t OutputHeight(const Im2colArgs& args)
{
    return OutputExtent(args.height, args.padTop, args.padBottom, args.kernelH, args.dilationH, args.strideH);
}

int32_t OutputWidth(const Im2colArgs& args)
{
    return OutputExtent(args.width, args.padLeft, args.padRight, args.kernelW, args.dilationW, args.strideW);
}

// Whether no coordinate along an axis wraps: the padded size is below 2^31, and the kernel does not reach beyond it.
bool IsPlainAxis(uint64_t paddedSize, uint32_t kernel, uint32_t dilation, uint32_t stride)
{
    return kernel != 0 && kernel <= kMostPlaces && stride != 0 && stride <= INT32_MAX && paddedSize <= INT32_MAX &&
           (kernel - uint64_t{1}) * dilation + 1 <= paddedSize;
}

void LayOut(const ImageColumns& columns, size_t rows, float* dst)
{
    const size_t positions = columns.outHeight * columns.outWidth;
    const size_t block = size_t{columns.args.kernelH} * columns.args.kernelW * kChannelsAtATime;
    for (size_t k = 0; k < rows; k += block) {
        const size_t depth = rows - k < block ? rows - k : block;
        Kernels<ImageColumnKernels>().fill(&columns, k, depth, 0, positions, dst + k * positions, positions);
    }
}

// One row of the column matrix, for coordinates that wrap. With a stride from 2^31 on they run backward, over and over.
float* WriteRowByElement(const Im2colArgs& args, const float* plane, uint32_t h, uint32_t firstW, uint32_t outH,
                         uint32_t outW, float* dst)
{
    for (uint32_t oh = 0; oh < outH; ++oh, h += args.strideH) {
        uint32_t w = firstW;
        for (uint32_t ow = 0; ow < outW; ++ow, w += args.strideW) {
            const bool inside = IsAgeZeroAndAltB(h, args.height) && IsAgeZeroAndAltB(w, args.width);
            *dst++ = inside ? plane[size_t{h} * args.width + w] : static_cast<float>(args.padValue);
        }
    }
    return dst;
}

void LayOutByElement(const Im2colArgs& args, uint32_t outH, uint32_t outW)
{
    const float* plane = args.src;
    float* dst = args.dst;
    for (uint32_t c = 0; c < args.channels; ++c, plane += size_t{args.height} * args.width) {
        for (uint32_t kh = 0; kh < args.kernelH; ++kh) {
            for (uint32_t kw = 0; kw < args.kernelW; ++kw) {
                dst = WriteRowByElement(args, plane, kh * args.dilationH - args.padTop,
                                        kw * args.dilationW - args.padLeft, outH, outW, dst);
            }
        }
    }
}

}  // namespace

bool IsPointwise(const Im2colArgs& args)
{
    return args.kernelH == 1 && args.kernelW == 1 && args.strideH == 1 && args.strideW == 1 &&
           (args.padTop | args.padBottom | args.padLeft | args.padRight) == 0;
}

bool DescribeColumns(const Im2colArgs& args, ImageColumns* columns)
{
    const uint64_t paddedHeight = uint64_t{args.height} + args.padTop + args.padBottom;
    const uint64_t paddedWidth = uint64_t{args.width} + args.padLeft + args.padRight;
    if (!IsPlainAxis(paddedHeight, args.kernelH, args.dilationH, args.strideH) ||
        !IsPlainAxis(paddedWidth, args.kernelW, args.dilationW, args.strideW)) {
        return false;
    }
    *columns = {args, static_cast<size_t>(OutputHeight(args)), static_cast<size_t>(OutputWidth(args))};
    const uint64_t plane = uint64_t{args.height} * args.width;
    if (IsPointwise(args) && plane <= INT32_MAX) {  // a single row, the longer the better
        columns->args.height = 1;
        columns->args.width = static_cast<uint32_t>(plane);
        columns->outHeight = 1;
        columns->outWidth = plane;
    }
    return true;
}

WholeRange RangeOfColumns(const Im2colArgs& args, const float* image, size_t count)
{
    const WholeKernels* const kernels = WholeKernelsInUse();
    if (kernels == nullptr) {
        return {false, 0, 0};
    }
    WholeRange range = kernels->examine(image, count);
    range.whole = range.whole && args.padValue >= -kLargestWhole && args.padValue <= kLargestWhole;
    range.lowest = args.padValue < range.lowest ? args.padValue : range.lowest;
    range.highest = args.padValue > range.highest ? args.padValue : range.highest;
    return range;
}

}  // namespace opkit

using namespace opkit;

bool IsAgeZeroAndAltB(uint32_t a, uint32_t b)
{
    return a < b;
}

uint32_t GetTransposeInd(uint32_t index, uint32_t c)
{
    if (c == 0) {
        Report(Here(), "Illegal value, c is 0\n");
        return 0;
    }
    return index / c + (index % c) * c;
}

uint32_t Im2col(Im2colArgs args)
{
    constexpr uint32_t kFailure = 0xFFFFFFFFu;
    if (args.src == nullptr || args.dst == nullptr) {
        Report(Here(), "null point error!\n\n");
        return kFailure;
    }
    if (args.strideH == 0 || args.strideW == 0) {
        Report(Here(), "Im2Col Error: the divisor is 0!\n\n");
        return kFailure;
    }
    if (args.channels == 0 || static_cast<int32_t>(args.kernelH) < 1 || static_cast<int32_t>(args.kernelW) < 1) {
        return 0;
    }
    ImageColumns columns;
    if (DescribeColumns(args, &columns)) {
        LayOut(columns, size_t{args.channels} * args.kernelH * args.kernelW, args.dst);
        return 0;
    }
    const int32_t outH = OutputHeight(args);
    const int32_t outW = OutputWidth(args);
    if (outH < 0 || outW < 0) {
        Report(Here(), "Im2Col Error: the kernel exceeds the padded image!\n\n");
        return kFailure;
    }
    LayOutByElement(args, static_cast<uint32_t>(outH), static_cast<uint32_t>(outW));
    return 0;
}
