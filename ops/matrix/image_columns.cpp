#include "ops/matrix/image_columns.h"

namespace opkit {
namespace {

constexpr uint64_t kSmall = 1 << 20;

bool IsPointwise(const ConvolutionAttr& attr)
{
    return attr.kernelH == 1 && attr.kernelW == 1 && attr.strideH == 1 && attr.strideW == 1 &&
           (attr.padTop | attr.padBottom | attr.padLeft | attr.padRight) == 0;
}

// Whether the column matrix fits where it would be laid out, ahead of the ones area.
bool FitsWorkSpace(const ConvolutionAttr& attr, uint64_t elements)
{
    return elements <= attr.outHeight * attr.outWidth * attr.colChannels;
}

uint64_t OutputExtent(uint64_t size, uint64_t padding, uint64_t kernel, uint64_t dilation, uint64_t stride)
{
    const uint64_t reach = (kernel - 1) * dilation + 1;
    return reach <= size + padding ? (size + padding - reach) / stride + 1 : 0;
}

}  // namespace

bool ImageIsColumns(const ConvolutionAttr& attr)
{
    const uint32_t size = attr.channels * attr.height * attr.width;
    const uint64_t taken = uint64_t{attr.gemmK} * attr.gemmN;
    return IsPointwise(attr) && attr.groupNum != 0 && FitsWorkSpace(attr, size) && taken <= size &&
           (attr.groupNum - uint64_t{1}) * attr.colGroupOffset <= size - taken;
}

bool CanFindColumns(const ConvolutionAttr& attr)
{
    const uint32_t numbers[] = {attr.channels, attr.height,    attr.width,     attr.kernelH,  attr.kernelW,
                                attr.padTop,   attr.padBottom, attr.padLeft,   attr.padRight, attr.strideH,
                                attr.strideW,  attr.dilationH, attr.dilationW, attr.groupNum};
    for (const uint32_t value : numbers) {
        if (value >= kSmall) {
            return false;
        }
    }
    if (attr.kernelH == 0 || attr.kernelW == 0 || attr.strideH == 0 || attr.strideW == 0 || attr.groupNum == 0 ||
        attr.channels % attr.groupNum != 0) {
        return false;
    }
    const uint64_t outH =
        OutputExtent(attr.height, uint64_t{attr.padTop} + attr.padBottom, attr.kernelH, attr.dilationH, attr.strideH);
    const uint64_t outW =
        OutputExtent(attr.width, uint64_t{attr.padLeft} + attr.padRight, attr.kernelW, attr.dilationW, attr.strideW);
    const uint64_t rows = uint64_t{attr.channels} * attr.kernelH * attr.kernelW;
    const bool packed = attr.groupNum == 1 || uint64_t{attr.gemmK} * attr.gemmN == attr.colGroupOffset;
    return outH * outW == attr.gemmN && attr.gemmN != 0 && rows == uint64_t{attr.groupNum} * attr.gemmK && packed &&
           rows <= INT32_MAX / attr.gemmN && FitsWorkSpace(attr, rows * attr.gemmN) &&
           uint64_t{attr.channels} * attr.height * attr.width <= INT32_MAX;
}

ImageColumns FindColumns(const ConvolutionAttr& attr, const float* image, uint32_t group, int32_t padValue)
{
    const size_t plane = size_t{attr.height} * attr.width;
    ImageColumns columns = {};
    columns.image = image + group * (attr.channels / attr.groupNum) * plane;
    columns.height = attr.height;
    columns.width = attr.width;
    columns.kernelH = attr.kernelH;
    columns.kernelW = attr.kernelW;
    columns.padTop = attr.padTop;
    columns.padLeft = attr.padLeft;
    columns.strideH = attr.strideH;
    columns.strideW = attr.strideW;
    columns.dilationH = attr.dilationH;
    columns.dilationW = attr.dilationW;
    columns.outWidth = static_cast<size_t>(
        OutputExtent(attr.width, uint64_t{attr.padLeft} + attr.padRight, attr.kernelW, attr.dilationW, attr.strideW));
    columns.padding = static_cast<float>(padValue);
    if (IsPointwise(attr)) {  // a single row, the longer the better
        columns.height = 1;
        columns.width = static_cast<int64_t>(plane);
        columns.outWidth = plane;
    }
    return columns;
}

}  // namespace opkit
