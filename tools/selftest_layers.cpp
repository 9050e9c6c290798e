// One layer for each operator: padded rows, more elements than the widest vector has, data from a fixed sequence.

#include <algorithm>
#include <cmath>

#include "modelkit/model_builder.h"
#include "opkit/opkit.h"
#include "tools/selftest.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

class Maker {
public:
    explicit Maker(const char* name) : name_(name) {}

    // From -4 to 4, in steps of 1 / 256.
    std::vector<float> Numbers(size_t count)
    {
        std::vector<float> numbers(count);
        for (float& number : numbers) {
            seed_ = seed_ * 1664525 + 1013904223;
            number = static_cast<float>(static_cast<int32_t>(seed_ >> 21) - 1024) / 256;
        }
        return numbers;
    }
    std::vector<float> Whole(size_t count, uint32_t below)
    {
        std::vector<float> numbers(count);
        for (float& number : numbers) {
            seed_ = seed_ * 1664525 + 1013904223;
            number = static_cast<float>((seed_ >> 8) % below);
        }
        return numbers;
    }

    Maker& In(const Shape& shape, std::vector<float> data) { return Add(shape, std::move(data), Stride(shape)); }
    Maker& InCompact(const Shape& shape, std::vector<float> data) { return Add(shape, std::move(data), 0); }
    Maker& In(const Shape& shape) { return In(shape, Numbers(ElementCount(shape))); }
    Maker& Out(const Shape& shape)
    {
        Layer().Output(builder_.AddOutput({"out" + std::to_string(++outputs_), shape, Stride(shape)}));
        return *this;
    }
    Maker& OutCompact(const Shape& shape)
    {
        Layer().Output(builder_.AddOutput({"out" + std::to_string(++outputs_), shape}));
        return *this;
    }
    Maker& Work(size_t bytes)
    {
        Layer().Workspace(static_cast<uint32_t>(bytes));
        return *this;
    }
    template <class T>
    Maker& Attr(const T& attr)
    {
        Layer().Attr(attr);
        return *this;
    }
    LayerBuilder& Layer()
    {
        layer_ = layer_ != nullptr ? layer_ : &builder_.AddLayer(name_);
        return *layer_;
    }
    // A layer before the one that counts, with its output in scratch.
    template <class T>
    TensorRef Before(const char* name, const T& attr, const Shape& shape, void (*fill)(Maker& make))
    {
        layer_ = &builder_.AddLayer(name);
        fill(*this);
        const TensorRef between = builder_.AddScratch({"between", shape, Stride(shape)});
        layer_->Output(between).Attr(attr);
        layer_ = nullptr;
        return between;
    }

    SelftestLayer Finish() { return {name_, builder_.Build(), std::move(inputs_)}; }

private:
    Maker& Add(const Shape& shape, std::vector<float> data, uint32_t stride)
    {
        inputs_.push_back(std::move(data));
        Layer().Online(builder_.AddInput({"in" + std::to_string(inputs_.size()), shape, stride}));
        return *this;
    }
    static uint32_t Stride(const Shape& shape) { return (shape.back() + 4) / 4 * 16; }

    std::string name_;
    ModelBuilder builder_;
    LayerBuilder* layer_ = nullptr;
    std::vector<std::vector<float>> inputs_;
    int outputs_ = 0;
    uint32_t seed_ = 2024;
};

// A record with some fields set: With(&CumSumAttr::axis, 1).
template <class T, class Field, class Value, class... Rest>
T With(Field T::*field, Value value, Rest... rest)
{
    T attr = {};
    if constexpr (sizeof...(rest) != 0) {
        attr = With(rest...);
    }
    attr.*field = static_cast<Field>(value);
    return attr;
}

const Shape kRows = {2, 3, 37};

void Unary(Maker& make)
{
    std::vector<float> data = make.Numbers(ElementCount(kRows));
    const float special[] = {0.0f, -0.0f, 1e-40f, 1e30f, -1e30f, INFINITY, -INFINITY, NAN, 1.0f, -1.0f, 0.5f};
    std::copy(std::begin(special), std::end(special), data.begin());
    make.In(kRows, std::move(data)).Out(kRows);
}

template <class T>
void UnaryWith(Maker& make, T attr)
{
    Unary(make);
    make.Attr(attr);
}

template <class T>
void Operands(Maker& make, T attr)
{
    make.In(kRows).In({3, 1}).Out(kRows).Attr(attr);
}

void Convolution(Maker& make)
{
    ConvolutionAttr attr = {};
    attr.inputCount = 2;
    attr.channels = 4;
    attr.height = attr.width = attr.outHeight = attr.outWidth = 9;
    attr.kernelH = attr.kernelW = 3;
    attr.padTop = attr.padBottom = attr.padLeft = attr.padRight = 1;
    attr.strideH = attr.strideW = attr.dilationH = attr.dilationW = 1;
    attr.groupNum = 2;
    attr.outChannels = 6;
    attr.colChannels = attr.channels * 9;
    attr.gemmM = attr.outChannels / 2;
    attr.gemmN = 81;
    attr.gemmK = attr.colChannels / 2;
    attr.outGroupOffset = attr.gemmM * attr.gemmN;
    attr.weightGroupOffset = attr.gemmM * attr.gemmK;
    attr.colGroupOffset = attr.gemmK * attr.gemmN;
    make.In({1, 4, 9, 9}).In({6, 2, 3, 3}).Out({1, 6, 9, 9}).Attr(attr).Work((81 * 36 + 81) * 4);
}

void Gemm(Maker& make)
{
    GemmAttr attr = {};
    attr.inputCount = 3;
    attr.alpha = 0.5f;
    attr.beta = 2.0f;
    attr.transB = 1;
    make.In({9, 21}).In({37, 21}).In({37}).Out({9, 37}).Attr(attr).Work(9 * 37 * 4);
}

void QLinearMatMul(Maker& make)
{
    QLinearMatMulAttr attr = {};
    attr.inputCount = 8;
    make.In({7, 19}).In({1}, {0.5f}).In({1}, {3}).In({19, 21}).In({1}, {0.25f}).In({1}, {1}).In({1}, {2}).In({1}, {4});
    make.Out({1, 7, 21}).Attr(attr);
}

template <class T>
T Window()
{
    T attr = {};
    attr.kernelH = attr.kernelW = 3;
    attr.strideH = attr.strideW = 1;
    attr.padTop = attr.padLeft = 1;
    return attr;
}

void InstanceNormalization(Maker& make)
{
    make.In({1, 3, 5, 21}).In({3}).In({3}).Out({1, 3, 5, 21}).Attr(InstanceNormalizationAttr{}).Work(3 * 5 * 21 * 4);
}

void Reduction(Maker& make)
{
    ReductionAttr attr = {};
    attr.axes[0] = 1;
    std::fill(attr.axes + 1, attr.axes + 10, 1);
    attr.axesNum = 1;
    attr.reductionType = OPKIT_REDUCE_MEAN;
    make.In(kRows).Out({2, 1, 37}).Attr(attr).Work(8 * 3);
}

void TopK(Maker& make)
{
    TopKAttr attr = {};
    attr.k = 5;
    attr.axis = 2;
    attr.largest = attr.hasValues = attr.hasIndices = 1;
    make.In(kRows).Out({2, 3, 5}).Out({2, 3, 5}).Attr(attr).Work(8 * 37);
}

void Unique(Maker& make)
{
    UniqueAttr attr = {};
    attr.axis = OPKIT_UNIQUE_FLAT;
    attr.sorted = 1;
    make.In({37}, make.Whole(37, 9)).Out({37}).Out({37}).Out({37}).Out({37}).Attr(attr);
}

void OneHot(Maker& make)
{
    OneHotAttr attr = {};
    attr.oneHotAxis = 1;
    make.In({21, 1}, make.Whole(21, 9)).In({2}, {-1, 3}).Out({21, 9}).Attr(attr);
    make.Layer().Flag(1, '0').Flag(2, '0');
}

void Pad(Maker& make)
{
    PadAttr attr = {};
    attr.padCount = attr.padCountCheck = 4;
    attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = 2;
    attr.reshapedPadsSize = attr.reshapedSlicesSize = 4;
    attr.inputStartsSize = attr.inputExtentsSize = 2;
    attr.padMode = OPKIT_PAD_REFLECT;
    std::fill_n(attr.padsAttr, 4, 2);
    make.In({5, 37}).Out({9, 41}).Attr(attr).Work(34 * 4);
}

void Resize(Maker& make)
{
    ResizeAttr attr = {};
    attr.scales[0] = attr.scales[1] = 1;
    attr.scales[2] = attr.scales[3] = 2.5f;
    attr.resizeMode = OPKIT_RESIZE_LINEAR;
    make.In({1, 2, 4, 10}).Out({1, 2, 10, 25}).Attr(attr);
}

void Permute(Maker& make)
{
    PermuteAttr attr = {};
    attr.permDimCount = attr.permOutDimCount = attr.permLength = 3;
    attr.perm[0] = 2;
    attr.perm[2] = 1;
    make.In(kRows).Out({37, 2, 3}).Attr(attr).Work(8 * 3);
}

constexpr uint32_t kBoxes = 9;
constexpr uint32_t kClasses = 2;

DecBboxAttr BoxAttr()
{
    DecBboxAttr attr = {};
    attr.classNum = kClasses;
    attr.clipBox = 1;
    attr.imageWidth = attr.imageHeight = 100;
    return attr;
}

void BoxInputs(Maker& make)
{
    make.InCompact({kBoxes, 8}, make.Numbers(8 * kBoxes));
    make.InCompact({kClasses * kBoxes}, make.Whole(kClasses * kBoxes, 2));
    make.In({4}, {0.5f, 0.1f, 1, 1}).In({1}, {kBoxes}).In({1, 1, 4, kBoxes}, make.Whole(4 * kBoxes, 90));
}

void DecBbox(Maker& make)
{
    BoxInputs(make);
    make.Out({1, kClasses, 5, kBoxes}).Attr(BoxAttr());
}

// Works on boxes that a layer before it left, and on the counts that came with them.
template <uint32_t stage>
void BoxStage(Maker& make)
{
    DetectionOutputAttr attr = {};
    attr.classNum = kClasses;
    attr.stage = stage;
    attr.classCapacity = kBoxes;
    attr.maxBoxNum = 4;
    const TensorRef boxes = make.Before("DecBboxOpkitForward", BoxAttr(), {1, kClasses, 5, kBoxes}, BoxInputs);
    make.Layer().Online(boxes);
    make.Out({1, kClasses, 5, kBoxes}).Attr(attr);
}

void NonMaxSuppression(Maker& make)
{
    NonMaxSuppressionAttr attr = {};
    attr.inputCount = 5;
    attr.centerPointBox = 1;
    make.In({1, 13, 4}).In({1, 2, 13}).In({1}, {4}).In({1}, {0.3f}).In({1}, {-1});
    make.Out({26, 3}).Attr(attr).Work(8 * 14);
}

void Loop(Maker& make)
{
    LoopAttr attr = {};
    attr.condition = -1;
    attr.tripCount = 3;
    attr.inputCursor = 1;
    attr.carriedNum = 1;
    attr.exitSegId = 0xFFFFFFFF;
    make.In({1}, {1}).In(kRows).In({1}, {1}).In(kRows);
    make.Out({1}).Out(kRows).Out(kRows).Attr(attr);
}

struct Row {
    const char* name;
    void (*fill)(Maker& make);
};

const Row kLayers[] = {
    {"Acos", Unary},
    {"Acosh", Unary},
    {"Argmin",
     [](Maker& make) {
         make.In(kRows).Out({2, 3, 1}).Attr(With(&ArgminAttr::axis, 2)).Work(8 * 37);
     }},
    {"Asin", Unary},
    {"Asinh", Unary},
    {"Atan", Unary},
    {"Atanh", Unary},
    {"BinaryMath", [](Maker& make) { Operands(make, With(&BinaryMathAttr::mathType, OPKIT_BINARY_DIV)); }},
    {"BitShift",
     [](Maker& make) {
         make.In(kRows, make.Whole(222, 1000))
             .In({37}, make.Whole(37, 9))
             .Out(kRows)
             .Attr(With(&BitShiftAttr::shiftLeft, 1));
     }},
    {"Celu", [](Maker& make) { UnaryWith(make, With(&CeluAttr::alpha, 1.5f)); }},
    {"Cmp", [](Maker& make) { Operands(make, With(&CmpAttr::cmpType, OPKIT_CMP_LESS)); }},
    {"Concat",
     [](Maker& make) {
         make.In(kRows)
             .In({2, 3, 5})
             .Out({2, 3, 42})
             .Attr(With(&ConcatAttr::concatInputCount, 2, &ConcatAttr::concatAxis, 2));
     }},
    {"Convolution", Convolution},
    {"Cos", Unary},
    {"Cosh", Unary},
    {"CumSum", [](Maker& make) { make.In(kRows).Out(kRows).Attr(With(&CumSumAttr::axis, 1)); }},
    {"Det",
     [](Maker& make) {
         make.In({5, 6, 6}).Out({5});
     }},
    {"Expand",
     [](Maker& make) {
         make.In({3, 1}).Out(kRows).Attr(ExpandAttr{});
     }},
    {"Eyelike",
     [](Maker& make) {
         make.In({5, 21}).Out({5, 21}).Attr(With(&EyelikeAttr::eyeK, 2));
     }},
    {"Gemm", Gemm},
    {"PoolingLp",
     [](Maker& make) {
         auto attr = Window<PoolingLpAttr>();
         attr.normP = 2;
         make.In({1, 2, 9, 37}).Out({1, 2, 8, 36}).Attr(attr);
     }},
    {"PoolingMax",
     [](Maker& make) {
         make.In({1, 2, 9, 37}).Out({1, 2, 8, 36}).Out({1, 2, 8, 36}).Attr(Window<PoolingMaxAttr>());
     }},
    {"Hardmax",
     [](Maker& make) { make.In(kRows).Out(kRows).Attr(With(&HardmaxAttr::axis, 2, &HardmaxAttr::opsetVersion, 13)); }},
    {"HardSigmoid",
     [](Maker& make) { UnaryWith(make, With(&HardSigmoidAttr::alpha, 0.2f, &HardSigmoidAttr::beta, 0.5f)); }},
    {"InstanceNormalization", InstanceNormalization},
    {"Logical", [](Maker& make) { Operands(make, With(&LogicalAttr::logicalType, OPKIT_LOGICAL_XOR)); }},
    {"LpNorm", [](Maker& make) { make.In(kRows).Out(kRows).Attr(With(&LpNormAttr::axis, 1, &LpNormAttr::p, 2)); }},
    {"MatMul",
     [](Maker& make) {
         make.In({2, 9, 21}).In({21, 37}).Out({2, 9, 37});
     }},
    {"MaxUnpool",
     [](Maker& make) {
         make.In({1, 2, 4, 9}).In({1, 2, 4, 9}, make.Whole(72, 144)).Out({1, 2, 8, 18});
     }},
    {"Mod", [](Maker& make) { Operands(make, With(&ModAttr::fmod, 1)); }},
    {"Neg", Unary},
    {"NonMaxSuppression", NonMaxSuppression},
    {"NonZero",
     [](Maker& make) {
         make.In({5, 7}, make.Whole(35, 3)).Out({2, 35});
     }},
    {"OneHot", OneHot},
    {"Pad", Pad},
    {"QLinearMatMul", QLinearMatMul},
    {"Reciprocal", Unary},
    {"Reduction", Reduction},
    {"Round", [](Maker& make) { UnaryWith(make, With(&RoundAttr::roundMode, OPKIT_ROUND_NEAREST)); }},
    {"Scatter",
     [](Maker& make) {
         make.In(kRows).In({2, 3, 5}, make.Whole(30, 37)).In({2, 3, 5}).Out(kRows);
         make.Attr(With(&ScatterAttr::scatterAxis, 2)).Work((30 + 6) * 4);
     }},
    {"Selu", [](Maker& make) { UnaryWith(make, With(&SeluAttr::alpha, 1.67f, &SeluAttr::gamma, 1.05f)); }},
    {"Shrink", [](Maker& make) { UnaryWith(make, With(&ShrinkAttr::bias, 0.25f, &ShrinkAttr::lambd, 0.5f)); }},
    {"Sigmoid", Unary},
    {"Sign", Unary},
    {"Sin", Unary},
    {"Sinh", Unary},
    {"Softplus", Unary},
    {"Softsign", Unary},
    {"Sqrt", [](Maker& make) { UnaryWith(make, SqrtAttr{}); }},
    {"Tan", Unary},
    {"ThresholdedRelu", [](Maker& make) { UnaryWith(make, With(&ThresholdedReluAttr::alpha, 0.5f)); }},
    {"TopK", TopK},
    {"Permute", Permute},
    {"Unique", Unique},
    {"Where",
     [](Maker& make) {
         make.In({37}, make.Whole(37, 2)).In(kRows).In({3, 1}).Out(kRows).Attr(With(&WhereAttr::inputCount, 3));
     }},
    {"DecBbox", DecBbox},
    {"FilterBox", BoxStage<OPKIT_STAGE_FILTER>},
    {"Sort", BoxStage<OPKIT_STAGE_SORT>},
    {"NMS", BoxStage<OPKIT_STAGE_NMS>},
    {"PoolingAve",
     [](Maker& make) {
         make.In({1, 2, 9, 37}).Out({1, 2, 8, 36}).Attr(Window<PoolingAveAttr>());
     }},
    {"Loop", Loop},
    {"If", [](Maker& make) { make.In({1}).Out({1}).Attr(With(&IfAttr::elseSegId, 0xFFFFFFFF)); }},
    {"ThenEnd", [](Maker& make) { make.In(kRows).Out(kRows).Attr(With(&ThenEndAttr::tensorNum, 1)); }},
    {"CondEnd",
     [](Maker& make) {
         make.In(kRows).In(kRows).Out(kRows).Attr(With(&CondEndAttr::tensorNum, 1, &CondEndAttr::ifBranch, 2));
     }},
    {"ElseBegin", [](Maker& make) { make.In(kRows).Out(kRows).Attr(With(&ElseBeginAttr::tensorNum, 1)); }},
    {"Resize", Resize},
    {"GatherElements",
     [](Maker& make) {
         make.In(kRows).In({2, 3, 5}, make.Whole(30, 37)).Out({2, 3, 5});
         make.Attr(With(&GatherElementsAttr::gatherAxis, 2));
     }},
    {"DepthToSpace",
     [](Maker& make) {
         make.In({1, 8, 3, 9}).Out({1, 2, 6, 18}).Attr(With(&DepthToSpaceAttr::blockSize, 2));
     }},
    {"Reshape",
     [](Maker& make) {
         ReshapeAttr attr = {};
         attr.reshapeDims[0] = 6;
         attr.reshapeDims[1] = 37;
         attr.reshapeDimCount = 2;
         make.In(kRows).Out({6, 37}).Attr(attr);
     }},
    {"Gather",
     [](Maker& make) {
         make.In(kRows).In({5}, make.Whole(5, 3)).Out({2, 5, 37}).Attr(With(&GatherAttr::gatherAxis, 1));
     }},
    {"GatherND",
     [](Maker& make) {
         make.In({5, 40}).In({3, 1}, make.Whole(3, 5)).OutCompact({3, 50}).Attr(With(&GatherNDAttr::gatherAxis, 0));
     }},
    {"ScatterND",
     [](Maker& make) {
         make.In({5, 37}).In({3, 1}, {1, 4, 0}).In({3, 37}).Out({5, 37}).Work((3 + 2) * 4);
     }},
};

}  // namespace

std::vector<SelftestLayer> SelftestLayers()
{
    std::vector<SelftestLayer> layers;
    for (const Row& row : kLayers) {
        Maker make((row.name + std::string("OpkitForward")).c_str());
        row.fill(make);
        layers.push_back(make.Finish());
    }
    return layers;
}

}  // namespace opkit::tools
