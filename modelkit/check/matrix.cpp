// Matrix products, convolution and the determinant.

#include "opkit/attributes/matrix.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

// Matrices of a stack: the product of all but the last two dimensions.
uint64_t Matrices(const Tensor& tensor)
{
    return tensor.Rank() < 3 ? 1 : tensor.Count(0, tensor.Rank() - 2);
}

// M rows of A's width times B, N columns; the smaller stacks repeat.
void CheckStacks(LayerCheck& layer, const Tensor& a, const Tensor& b, const Tensor& y, uint64_t M)
{
    const uint64_t K = a.Width();
    const uint64_t N = y.Width();
    layer.Elements(a, Mul(Matrices(a), M, K), "A has fewer rows than the output");
    layer.Elements(b, Mul(Matrices(b), K, N), "B's matrices are smaller than A's width by the output's");
    layer.Elements(y, Mul(Matrices(y), M, N), "the products do not fit the output");
    layer.Work(Mul(Matrices(y), M, N, K));
}

// Places that the kernel takes along one axis.
uint64_t KernelPlaces(LayerCheck& layer, const Field& kernelField, const Field& strideField, uint64_t padded,
                      uint64_t kernel, uint64_t stride, uint64_t dilation)
{
    layer.AtLeast(kernelField, kernel, 1, "the kernel is empty");
    layer.AtMost(kernelField, kernel, INT32_MAX, "the kernel is beyond 31 bits");
    layer.AtLeast(strideField, stride, 1, "with a stride of 0 no columns are written");
    layer.AtMost(strideField, stride, INT32_MAX, "the stride is beyond 31 bits");
    const uint64_t extent = Add(Mul(kernel - 1, dilation), 1);
    layer.AtMost(kernelField, extent, std::min<uint64_t>(padded, INT32_MAX), "the kernel exceeds the padded image");
    return (padded - extent) / stride + 1;
}

// Image to columns: what it reads and writes.
void CheckColumns(LayerCheck& layer, const ConvolutionAttr& attr, uint64_t columns)
{
    const uint64_t paddedH = uint64_t{attr.height} + attr.padTop + attr.padBottom;
    const uint64_t paddedW = uint64_t{attr.width} + attr.padLeft + attr.padRight;
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, padTop), paddedH, INT32_MAX,
                 "a padded height beyond 31 bits");
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, padLeft), paddedW, INT32_MAX,
                 "a padded width beyond 31 bits");
    const uint64_t outH = KernelPlaces(layer, OPKIT_ATTR_FIELD(layer, ConvolutionAttr, kernelH),
                                       OPKIT_ATTR_FIELD(layer, ConvolutionAttr, strideH), paddedH, attr.kernelH,
                                       attr.strideH, attr.dilationH);
    const uint64_t outW = KernelPlaces(layer, OPKIT_ATTR_FIELD(layer, ConvolutionAttr, kernelW),
                                       OPKIT_ATTR_FIELD(layer, ConvolutionAttr, strideW), paddedW, attr.kernelW,
                                       attr.strideW, attr.dilationW);
    const uint64_t written = Mul(attr.channels, Mul(attr.kernelH, attr.kernelW), Mul(outH, outW));
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, colChannels), columns, written,
                  "outHeight * outWidth * colChannels is less than the column matrix");
}

// One group's product and the distances from group to group.
void CheckGroups(LayerCheck& layer, const ConvolutionAttr& attr, uint64_t columns, const Tensor& w)
{
    const uint64_t M = attr.gemmM;
    const uint64_t N = attr.gemmN;
    const uint64_t K = attr.gemmK;
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, gemmM), M, 1, "an empty product");
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, gemmN), N, 1, "an empty product");
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, gemmK), K, 1, "an empty product");
    const uint64_t further = attr.groupNum > 1 ? attr.groupNum - 1 : 0;
    if (further > 0) {
        layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, outGroupOffset), attr.outGroupOffset, Mul(M, N),
                      "the groups' results overlap");
    }
    const auto reach = [further](uint64_t distance, uint64_t block) { return Add(Mul(further, distance), block); };
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, weightGroupOffset), reach(attr.weightGroupOffset, Mul(M, K)),
                 w.Count(), "the last group's weights end behind W");
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, colGroupOffset), reach(attr.colGroupOffset, Mul(K, N)),
                 std::min<uint64_t>(columns, INT32_MAX), "the last group's columns end behind the column matrix");
}

}  // namespace

void CheckGemm(LayerCheck& layer)
{
    const GemmAttr attr = layer.Attr<GemmAttr>();
    const Tensor& a = layer.NextCompacted();
    const Tensor& b = layer.NextCompacted();
    const Tensor& y = layer.OutExpanded();
    if (attr.inputCount == 3) {
        layer.NextCompacted();
        layer.ModifiesAttr("inputStrides[2]", offsetof(GemmAttr, inputStrides) + 2 * sizeof(StrideRecord),
                           sizeof(StrideRecord));
        layer.ModifiesAttr("outputStrides[0]", offsetof(GemmAttr, outputStrides), sizeof(StrideRecord));
        layer.WorkSpace(Mul(y.Count(), 4), "the work space holds the output's elements");
    }
    layer.Rank(a, 2, OPKIT_MAX_DIMS, "A is a matrix or a stack of them");
    layer.Rank(b, a.Rank(), OPKIT_MAX_DIMS, "B's sizes stand where A's do");  // by A's rank in both shapes
    const size_t last = a.Rank() - 1;
    const uint64_t M = a.dims[attr.transA != 0 ? last : last - 1];
    const uint64_t K = a.dims[attr.transA != 0 ? last - 1 : last];
    const uint64_t N = b.dims[attr.transB != 0 ? last - 1 : last];
    const uint64_t matrices = Matrices(y);
    layer.Elements(a, Mul(matrices, M, K), "A has no matrix for each of the output");
    layer.Elements(b, Mul(matrices, K, N), "B has no matrix of A's inner size for each of the output");
    layer.Elements(y, Mul(matrices, M, N), "the products do not fit the output");
    layer.Work(Mul(matrices, M, N, K));
}

void CheckMatMul(LayerCheck& layer)
{
    const Tensor& a = layer.NextCompacted();
    const Tensor& b = layer.NextCompacted();
    const Tensor& y = layer.OutExpanded();
    CheckStacks(layer, a, b, y, a.FromEnd(2));
}

void CheckQLinearMatMul(LayerCheck& layer)
{
    constexpr int32_t kFullForm = 8;
    const int32_t inputCount = layer.Attr<QLinearMatMulAttr>().inputCount;
    if (inputCount < 2) {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, QLinearMatMulAttr, inputCount), inputCount, 2, "the operator fails");
    }
    std::vector<const Tensor*> in;
    for (int32_t k = 0; k < (inputCount <= 4 ? inputCount : kFullForm); ++k) {
        in.push_back(&layer.NextCompacted());
    }
    const Tensor& a = *in[0];
    const Tensor& b = *in[inputCount == kFullForm ? 3 : 1];
    const Tensor& y = layer.OutExpanded();
    layer.Rank(y, 2, OPKIT_MAX_DIMS, "the output is a matrix or a stack of them");
    CheckStacks(layer, a, b, y, y.FromEnd(2));
    if (inputCount > 2) {
        layer.Modifies(a);
    }
    if (inputCount > 3) {
        layer.Modifies(b);
    }
}

void CheckConvolution(LayerCheck& layer)
{
    const ConvolutionAttr attr = layer.Attr<ConvolutionAttr>();
    const bool quantised = attr.inputCount >= 5;
    const bool hasBias = quantised && attr.hasBias != 0;
    const uint32_t inputs = quantised ? (hasBias ? 9 : 8) : std::clamp<uint32_t>(attr.inputCount, 2, 4);
    const uint32_t indexOfW = quantised ? 3 : 1;
    const Tensor& x = layer.NextCompacted();
    const Tensor* weights = nullptr;
    for (uint32_t k = 1; k < inputs; ++k) {
        const Tensor& in = k == indexOfW ? layer.NextCompacted() : layer.Next();
        weights = k == indexOfW ? &in : weights;
    }
    const Tensor& w = *weights;
    const Tensor& y = layer.OutExpanded();

    const uint64_t plane = Mul(attr.outHeight, attr.outWidth);
    const uint64_t columns = Mul(plane, attr.colChannels);
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, outHeight), plane, 1, "an empty output plane");
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, channels), Mul(attr.channels, attr.height, attr.width), 1,
                  "an empty image");
    const uint64_t images = x.dims[0];
    layer.Elements(x, Mul(images, attr.channels, attr.height, attr.width), "the images of the attributes end behind X");
    const uint64_t ones = hasBias ? std::max(plane, Mul(attr.gemmN, 4)) : plane;
    layer.WorkSpace(Add(Mul(columns, 4), ones), "the work space holds the column matrix and the ones area");
    CheckColumns(layer, attr, columns);
    CheckGroups(layer, attr, columns, w);

    const uint64_t further = attr.groupNum > 1 ? attr.groupNum - 1 : 0;
    uint64_t block = Add(Mul(further, attr.outGroupOffset), Mul(attr.gemmM, attr.gemmN));
    if (images > 1) {
        layer.AtLeast(OPKIT_ATTR_FIELD(layer, ConvolutionAttr, outChannels), Mul(attr.outChannels, plane), block,
                      "outHeight * outWidth * outChannels is less than the images' results, which overlap");
    }
    uint64_t perImage = Add(columns, Mul(further + 1, attr.gemmM, Mul(attr.gemmN, attr.gemmK)));
    if (hasBias) {
        perImage = Add(perImage, Mul(attr.outChannels, attr.gemmN));
        block = std::max(block, Mul(attr.outChannels, attr.gemmN));
        layer.Elements(w, std::max(attr.gemmN, attr.outChannels), "the bias step takes gemmN and outChannels weights");
        layer.Modifies(w);
    }
    layer.Elements(y, Add(Mul(images - 1, plane, attr.outChannels), block), "the results end behind the output");
    layer.Work(Mul(images, Add(perImage, w.Count())));  // the weights are converted for each image
}

void CheckDet(LayerCheck& layer)
{
    const Tensor& x = layer.NextCompacted();
    const Tensor& y = layer.OutExpanded();
    layer.Elements(x, Mul(y.Count(), x.Width(), x.Width()), "the input has no square matrix for each element");
    layer.Modifies(x);
    layer.Work(Mul(y.Count(), x.Width(), Mul(x.Width(), x.Width())));
}

}  // namespace opkit::modelkit::check
