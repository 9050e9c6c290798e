// Image to columns: row (c * kernelH + kh) * kernelW + kw of the column matrix holds, for every output position, the
// image element under that place of the kernel, or the padding value outside the image.

#include "common/move_floats.h"
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

// How the output positions along one axis fall, for one place of the kernel: `before` of them lie outside the image,
// then `inside` in it, from coordinate `first` on; the rest lie behind it.
struct Span {
    uint32_t before;
    uint32_t inside;
    uint32_t first;
};

// The coordinate starts at `start`, which has wrapped when it lies ahead of the image, and moves on by `stride`.
Span SpanOf(uint32_t start, uint32_t stride, uint32_t positions, uint32_t size)
{
    Span span = {0, 0, start};
    if (!IsAgeZeroAndAltB(start, size)) {
        const uint64_t toZero = 0x100000000u - uint64_t{start};
        const uint64_t before = (toZero + stride - 1) / stride;
        span.before = before < positions ? static_cast<uint32_t>(before) : positions;
        span.first = start + span.before * stride;
    }
    if (span.before < positions && IsAgeZeroAndAltB(span.first, size)) {
        const uint64_t inside = (uint64_t{size} - span.first + stride - 1) / stride;
        const uint32_t left = positions - span.before;
        span.inside = inside < left ? static_cast<uint32_t>(inside) : left;
        return span;
    }
    return {span.before, 0, 0};
}

float* Fill(float* dst, size_t count, float padding)
{
    for (size_t i = 0; i < count; ++i) {
        dst[i] = padding;
    }
    return dst + count;
}

float* CopyEvery(const float* from, size_t stride, size_t count, float* dst)
{
    if (stride == 1) {
        MoveFloats(dst, from, count);
    } else if (stride == 2) {  // a constant, for the compiler's sake
        for (size_t i = 0; i < count; ++i) {
            dst[i] = from[i * 2];
        }
    } else {
        for (size_t i = 0; i < count; ++i) {
            dst[i] = from[i * stride];
        }
    }
    return dst + count;
}

// One row of the column matrix: every output position of one plane for one place of the kernel.
float* WriteMatrixRow(const Im2colArgs& args, const float* plane, Span rows, Span columns, size_t outH, size_t outW,
                      float padding, float* dst)
{
    dst = Fill(dst, rows.before * outW, padding);
    const float* row = plane + size_t{rows.first} * args.width;
    if (args.strideH == 1 && args.strideW == 1 && columns.inside == outW && outW == args.width) {
        dst = CopyEvery(row, 1, rows.inside * outW, dst);
    } else {
        const size_t step = size_t{args.strideH} * args.width;
        for (uint32_t oh = 0; oh < rows.inside; ++oh, row += step) {
            dst = Fill(dst, columns.before, padding);
            dst = CopyEvery(row + columns.first, args.strideW, columns.inside, dst);
            dst = Fill(dst, outW - columns.before - columns.inside, padding);
        }
    }
    return Fill(dst, (outH - rows.before - rows.inside) * outW, padding);
}

// The same, element by element. With a stride from 2^31 on the coordinates run backward, over and over.
float* WriteMatrixRowByElement(const Im2colArgs& args, const float* plane, uint32_t h, uint32_t firstW, uint32_t outH,
                               uint32_t outW, float padding, float* dst)
{
    for (uint32_t oh = 0; oh < outH; ++oh, h += args.strideH) {
        uint32_t w = firstW;
        for (uint32_t ow = 0; ow < outW; ++ow, w += args.strideW) {
            const bool inside = IsAgeZeroAndAltB(h, args.height) && IsAgeZeroAndAltB(w, args.width);
            *dst++ = inside ? plane[size_t{h} * args.width + w] : padding;
        }
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
    const int32_t outH =
        OutputExtent(args.height, args.padTop, args.padBottom, args.kernelH, args.dilationH, args.strideH);
    const int32_t outW =
        OutputExtent(args.width, args.padLeft, args.padRight, args.kernelW, args.dilationW, args.strideW);
    const int32_t kernelH = static_cast<int32_t>(args.kernelH);
    const int32_t kernelW = static_cast<int32_t>(args.kernelW);
    if (args.channels == 0 || kernelH < 1 || kernelW < 1) {
        return 0;
    }
    if (outH < 0 || outW < 0) {
        Report(Here(), "Im2Col Error: the kernel exceeds the padded image!\n\n");
        return kFailure;
    }
    const uint32_t rows = static_cast<uint32_t>(outH);
    const uint32_t columns = static_cast<uint32_t>(outW);
    const bool backward = static_cast<int32_t>(args.strideH | args.strideW) < 0;
    const float padding = static_cast<float>(args.padValue);
    const float* plane = args.src;
    float* dst = args.dst;
    for (uint32_t c = 0; c < args.channels; ++c, plane += size_t{args.height} * args.width) {
        for (uint32_t kh = 0; kh < args.kernelH; ++kh) {
            const uint32_t h = kh * args.dilationH - args.padTop;
            const Span rowSpan = SpanOf(h, args.strideH, rows, args.height);
            for (uint32_t kw = 0; kw < args.kernelW; ++kw) {
                const uint32_t w = kw * args.dilationW - args.padLeft;
                const Span columnSpan = SpanOf(w, args.strideW, columns, args.width);
                dst = backward ? WriteMatrixRowByElement(args, plane, h, w, rows, columns, padding, dst)
                               : WriteMatrixRow(args, plane, rowSpan, columnSpan, rows, columns, padding, dst);
            }
        }
    }
    return 0;
}
