// Random valid layers of every operator of the table, for the tests of the model check.
#ifndef OPKIT_TESTS_MODELKIT_CHECK_CASES_H
#define OPKIT_TESTS_MODELKIT_CHECK_CASES_H

#include <algorithm>
#include <span>
#include <string>

#include "modelkit/check.h"
#include "opkit/opkit.h"
#include "tests/support/broadcast_shapes.h"
#include "tests/support/layer_case.h"
#include "tests/support/random.h"

namespace opkit::test {

struct CheckCase {
    const char* name;
    void (*fill)(class CaseMaker& maker);
};

// One entry per row of the operator table.
std::span<const CheckCase> CheckCases();

// What the check has to know about a request.
inline modelkit::CheckRequest RequestOf(const ForwardParam& param)
{
    modelkit::CheckRequest request;
    request.batch = param.inputs[0].batch;
    request.scratchSize = param.opkitBufSize;
    for (uint32_t i = 0; i < param.inputNum; ++i) {
        request.inputs.push_back({param.inputs[i].size, param.inputs[i].stride});
    }
    for (uint32_t i = 0; i < param.outputNum; ++i) {
        request.outputs.push_back({param.outputs[i].size, param.outputs[i].stride});
    }
    return request;
}

// Builds one layer; inputs are online or constants, in the request or in scratch, padded or not.
class CaseMaker {
public:
    CaseMaker(const char* name, Random& source) : random(source), layer(name) { layer.Batch(Int(1, 3)); }

    uint32_t Int(uint32_t low, uint32_t high)
    {
        return static_cast<uint32_t>(random.Int(static_cast<int32_t>(low), static_cast<int32_t>(high)));
    }
    // Ranks from 1 to maxRank, small dimensions; now and then rows of more than one vector.
    Shape Dims(uint32_t minRank, uint32_t maxRank)
    {
        Shape shape(Int(minRank, maxRank));
        for (uint32_t& dim : shape) {
            dim = Int(1, 4);
        }
        shape.back() = random.Chance(0.1) ? Int(10, 70) : Int(1, 9);
        return shape;
    }
    uint32_t Axis(const Shape& shape) { return Int(0, static_cast<uint32_t>(shape.size() - 1)); }

    // Returns the position among the online inputs, or -1 for a constant.
    int In(const Shape& shape, std::vector<float> data, bool mayBeConstant = true)
    {
        if (mayBeConstant && random.Chance(0.25)) {
            layer.Offline(shape, std::move(data));
            return -1;
        }
        CaseTensor tensor = Placed(shape);
        tensor.data = std::move(data);
        if (tensor.strideBytes != 0 && random.Chance(0.1)) {
            tensor.strideBytes = 4 * Int(1, 3);  // rows at multiples of less than a row
        }
        return AddOnline(std::move(tensor));
    }
    int In(const Shape& shape, Values values = Values::kBits)
    {
        return In(shape, random.Floats(ElementCount(shape), values));
    }
    // Rows that lie as far apart as the stride says.
    int InAligned(const Shape& shape, std::vector<float> data)
    {
        if (random.Chance(0.25)) {
            layer.Offline(shape, std::move(data));
            return -1;
        }
        CaseTensor tensor = Placed(shape);
        tensor.data = std::move(data);
        return AddOnline(std::move(tensor));
    }
    int InAligned(const Shape& shape) { return InAligned(shape, random.Floats(ElementCount(shape), Values::kBits)); }
    void Out(const Shape& shape) { layer.Output(Placed(shape)); }
    void OutCompact(const Shape& shape)
    {
        CaseTensor tensor = Placed(shape);
        tensor.strideBytes = 0;
        layer.Output(std::move(tensor));
    }
    // At times in the memory of an online input of the same shape, where that is scratch.
    void OutOrInPlace(const Shape& shape, int online)
    {
        if (online >= 0 && kinds_[static_cast<size_t>(online)] > OPKIT_MEM_REQUEST_1 && random.Chance(0.5) &&
            !narrow_[static_cast<size_t>(online)]) {
            layer.OutputInPlace(online, shape);
        } else {
            Out(shape);
        }
    }
    // Whole numbers from 0 to below `limit`, or beyond it now and then.
    std::vector<float> Indices(uint64_t count, uint32_t limit)
    {
        std::vector<float> indices(count);
        for (float& index : indices) {
            index = random.Chance(0.02) ? random.Float(Values::kMixed) : static_cast<float>(Int(0, limit - 1));
        }
        return indices;
    }
    void Work(uint64_t bytes) { layer.Workspace(static_cast<uint32_t>(bytes + 4 * Int(0, 3))); }

    Random& random;
    LayerCase layer;

private:
    int AddOnline(CaseTensor tensor)
    {
        kinds_.push_back(tensor.memKind);
        narrow_.push_back(tensor.strideBytes != 0 && tensor.strideBytes < tensor.shape.back() * 4);
        layer.Online(std::move(tensor));
        return static_cast<int>(kinds_.size()) - 1;
    }
    CaseTensor Placed(const Shape& shape)
    {
        CaseTensor tensor;
        tensor.shape = shape;
        tensor.strideBytes = random.Chance(0.3) ? 0 : random.Stride(shape.back());
        tensor.memKind = random.OneOf({0u, 0u, 1u, 2u, 3u, 7u});
        return tensor;
    }

    std::vector<uint32_t> kinds_;
    std::vector<bool> narrow_;
};

// One for each check of modelkit, under the same name.
namespace check_cases {

inline void InPlace(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const int in = make.In(shape, Values::kMixed);
    make.OutOrInPlace(shape, in);
}

inline constexpr auto Compacting = InPlace;
inline constexpr auto Expanding = InPlace;

inline void Stepping(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const int in = make.InAligned(shape);
    make.OutOrInPlace(shape, in);
}

inline void Celu(CaseMaker& make)
{
    Stepping(make);
    make.layer.Attr<CeluAttr>().alpha = 1.5f;
}

inline void Operands(CaseMaker& make, uint32_t count, Values values = Values::kBits)
{
    const Shape out = make.Dims(1, 4);
    int in = -1;
    for (uint32_t k = 0; k < count; ++k) {
        const Shape shape = OperandShape(make.random, out);
        const int online = make.In(shape, values);
        in = shape == out ? online : in;
    }
    make.OutOrInPlace(out, in);
}

inline void BinaryMath(CaseMaker& make)
{
    Operands(make, 2);
    make.layer.Attr<BinaryMathAttr>().mathType = make.Int(0, 4);
}

inline void BitShift(CaseMaker& make)
{
    Operands(make, 2, Values::kUnit);
    make.layer.Attr<BitShiftAttr>().shiftLeft = make.Int(0, 1) != 0;
}

inline void Cmp(CaseMaker& make)
{
    Operands(make, 2);
    make.layer.Attr<CmpAttr>().cmpType = make.Int(0, 6);
}

inline void Mod(CaseMaker& make)
{
    Operands(make, 2, Values::kIntegers);
    make.layer.Attr<ModAttr>().fmod = make.Int(0, 1) != 0;
}

inline void Logical(CaseMaker& make)
{
    const uint32_t type = make.Int(0, 4);
    Operands(make, type == OPKIT_LOGICAL_NOT ? 1 : 2);
    make.layer.Attr<LogicalAttr>().logicalType = type;
}

inline void Where(CaseMaker& make)
{
    Operands(make, 3);
    make.layer.Attr<WhereAttr>().inputCount = 3;
}

inline void Sqrt(CaseMaker& make)
{
    Operands(make, 1);
}

inline void Round(CaseMaker& make)
{
    Expanding(make);
    make.layer.Attr<RoundAttr>().roundMode = make.Int(0, 3);
}

// Matrices, some of them as a stack.
inline Shape Stack(const Shape& outer, uint32_t rows, uint32_t columns)
{
    Shape shape = outer;
    shape.push_back(rows);
    shape.push_back(columns);
    return shape;
}

inline void Gemm(CaseMaker& make)
{
    GemmAttr& attr = make.layer.Attr<GemmAttr>();
    const uint32_t M = make.Int(1, 9), N = make.Int(1, 19), K = make.Int(1, 9);
    attr.transA = make.Int(0, 1) != 0;
    attr.transB = make.Int(0, 1) != 0;
    attr.inputCount = make.Int(2, 3);
    attr.alpha = 0.5f;
    attr.beta = make.random.OneOf({0.0f, 1.0f, 2.0f});
    const Shape outer = make.random.Chance(0.5) ? Shape{} : make.Dims(1, 2);
    make.In(Stack(outer, attr.transA != 0 ? K : M, attr.transA != 0 ? M : K));
    make.In(Stack(outer, attr.transB != 0 ? N : K, attr.transB != 0 ? K : N));
    const Shape out = Stack(outer, M, N);
    if (attr.inputCount == 3) {
        make.In(OperandShape(make.random, out));
        make.Work(ElementCount(out) * 4);
    }
    make.Out(out);
}

inline void MatMul(CaseMaker& make)
{
    const uint32_t M = make.Int(1, 9), N = make.Int(1, 19), K = make.Int(1, 9);
    const uint32_t batches = make.Int(1, 4);
    const auto outer = [&] { return make.random.Chance(0.5) ? Shape{} : Shape{make.Int(1, batches)}; };
    make.In(Stack(outer(), M, K));
    make.In(Stack(outer(), K, N));
    make.Out(Stack({batches}, M, N));
}

inline void QLinearMatMul(CaseMaker& make)
{
    const int32_t inputCount = make.random.OneOf({2, 3, 4, 5, 8});
    make.layer.Attr<QLinearMatMulAttr>().inputCount = inputCount;
    const uint32_t M = make.Int(1, 9), N = make.Int(1, 9), K = make.Int(1, 9);
    const Shape a = Stack({}, M, K);
    const Shape b = Stack({}, K, N);
    make.In(a);
    if (inputCount == 8) {
        make.In({1});
        make.In({1});
    }
    make.In(b);
    for (int32_t k = inputCount == 8 ? 4 : 2; k < (inputCount > 4 ? 8 : inputCount); ++k) {
        make.In({1});
    }
    make.Out(Stack({make.Int(1, 3)}, M, N));
}

inline void Convolution(CaseMaker& make)
{
    ConvolutionAttr& attr = make.layer.Attr<ConvolutionAttr>();
    const uint32_t groups = make.Int(1, 3);
    const uint32_t images = make.Int(1, 2);
    attr.inputCount = make.random.OneOf({2u, 3u, 4u, 8u});
    attr.hasBias = make.Int(0, 1);
    attr.channels = groups * make.Int(1, 2);
    attr.kernelH = make.Int(1, 3);
    attr.kernelW = make.Int(1, 3);
    attr.dilationH = make.Int(1, 2);
    attr.dilationW = make.Int(1, 2);
    attr.padTop = make.Int(0, 2);
    attr.padBottom = make.Int(0, 2);
    attr.padLeft = make.Int(0, 2);
    attr.padRight = make.Int(0, 2);
    attr.strideH = make.Int(1, 3);
    attr.strideW = make.Int(1, 3);
    attr.height = (attr.kernelH - 1) * attr.dilationH + make.Int(1, 5);
    attr.width = (attr.kernelW - 1) * attr.dilationW + make.Int(1, 5);
    attr.outHeight =
        (attr.height + attr.padTop + attr.padBottom - (attr.kernelH - 1) * attr.dilationH - 1) / attr.strideH + 1;
    attr.outWidth =
        (attr.width + attr.padLeft + attr.padRight - (attr.kernelW - 1) * attr.dilationW - 1) / attr.strideW + 1;
    attr.colChannels = attr.channels * attr.kernelH * attr.kernelW;
    attr.groupNum = groups;
    attr.outChannels = groups * make.Int(1, 3);
    attr.gemmM = attr.outChannels / groups;
    attr.gemmN = attr.outHeight * attr.outWidth;
    attr.gemmK = attr.colChannels / groups;
    attr.outGroupOffset = attr.gemmM * attr.gemmN;
    attr.weightGroupOffset = attr.gemmM * attr.gemmK;
    attr.colGroupOffset = attr.gemmK * attr.gemmN;
    const bool quantised = attr.inputCount >= 5;
    // The bias step of few weights on a large plane would leave W.
    attr.hasBias = quantised && attr.gemmN <= attr.outChannels * attr.gemmK ? attr.hasBias : 0;
    const uint32_t inputs = quantised ? (attr.hasBias != 0 ? 9 : 8) : attr.inputCount;
    for (uint32_t k = 0; k < inputs; ++k) {
        if (k == 0) {
            make.In({images, attr.channels, attr.height, attr.width});
        } else if (k == (quantised ? 3u : 1u)) {
            make.In({attr.outChannels, attr.channels / groups, attr.kernelH, attr.kernelW});
        } else {
            make.In({1}, Values::kIntegers);
        }
    }
    make.Out({images, attr.outChannels, attr.outHeight, attr.outWidth});
    make.Work((uint64_t{attr.gemmN} * attr.colChannels + attr.gemmN) * 4);
}

inline void Det(CaseMaker& make)
{
    const uint32_t n = make.Int(1, 6), count = make.Int(1, 5);
    make.In({count, n, n}, Values::kPlain);
    make.Out({count});
}

struct Window {
    Shape in, out;
    uint32_t kernel[2], stride[2], pad[2];
};

inline Window PoolWindow(CaseMaker& make)
{
    Window window;
    const uint32_t images = make.Int(1, 2), channels = make.Int(1, 3);
    window.in = {images, channels, make.Int(1, 9), make.Int(1, 40)};
    window.out = {images, channels};
    for (size_t axis = 0; axis < 2; ++axis) {
        window.kernel[axis] = make.Int(1, 4);
        window.stride[axis] = make.Int(1, 3);
        window.pad[axis] = make.Int(0, 2);
        window.out.push_back((window.in[2 + axis] + window.pad[axis]) / window.stride[axis] + make.Int(0, 1));
        window.out.back() = std::max(window.out.back(), 1u);
    }
    return window;
}

template <class Attr>
Window Pooling(CaseMaker& make)
{
    const Window window = PoolWindow(make);
    Attr& attr = make.layer.Attr<Attr>();
    attr.kernelH = window.kernel[0];
    attr.kernelW = window.kernel[1];
    attr.strideH = window.stride[0];
    attr.strideW = window.stride[1];
    attr.padTop = window.pad[0];
    attr.padLeft = window.pad[1];
    make.In(window.in);
    make.Out(window.out);
    return window;
}

inline void PoolingAve(CaseMaker& make)
{
    Pooling<PoolingAveAttr>(make);
    make.layer.Attr<PoolingAveAttr>().countIncludePad = make.Int(0, 1) != 0;
}

inline void PoolingMax(CaseMaker& make)
{
    const Window window = Pooling<PoolingMaxAttr>(make);
    if (make.random.Chance(0.5)) {
        make.Out(window.out);
    }
}

inline void PoolingLp(CaseMaker& make)
{
    Pooling<PoolingLpAttr>(make);
    make.layer.Attr<PoolingLpAttr>().normP = make.Int(1, 3);
}

inline void MaxUnpool(CaseMaker& make)
{
    const Shape in = {make.Int(1, 2), make.Int(1, 3), make.Int(1, 4), make.Int(1, 9)};
    const Shape out = {in[0], in[1], in[2] * 2, in[3] * 2};
    make.In(in);
    make.In(in, make.Indices(ElementCount(in), out[2] * out[3]));
    make.Out(out);
}

inline void InstanceNormalization(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 5);
    const size_t rank = shape.size();
    const uint32_t channels = rank >= 4 ? shape[rank - 3] : rank == 3 ? shape[1] : 1;
    const int in = make.In(shape);
    make.In({channels});
    make.In({channels});
    make.OutOrInPlace(shape, in);
    make.Work(ElementCount(shape) * 4);
}

inline void LpNorm(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const int32_t rank = static_cast<int32_t>(shape.size());
    make.layer.Attr<LpNormAttr>().axis = make.random.Int(-rank, rank - 1);
    make.layer.Attr<LpNormAttr>().p = make.random.Int(0, 3);
    make.In(shape);
    make.Out(shape);
}

inline void Reduction(CaseMaker& make)
{
    ReductionAttr& attr = make.layer.Attr<ReductionAttr>();
    const Shape shape = make.Dims(1, 5);
    Shape out;
    attr.reductionType = make.Int(0, 10);
    attr.reduceAll = make.random.Chance(0.2);
    for (uint32_t d = 0; d < shape.size(); ++d) {
        const bool reduced = attr.reduceAll != 0 || make.random.Chance(0.5);
        out.push_back(reduced ? 1 : shape[d]);
        if (reduced && attr.reduceAll == 0) {
            attr.axes[attr.axesNum++] = d;
        }
    }
    std::fill(attr.axes + attr.axesNum, attr.axes + 10, attr.axesNum != 0 ? attr.axes[0] : 10);
    make.In(shape);
    make.Out(out);
    make.Work(8 * shape.size());
}

inline void CumSum(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    CumSumAttr& attr = make.layer.Attr<CumSumAttr>();
    attr.axis = static_cast<int32_t>(make.Axis(shape));
    attr.reverse = make.Int(0, 1);
    attr.exclusive = make.Int(0, 1);
    const int in = make.In(shape);
    make.OutOrInPlace(shape, in);
}

inline void Argmin(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const uint32_t axis = make.Axis(shape);
    make.layer.Attr<ArgminAttr>().axis = static_cast<int32_t>(axis);
    Shape out = shape;
    out[axis] = 1;
    make.In(shape);
    make.Out(out);
    make.Work(8 * shape[axis]);
}

inline void Hardmax(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const int32_t rank = static_cast<int32_t>(shape.size());
    make.layer.Attr<HardmaxAttr>().axis = make.random.Int(-rank, rank - 1);
    make.layer.Attr<HardmaxAttr>().opsetVersion = make.random.OneOf({11, 13});
    make.In(shape);
    make.Out(shape);
}

inline void TopK(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    const uint32_t axis = make.Axis(shape);
    const uint32_t k = make.Int(1, shape[axis]);
    TopKAttr& attr = make.layer.Attr<TopKAttr>();
    const bool fromInput = make.random.Chance(0.2);
    attr.k = fromInput ? OPKIT_TOPK_K_FROM_INPUT : k;
    attr.axis = static_cast<int32_t>(axis);
    attr.largest = make.Int(0, 1);
    attr.hasValues = make.Int(0, 1);
    attr.hasIndices = attr.hasValues == 0 ? 1 : make.Int(0, 1);
    Shape out = shape;
    out[axis] = k;
    make.In(shape, make.random.Floats(ElementCount(shape), Values::kMixed), !fromInput);
    if (fromInput) {
        make.layer.Online({1}, {static_cast<float>(k)});
    }
    make.Out(out);
    if (attr.hasValues != 0 && attr.hasIndices != 0) {
        make.Out(out);
    }
    make.Work(8 * shape[axis]);
}

inline void NonZero(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 4);
    make.In(shape, Values::kIntegers);
    make.Out({static_cast<uint32_t>(shape.size()), static_cast<uint32_t>(ElementCount(shape))});
}

inline void Unique(CaseMaker& make)
{
    const Shape shape = make.Dims(1, 3);
    const bool flat = make.random.Chance(0.4);
    const uint32_t axis = make.Axis(shape);
    UniqueAttr& attr = make.layer.Attr<UniqueAttr>();
    attr.axis = flat ? OPKIT_UNIQUE_FLAT : static_cast<int32_t>(axis);
    attr.sorted = make.Int(0, 2);
    const uint32_t count = flat ? static_cast<uint32_t>(ElementCount(shape)) : shape[axis];
    make.In(shape, Values::kIntegers);
    make.Out(flat ? Shape{count} : shape);
    for (int i = 0; i < 3; ++i) {
        make.Out({count});
    }
}

inline void Concat(CaseMaker& make)
{
    Shape out = make.Dims(1, 4);
    const uint32_t axis = make.Axis(out);
    const uint32_t inputs = make.Int(1, 4);
    Shape shape = out;
    out[axis] = 0;
    for (uint32_t k = 0; k < inputs; ++k) {
        shape[axis] = make.Int(1, 4);
        out[axis] += shape[axis];
        make.In(shape);
    }
    make.Out(out);
    make.layer.Attr<ConcatAttr>() = {.head = {}, .concatInputCount = inputs, .concatAxis = static_cast<int32_t>(axis)};
}

inline void Expand(CaseMaker& make)
{
    const Shape out = make.Dims(1, 4);
    make.In(OperandShape(make.random, out));
    make.Out(out);
    make.layer.Attr<ExpandAttr>();
}

inline void Reshape(CaseMaker& make)
{
    const Shape in = make.Dims(1, 4);
    const uint32_t count = static_cast<uint32_t>(ElementCount(in));
    uint32_t width = make.Int(1, count);
    while (count % width != 0) {
        --width;
    }
    const Shape out = {count / width, width};
    make.In(in, make.random.Floats(count, Values::kBits), false);
    make.Out(out);
    ReshapeAttr& attr = make.layer.Attr<ReshapeAttr>();
    std::copy(out.begin(), out.end(), attr.reshapeDims);
    attr.reshapeDimCount = 2;
}

inline void Permute(CaseMaker& make)
{
    const Shape in = make.Dims(1, 4);
    const uint32_t rank = static_cast<uint32_t>(in.size());
    PermuteAttr& attr = make.layer.Attr<PermuteAttr>();
    attr.permDimCount = attr.permOutDimCount = attr.permLength = rank;
    for (uint32_t d = 0; d < rank; ++d) {
        attr.perm[d] = d;
    }
    for (uint32_t d = rank; d-- > 1;) {
        std::swap(attr.perm[d], attr.perm[make.Int(0, d)]);
    }
    Shape out;
    for (uint32_t d = 0; d < rank; ++d) {
        out.push_back(in[attr.perm[d]]);
    }
    make.In(in);
    make.Out(out);
    make.Work(8 * rank);
}

inline void DepthToSpace(CaseMaker& make)
{
    const uint32_t block = make.Int(1, 3);
    const Shape in = {make.Int(1, 2), block * block * make.Int(1, 2), make.Int(1, 4), make.Int(1, 9)};
    make.In(in, make.random.Floats(ElementCount(in), Values::kBits), false);
    make.Out({in[0], in[1] / (block * block), in[2] * block, in[3] * block});
    make.layer.Attr<DepthToSpaceAttr>().blockSize = block;
    make.layer.Attr<DepthToSpaceAttr>().depthToSpaceMode = make.Int(0, 1);
}

inline void Eyelike(CaseMaker& make)
{
    const Shape shape = make.Dims(2, 2);
    make.In(shape);
    make.Out(shape);
    make.layer.Attr<EyelikeAttr>().eyeK = make.random.Int(-3, 3);
}

inline void OneHot(CaseMaker& make)
{
    Shape out = make.Dims(1, 4);
    const uint32_t axis = make.Axis(out);
    Shape indices = out;
    indices[axis] = 1;
    make.In(indices, make.Indices(ElementCount(indices), out[axis]));
    make.layer.Flag(1, '0');  // not looked at
    CaseTensor values;
    values.shape = {2};
    values.data = {0, 1};
    make.layer.Online(values);
    // The values' own flag is that of logical input 2.
    make.layer.Flag(2, '0');
    make.Out(out);
    make.layer.Attr<OneHotAttr>().oneHotAxis = static_cast<int32_t>(axis);
}

inline void Gather(CaseMaker& make)
{
    const Shape data = make.Dims(1, 4);
    const Shape indices = make.Dims(1, 2);
    const uint32_t axis = make.Axis(data);
    make.InAligned(data);
    make.InAligned(indices, make.Indices(ElementCount(indices), data[axis]));
    Shape out(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(axis));
    out.insert(out.end(), indices.begin(), indices.end());
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(axis) + 1, data.end());
    make.Out(out);
    make.layer.Attr<GatherAttr>().gatherAxis = axis;
}

inline void GatherElements(CaseMaker& make)
{
    const Shape data = make.Dims(1, 4);
    const uint32_t axis = make.Axis(data);
    Shape indices = data;
    indices[axis] = make.Int(1, 5);
    make.In(data);
    make.In(indices, make.Indices(ElementCount(indices), data[axis]));
    make.Out(indices);
    make.layer.Attr<GatherElementsAttr>().gatherAxis = static_cast<int32_t>(axis);
}

inline void GatherND(CaseMaker& make)
{
    const Shape data = make.Dims(1, 4);
    const uint32_t rank = static_cast<uint32_t>(data.size());
    const uint32_t batchDims = make.Int(0, std::min(rank - 1, 1u));
    const uint32_t length = make.Int(1, rank - batchDims);
    Shape indices(data.begin(), data.begin() + batchDims);
    indices.push_back(make.Int(1, 5));
    indices.push_back(length);
    make.InAligned(data);
    std::vector<float> values;
    for (uint64_t t = 0; t < ElementCount(indices) / length; ++t) {
        for (uint32_t i = 0; i < length; ++i) {
            values.push_back(static_cast<float>(make.Int(0, data[batchDims + i] - 1)));
        }
    }
    make.InAligned(indices, values);
    Shape out(indices.begin(), indices.end() - 1);
    out.insert(out.end(), data.begin() + batchDims + length, data.end());
    // Slices bring their rows' padding along.
    const uint32_t tuples = static_cast<uint32_t>(ElementCount(indices) / length);
    const Shape inner(data.begin() + batchDims + length, data.end());
    make.OutCompact({tuples, static_cast<uint32_t>(ElementCount(inner)) * 32 + 8});
    make.layer.Attr<GatherNDAttr>().gatherAxis = static_cast<int32_t>(batchDims);
}

inline void Scatter(CaseMaker& make)
{
    const Shape data = make.Dims(1, 4);
    const uint32_t axis = make.Axis(data);
    Shape updates = data;
    for (uint32_t& dim : updates) {
        dim = make.Int(1, dim);
    }
    updates[axis] = make.Int(1, 5);
    const int in = make.In(data);
    make.In(updates, make.Indices(ElementCount(updates), data[axis]));
    make.In(updates);
    make.OutOrInPlace(data, in);
    make.layer.Attr<ScatterAttr>().scatterAxis = static_cast<int32_t>(axis);
    make.Work((ElementCount(updates) + 2 * data.size()) * 4);
}

inline void ScatterND(CaseMaker& make)
{
    const Shape data = make.Dims(1, 4);
    const uint32_t rank = static_cast<uint32_t>(data.size());
    const uint32_t length = make.Int(1, rank);
    Shape indices = make.random.Chance(0.8) ? Shape{make.Int(1, 5)} : Shape{make.Int(1, 2), make.Int(1, 3)};
    Shape updates = indices;
    updates.insert(updates.end(), data.begin() + length, data.end());
    indices.push_back(length);
    CaseTensor tensor;
    tensor.shape = data;
    tensor.strideBytes = make.random.Stride(data.back());
    tensor.data = make.random.Floats(ElementCount(data), Values::kBits);
    const uint32_t stride = tensor.strideBytes;
    make.layer.Online(tensor);
    std::vector<float> values;
    for (uint64_t i = 0; i < ElementCount(indices); ++i) {
        values.push_back(static_cast<float>(make.Int(0, data[i % length] - 1)));
    }
    make.In(indices, values);
    make.InAligned(updates);
    make.layer.Output(data, stride + (make.random.Chance(0.3) ? 16 : 0));
    make.Work((ElementCount(indices) / length + rank) * 4);
}

inline void Pad(CaseMaker& make)
{
    Shape shape = make.Dims(1, 4);
    if (make.random.Chance(0.5)) {
        shape.back() = 4 * make.Int(1, 3);
    }
    const uint32_t rank = static_cast<uint32_t>(shape.size());
    PadAttr& attr = make.layer.Attr<PadAttr>();
    attr.padCount = attr.padCountCheck = 2 * rank;
    attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = static_cast<int32_t>(rank);
    attr.reshapedPadsSize = attr.reshapedSlicesSize = static_cast<int32_t>(2 * rank);
    attr.inputStartsSize = attr.inputExtentsSize = static_cast<int32_t>(rank);
    attr.padMode = make.Int(0, 3);
    attr.padConstant = 0.5f;
    Shape out = shape;
    const uint32_t untouched = make.Int(0, rank);
    for (uint32_t d = 0; d + untouched < rank; ++d) {
        const int32_t dim = static_cast<int32_t>(shape[d]);
        attr.padsAttr[d] = make.random.Int(make.random.Chance(0.3) ? -((dim - 1) / 2) : 0, 3);
        attr.padsAttr[rank + d] = make.random.Int(make.random.Chance(0.3) ? -((dim - 1) / 2) : 0, 3);
        out[d] += static_cast<uint32_t>(attr.padsAttr[d] + attr.padsAttr[rank + d]);
    }
    make.InAligned(shape);
    make.Out(out);
    make.Work(uint64_t{5 * rank + 8 * rank + 4 * rank} * 4);
}

inline void Resize(CaseMaker& make)
{
    const Shape in = {make.Int(1, 2), make.Int(1, 2), make.Int(1, 6), make.Int(1, 9)};
    ResizeAttr& attr = make.layer.Attr<ResizeAttr>();
    Shape out = in;
    for (size_t d = 0; d < 4; ++d) {
        attr.scales[d] = 1;
        if (d >= 2) {
            out[d] = make.Int(1, 12);
            attr.scales[d] = static_cast<float>(out[d]) / static_cast<float>(in[d]);
        }
    }
    attr.resizeMode = make.Int(0, 2);
    attr.coordinateMode = make.Int(0, 6);
    attr.nearestMode = make.Int(0, 5);
    attr.extrapolate = make.Int(0, 1);
    attr.hasRoi = make.Int(0, 1);
    attr.roiCount = make.random.OneOf({0u, 11u});
    attr.roi[0] = 0.25f;
    const bool regionInput = make.random.Chance(0.3);
    make.In(in);
    if (regionInput) {
        attr.roi[0] = 0;
        make.In({8}, Values::kUnit);
    } else if (make.random.Chance(0.3)) {  // scales from an input; -1 marks it
        attr.hasRoi = 0;
        make.In({4}, std::vector<float>(attr.scales, attr.scales + 4));
        attr.scales[0] = -1;
    }
    make.Out(out);
}

inline void DecBbox(CaseMaker& make)
{
    DecBboxAttr& attr = make.layer.Attr<DecBboxAttr>();
    const uint32_t n = make.Int(1, 9);
    attr.classNum = make.Int(1, 4);
    attr.hasClassId = make.Int(0, 2);
    attr.clipBox = make.Int(0, 1);
    attr.imageWidth = attr.imageHeight = 100;
    attr.mergeClasses = make.Int(0, 1);
    const uint32_t fields = attr.hasClassId != 0 ? 6 : 5;
    make.layer.Online({n, 8}, make.random.Floats(size_t{8} * n, Values::kPlain));
    const uint32_t scores = attr.classNum * n + 1;
    make.layer.Online({scores}, make.random.Floats(scores, Values::kUnit));
    make.In({4}, Values::kUnit);
    make.In({1}, {static_cast<float>(make.Int(0, n))});
    make.In({1, 1, 4, n}, Values::kPlain);
    make.Out({1, std::max(attr.classNum, 2u) * (attr.mergeClasses != 0 ? n : 1), fields, n});
}

inline void DetectionOutput(CaseMaker& make)
{
    DetectionOutputAttr& attr = make.layer.Attr<DetectionOutputAttr>();
    attr.classNum = make.Int(1, 3);
    attr.hasClassId = make.Int(0, 1);
    attr.stage = make.Int(0, 3);
    attr.classCapacity = make.Int(2, 6);
    attr.maxBoxNum = make.Int(0, 4);
    attr.packOutput = make.Int(0, 1);
    attr.writeCount = make.Int(0, 1);
    const uint32_t fields = attr.hasClassId != 0 ? 6 : 5;
    const uint32_t width = attr.classCapacity * (attr.packOutput + attr.writeCount != 0 ? attr.classNum : 1);
    make.In({1, attr.classNum, fields, attr.classCapacity}, Values::kPlain);
    make.Out({1, attr.classNum, fields, width});
    if (attr.writeCount != 0) {
        make.Out({attr.classNum});
    }
    make.layer.Batch(1);  // a second item would begin with the counts that the first one leaves
}

inline void NonMaxSuppression(CaseMaker& make)
{
    const uint32_t batches = make.Int(1, 2), boxes = make.Int(1, 7), classes = make.Int(1, 3);
    NonMaxSuppressionAttr& attr = make.layer.Attr<NonMaxSuppressionAttr>();
    attr.inputCount = make.random.Int(2, 5);
    attr.centerPointBox = make.Int(0, 1);
    make.In({batches, boxes, 4}, Values::kUnit);
    make.In({batches, classes, boxes}, Values::kUnit);
    for (int32_t k = 2; k < attr.inputCount; ++k) {
        make.In({1}, Values::kUnit);
    }
    make.Out({batches * classes * boxes, 3});
    make.Work(8 * (boxes + 1));
}

inline void If(CaseMaker& make)
{
    IfAttr& attr = make.layer.Attr<IfAttr>();
    attr.hasSecondOperand = make.Int(0, 1) != 0;
    attr.cmpType = make.Int(0, 1);
    attr.elseSegId = 0xFFFFFFFF;
    make.In(make.Dims(1, 2));
    if (attr.hasSecondOperand != 0) {
        make.In(make.Dims(1, 2));
    }
    make.Out({1});
}

inline void Passed(CaseMaker& make, uint32_t inputs, uint32_t outputs)
{
    const Shape shape = make.Dims(1, 3);
    for (uint32_t i = 0; i < inputs; ++i) {
        make.In(shape);
    }
    for (uint32_t i = 0; i < outputs; ++i) {
        make.Out(shape);
    }
}

inline void ThenEnd(CaseMaker& make)
{
    const uint32_t count = make.Int(0, 3);
    Passed(make, count, count);
    make.layer.Attr<ThenEndAttr>().tensorNum = static_cast<int32_t>(count);
}

inline void ElseBegin(CaseMaker& make)
{
    const uint32_t count = make.Int(0, 3);
    Passed(make, count, count);
    make.layer.Attr<ElseBeginAttr>().tensorNum = static_cast<int32_t>(count);
}

inline void CondEnd(CaseMaker& make)
{
    CondEndAttr& attr = make.layer.Attr<CondEndAttr>();
    const uint32_t count = make.Int(1, 3);
    attr.tensorNum = count;
    switch (make.Int(0, 2)) {
        case 0:
            attr.ifBranch = make.Int(1, 2);
            return Passed(make, 2 * count, count);
        case 1:
            attr.loopBranch = 1;
            attr.condValue = make.random.OneOf({OPKIT_COND_FROM_INPUT, 0u, 1u});
            return Passed(make, count, count);
        default:
            attr.scanBranch = 1;
            return Passed(make, count, count);
    }
}

inline void Loop(CaseMaker& make)
{
    LoopAttr& attr = make.layer.Attr<LoopAttr>();
    const uint32_t carried = make.Int(0, 3);
    attr.condition = make.random.OneOf({-1, -1, 0, 1});
    attr.tripCount = make.random.OneOf({int64_t{-1}, int64_t{0}, int64_t{1}, int64_t{4}});
    attr.inputCursor = 1;
    attr.carriedNum = carried;
    attr.exitSegId = 0xFFFFFFFF;
    const Shape shape = make.Dims(1, 3);
    // A place for the trip count, the first condition, the first values, and the same from the body.
    for (uint32_t i = 0; i < 1 + 2 * (1 + carried); ++i) {
        make.In(shape, make.random.Floats(ElementCount(shape), Values::kIntegers), false);
    }
    for (uint32_t i = 0; i < 1 + 2 * carried; ++i) {
        make.Out(shape);
    }
    make.layer.Batch(make.Int(1, 6));
}

inline void Custom(CaseMaker& make)
{
    CustomAttr& attr = make.layer.Attr<CustomAttr>();
    attr.totalInputNum = 2;
    std::copy_n("Nothing", 8, attr.funcName);
    attr.fixedSize = 8;
    make.In({3});
    make.In({2});
    make.Out({4});
}

inline constexpr CheckCase kAll[] = {
#define OPKIT_OPERATOR(name, forward, record, check) {#name "OpkitForward", check},
#include "opkit/operators.def"
};

}  // namespace check_cases

inline std::span<const CheckCase> CheckCases()
{
    return check_cases::kAll;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_MODELKIT_CHECK_CASES_H
