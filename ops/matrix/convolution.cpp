// Convolution: 2-D convolution of quantised values held as floats, by im2col and one product per image and group. The
// sizes come from the attributes; nothing is rounded or clamped. Compacts X and W, computes compactly, expands.
//
// Kept as they are: scales and zero points enter the product as bytes, while the padding takes the whole 32-bit zero
// point; Y is not cleared, so that its old content counts when both zero points are set; and the bias step adds the
// weights, which it rescales in place once per image, times the bytes of the ones area read as floats.
//
// Work space: the column matrix, then the ones area of one byte per output position. Without zero points the product
// takes its columns straight from the image, and the matrix is not laid out.

#include <cstring>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "kernels/gemm.h"
#include "opkit/attributes/matrix.h"
#include "opkit/operators.h"
#include "ops/matrix/image_columns.h"
#include "runtime/frame.h"

namespace opkit {
namespace {

constexpr int32_t kFormFailure = -1;
constexpr uint32_t kFirstQuantizedCount = 5;

// A scale and a zero point as the product sees them.
struct Quantization {
    uint8_t scale = 1;
    uint8_t zeroPoint = 0;
};

struct Operands {
    Input x;
    Input w;
    Output y;
    int32_t padValue = 0;
    Quantization forX;
    Quantization forW;
    Quantization forY;
};

struct WorkSpace {
    float* columns;
    void* ones;
};

WorkSpace PrepareWorkSpace(const LayerParam* param, const ConvolutionAttr& attr)
{
    const uint32_t plane = attr.outHeight * attr.outWidth;
    float* const columns = static_cast<float*>(param->opkitBuf);
    const WorkSpace space = {columns, columns + plane * attr.colChannels};
    memset_s(space.ones, plane, 1, plane);
    return space;
}

bool CompactOperand(const Input& input, Caller caller)
{
    if (input.alignNum == input.width ||
        DelAlignSpace(input.data, static_cast<int32_t>(input.count), input.width, input.alignNum)) {
        return true;
    }
    Report(caller, "DelAlignSpace failed.\n");
    return false;
}

int32_t ExpandResult(const Output& out, Caller caller)
{
    const uint32_t lastIndex = LastIndex(out.count, out.width, out.alignNum);
    if (!InsertAlignSpace(out.data, out.count, static_cast<int32_t>(out.width), out.alignNum, lastIndex)) {
        Report(caller, "InsertAlignSpace failed.\n");
        return kFormFailure;
    }
    return 0;
}

void LayOutColumns(const ConvolutionAttr& attr, float* image, int32_t padValue, float* columns)
{
    Im2colArgs args = {};
    args.src = image;
    args.channels = attr.channels;
    args.height = attr.height;
    args.width = attr.width;
    args.kernelH = attr.kernelH;
    args.kernelW = attr.kernelW;
    args.padTop = attr.padTop;
    args.padBottom = attr.padBottom;
    args.padLeft = attr.padLeft;
    args.padRight = attr.padRight;
    args.strideH = attr.strideH;
    args.strideW = attr.strideW;
    args.dilationH = attr.dilationH;
    args.dilationW = attr.dilationW;
    args.padValue = padValue;
    args.dst = columns;
    Im2col(args);
}

uint32_t ImageSize(const ConvolutionAttr& attr)
{
    return attr.channels * attr.height * attr.width;
}

bool Overlap(const float* a, uint64_t countA, const float* b, uint64_t countB)
{
    const uintptr_t beginA = reinterpret_cast<uintptr_t>(a);
    const uintptr_t beginB = reinterpret_cast<uintptr_t>(b);
    return beginA < beginB + countB * sizeof(float) && beginB < beginA + countA * sizeof(float);
}

// Whether the products write elsewhere than to these values: then it does not matter when they are read.
bool StaysUntouched(const ConvolutionAttr& attr, const float* values, uint64_t count, const float* y)
{
    const uint64_t lastGroup = (attr.groupNum - uint64_t{1}) * attr.outGroupOffset;
    const uint64_t group = uint64_t{attr.gemmM} * attr.gemmN;
    return attr.groupNum != 0 && lastGroup <= INT32_MAX && group <= INT32_MAX &&
           !Overlap(values, count, y, lastGroup + group);
}

// Whether the corrections leave the products of an image as they are. Without zero points they subtract 0 times the
// sums of rows and columns: +0.0 or -0.0 while those are finite. That changes no sum that started from a cleared Y,
// since none of these is -0.0.
bool NeedsNoCorrection(const ConvolutionAttr& attr, const Operands& operands, const float* image, const float* y)
{
    constexpr uint64_t kTerms = 1 << 24;
    constexpr float kLimit = 1e30f;  // so many of these stay finite
    const uint64_t weights = (attr.groupNum - uint64_t{1}) * attr.weightGroupOffset + uint64_t{attr.gemmM} * attr.gemmK;
    const uint64_t imageSize = ImageSize(attr);
    const bool zeroPoints = (operands.forX.zeroPoint | operands.forW.zeroPoint | operands.forY.zeroPoint) != 0;
    return !zeroPoints && operands.forY.scale == 1 && attr.gemmK <= kTerms && weights <= operands.w.count &&
           static_cast<uint64_t>(image - operands.x.data) + imageSize <= operands.x.count &&
           StaysUntouched(attr, operands.w.data, weights, y) &&
           Kernels<ImageColumnKernels>().areWithin(operands.w.data, weights, kLimit) &&
           Kernels<ImageColumnKernels>().areWithin(image, imageSize, kLimit);
}

int32_t GroupOffset(uint32_t group, uint32_t distance)
{
    return static_cast<int32_t>(group * distance);
}

void MultiplyGroups(const ConvolutionAttr& attr, const Operands& operands, float* columns, float* y)
{
    for (uint32_t g = 0; g < attr.groupNum; ++g) {
        QGemmArgs args = {};
        args.M = attr.gemmM;
        args.N = attr.gemmN;
        args.K = attr.gemmK;
        args.a = {operands.w.data + GroupOffset(g, attr.weightGroupOffset), operands.forW.scale,
                  operands.forW.zeroPoint};
        args.b = {columns + GroupOffset(g, attr.colGroupOffset), operands.forX.scale, operands.forX.zeroPoint};
        args.c = {y + GroupOffset(g, attr.outGroupOffset), operands.forY.scale, operands.forY.zeroPoint};
        QGemm(args);
    }
}

// The same for images that need no correction, straight from the image.
void MultiplyImage(const ConvolutionAttr& attr, const Operands& operands, const float* image, float* y)
{
    const float scale = static_cast<float>(operands.forW.scale) * static_cast<float>(operands.forX.scale);
    for (uint32_t g = 0; g < attr.groupNum; ++g) {
        const float* const w = operands.w.data + GroupOffset(g, attr.weightGroupOffset);
        float* const c = y + GroupOffset(g, attr.outGroupOffset);
        const ImageColumns columns = FindColumns(attr, image, g, operands.padValue);
        std::memset(c, 0, size_t{attr.gemmM} * attr.gemmN * sizeof(float));
        Kernels<GemmKernels>().accumulateFrom(attr.gemmM, attr.gemmN, attr.gemmK, scale, {w, attr.gemmK, 1},
                                              {Kernels<ImageColumnKernels>().fill, &columns}, c);
    }
}

// Rescales the first gemmN weights in place, then adds W[o] * ones[j] to Y[o][j].
void AddBias(const ConvolutionAttr& attr, float* w, void* ones, float scale, float zero, float* y)
{
    for (uint32_t i = 0; i < attr.gemmN; ++i) {
        w[i] = scale * w[i] - zero;
    }
    GemmArgs args = {};
    args.M = attr.outChannels;
    args.N = attr.gemmN;
    args.K = 1;
    args.alpha = 1.0f;
    args.A = w;
    args.B = static_cast<float*>(ones);
    args.beta = 1.0f;
    args.C = y;
    Gemm(args);
}

// Calls afterImage(y) when the groups of an image are done.
template <class AfterImage>
void ForEachImage(const ConvolutionAttr& attr, const Operands& operands, const WorkSpace& space, AfterImage afterImage)
{
    const uint32_t imageSize = ImageSize(attr);
    const uint32_t resultSize = attr.outHeight * attr.outWidth * attr.outChannels;
    for (uint32_t n = 0; n < operands.x.shape[0]; ++n) {
        float* const image = operands.x.data + imageSize * n;
        float* const y = operands.y.data + resultSize * n;
        // Without an image or a work space Im2col has a message.
        const bool untouched =
            image != nullptr && space.columns != nullptr && StaysUntouched(attr, image, imageSize, y);
        if (untouched && CanFindColumns(attr) && NeedsNoCorrection(attr, operands, image, y)) {
            MultiplyImage(attr, operands, image, y);
        } else if (untouched && ImageIsColumns(attr)) {
            MultiplyGroups(attr, operands, image, y);
        } else {
            LayOutColumns(attr, image, operands.padValue, space.columns);
            MultiplyGroups(attr, operands, space.columns, y);
        }
        afterImage(y);
    }
}

// Resolves the inputs from logical input 0 on, `count` of them.
template <size_t kRoom>
bool ResolveInputs(LayerParam* param, uint32_t count, Input (&inputs)[kRoom])
{
    InputCursor cursor = {param};
    for (uint32_t k = 0; k < count; ++k) {
        if (!NextInput(&cursor, &inputs[k])) {
            return false;
        }
    }
    return true;
}

}  // namespace
}  // namespace opkit

using namespace opkit;

int32_t ConvIntegerForward(LayerParam* param)
{
    const ConvolutionAttr& attr = AttrOf<ConvolutionAttr>(param);
    Input in[4];
    const uint32_t declared = attr.inputCount < 2 ? 2 : attr.inputCount < 4 ? attr.inputCount : 4;
    if (!ResolveInputs(param, declared, in)) {
        return kFormFailure;
    }
    Operands operands;
    operands.x = in[0];
    operands.w = in[1];
    operands.y = OutputOf(param, 0);
    const WorkSpace space = PrepareWorkSpace(param, attr);
    if (!CompactOperand(operands.x, Here()) || !CompactOperand(operands.w, Here())) {
        return kFormFailure;
    }
    const float xZero = attr.inputCount > 2 ? in[2].data[0] : 0.0f;
    const float wZero = attr.inputCount > 3 ? in[3].data[0] : 0.0f;
    operands.padValue = TruncateToI32(xZero);
    operands.forX.zeroPoint = TruncateToByte(xZero);
    operands.forW.zeroPoint = TruncateToByte(wZero);
    ForEachImage(attr, operands, space, [](float*) {});
    return ExpandResult(operands.y, Here());
}

int32_t QLinearConvForward(LayerParam* param)
{
    const ConvolutionAttr& attr = AttrOf<ConvolutionAttr>(param);
    const bool hasBias = attr.hasBias != 0;
    Input in[9];
    if (!ResolveInputs(param, hasBias ? 9 : 8, in)) {
        return kFormFailure;
    }
    Operands operands;
    operands.x = in[0];
    operands.w = in[3];
    operands.y = OutputOf(param, 0);
    const WorkSpace space = PrepareWorkSpace(param, attr);
    if (!CompactOperand(operands.x, Here()) || !CompactOperand(operands.w, Here())) {
        return kFormFailure;
    }
    const float yScale = in[6].data[0];
    const float yZero = in[7].data[0];
    operands.padValue = TruncateToI32(in[2].data[0]);
    operands.forX = {TruncateToByte(in[1].data[0]), TruncateToByte(in[2].data[0])};
    operands.forW = {TruncateToByte(in[4].data[0]), TruncateToByte(in[5].data[0])};
    operands.forY = {TruncateToByte(yScale), TruncateToByte(yZero)};
    ForEachImage(attr, operands, space, [&](float* y) {
        if (hasBias) {
            AddBias(attr, operands.w.data, space.ones, yScale, yZero, y);
        }
    });
    return ExpandResult(operands.y, Here());
}

uint32_t ConvolutionOpkitForward(LayerParam* param)
{
    if (AttrOf<ConvolutionAttr>(param).inputCount < kFirstQuantizedCount) {
        if (ConvIntegerForward(param) < 0) {
            Report(Here(), "ConvIntegerForward calc failed.\n");
            return kFailure;
        }
        return kSuccess;
    }
    if (QLinearConvForward(param) < 0) {
        Report(Here(), "QLinearConvForward calc failed.\n");
        return kFailure;
    }
    return kSuccess;
}
