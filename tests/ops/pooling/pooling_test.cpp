// The three poolings: windows, paddings, fill, positions, norms.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/pooling.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// Attributes of one operator under common names; what it does not have is left out.
struct Window {
    uint32_t kernelH = 2, kernelW = 2, strideH = 1, strideW = 1;
    uint32_t padTop = 0, padLeft = 0, padBottom = 0, padRight = 0;
    float padValue = 0.0f;
    uint8_t includePad = 0;
    uint32_t normP = 2;
};

template <class Attr>
void SetAttr(LayerCase& layer, const Window& window)
{
    Attr& attr = layer.Attr<Attr>();
    attr.kernelH = window.kernelH;
    attr.kernelW = window.kernelW;
    attr.strideH = window.strideH;
    attr.strideW = window.strideW;
    attr.padTop = window.padTop;
    attr.padLeft = window.padLeft;
    if constexpr (std::is_same_v<Attr, PoolingAveAttr>) {
        attr.padBottom = window.padBottom;
        attr.padRight = window.padRight;
        attr.countIncludePad = window.includePad;
    }
    if constexpr (std::is_same_v<Attr, PoolingLpAttr>) {
        attr.normP = window.normP;
    } else {
        attr.padValue = window.padValue;
    }
}

template <class Attr>
LayerCase Pooling(const Shape& in, const std::vector<float>& data, const Shape& out, const Window& window)
{
    const char* const name = std::is_same_v<Attr, PoolingAveAttr>   ? "PoolingAveOpkitForward"
                             : std::is_same_v<Attr, PoolingMaxAttr> ? "PoolingMaxOpkitForward"
                                                                    : "PoolingLpOpkitForward";
    LayerCase layer(name);
    layer.Online(in, data, (in.back() + 3) / 4 * 16).Output(out, (out.back() + 3) / 4 * 16);
    SetAttr<Attr>(layer, window);
    return layer;
}

std::vector<float> RunOk(const LayerCase& layer, ForwardFunc function, size_t output = 0)
{
    World world(layer);
    const RunResult run = RunCaptured(world, function);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    return world.Output(output);
}

// An output that holds something before the run.
CaseTensor Filled(const Shape& shape, const std::vector<float>& data, uint32_t strideBytes = 0)
{
    CaseTensor tensor;
    tensor.shape = shape;
    tensor.data = data;
    tensor.strideBytes = strideBytes;
    return tensor;
}

uint32_t AveCore(LayerParam* param)
{
    return static_cast<uint32_t>(PoolingAveOpkitForwardCore(param));
}

uint32_t LpCore(LayerParam* param)
{
    return static_cast<uint32_t>(PoolingLpOpkitForwardCore(param));
}

const std::vector<float> kSquare = {1, 2, 3, 4, 5, 6, 7, 8, 9};

struct RandomLayer {
    Shape in, out;
    Window window;
};

// Windows of all sorts: cut at every edge, wholly outside, ending before the input (which makes them endless).
RandomLayer RandomPooling(Random& random)
{
    RandomLayer layer;
    layer.in = random.Shape(1, 5, 1200);
    layer.out = layer.in;
    Window& w = layer.window;
    w.kernelH = random.Chance(0.05) ? 0 : static_cast<uint32_t>(random.Int(1, 4));
    w.kernelW = random.Chance(0.1) ? 0 : static_cast<uint32_t>(random.Int(1, 5));
    w.strideH = static_cast<uint32_t>(random.Int(1, 3));
    w.strideW = random.Chance(0.5) ? 1 : static_cast<uint32_t>(random.Int(1, 4));
    const int32_t mostPad = random.Chance(0.2) ? 7 : 2;
    w.padTop = static_cast<uint32_t>(random.Int(0, mostPad));
    w.padLeft = static_cast<uint32_t>(random.Int(random.Chance(0.1) ? -3 : 0, mostPad));
    w.padBottom = static_cast<uint32_t>(random.Int(random.Chance(0.1) ? -1 : 0, 3));
    w.padRight = static_cast<uint32_t>(random.Int(random.Chance(0.1) ? -1 : 0, 3));
    w.padValue = random.Float(random.Chance(0.8) ? Values::kPlain : Values::kMixed);
    w.includePad = random.OneOf<uint8_t>({0, 1, 255});
    w.normP = random.OneOf({0u, 1u, 2u, 3u, 258u});
    const auto resize = [&random](uint32_t& size, uint32_t kernel, uint32_t stride, uint32_t pads) {
        const uint32_t padded = size + std::min(pads, 20u);
        size = padded > kernel ? (padded - kernel) / stride + 1 : 1;
        size += random.Chance(0.1) ? 2 : 0;
    };
    resize(layer.out.back(), w.kernelW, w.strideW, 2 * static_cast<uint32_t>(random.Int(0, 2)));
    if (layer.out.size() > 1) {
        resize(layer.out[layer.out.size() - 2], w.kernelH, w.strideH, w.padTop + w.padBottom);
    }
    return layer;
}

void AddInput(LayerCase& layer, Random& random, const Shape& shape)
{
    const std::vector<float> data =
        random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kPlain, Values::kIntegers}));
    if (random.Chance(0.2)) {
        layer.Offline(shape, data);
    } else {
        layer.Online(shape, data, random.Stride(shape.back()));
    }
}

template <class Attr>
void ExpectPoolingSame(const char* name, ForwardFunc actual, ForwardFunc reference, const TwinOptions& options)
{
    ForRandomCases(400, [&](Random& random) {
        const RandomLayer pooling = RandomPooling(random);
        LayerCase layer(name);
        AddInput(layer, random, pooling.in);
        layer.Output(pooling.out, random.Stride(pooling.out.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        SetAttr<Attr>(layer, pooling.window);
        ExpectSameAsReference(layer, actual, reference, options);
    });
}

TEST(PoolingAve, SameAsReference)
{
    ExpectPoolingSame<PoolingAveAttr>("PoolingAveOpkitForward", PoolingAveOpkitForward, RefPoolingAve,
                                      {.nan = NanPolicy::kAnyNan});
}

TEST(PoolingAve, CoreSameAsReference)
{
    ExpectPoolingSame<PoolingAveAttr>("PoolingAveOpkitForward", AveCore,
                                      [](LayerParam* p) { return static_cast<uint32_t>(RefPoolingAveCore(p)); },
                                      {.nan = NanPolicy::kAnyNan, .throughRequest = false});
}

TEST(PoolingMax, SameAsReference)
{
    ExpectPoolingSame<PoolingMaxAttr>("PoolingMaxOpkitForward", PoolingMaxOpkitForward, RefPoolingMax, {});
}

// With positions, whose tensor may have another width, and outputs whose alignment is below their width.
TEST(PoolingMax, PositionsSameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const RandomLayer pooling = RandomPooling(random);
        LayerCase layer("PoolingMaxOpkitForward");
        AddInput(layer, random, pooling.in);
        const uint32_t width = pooling.out.back();
        layer.Output(pooling.out, width > 4 && random.Chance(0.2) ? 16 : random.Stride(width));
        const auto count = static_cast<uint32_t>(ElementCount(pooling.out));
        const Shape other = random.OneOf<Shape>({pooling.out, {count}, {count, 1}, {(count + 2) / 3, 3}});
        layer.Output(other, random.Stride(other.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        SetAttr<PoolingMaxAttr>(layer, pooling.window);
        ExpectSameAsReference(layer, PoolingMaxOpkitForward, RefPoolingMax);
    });
}

TEST(PoolingLp, SameAsReference)
{
    ExpectPoolingSame<PoolingLpAttr>("PoolingLpOpkitForward", PoolingLpOpkitForward, RefPoolingLp,
                                     {.nan = NanPolicy::kAnyNan});
}

// Long rows of whole windows at every stride that has code of its own, so that whole blocks run.
TEST(Pooling, LongRows)
{
    ForRandomCases(60, [](Random& random) {
        Window w;
        w.kernelH = static_cast<uint32_t>(random.Int(1, 3));
        w.kernelW = static_cast<uint32_t>(random.Int(1, 3));
        w.strideW = static_cast<uint32_t>(random.Int(1, 4));
        w.padLeft = static_cast<uint32_t>(random.Int(0, 1));
        w.includePad = 1;
        w.normP = random.OneOf({1u, 2u});
        const Shape in = {2, 4, static_cast<uint32_t>(random.Int(60, 400))};
        const Shape out = {2, 3, (in[2] - w.kernelW) / w.strideW + 1};
        const std::vector<float> data = random.Floats(ElementCount(in), Values::kMixed);
        LayerCase max = Pooling<PoolingMaxAttr>(in, data, out, w);
        max.Output(out);
        ExpectSameAsReference(max, PoolingMaxOpkitForward, RefPoolingMax);
        ExpectSameAsReference(Pooling<PoolingMaxAttr>(in, data, out, w), PoolingMaxOpkitForward, RefPoolingMax);
        const TwinOptions anyNan = {.nan = NanPolicy::kAnyNan};
        ExpectSameAsReference(Pooling<PoolingAveAttr>(in, data, out, w), PoolingAveOpkitForward, RefPoolingAve, anyNan);
        ExpectSameAsReference(Pooling<PoolingLpAttr>(in, data, out, w), PoolingLpOpkitForward, RefPoolingLp, anyNan);
    });
}

// f64 steps rounded to f32 against plain f32 ones: 1 + 2^-24 + 2^-24 stays 1 either way, and large magnitudes overflow.
TEST(PoolingLp, MagnitudesOfAllSizes)
{
    ForRandomCases(100, [](Random& random) {
        std::vector<float> data;
        for (int i = 0; i < 64; ++i) {
            data.push_back(std::ldexp(random.Float(Values::kPlain), random.Int(-149, 127)));
        }
        for (const uint32_t normP : {1u, 2u, 0u}) {
            const Window w = {.kernelH = 8, .kernelW = 4, .normP = normP};
            ExpectSameAsReference(Pooling<PoolingLpAttr>({8, 8}, data, {1, 5}, w), PoolingLpOpkitForward, RefPoolingLp,
                                  {.nan = NanPolicy::kAnyNan});
        }
    });
}

TEST(PoolingAve, PlainMean)
{
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, {}), PoolingAveOpkitForward),
                ElementsAre(3, 4, 6, 7));
}

// Without padding only the elements inside the input count.
TEST(PoolingAve, ExcludesPadding)
{
    const Window w = {.strideH = 2, .strideW = 2, .padTop = 1, .padLeft = 1, .padValue = 100};
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward),
                ElementsAre(1, 2.5f, 5.5f, 7));
}

// Padded places enter as padValue; the area ends where bottom and right padding end.
TEST(PoolingAve, IncludesPadding)
{
    Window w = {.strideH = 2, .strideW = 2, .padTop = 1, .padLeft = 1, .padValue = 3, .includePad = 1};
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward),
                ElementsAre(2.5f, 2.75f, 4.25f, 7));
    w.padValue = 0;
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward),
                ElementsAre(0.25f, 1.25f, 2.75f, 7));
    // Start at (2, 2): the window is cut to 1x1 without, to 2x1 and 1x2 with bottom or right padding.
    w = {.strideH = 2, .strideW = 2, .padValue = 3, .includePad = 1};
    EXPECT_EQ(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward)[3], 9);
    w.padBottom = 1;
    EXPECT_EQ(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward)[3], 6);
    w.padRight = 5;
    EXPECT_EQ(RunOk(Pooling<PoolingAveAttr>({3, 3}, kSquare, {2, 2}, w), PoolingAveOpkitForward)[3],
              (3 * 3 + 9) / 4.0f);
}

TEST(PoolingAve, WindowInPaddingAlone)
{
    // Row start -3, end -1: as unsigned beyond the input, so the whole 5x5 of input and the rows from -3 count.
    const Window endless = {.strideH = 9, .padTop = 3, .padValue = 0, .includePad = 1};
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({2, 2}, {1, 2, 3, 4}, {1, 1}, endless), PoolingAveOpkitForward),
                ElementsAre(10 / (5 * 2.0f)));
    // Start at the bottom edge, padding below: no element, all of the area is padValue.
    const Window below = {.strideH = 2, .padBottom = 2, .padValue = 7, .includePad = 1};
    EXPECT_THAT(RunOk(Pooling<PoolingAveAttr>({2, 2}, {1, 2, 3, 4}, {2, 1}, below), PoolingAveOpkitForward),
                ElementsAre(2.5f, 7));
    // An area of 0 is divided by all the same.
    const Window empty = {.strideH = 2, .padValue = 7, .includePad = 1};
    EXPECT_TRUE(
        std::isnan(RunOk(Pooling<PoolingAveAttr>({2, 2}, {1, 2, 3, 4}, {2, 1}, empty), PoolingAveOpkitForward)[1]));
}

// Windows of no columns have an area of 0 up to the edge, and a negative one behind it, all of it padding.
TEST(PoolingAve, KernelOfNoColumns)
{
    const Window w = {.kernelH = 1, .kernelW = 0, .padValue = 7, .includePad = 1};
    const std::vector<float> means = RunOk(Pooling<PoolingAveAttr>({1, 2}, {1, 2}, {1, 5}, w), PoolingAveOpkitForward);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(std::isnan(means[i])) << i;
    }
    EXPECT_EQ(means[3], 7);
    EXPECT_EQ(means[4], 7);
}

// Elements before the failing one are finished, it is 0, later ones are untouched; the operator succeeds.
TEST(PoolingAve, NoElementFailsTheCoreOnly)
{
    const Window w = {.kernelH = 1, .kernelW = 1, .strideW = 2};
    LayerCase layer("PoolingAveOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output(Filled({2, 4}, std::vector<float>(8, 9.0f)));
    SetAttr<PoolingAveAttr>(layer, w);
    World core(layer);
    const RunResult failed = RunCaptured(core, AveCore);
    EXPECT_EQ(failed.result, 0xFFFFFFFFu);
    EXPECT_EQ(failed.messages, "[PoolingAveOpkitForwardCore:#]PoolAve Layer: divisor is zero.\n\n");
    EXPECT_THAT(core.Output(), ElementsAre(1, 3, 0, 9, 9, 9, 9, 9));
    World world(layer);
    const RunResult run = RunRequestCaptured(world);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "[PoolingAveOpkitForwardCore:#]PoolAve Layer: divisor is zero.\n\n");
    EXPECT_THAT(world.Output(), ElementsAre(1, 3, 0, 9, 9, 9, 9, 9));
}

TEST(PoolingMax, FirstOfEqualsWins)
{
    LayerCase layer = Pooling<PoolingMaxAttr>({2, 2, 3}, {1, 5, 5, 5, 5, 2, 7, 7, 0, 7, 8, 8}, {2, 1, 2}, {});
    layer.Output({2, 1, 2}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(5, 5, 8, 8));
    EXPECT_THAT(world.Output(1), ElementsAre(1, 1, 4, 4));
}

TEST(PoolingMax, NanNeverWins)
{
    const Window w = {.kernelH = 1, .strideW = 2, .padValue = 3};
    LayerCase layer = Pooling<PoolingMaxAttr>({1, 4}, {kNan, kNan, kNan, -2}, {1, 2}, w);
    layer.Output(Filled({1, 2}, {-7, -7}));
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(-FLT_MAX, -2));
    EXPECT_THAT(world.Output(1), ElementsAre(-7, 3));  // without a winner the position stays
    // The window that starts outside takes padValue.
    const Window padded = {.kernelH = 1, .strideW = 2, .padLeft = 1, .padValue = -3};
    EXPECT_THAT(RunOk(Pooling<PoolingMaxAttr>({1, 3}, {kNan, kNan, -4}, {1, 2}, padded), PoolingMaxOpkitForward),
                ElementsAre(-3, -4));
}

// Only windows that start above or left of the input take padValue, those cut below or at the right do not.
TEST(PoolingMax, PadValueForNegativeStartsOnly)
{
    const Window w = {.strideH = 2, .strideW = 2, .padTop = 1, .padLeft = 1, .padValue = 50};
    LayerCase layer = Pooling<PoolingMaxAttr>({4, 4}, std::vector<float>(16, 1.0f), {3, 3}, w);
    layer.Output(Filled({3, 3}, std::vector<float>(9, -7.0f)));
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(50, 50, 50, 50, 1, 1, 50, 1, 1));
    EXPECT_THAT(world.Output(1), ElementsAre(0, 1, 3, 4, 5, 7, 12, 13, 15));  // padValue leaves no position of its own
    // Wholly below or right: the fill stays.
    const Window beyond = {.kernelH = 1, .kernelW = 1, .strideW = 4, .padValue = 50};
    EXPECT_THAT(RunOk(Pooling<PoolingMaxAttr>({1, 3}, {1, 2, 3}, {1, 2}, beyond), PoolingMaxOpkitForward),
                ElementsAre(1, -FLT_MAX));
}

// The fill covers rows times alignment, here 2 x 4 of 2 rows of 6 at a pitch of 8.
TEST(PoolingMax, FillGoesByAlignment)
{
    LayerCase layer("PoolingMaxOpkitForward");
    layer.Online({2, 6}, std::vector<float>(12, 2.0f));
    layer.Output(Filled({2, 6}, {9, 9, 9, 9, 9, 9, 9, 9, 9, 1, 1, kNan}, 16));
    SetAttr<PoolingMaxAttr>(layer, {.kernelH = 1, .kernelW = 1});
    const std::vector<float> out = RunOk(layer, PoolingMaxOpkitForward);
    EXPECT_THAT(std::vector<float>(out.begin(), out.end() - 1), ElementsAre(2, 2, 2, 2, 2, 2, 9, 9, 9, 2, 2));
    EXPECT_TRUE(std::isnan(out[11]));
}

TEST(PoolingMax, OneOutputTouchesNothingElse)
{
    LayerCase layer = Pooling<PoolingMaxAttr>({3, 3}, kSquare, {2, 2}, {});
    EXPECT_THAT(RunOk(layer, PoolingMaxOpkitForward), ElementsAre(5, 6, 8, 9));
    layer.Output({2, 2}).Tamper([](World& w) { w.Layer().outputNum = 1; });
    World world(layer);
    const World before = world.Clone();
    ASSERT_EQ(world.RunRequest(), 0u);
    World old = before.Clone();
    EXPECT_EQ(std::memcmp(world.OutputRows(1).data(), old.OutputRows(1).data(), 16), 0);
}

TEST(PoolingMax, EmptyOutputs)
{
    // Width 0 returns before the input is resolved.
    LayerCase noWidth("PoolingMaxOpkitForward");
    noWidth.Output({2, 0});
    SetAttr<PoolingMaxAttr>(noWidth, {});
    EXPECT_THAT(RunOk(noWidth, PoolingMaxOpkitForwardCore), ElementsAre());
    // No channels: nothing to fill.
    LayerCase noPlane("PoolingMaxOpkitForward");
    noPlane.Online({0, 2, 2}, {}).Output(Filled({1, 1}, {4}));
    SetAttr<PoolingMaxAttr>(noPlane, {});
    EXPECT_THAT(RunOk(noPlane, PoolingMaxOpkitForwardCore), ElementsAre(4));
    const LayerCase noRow = Pooling<PoolingMaxAttr>({2, 2}, {1, 2, 3, 4}, {0, 1}, {});
    EXPECT_THAT(RunOk(noRow, PoolingMaxOpkitForwardCore), ElementsAre());
}

TEST(PoolingAve, EmptyOutputs)
{
    LayerCase noPlane("PoolingAveOpkitForward");
    noPlane.Online({0, 2, 2}, {}).Output(Filled({1, 1}, {4}));
    SetAttr<PoolingAveAttr>(noPlane, {});
    EXPECT_THAT(RunOk(noPlane, AveCore), ElementsAre(4));
    for (const Shape& out : {Shape{0, 1}, Shape{1, 0}}) {
        LayerCase empty("PoolingAveOpkitForward");
        empty.Online({2, 2}, {1, 2, 3, 4}).Output(out, 16);
        SetAttr<PoolingAveAttr>(empty, {});
        EXPECT_THAT(RunOk(empty, AveCore), ElementsAre());
    }
}

TEST(PoolingLp, Norms)
{
    const std::vector<float> data = {3, -4, 1, -2, 0, 2};
    const Window w = {.kernelW = 3, .padLeft = 1};
    const auto norm = [&](uint32_t normP) {
        Window window = w;
        window.normP = normP;
        return RunOk(Pooling<PoolingLpAttr>({2, 3}, data, {1, 3}, window), PoolingLpOpkitForward);
    };
    EXPECT_THAT(norm(1), ElementsAre(9, 12, 7));
    EXPECT_THAT(norm(2), ElementsAre(sqrtf(29), sqrtf(34), sqrtf(21)));
    EXPECT_THAT(norm(3), ElementsAre(29, 34, 21));
    EXPECT_THAT(norm(0), ElementsAre(29, 34, 21));
}

TEST(PoolingLp, NoCellIsZero)
{
    for (const uint32_t normP : {0u, 1u, 2u, 3u}) {
        const Window w = {.kernelH = 1, .kernelW = 1, .strideW = 4, .normP = normP};
        EXPECT_EQ(RunOk(Pooling<PoolingLpAttr>({1, 3}, {1, 2, 3}, {1, 2}, w), PoolingLpOpkitForward)[1], 0.0f);
    }
}

// The input stays compact, and the core leaves the output compact as well.
TEST(PoolingLp, Compacting)
{
    const Window w = {.kernelH = 1, .kernelW = 1, .normP = 1};
    LayerCase layer = Pooling<PoolingLpAttr>({2, 3}, {1, -2, 3, -4, 5, -6}, {2, 3}, w);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(std::vector<float>(world.InputRows().begin(), world.InputRows().begin() + 6),
                ElementsAre(1, -2, 3, -4, 5, -6));
    World core(layer);
    ASSERT_EQ(core.RunDirect(LpCore), 0u);
    EXPECT_THAT(std::vector<float>(core.OutputRows().begin(), core.OutputRows().begin() + 6),
                ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(Pooling, Failures)
{
    struct Row {
        const char* name;
        ForwardFunc core;
        ForwardFunc forward;
        uint32_t result;       // of the operator
        const char* messages;  // unresolved input
    };
    const Row rows[] = {
        {"PoolingAveOpkitForward", AveCore, PoolingAveOpkitForward, 0,
         "[PoolingAveOpkitForwardCore:#]ParseInputInfo failed.\n\n"},
        {"PoolingMaxOpkitForward", PoolingMaxOpkitForwardCore, PoolingMaxOpkitForward, 0,
         "[PoolingMaxOpkitForwardCore:#]ParseInputInfo failed.\n\n"},
        {"PoolingLpOpkitForward", LpCore, PoolingLpOpkitForward, OPKIT_FAILURE, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LayerCase missing(row.name);
        missing.Output({2, 2});
        SetAttr<PoolingAveAttr>(missing, {});
        World core(missing);
        const RunResult coreRun = RunCaptured(core, row.core);
        EXPECT_EQ(coreRun.result, OPKIT_FAILURE);
        EXPECT_EQ(coreRun.messages, row.messages);
        World world(missing);
        const RunResult run = RunCaptured(world, row.forward);
        EXPECT_EQ(run.result, row.result);
        EXPECT_EQ(run.messages, row.messages);
    }
    LayerCase nullInput = Pooling<PoolingLpAttr>({2, 3}, {1, 2, 3, 4, 5, 6}, {2, 3}, {});
    nullInput.Tamper([](World& w) { w.Param().inputs[0].data = nullptr; });
    World nullWorld(nullInput);
    const RunResult nullRun = RunCaptured(nullWorld, PoolingLpOpkitForward);
    EXPECT_EQ(nullRun.result, OPKIT_FAILURE);
    EXPECT_EQ(nullRun.messages,
              "[DelAlignSpace:#]Input data is NULL.\n\n[PoolingLpOpkitForwardCore:#]DelAlignSpace failed.\n\n");
    World nullCore(nullInput);
    EXPECT_EQ(RunCaptured(nullCore, LpCore).result, OPKIT_FAILURE);
    LayerCase nullOutput("PoolingLpOpkitForward");
    nullOutput.Online({0, 2, 2}, {}).Output({2, 2}).Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    SetAttr<PoolingLpAttr>(nullOutput, {});
    World outWorld(nullOutput);
    const RunResult outRun = RunCaptured(outWorld, PoolingLpOpkitForward);
    EXPECT_EQ(outRun.result, OPKIT_FAILURE);
    EXPECT_EQ(outRun.messages,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[PoolingLpOpkitForward:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
