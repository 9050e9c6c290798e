// Convolution: 2-D convolution of quantised values held as floats, by im2col and one product per image and group. The
// sizes come from the attributes; nothing is rounded or clamped. Compacts X and W, computes compactly, expands.
//
// Kept as they are: scales and zero points enter the product as bytes, while the padding takes the whole 32-bit zero
// point; Y is not cleared, so that its old content counts when both zero points are set; and the bias step adds the
// weights, which it rescales in place once per image, times the bytes of the ones area read as floats.
//
// Work space: the column matrix, then the ones area of one byte per output position. The matrix is laid out only where
// the plan of the layer, or an image's values, ask for it.

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "opkit/attributes/matrix.h"
#include "opkit/operators.h"
#include "ops/matrix/im2col.h"
#include "ops/matrix/product_plan.h"
#include "runtime/frame.h"

namespace opkit {
namespace {

constexpr int32_t kFormFailure = -1;
constexpr uint32_t kFirstQuantizedCount = 5;
constexpr uint32_t kMostInputs = 9;
constexpr uint32_t kAbsent = kMostInputs;

// The logical inputs of a form: how many, and which are the weights and the single values.
struct Form {
    uint32_t inputs;
    uint32_t w;
    uint32_t xScale = kAbsent;
    uint32_t xZero = kAbsent;
    uint32_t wScale = kAbsent;
    uint32_t wZero = kAbsent;
    uint32_t yScale = kAbsent;
    uint32_t yZero = kAbsent;
    bool hasBias = false;
};

// A scale and a zero point as the layer has them.
struct Quantization {
    float scale = 1.0f;
    float zero = 0.0f;
};

struct Operands {
    Input x;
    Input w;
    Output y;
    Quantization forX;
    Quantization forW;
    Quantization forY;
};

// How the products of a layer run. Whether they do read an image is decided with the values of image and weights.
struct Plan {
    Im2colArgs layout;     // of the first image
    QGemmArgs product;     // of its first group
    ImageColumns columns;  // of the same
    size_t weights;        // of all groups, in floats
    bool imageIsMatrix;    // the image lies as its column matrix would
    bool mayReadImage;     // products may take their columns straight from the image
};

Im2colArgs LayoutOf(const ConvolutionAttr& attr, float* x, int32_t padValue, float* columns)
{
    return {x,
            attr.channels,
            attr.height,
            attr.width,
            attr.kernelH,
            attr.kernelW,
            attr.padTop,
            attr.padBottom,
            attr.padLeft,
            attr.padRight,
            attr.strideH,
            attr.strideW,
            attr.dilationH,
            attr.dilationW,
            padValue,
            columns};
}

Quantization ValuesOf(const Input (&in)[kMostInputs], uint32_t scale, uint32_t zero)
{
    return {scale == kAbsent ? 1.0f : in[scale].data[0], zero == kAbsent ? 0.0f : in[zero].data[0]};
}

QMatrix Quantized(float* data, Quantization values)
{
    return {data, TruncateToByte(values.scale), TruncateToByte(values.zero)};
}

uint32_t ResultPlane(const ConvolutionAttr& attr)
{
    return attr.outHeight * attr.outWidth;
}

// Whether so many blocks of `size` floats, `distance` apart, lie within `room` floats, and their offsets in 31 bits.
bool Fit(uint32_t blocks, uint64_t distance, uint64_t size, uint64_t room)
{
    return blocks != 0 && room <= INT32_MAX && size <= room && (blocks - uint64_t{1}) * distance <= room - size;
}

// Whether the groups share out the whole column matrix evenly, and it does not reach into the ones behind its place.
bool GroupsFitMatrix(const ConvolutionAttr& attr, const ImageColumns& columns)
{
    const uint64_t rows = uint64_t{attr.channels} * attr.kernelH * attr.kernelW;
    const uint64_t block = uint64_t{attr.gemmK} * attr.gemmN;
    return attr.groupNum != 0 && attr.channels % attr.groupNum == 0 && rows == uint64_t{attr.groupNum} * attr.gemmK &&
           columns.outHeight * columns.outWidth == attr.gemmN && (attr.groupNum == 1 || attr.colGroupOffset == block) &&
           Fit(attr.groupNum, attr.colGroupOffset, block, ResultPlane(attr) * attr.colChannels);
}

// Whether all that the products read and write lies in the three tensors, and Y apart from the others.
bool ProductsFitTensors(const ConvolutionAttr& attr, const Operands& o)
{
    const uint32_t images = o.x.shape[0];
    const uint64_t plane = uint64_t{attr.height} * attr.width;
    const uint64_t image = plane * attr.channels;
    const uint64_t product = uint64_t{attr.gemmM} * attr.gemmN;
    const uint64_t result = (attr.groupNum - uint64_t{1}) * attr.outGroupOffset + product;
    return plane <= INT32_MAX && Fit(images, image, image, o.x.count) &&
           Fit(attr.groupNum, attr.weightGroupOffset, uint64_t{attr.gemmM} * attr.gemmK, o.w.count) &&
           Fit(attr.groupNum, attr.outGroupOffset, product, o.y.count) &&
           Fit(images, ResultPlane(attr) * attr.outChannels, result, o.y.count) &&
           !RangesOverlap(o.x.data, o.x.count, o.y.data, o.y.count) &&
           !RangesOverlap(o.w.data, o.w.count, o.y.data, o.y.count);
}

// A column matrix that is not laid out must not be missed: Im2col has a message for a null image or work space, and a Y
// that lies in X or W is written before all of them is read.
Plan PlanLayer(const ConvolutionAttr& attr, const Operands& o, float* columns)
{
    Plan plan = {};
    plan.layout = LayoutOf(attr, o.x.data, TruncateToI32(o.forX.zero), columns);
    plan.product = {attr.gemmM,
                    attr.gemmN,
                    attr.gemmK,
                    Quantized(o.w.data, o.forW),
                    Quantized(columns, o.forX),
                    Quantized(o.y.data, o.forY)};
    if (o.x.data != nullptr && columns != nullptr && DescribeColumns(plan.layout, &plan.columns) &&
        GroupsFitMatrix(attr, plan.columns) && ProductsFitTensors(attr, o)) {
        plan.weights = (attr.groupNum - size_t{1}) * attr.weightGroupOffset + size_t{attr.gemmM} * attr.gemmK;
        plan.imageIsMatrix = IsPointwise(plan.layout);
        plan.mayReadImage = CorrectionVanishes(plan.product);
    }
    return plan;
}

int32_t GroupOffset(uint32_t group, uint32_t distance)
{
    return static_cast<int32_t>(group * distance);
}

// The products of an image from its column matrix, corrected.
void MultiplyColumns(const ConvolutionAttr& attr, const Plan& plan, float* columns, float* y)
{
    for (uint32_t g = 0; g < attr.groupNum; ++g) {
        QGemmArgs args = plan.product;
        args.a.data += GroupOffset(g, attr.weightGroupOffset);
        args.b.data = columns + GroupOffset(g, attr.colGroupOffset);
        args.c.data = y + GroupOffset(g, attr.outGroupOffset);
        QGemm(args);
    }
}

// The same straight from the image, where it and the weights are small: then there is nothing to correct.
void MultiplyImage(const ConvolutionAttr& attr, const Plan& plan, const WholeRange& range, float* image, float* y)
{
    ImageColumns columns = plan.columns;
    const PanelSource source = {Kernels<ImageColumnKernels>().fill, &columns};
    const float alpha = static_cast<float>(plan.product.a.scale) * static_cast<float>(plan.product.b.scale);
    for (uint32_t g = 0; g < attr.groupNum; ++g) {
        const MatrixView w = {plan.product.a.data + GroupOffset(g, attr.weightGroupOffset), attr.gemmK, 1};
        float* const c = y + GroupOffset(g, attr.outGroupOffset);
        columns.args.src = image + g * (attr.channels / attr.groupNum) * size_t{attr.height} * attr.width;
        RunProduct({attr.gemmM, attr.gemmN, attr.gemmK, alpha, w, {}, &source, Start::kCleared, c, range});
    }
}

float* LayOutColumns(const Plan& plan, float* image)
{
    Im2colArgs args = plan.layout;
    args.src = image;
    Im2col(args);
    return args.dst;
}

// Rescales the first gemmN weights in place, then adds W[o] * ones[j] to Y[o][j].
void AddBias(const ConvolutionAttr& attr, float* w, float* ones, float scale, float zero, float* y)
{
    for (uint32_t i = 0; i < attr.gemmN; ++i) {
        w[i] = scale * w[i] - zero;
    }
    Gemm({0, 0, attr.outChannels, attr.gemmN, 1, 1.0f, w, ones, 1.0f, y});
}

void RunImages(const ConvolutionAttr& attr, const Operands& o, const Plan& plan, bool hasBias, float* ones)
{
    const uint32_t imageSize = attr.channels * attr.height * attr.width;
    const uint32_t resultSize = ResultPlane(attr) * attr.outChannels;
    bool smallWeights = false;
    for (uint32_t n = 0; n < o.x.shape[0]; ++n) {
        float* const image = o.x.data + imageSize * n;
        float* const y = o.y.data + resultSize * n;
        if (n == 0 || hasBias) {  // the bias step changes weights
            smallWeights = plan.mayReadImage && AreSmall(o.w.data, plan.weights);
        }
        const WholeRange range = smallWeights ? RangeOfColumns(plan.layout, image, imageSize) : WholeRange{};
        if (smallWeights && (range.whole || AreSmall(image, imageSize))) {
            MultiplyImage(attr, plan, range, image, y);
        } else {
            MultiplyColumns(attr, plan, plan.imageIsMatrix ? image : LayOutColumns(plan, image), y);
        }
        if (hasBias) {
            AddBias(attr, o.w.data, ones, o.forY.scale, o.forY.zero, y);
        }
    }
}

int32_t Convolve(LayerParam* param, const Form& form, Caller caller)
{
    const ConvolutionAttr& attr = AttrOf<ConvolutionAttr>(param);
    Input in[kMostInputs];  // all resolved before one is compacted
    if (!Resolve(param, in, form.inputs, Rows::kInPlace, Messages::kNone)) {
        return kFormFailure;
    }
    Operands o = {in[0], in[form.w], OutputOf(param, 0), {}, {}, {}};
    float* const columns = static_cast<float*>(param->opkitBuf);
    float* const ones = columns + ResultPlane(attr) * attr.colChannels;
    memset_s(ones, ResultPlane(attr), 1, ResultPlane(attr));
    if (!CompactInput(o.x, MessageEnd::kNewline, caller) || !CompactInput(o.w, MessageEnd::kNewline, caller)) {
        return kFormFailure;
    }
    o.forX = ValuesOf(in, form.xScale, form.xZero);
    o.forW = ValuesOf(in, form.wScale, form.wZero);
    o.forY = ValuesOf(in, form.yScale, form.yZero);
    RunImages(attr, o, PlanLayer(attr, o, columns), form.hasBias, ones);
    return ExpandOutput(o.y, MessageEnd::kNewline, caller) == kSuccess ? 0 : kFormFailure;
}

}  // namespace
}  // namespace opkit

using namespace opkit;

int32_t ConvIntegerForward(LayerParam* param)
{
    const uint32_t count = AttrOf<ConvolutionAttr>(param).inputCount;
    Form form = {.inputs = count < 2 ? 2 : count < 4 ? count : 4, .w = 1};
    form.xZero = count > 2 ? 2 : kAbsent;
    form.wZero = count > 3 ? 3 : kAbsent;
    return Convolve(param, form, Here());
}

int32_t QLinearConvForward(LayerParam* param)
{
    const bool hasBias = AttrOf<ConvolutionAttr>(param).hasBias != 0;
    return Convolve(param,
                    {.inputs = hasBias ? 9u : 8u,
                     .w = 3,
                     .xScale = 1,
                     .xZero = 2,
                     .wScale = 4,
                     .wZero = 5,
                     .yScale = 6,
                     .yZero = 7,
                     .hasBias = hasBias},
                    Here());
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
