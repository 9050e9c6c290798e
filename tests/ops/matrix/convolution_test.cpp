#include <bit>

#include "opkit/attributes/matrix.h"
#include "ops/matrix/im2col.h"
#include "tests/ops/matrix/matrix_cases.h"
#include "tests/reference/convolution.h"
#include "tests/support/overlap.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;

constexpr const char* kName = "ConvolutionOpkitForward";
constexpr const char* kInteger = "ConvIntegerForward";
constexpr const char* kQuantized = "QLinearConvForward";

// A convolution as a model compiler sees it.
struct Problem {
    uint32_t images = 1;
    uint32_t channels = 1;
    uint32_t size[2] = {3, 3};
    uint32_t kernel[2] = {2, 2};
    uint32_t pad[4] = {0, 0, 0, 0};
    uint32_t stride[2] = {1, 1};
    uint32_t dilation[2] = {1, 1};
    uint32_t groups = 1;
    uint32_t outChannels = 1;

    uint32_t Positions(int axis) const
    {
        const int32_t positions =
            RefPositions(size[axis], pad[2 * axis], pad[2 * axis + 1], kernel[axis], dilation[axis], stride[axis]);
        return positions < 0 ? 0 : static_cast<uint32_t>(positions);
    }
    Shape Images() const { return {images, channels, size[0], size[1]}; }
    Shape Weights() const { return {outChannels, channels / groups, kernel[0], kernel[1]}; }
    Shape Result() const { return {images, outChannels, Positions(0), Positions(1)}; }
};

LayerCase Case(uint32_t inputCount, const Problem& p)
{
    LayerCase layer(kName);
    ConvolutionAttr& attr = layer.Attr<ConvolutionAttr>();
    const uint32_t plane = p.Positions(0) * p.Positions(1);
    attr.inputCount = inputCount;
    attr.channels = p.channels;
    attr.height = p.size[0];
    attr.width = p.size[1];
    attr.kernelH = p.kernel[0];
    attr.kernelW = p.kernel[1];
    attr.padTop = p.pad[0];
    attr.padBottom = p.pad[1];
    attr.padLeft = p.pad[2];
    attr.padRight = p.pad[3];
    attr.strideH = p.stride[0];
    attr.strideW = p.stride[1];
    attr.dilationH = p.dilation[0];
    attr.dilationW = p.dilation[1];
    attr.outHeight = p.Positions(0);
    attr.outWidth = p.Positions(1);
    attr.colChannels = p.channels * p.kernel[0] * p.kernel[1];
    attr.groupNum = p.groups;
    attr.outChannels = p.outChannels;
    attr.gemmM = p.outChannels / p.groups;
    attr.gemmN = plane;
    attr.gemmK = attr.colChannels / p.groups;
    attr.outGroupOffset = attr.gemmM * attr.gemmN;
    attr.weightGroupOffset = attr.gemmM * attr.gemmK;
    attr.colGroupOffset = attr.gemmK * attr.gemmN;
    layer.Workspace((plane * attr.colChannels + 2 * plane) * 4 + 64);
    return layer;
}

void FillWorkSpace(World& world, float value)
{
    float* const space = static_cast<float*>(world.Param().opkitBuf);
    std::fill(space, space + world.Param().opkitBufSize / sizeof(float), value);
}

// X = 1 to 9 as 3 x 3, W = ((1, 0), (0, 1)); the plain result is ((6, 8), (12, 14)).
const Floats kX = {1, 2, 3, 4, 5, 6, 7, 8, 9};
const Floats kW = {1, 0, 0, 1};

LayerCase IntegerCase(uint32_t inputCount, Floats zeroPoints, const Floats& oldResult = {})
{
    LayerCase layer = Case(inputCount, {});
    layer.Online({1, 1, 3, 3}, kX, 16).Offline({1, 1, 2, 2}, kW);
    for (const float zero : zeroPoints) {
        layer.Online({1}, {zero});
    }
    return layer.Output(Holding({1, 1, 2, 2}, oldResult));
}

TEST(Convolution, IntegerForm)
{
    for (const uint32_t count : {0u, 1u, 2u}) {
        ExpectOutput(IntegerCase(count, {}, {kNan, 1, 2, 3}), ConvolutionOpkitForward, {6, 8, 12, 14});
        ExpectOutput(IntegerCase(count, {99, 99}), ConvolutionOpkitForward, {6, 8, 12, 14});  // not read
    }
    ExpectOutput(IntegerCase(3, {2.7f}, {kNan, 1, 2, 3}), ConvolutionOpkitForward, {2, 4, 8, 10});
    ExpectOutput(IntegerCase(3, {2.0f, 99}), ConvolutionOpkitForward, {2, 4, 8, 10});
    // sums of the columns: 12, 16, 24, 28
    ExpectOutput(IntegerCase(4, {0, 1}, {kNan, 1, 2, 3}), ConvolutionOpkitForward, {-6, -8, -12, -14});
    // both: four times the product of the zero points of what was there, minus both corrections
    ExpectOutput(IntegerCase(4, {2, 1}, {1, 0, -1, 10}), ConvolutionOpkitForward,
                 {8 + 6 - 12 - 4, 8 - 16 - 4, -8 + 12 - 24 - 4, 80 + 14 - 28 - 4});
    // hasBias belongs to the other form
    LayerCase bias = IntegerCase(2, {});
    bias.Attr<ConvolutionAttr>().hasBias = 1;
    ExpectOutput(bias, ConvolutionOpkitForward, {6, 8, 12, 14});
}

TEST(Convolution, PaddingTakesTheWholeZeroPointAndTheProductItsByte)
{
    const Problem p = {.size = {1, 1}, .kernel = {1, 2}, .pad = {0, 0, 1, 0}};
    for (const auto& [zero, padding, byte] :
         {std::tuple{-3.0f, -3.0f, 253.0f}, {300.9f, 300.0f, 44.0f}, {-0.9f, 0.0f, 0.0f}, {128.0f, 128.0f, 128.0f}}) {
        LayerCase layer = Case(3, p);
        layer.Online({1, 1, 1, 1}, {10}).Offline({1, 1, 1, 2}, {2, 3}).Online({1}, {zero}).Output({1, 1, 1, 1});
        ExpectOutput(layer, ConvolutionOpkitForward, {2 * padding + 3 * 10 - 5 * byte});
    }
    for (const float zero : {kNan, 3e9f, -kInf}) {  // no i32: the lowest one, whose low byte is 0
        LayerCase layer = Case(3, p);
        layer.Online({1, 1, 1, 1}, {10}).Offline({1, 1, 1, 2}, {1, 1}).Online({1}, {zero}).Output({1, 1, 1, 1});
        ExpectOutput(layer, ConvolutionOpkitForward, {-2147483648.0f});
    }
}

// x scale, x zero point, w scale, w zero point, y scale, y zero point
LayerCase QuantizedCase(uint32_t inputCount, const Problem& p, const Floats& x, const Floats& w, const Floats& values,
                        const Floats& oldResult = {})
{
    LayerCase layer = Case(inputCount, p);
    layer.Online(p.Images(), x, 4 * p.size[1] + 4).Online({1}, {values[0]}).Offline({1}, {values[1]});
    layer.Online(p.Weights(), w, 4 * p.kernel[1] + 4).Online({2}, {values[2], 77}, 16).Online({1}, {values[3]});
    layer.Offline({1}, {values[4]}).Online({1}, {values[5]});
    return layer.Output(Holding(p.Result(), oldResult));
}

TEST(Convolution, QuantizedForm)
{
    for (const uint32_t count : {5u, 8u, 9u, 0xFFFFFFFFu}) {
        ExpectOutput(QuantizedCase(count, {}, kX, kW, {1.9f, 0, 2.5f, 0, 3.99f, 4.2f}, {kNan, 1, 2, 3}),
                     ConvolutionOpkitForward, {6 * 2 * 3 - 4, 8 * 2 * 3 - 4, 12 * 2 * 3 - 4, 14 * 2 * 3 - 4});
    }
    // a scale below 1 is 0: only the corrections stay, by the other scale
    ExpectOutput(QuantizedCase(5, {}, kX, kW, {0.02f, 5, 2, 0, 1, 0}), ConvolutionOpkitForward, {-20, -20, -20, -20});
    ExpectOutput(QuantizedCase(5, {}, kX, kW, {2, 0, 0.99f, 5, 1, 1}), ConvolutionOpkitForward,
                 {-12 * 10 - 1, -16 * 10 - 1, -24 * 10 - 1, -28 * 10 - 1});
    // -1 is 255, 257 is 1
    ExpectOutput(QuantizedCase(5, {}, kX, kW, {-1, 0, 257, 0, 1, -1}), ConvolutionOpkitForward,
                 {6 * 255 - 255, 8 * 255 - 255, 12 * 255 - 255, 14 * 255 - 255});
    // both zero points: the old result, 4 * 1 * 2 times
    ExpectOutput(
        QuantizedCase(5, {}, kX, kW, {3, 2, 1, 1, 2, 1}, {1, 0, -1, 10}), ConvolutionOpkitForward,
        {(8 + 18 - 36 - 4) * 2 - 1, (24 - 48 - 4) * 2 - 1, (-8 + 36 - 72 - 4) * 2 - 1, (80 + 42 - 84 - 4) * 2 - 1});
}

TEST(Convolution, GroupsAndImages)
{
    const Problem p = {.images = 2, .channels = 2, .size = {1, 2}, .kernel = {1, 1}, .groups = 2, .outChannels = 4};
    LayerCase layer = Case(2, p);
    layer.Online(p.Images(), {1, 2, 3, 4, 5, 6, 7, 8}, 16).Offline(p.Weights(), {1, 10, 100, 1000});
    layer.Output(p.Result(), 12);
    ExpectOutput(layer, ConvolutionOpkitForward,
                 {1, 2, 10, 20, 300, 400, 3000, 4000, 5, 6, 50, 60, 700, 800, 7000, 8000});
}

// A kernel of one place needs no column matrix, unless the result goes where the image is.
TEST(Convolution, OnePlaceInPlace)
{
    const Problem p = {.images = 2, .channels = 2, .size = {1, 3}, .kernel = {1, 1}, .outChannels = 2};
    LayerCase layer = Case(2, p);
    layer.Online(p.Images(), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}).Offline(p.Weights(), {0, 1, 1, 0});
    layer.OutputInPlace(0, p.Result());
    ExpectOutput(layer, ConvolutionOpkitForward, {4, 5, 6, 1, 2, 3, 10, 11, 12, 7, 8, 9});
    LayerCase apart = Case(2, p);
    apart.Online(p.Images(), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, 16).Offline(p.Weights(), {0, 1, 1, 0});
    apart.Output(p.Result(), 20);
    ExpectOutput(apart, ConvolutionOpkitForward, {4, 5, 6, 1, 2, 3, 10, 11, 12, 7, 8, 9});
}

TEST(Convolution, NothingToCompute)
{
    LayerCase noGroup = IntegerCase(2, {}, {1, 2, 3, 4});
    noGroup.Attr<ConvolutionAttr>().groupNum = 0;
    ExpectOutput(noGroup, ConvolutionOpkitForward, {1, 2, 3, 4});

    Problem p;
    p.images = 0;
    LayerCase noImage = Case(2, p);
    noImage.Online(p.Images(), {}).Offline(p.Weights(), kW).Output({1, 1, 2, 2}, 12);
    World world(noImage);
    const Floats before(world.OutputRows(0).begin(), world.OutputRows(0).end());
    ExpectSuccess(RunCaptured(world, ConvolutionOpkitForward));
    EXPECT_TRUE(
        SameFloats(world.OutputRows(0), Floats{before[0], before[1], before[2], before[2], before[3], before[5]}))
        << "expanded all the same";

    LayerCase noStride = IntegerCase(2, {}, {1, 2, 3, 4});  // im2col fails, and that is not looked at
    noStride.Attr<ConvolutionAttr>().strideW = 0;
    noStride.Attr<ConvolutionAttr>().gemmK = 0;
    World second(noStride);
    const RunResult run = RunCaptured(second, ConvolutionOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, Message("Im2col", "Im2Col Error: the divisor is 0!\n\n"));
    EXPECT_TRUE(SameFloats(second.Output(0), Floats{0, 0, 0, 0}));
}

TEST(Convolution, BiasStep)
{
    // Scales of 0 leave a product of zeros. 16 positions make 16 bytes of ones, which are 4 floats; four columns count.
    Problem p = {.images = 2, .size = {4, 4}, .kernel = {1, 1}, .outChannels = 4};
    LayerCase layer = QuantizedCase(8, p, Floats(32, 1.0f), {8, 16, 24, 32}, {0, 0, 0, 0, 0.5f, 1}, Floats(128, 7.0f));
    ConvolutionAttr& attr = layer.Attr<ConvolutionAttr>();
    attr.hasBias = 1;
    attr.gemmN = 4;
    attr.outGroupOffset = 16;
    layer.Online({1}, {12345});
    ForEachLevel([&](Level) {
        World world(layer);
        ExpectSuccess(RunCaptured(world, ConvolutionOpkitForward));
        // 0.5 * w - 1, twice
        EXPECT_TRUE(SameFloats(world.InputRows(2).first(4), Floats{0.5f, 2.5f, 4.5f, 6.5f}));
        const float one = std::bit_cast<float>(0x01010101u);
        const Floats afterFirst = {3, 7, 11, 15};
        const Floats afterSecond = {0.5f, 2.5f, 4.5f, 6.5f};
        const Floats result = world.Output(0);
        for (size_t o = 0; o < 4; ++o) {
            for (size_t j = 0; j < 4; ++j) {
                // The y zero point of 1 is subtracted before, and swallows what is added.
                EXPECT_EQ(result[4 * o + j], -1.0f);
                EXPECT_EQ(result[64 + 4 * o + j], -1.0f);
            }
        }
        EXPECT_EQ(result[16], 7.0f) << "columns behind the product stay";

        LayerCase visible =
            QuantizedCase(8, p, Floats(32, 1.0f), {8, 16, 24, 32}, {0, 0, 0, 0, 0.5f, 0.75f}, Floats(128, 7.0f));
        visible.Attr<ConvolutionAttr>() = attr;
        visible.Online({1}, {12345});
        World second(visible);
        ExpectSuccess(RunCaptured(second, ConvolutionOpkitForward));
        const Floats sums = second.Output(0);
        const Floats first = {3.25f, 7.25f, 11.25f, 15.25f};    // 0.5 * w - 0.75
        const Floats later = {0.875f, 2.875f, 4.875f, 6.875f};  // and once more
        for (size_t o = 0; o < 4; ++o) {
            for (size_t j = 0; j < 4; ++j) {
                EXPECT_EQ(sums[4 * o + j], first[o] * one);
                EXPECT_EQ(sums[64 + 4 * o + j], later[o] * one);
            }
        }
    });
}

// A column matrix longer than its area runs into the ones, and the bias step reads what it left there.
TEST(Convolution, ColumnMatrixInTheOnesArea)
{
    const Problem p = {.size = {2, 2}};
    LayerCase layer = QuantizedCase(8, p, {1, 2, 3, 4}, {1, 1, 1, 1}, {1, 0, 1, 0, 1, 0}, {0});
    layer.Attr<ConvolutionAttr>().hasBias = 1;
    layer.Attr<ConvolutionAttr>().colChannels = 3;
    layer.Online({1}, {12345});
    ForEachLevel([&](Level) {
        World world(layer);
        ExpectSuccess(RunCaptured(world, ConvolutionOpkitForward));
        EXPECT_TRUE(SameFloats(world.Output(0), Floats{1 + 2 + 3 + 4 + 1 * 4}));
    });
}

TEST(Convolution, WhatIsCompacted)
{
    LayerCase layer = QuantizedCase(8, {}, kX, kW, {1, 0, 1, 0, 1, 0});
    World world(layer);
    const World before = world.Clone();
    ExpectSuccess(RunCaptured(world, ConvolutionOpkitForward));
    EXPECT_TRUE(SameFloats(world.InputRows(0).first(9), kX));
    EXPECT_TRUE(SameFloats(world.InputRows(2).first(4), kW));
    World start = before.Clone();
    EXPECT_TRUE(SameFloats(world.InputRows(3), start.InputRows(3))) << "scales are read where they are";
}

TEST(Convolution, Failures)
{
    const std::string integer = Message(kName, "ConvIntegerForward calc failed.\n");
    const std::string quantized = Message(kName, "QLinearConvForward calc failed.\n");
    const Problem one = {.size = {1, 2}, .kernel = {1, 1}};
    const auto filled = [&](uint32_t count, int32_t present, uint32_t hasBias) {
        LayerCase layer = Case(count, one);
        layer.Attr<ConvolutionAttr>().hasBias = hasBias;
        for (int32_t k = 0; k < present; ++k) {
            layer.Online({1, 1, 1, 2}, {1, 2}, 12);
        }
        layer.Output(one.Result());
        return layer;
    };
    const struct {
        uint32_t count;
        int32_t needed;
        uint32_t hasBias;
    } rows[] = {{0, 2, 0}, {2, 2, 1}, {3, 3, 0}, {4, 4, 0}, {5, 8, 0}, {8, 8, 0}, {8, 9, 256}};
    for (const auto& row : rows) {
        for (int32_t present = 1; present < row.needed; ++present) {
            LayerCase layer = filled(row.count, present, row.hasBias);
            World world(layer);
            const World before = world.Clone();
            ExpectFailure(RunCaptured(world, ConvolutionOpkitForward), row.count < 5 ? integer : quantized);
            EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "") << "resolved before all else";
        }
        World enough(filled(row.count, row.needed, row.hasBias));
        EXPECT_EQ(RunCaptured(enough, ConvolutionOpkitForward).result, 0u) << row.count;
    }
    const std::string null = Message("DelAlignSpace", "Input data is NULL.\n\n");
    for (const uint32_t k : {0u, 1u}) {
        LayerCase layer = filled(2, 2, 0);
        NullInput(layer, k);
        ExpectFailure(layer, ConvolutionOpkitForward, null + Message(kInteger, "DelAlignSpace failed.\n") + integer);
    }
    for (const uint32_t k : {0u, 3u}) {
        LayerCase layer = filled(5, 8, 0);
        NullInput(layer, k);
        ExpectFailure(layer, ConvolutionOpkitForward,
                      null + Message(kQuantized, "DelAlignSpace failed.\n") + quantized);
    }
    const std::string nullOutput = Message("InsertAlignSpace", "Input data is NULL.\n\n");
    for (const uint32_t count : {2u, 5u}) {
        LayerCase layer = filled(count, 8, 0);
        layer.Attr<ConvolutionAttr>().groupNum = 0;
        NullOutput(layer);
        ExpectFailure(layer, ConvolutionOpkitForward,
                      nullOutput + Message(count == 2 ? kInteger : kQuantized, "InsertAlignSpace failed.\n") +
                          (count == 2 ? integer : quantized));
    }
}

// The forms answer with -1, in words of their own only where rows are concerned.
TEST(Convolution, FormsCalledDirectly)
{
    static int32_t answer;
    LayerCase layer = IntegerCase(2, {});
    World world(layer);
    ExpectSuccess(RunCaptured(world, [](LayerParam* param) {
        answer = ConvIntegerForward(param);
        return 0u;
    }));
    EXPECT_EQ(answer, 0);
    EXPECT_TRUE(SameFloats(world.Output(0), Floats{6, 8, 12, 14}));
    ExpectSuccess(RunCaptured(world, [](LayerParam* param) {
        answer = QLinearConvForward(param);
        return 0u;
    }));
    EXPECT_EQ(answer, -1);
}

TEST(Convolution, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const auto number = [&random](int32_t least, int32_t most) {
            return static_cast<uint32_t>(random.Int(least, most));
        };
        Problem p;
        p.images = number(0, 3);
        p.groups = number(1, 3);
        p.channels = p.groups * number(1, 3);
        p.outChannels = p.groups * number(1, 5);
        const bool pointwise = random.Chance(0.2);
        for (int axis = 0; axis < 2; ++axis) {
            p.size[axis] = random.Chance(0.2) ? number(1, 20) : number(1, 8);
            p.kernel[axis] = pointwise ? 1 : number(1, 3);
            p.pad[2 * axis] = pointwise ? 0 : number(0, 2);
            p.pad[2 * axis + 1] = pointwise ? 0 : number(0, 2);
            p.stride[axis] = random.Chance(0.6) ? 1 : number(1, 3);
            p.dilation[axis] = number(1, 2);
        }
        if (p.Positions(0) == 0 || p.Positions(1) == 0) {
            return;
        }
        const uint32_t count = random.OneOf({2u, 3u, 4u, 5u, 8u, 8u});
        LayerCase layer = Case(count, p);
        layer.Attr<ConvolutionAttr>().hasBias = random.Chance(0.4) ? number(1, 300) : 0;
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed});
        const auto images = [&] {
            layer.Online(p.Images(), random.Floats(ElementCount(p.Images()), kind), random.Stride(p.size[1]));
        };
        const auto single = [&](Floats choices) {
            const float value = choices[static_cast<size_t>(random.Int(0, static_cast<int32_t>(choices.size()) - 1))];
            const Shape shape = random.OneOf<Shape>({{1}, {2, 3}});
            random.Chance(0.5) ? layer.Offline(shape, Floats(ElementCount(shape), value))
                               : layer.Online(shape, Floats(ElementCount(shape), value), random.Stride(shape.back()));
        };
        const Floats zeros = {0, 0, 0, 3, -3, 300.7f, 255, 0.9f, kNan};
        const Floats scales = {1, 1, 1.9f, 0.02f, 2, 130, -1, kInf};
        // The bias step reaches gemmN weights.
        Shape weights = p.Weights();
        while (ElementCount(weights) < p.Positions(0) * p.Positions(1)) {
            weights[0] += 1;
        }
        images();
        if (count < 5) {
            AddInput(random, layer, weights, kind);
            for (uint32_t k = 2; k < count; ++k) {
                single(zeros);
            }
        } else {
            single(scales);
            single(zeros);
            AddInput(random, layer, weights, kind);
            for (const Floats& choices : {scales, zeros, scales, zeros}) {
                single(choices);
            }
            if (layer.Attr<ConvolutionAttr>().hasBias != 0) {
                AddInput(random, layer, {p.outChannels}, Values::kPlain);
            }
        }
        const bool inPlace = p.Result() == p.Images() && random.Chance(0.5);
        inPlace ? layer.OutputInPlace(0, p.Result()) : layer.Output(p.Result(), random.Stride(p.Positions(1)));
        layer.Batch(number(1, 2));
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    });
}

// Without zero points the product may take its columns straight from the image. Inputs as the two forms have them, with
// scales and zero points whose bytes are 1 and 0; padding of 256 all the same.
LayerCase CaseWithoutZeroPoints(Random& random, const Problem& p, Values kind)
{
    const uint32_t count = random.OneOf({2u, 3u, 4u, 8u});
    LayerCase layer = Case(count, p);
    const auto images = [&] {
        layer.Online(p.Images(), random.Floats(ElementCount(p.Images()), kind), random.Stride(p.size[1]));
    };
    const auto zero = [&] { layer.Online({1}, {random.OneOf({0.0f, 0.9f, 256.0f, -512.0f})}); };
    const auto scale = [&] { layer.Online({1}, {random.OneOf({1.0f, 1.9f, 257.0f})}); };
    images();
    if (count == 8) {
        layer.Attr<ConvolutionAttr>().hasBias = random.Chance(0.3) ? 1 : 0;
        scale(), zero();
    }
    Shape weights = p.Weights();
    while (ElementCount(weights) < p.Positions(0) * p.Positions(1)) {
        weights[0] += 1;
    }
    AddInput(random, layer, weights, kind);
    if (count == 8) {
        scale(), zero(), scale(), zero(), zero();
    } else {
        for (uint32_t k = 2; k < count; ++k) {
            zero();
        }
    }
    const bool inPlace = p.Result() == p.Images() && random.Chance(0.3);
    inPlace ? layer.OutputInPlace(0, p.Result()) : layer.Output(p.Result(), random.Stride(p.Positions(1)));
    return layer;
}

TEST(Convolution, WithoutZeroPoints)
{
    ForRandomCases(200, [](Random& random) {
        const auto number = [&random](int32_t least, int32_t most) {
            return static_cast<uint32_t>(random.Int(least, most));
        };
        Problem p;
        const bool deep = random.Chance(0.2);  // more terms than a panel takes at a time
        p.groups = deep ? 1 : number(1, 3);
        p.images = number(1, 2);
        p.channels = p.groups * (deep ? number(24, 60) : number(1, 3));
        p.outChannels = p.groups * number(1, 8);
        const bool pointwise = random.Chance(0.2);
        for (int axis = 0; axis < 2; ++axis) {
            p.kernel[axis] = pointwise ? 1 : number(1, 3);
            p.stride[axis] = pointwise ? 1 : number(1, 3);
            p.dilation[axis] = number(0, 2);
            p.size[axis] = deep ? number(5, 12) : number(5, 40);
            p.pad[2 * axis] = pointwise ? 0 : number(0, 3);
            p.pad[2 * axis + 1] = pointwise ? 0 : number(0, 3);
        }
        const Values kind = random.OneOf({Values::kPlain, Values::kPlain, Values::kIntegers, Values::kMixed});
        const LayerCase layer = CaseWithoutZeroPoints(random, p, kind);
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    });
}

// The corrections turn an infinite weight or element into NaN also without zero points, wherever it stands.
TEST(Convolution, OneInfinity)
{
    Problem p;
    p.channels = p.groups = 3;
    p.outChannels = 6;
    for (size_t place = 0; place < 27 + 24; ++place) {
        std::vector<float> image(27, 1.0f);
        std::vector<float> weights(24, 2.0f);
        (place < 27 ? image[place] : weights[place - 27]) = kInf;
        LayerCase layer = Case(2, p);
        layer.Online(p.Images(), image).Online(p.Weights(), weights).Output(p.Result());
        World world(layer);
        EXPECT_EQ(world.RunDirect(ConvolutionOpkitForward), 0u);
        const std::vector<float> result = world.Output();
        EXPECT_TRUE(std::any_of(result.begin(), result.end(), [](float y) { return std::isnan(y); })) << place;
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    }
}

// The bias step rescales weights between images: what was found of them before the first image does not hold later.
TEST(Convolution, WeightsThatGrowFromImageToImage)
{
    const Problem p = {.images = 4};
    // The y scale of 2^23 + 1 counts as 1 in the product and as itself in the bias step.
    LayerCase layer = QuantizedCase(8, p, Floats(36, 1.0f), Floats(4, 1e28f), {1, 0, 1, 0, 8388609.0f, 0});
    layer.Attr<ConvolutionAttr>().hasBias = 1;
    layer.Online({1}, {12345});
    layer.Tamper([](World& world) { FillWorkSpace(world, 1.0f); });
    World world(layer);
    ExpectSuccess(RunCaptured(world, ConvolutionOpkitForward));
    const Floats result = world.Output(0);
    for (size_t i = 0; i < result.size(); ++i) {
        EXPECT_EQ(std::isnan(result[i]), i >= 8) << "infinite weights leave no correction at 0: " << i;
    }
    ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
}

// Whether the layer laid out a column matrix.
bool WritesColumns(const LayerCase& layer)
{
    constexpr float kOld = -77.0f;
    World world(layer);
    FillWorkSpace(world, kOld);
    EXPECT_EQ(RunCaptured(world, ConvolutionOpkitForward).result, 0u);
    return *static_cast<const float*>(world.Param().opkitBuf) != kOld;
}

TEST(Convolution, ColumnMatrixOnlyWhereNeeded)
{
    const Floats small(9, 1.0f);
    Floats infinite = small;
    infinite[4] = kInf;
    const auto layerOf = [&](const Problem& p, const Floats& image, const Floats& zeroPoints) {
        LayerCase layer = Case(2 + static_cast<uint32_t>(zeroPoints.size()), p);
        layer.Online(p.Images(), image).Offline(p.Weights(), Floats(ElementCount(p.Weights()), 2.0f));
        for (const float zero : zeroPoints) {
            layer.Online({1}, {zero});
        }
        return layer;
    };
    const Problem wide = {};
    const Problem padded = {.pad = {1, 0, 2, 1}, .stride = {2, 1}, .dilation = {1, 2}};
    const Problem pointwise = {.kernel = {1, 1}};
    for (const Problem& p : {wide, padded, pointwise}) {
        EXPECT_FALSE(WritesColumns(layerOf(p, small, {}).Output(p.Result())));
        EXPECT_FALSE(WritesColumns(layerOf(p, small, {256, 0.5f}).Output(p.Result()))) << "bytes of 0";
    }
    EXPECT_TRUE(WritesColumns(layerOf(wide, small, {1}).Output(wide.Result())));
    EXPECT_TRUE(WritesColumns(layerOf(wide, small, {0, 1}).Output(wide.Result())));
    EXPECT_TRUE(WritesColumns(layerOf(wide, infinite, {}).Output(wide.Result())));
    EXPECT_FALSE(WritesColumns(layerOf(pointwise, infinite, {1, 1}).Output(pointwise.Result()))) << "the image is it";
    EXPECT_TRUE(WritesColumns(layerOf(pointwise, small, {}).OutputInPlace(0, pointwise.Result())));
    LayerCase uneven = layerOf(wide, small, {}).Output(wide.Result());
    uneven.Attr<ConvolutionAttr>().gemmN = 3;
    EXPECT_TRUE(WritesColumns(uneven));
    LayerCase narrow = layerOf(wide, small, {}).Output(wide.Result());
    narrow.Attr<ConvolutionAttr>().colChannels = 3;
    EXPECT_TRUE(WritesColumns(narrow)) << "the matrix reaches into the ones";
}

// Layers large enough for integers: bytes, shorts, and sums that leave them, with zero points and without.
TEST(Convolution, WholeNumbersAsReference)
{
    ForRandomCases(12, [](Random& random) {
        const uint32_t groups = random.OneOf({1u, 2u});
        const Problem p = {.images = 2,
                           .channels = 8 * groups,
                           .size = {14, static_cast<uint32_t>(random.Int(13, 20))},
                           .kernel = {3, random.OneOf({1u, 3u})},
                           .pad = {1, 1, random.OneOf({0u, 1u}), 1},
                           .stride = {1, random.OneOf({1u, 2u})},
                           .dilation = {1, random.OneOf({1u, 2u})},
                           .groups = groups,
                           .outChannels = 24 * groups};
        const auto values = [&random](const Shape& shape, int32_t low, int32_t high) {
            Floats floats(ElementCount(shape));
            for (float& value : floats) {
                value = static_cast<float>(random.Int(low, high));
            }
            return floats;
        };
        const int32_t most = random.OneOf({15, 255, 3000});
        const Floats zeroPoints = random.OneOf<Floats>({{}, {}, {3}, {0, 2}, {3, 5}, {512}, {40192}});
        LayerCase layer = Case(2 + static_cast<uint32_t>(zeroPoints.size()), p);
        Floats x = values(p.Images(), 0, most);
        if (random.Chance(0.2)) {
            x[random.Int(0, static_cast<int32_t>(x.size()) - 1)] = random.OneOf({0.5f, -0.0f, 1e9f, kInf});
        }
        layer.Online(p.Images(), x).Online(p.Weights(), values(p.Weights(), -128, 127));
        for (const float zero : zeroPoints) {
            layer.Online({1}, {zero});
        }
        layer.Output(Holding(p.Result(), values(p.Result(), -9, 9)));
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Convolution, RangeOfColumnsCountsPadding)
{
    Floats image(50, 7.0f);
    Im2colArgs args = {};
    ForEachLevel([&](Level) {
        const auto range = [&](int32_t padding) {
            args.padValue = padding;
            return RangeOfColumns(args, image.data(), image.size());
        };
        EXPECT_EQ(range(0).whole, WholeKernelsInUse() != nullptr);
        if (WholeKernelsInUse() == nullptr) {
            return;
        }
        EXPECT_EQ(range(-3).lowest, -3);
        EXPECT_EQ(range(-3).highest, 7);
        EXPECT_EQ(range(200).highest, 200);
        EXPECT_TRUE(range(32766).whole);
        EXPECT_TRUE(range(-32766).whole);
        EXPECT_FALSE(range(32767).whole);
        EXPECT_FALSE(range(-32767).whole);
        image[49] = 0.5f;
        EXPECT_FALSE(range(0).whole);
        image[49] = 7;
    });
}

// Attributes that do not fit together are followed as they stand.
TEST(Convolution, OddAttributes)
{
    ForRandomCases(200, [](Random& random) {
        const auto number = [&random](int32_t least, int32_t most) {
            return static_cast<uint32_t>(random.Int(least, most));
        };
        Problem p = {.images = number(1, 2), .channels = 4, .groups = random.OneOf({1u, 2u}), .outChannels = 4};
        const bool pointwise = random.Chance(0.5);
        for (int axis = 0; axis < 2; ++axis) {
            p.size[axis] = number(3, 6);
            p.kernel[axis] = pointwise ? 1 : number(1, 3);
            p.pad[2 * axis] = pointwise ? 0 : number(0, 2);
        }
        LayerCase layer = CaseWithoutZeroPoints(random, p, Values::kPlain);
        ConvolutionAttr& attr = layer.Attr<ConvolutionAttr>();
        for (uint32_t* value : {&attr.gemmM, &attr.gemmN, &attr.gemmK, &attr.groupNum, &attr.outGroupOffset,
                                &attr.weightGroupOffset, &attr.colGroupOffset, &attr.outWidth, &attr.channels}) {
            if (random.Chance(0.2)) {
                *value = number(0, static_cast<int32_t>(*value));
            }
        }
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    });
}

// Without an image there are no columns to lay out, and the product takes what the work space holds.
TEST(Convolution, NoImage)
{
    for (const uint32_t kernel : {1u, 2u}) {
        const Problem p = {.kernel = {kernel, kernel}};
        LayerCase layer = Case(2, p);
        layer.Online(p.Images(), kX).Offline(p.Weights(), Floats(kernel * kernel, 1.0f)).Output(p.Result());
        layer.Tamper([](World& world) { FillWorkSpace(world, 3.0f); });
        NullInput(layer, 0);
        ForEachLevel([&](Level) {
            World world(layer);
            const RunResult run = RunCaptured(world, ConvolutionOpkitForward);
            EXPECT_EQ(run.result, 0u);
            EXPECT_EQ(run.messages, Message("Im2col", "null point error!\n\n"));
            const Floats expected(ElementCount(p.Result()), 3.0f * static_cast<float>(kernel * kernel));
            EXPECT_TRUE(SameFloats(world.Output(0), expected));
        });
    }
}

// Nothing to compute and no work space: still a message for every image.
TEST(Convolution, NoWorkSpace)
{
    for (const uint32_t inputs : {2u, 8u}) {
        LayerCase layer(kName);
        ConvolutionAttr& attr = layer.Attr<ConvolutionAttr>();
        attr.inputCount = inputs;
        attr.height = attr.width = attr.outHeight = attr.outWidth = 2;
        attr.kernelH = attr.kernelW = attr.strideH = attr.strideW = attr.dilationH = attr.dilationW = 1;
        attr.groupNum = attr.outChannels = attr.gemmM = 1;
        attr.gemmN = 4;
        layer.Online({2, 1, 2, 2}, Floats(8, 1.0f));
        for (uint32_t k = 1; k < inputs; ++k) {
            layer.Online({1}, {1});
        }
        layer.Output({2, 1, 2, 2});
        World world(layer);
        const RunResult run = RunCaptured(world, ConvolutionOpkitForward);
        EXPECT_EQ(run.result, 0u);
        const std::string message = Message("Im2col", "null point error!\n\n");
        EXPECT_EQ(run.messages, message + message);
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    }
}

// Numbers too large for the shortcuts, none at all, and ones that contradict the tensors.
TEST(Convolution, AttributesForTheColumnMatrix)
{
    const auto expectSame = [](const Problem& p, const Shape& result,
                               const std::function<void(ConvolutionAttr&)>& set) {
        LayerCase layer = Case(2, p);
        layer.Online(p.Images(), kX).Offline({1, 1, 4, 4}, Floats(16, 2.0f)).Output(Holding(result, {}));
        set(layer.Attr<ConvolutionAttr>());
        layer.Workspace(512);
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution, {.nan = NanPolicy::kAnyNan});
    };
    const auto asItIs = [](ConvolutionAttr&) {};
    expectSame({.stride = {1 << 20, 1 << 20}}, {1, 1, 1, 1}, asItIs);
    expectSame({.kernel = {4, 4}}, {1, 1, 1, 1}, asItIs);  // no position at all
    expectSame({}, {1, 1, 2, 2}, [](ConvolutionAttr& attr) { attr.kernelH = 0; });
    expectSame({}, {1, 1, 2, 2}, [](ConvolutionAttr& attr) { attr.kernelW = 0; });
    expectSame({}, {1, 1, 2, 2}, [](ConvolutionAttr& attr) { attr.strideH = 0; });
    expectSame({}, {1, 1, 2, 2}, [](ConvolutionAttr& attr) { attr.strideW = 0; });
    for (uint32_t ConvolutionAttr::*const field :
         {&ConvolutionAttr::kernelH, &ConvolutionAttr::kernelW, &ConvolutionAttr::strideH, &ConvolutionAttr::strideW}) {
        expectSame({.kernel = {1, 1}}, {1, 1, 3, 3}, [field](ConvolutionAttr& attr) { attr.*field = 0; });
    }
    expectSame({}, {1, 1, 2, 2}, [](ConvolutionAttr& attr) {  // the second group would lie far away, but has no rows
        attr.groupNum = 2;
        attr.outGroupOffset = 0x80000000u;
        attr.gemmM = 0;
    });
}

// The product clears its result before it looks at the weights.
TEST(Convolution, ResultInTheWeights)
{
    LayerCase layer = Case(2, {});
    layer.Online({1, 1, 3, 3}, kX).Online({1, 1, 2, 2}, kW).OutputInPlace(1, {1, 1, 2, 2});
    ExpectOutput(layer, ConvolutionOpkitForward, {0, 0, 0, 0});
    ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution);
}

// The column matrix holds what the image was before the result overwrote a part of it.
TEST(Convolution, ResultOverlapsTheImage)
{
    for (int32_t shift = -40; shift <= 40; ++shift) {
        Problem p;
        p.channels = 2;
        p.size[0] = p.size[1] = 4;
        p.outChannels = 4;
        LayerCase layer = Case(2, p);
        layer.Online(p.Images(), Random(1).Floats(32, Values::kIntegers));
        layer.Online(p.Weights(), Random(2).Floats(32, Values::kIntegers));
        layer.Output(p.Result()).Online({120}, std::vector<float>(120, 1.0f));
        layer.Tamper([shift](World& world) { PlaceOutputOver(world, 0, 2, 40, shift); });
        ExpectSameAsReference(layer, ConvolutionOpkitForward, RefConvolution);
    }
}

// The shapes of X and W say less than the attributes; these are what counts.
TEST(Convolution, TensorsSmallerThanTheAttributes)
{
    const auto shortImage = [](LayerParam* param) {
        uint32_t shape[] = {1, 1, 1, 8};
        param->inputs[0].shape = shape;
        param->inputs[0].stride = 32;
        return ConvolutionOpkitForward(param);
    };
    const auto fewWeights = [](LayerParam* param) {
        uint32_t shape[] = {1, 1, 1, 2};
        param->inputs[1].shape = shape;
        return ConvolutionOpkitForward(param);
    };
    LayerCase layer = Case(2, {});
    layer.Online({1, 1, 3, 3}, kX).Online({1, 1, 2, 2}, kW).Output({1, 1, 2, 2});
    ExpectOutput(layer, shortImage, {6, 8, 12, 14});
    ExpectOutput(layer, fewWeights, {6, 8, 12, 14});
}

// An image of more than 2^31 elements, of which one window is looked at.
TEST(Convolution, HugeImage)
{
    LayerCase layer = Case(2, {.size = {1, 1}, .kernel = {1, 1}, .stride = {1 << 19, 1 << 19}});
    layer.Attr<ConvolutionAttr>().height = layer.Attr<ConvolutionAttr>().width = 50000;
    layer.Online({1, 1, 1, 1}, {7}).Offline({1, 1, 1, 1}, {3}).Output({1, 1, 1, 1});
    static float memory[2];  // the result ahead of the image, so that it lies outside of it
    const auto apart = [](LayerParam* param) {
        memory[1] = *static_cast<const float*>(param->inputs[0].data);
        param->inputs[0].data = &memory[1];
        param->outputs[0].data = &memory[0];
        return ConvolutionOpkitForward(param);
    };
    ForEachLevel([&](Level) {
        World world(layer);
        memory[0] = kNan;
        ExpectSuccess(RunCaptured(world, apart));
        EXPECT_EQ(memory[0], 21);
    });
}

}  // namespace
}  // namespace opkit
