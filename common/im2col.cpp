// Image to columns: row (c * kernelH + kh) * kernelW + kw of the column matrix holds, for every output position, the
// image element under that place of the kernel, or the padding value outside the image.

#include "common/report.h"
#include "opkit/helpers.h"

using namespace opkit;

namespace {

// Signed division: a numerator just below zero still counts as one position.
int32_t OutputExtent(uint32_t size, uint32_t padBegin, uint32_t padEnd, uint32_t kernel, uint32_t dilation,
                     uint32_t stride)
{
    const uint32_t room = size + padBegin + padEnd - ((kernel - 1) * dilation + 1);
    return static_cast<int32_t>(room) / static_cast<int32_t>(stride) + 1;
}

float* WriteRow(const float* imageRow, uint32_t width, uint32_t firstColumn, uint32_t strideW, uint32_t outW,
                float padding, float* dst)
{
    uint32_t w = firstColumn;
    for (uint32_t ow = 0; ow < outW; ++ow, w += strideW) {
        *dst++ = IsAgeZeroAndAltB(w, width) ? imageRow[w] : padding;
    }
    return dst;
}

float* FillRow(uint32_t outW, float padding, float* dst)
{
    for (uint32_t ow = 0; ow < outW; ++ow) {
        *dst++ = padding;
    }
    return dst;
}

}  // namespace

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
    const int32_t outH = OutputExtent(args.height, args.padTop, args.padBottom, args.kernelH, args.dilationH,
                                      args.strideH);
    const int32_t outW = OutputExtent(args.width, args.padLeft, args.padRight, args.kernelW, args.dilationW,
                                      args.strideW);
    const int32_t kernelH = static_cast<int32_t>(args.kernelH);
    const int32_t kernelW = static_cast<int32_t>(args.kernelW);
    if (args.channels == 0 || kernelH < 1) {
        return 0;
    }
    if (outH < 0 || outW < 0) {
        Report(Here(), "Im2Col Error: the kernel exceeds the padded image!\n\n");
        return kFailure;
    }
    const float padding = static_cast<float>(args.padValue);
    const uint32_t columns = static_cast<uint32_t>(outW);
    float* dst = args.dst;
    for (uint32_t c = 0; c < args.channels; ++c) {
        const float* plane = args.src + c * args.height * args.width;
        for (int32_t kh = 0; kh < kernelH; ++kh) {
            for (int32_t kw = 0; kw < kernelW; ++kw) {
                uint32_t h = static_cast<uint32_t>(kh) * args.dilationH - args.padTop;
                const uint32_t w = static_cast<uint32_t>(kw) * args.dilationW - args.padLeft;
                for (int32_t oh = 0; oh < outH; ++oh, h += args.strideH) {
                    dst = IsAgeZeroAndAltB(h, args.height)
                              ? WriteRow(plane + h * args.width, args.width, w, args.strideW, columns, padding, dst)
                              : FillRow(columns, padding, dst);
                }
            }
        }
    }
    return 0;
}
