// LpNorm: truncated norms, axes, orders, the order of clearing and reading.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/lp_norm.h"
#include "tests/support/overlap.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

LayerCase Norm(const Shape& shape, const std::vector<float>& data, int32_t axis, int32_t p)
{
    LayerCase layer("LpNormOpkitForward");
    layer.Online(shape, data, (shape.back() + 3) / 4 * 16).Output(shape, (shape.back() + 3) / 4 * 16);
    layer.Attr<LpNormAttr>().axis = axis;
    layer.Attr<LpNormAttr>().p = p;
    return layer;
}

std::vector<float> RunOk(const LayerCase& layer)
{
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    return world.Output();
}

TEST(LpNorm, OutputOverlapsTheInput)
{
    ForRandomCases(200, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 300);
        std::vector<float> data(ElementCount(shape));
        for (float& x : data) {
            x = static_cast<float>(random.Int(-40, 40)) * 0.75f;
        }
        LayerCase layer("LpNormOpkitForward");
        AddOverlapping(layer, random, shape, std::move(data));
        layer.Attr<LpNormAttr>().axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        layer.Attr<LpNormAttr>().p = random.OneOf({1, 2, 3});
        ExpectSameAsReference(layer, LpNormOpkitForward, RefLpNorm, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(LpNorm, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 1500);
        std::vector<float> data =
            random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kPlain, Values::kIntegers}));
        if (random.Chance(0.5)) {
            for (float& x : data) {
                x = std::ldexp(x, random.Int(0, 34));
            }
        }
        LayerCase layer("LpNormOpkitForward");
        if (random.Chance(0.2)) {
            layer.Offline(shape, data).Output(shape, random.Stride(shape.back()));
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
            // In place the clearing of the first elements comes before they are read.
            random.Chance(0.2) ? layer.OutputInPlace(0, shape) : layer.Output(shape, random.Stride(shape.back()));
        }
        const auto rank = static_cast<int32_t>(shape.size());
        layer.Attr<LpNormAttr>().axis = random.Int(-rank, rank - 1);
        layer.Attr<LpNormAttr>().p = random.OneOf({1, 2, 2, 3, 4, 0, -1, 7});
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, LpNormOpkitForward, RefLpNorm, {.nan = NanPolicy::kAnyNan});
    });
}

// Orders 1 and 2 do not call pow; this machine's pow gives the same for every kind of magnitude and sum.
TEST(LpNorm, FirstAndSecondOrderAreExactInPow)
{
    double (*volatile power)(double, double) = std::pow;
    ForRandomCases(20000, [power](Random& random) {
        const auto n = static_cast<double>(static_cast<float>(random.Word() >> random.Int(1, 31)));
        ASSERT_EQ(power(n, 1.0), n);
        ASSERT_EQ(power(n, 2.0), n * n);
        const double sum = std::ldexp(static_cast<float>(random.Word() >> 8), random.Int(-20, 100));
        ASSERT_EQ(static_cast<float>(power(sum, 0.5)), static_cast<float>(std::sqrt(sum)));
    });
}

TEST(LpNorm, Axes)
{
    const std::vector<float> x = {3, 0, 4, 0, 6, 8};
    // Two rows of three: norms 5 and 10.
    EXPECT_THAT(RunOk(Norm({2, 3}, x, -1, 2)), ElementsAre(0.6f, 0, 0.8f, 0, 0.6f, 0.8f));
    EXPECT_THAT(RunOk(Norm({2, 3}, x, 1, 2)), ElementsAre(0.6f, 0, 0.8f, 0, 0.6f, 0.8f));
    // Three columns of two: norms 3, 6, 12.
    EXPECT_THAT(RunOk(Norm({2, 3}, x, 0, 1)), ElementsAre(1, 0, 4 / 12.0f, 0, 1, 8 / 12.0f));
    EXPECT_THAT(RunOk(Norm({2, 3}, x, -2, 1)), ElementsAre(1, 0, 4 / 12.0f, 0, 1, 8 / 12.0f));
}

TEST(LpNorm, TruncatesForTheNormOnly)
{
    EXPECT_THAT(RunOk(Norm({2}, {1.5f, -2.5f}, 0, 1)), ElementsAre(0.5f, -2.5f / 3.0f));
    EXPECT_THAT(RunOk(Norm({2}, {0.5f, 0.5f}, 0, 2)), ElementsAre(kInf, kInf));
    EXPECT_THAT(RunOk(Norm({2}, {-0.999f, 0.5f}, 0, 3)), ElementsAre(-kInf, kInf));
    EXPECT_TRUE(std::isnan(RunOk(Norm({2}, {0.0f, 0.5f}, 0, 1))[0]));
}

// NaN and what does not fit truncate to -2^31, which has no magnitude.
TEST(LpNorm, LowestIntegerStaysNegative)
{
    EXPECT_THAT(RunOk(Norm({2}, {3e9f, 1}, 0, 1)), ElementsAre(3e9f / -2147483648.0f, 1 / -2147483648.0f));
    EXPECT_EQ(RunOk(Norm({2}, {kNan, 8}, 0, 1))[1], 8 / -2147483648.0f);
    EXPECT_EQ(RunOk(Norm({2}, {-kInf, 8}, 0, 2))[1], 8 / 2147483648.0f);
    EXPECT_TRUE(std::isnan(RunOk(Norm({2}, {kInf, 8}, 0, 3))[1]));  // the third root of a negative sum
}

TEST(LpNorm, OrderZeroFollowsPow)
{
    // Each term is 1; pow(2, infinity) is infinite, pow(1, infinity) is 1.
    EXPECT_THAT(RunOk(Norm({2}, {5, -7}, 0, 0)), ElementsAre(0.0f, -0.0f));
    EXPECT_THAT(RunOk(Norm({2, 1}, {5, -7}, 1, 0)), ElementsAre(5, -7));
}

// The count of a shape beyond 32 bits wraps: here to 8, which is two vectors of three, though four lie side by side.
TEST(LpNorm, CountBeyond32Bits)
{
    CaseTensor y;
    y.shape = {3, 4};
    y.data = std::vector<float>(12, 9.0f);
    LayerCase layer("LpNormOpkitForward");
    layer.Online({3, 4}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}).Output(y);
    layer.Attr<LpNormAttr>().axis = 1;
    layer.Attr<LpNormAttr>().p = 1;
    World world(layer);
    const auto manyBlocks = [](LayerParam* param) {
        uint32_t shape[] = {357913942, 3, 4};
        param->inputs[0].shape = shape;
        param->inputs[0].dimNum = 3;
        return LpNormOpkitForward(param);
    };
    EXPECT_EQ(world.RunDirect(manyBlocks), 0u);
    EXPECT_THAT(world.Output(),
                ElementsAre(1 / 15.0f, 2 / 18.0f, 9, 9, 5 / 15.0f, 6 / 18.0f, 9, 9, 9 / 15.0f, 10 / 18.0f, 9, 9));
}

// In place, the first two elements are zeros when the norms of two vectors are taken.
TEST(LpNorm, ClearsAsManyElementsAsVectors)
{
    LayerCase layer("LpNormOpkitForward");
    layer.Online({2, 3}, {3, 4, 12, 3, 0, 4}).OutputInPlace(0, {2, 3});
    layer.Attr<LpNormAttr>().axis = 1;
    layer.Attr<LpNormAttr>().p = 2;
    EXPECT_THAT(RunOk(layer), ElementsAre(0, 0, 1, 0.6f, 0, 0.8f));
}

TEST(LpNorm, Failures)
{
    const auto messages = [](const LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, LpNormOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        return run.messages;
    };
    LayerCase missing("LpNormOpkitForward");
    missing.Output({2});
    missing.Attr<LpNormAttr>();
    EXPECT_EQ(messages(missing), "[LpNormOpkitForward:#]ParseInputInfo failed.\n\n");

    LayerCase nullInput = Norm({2, 1}, {1, 2}, 0, 1);
    nullInput.Tamper([](World& w) { w.Param().inputs[0].data = nullptr; });
    EXPECT_EQ(messages(nullInput),
              "[DelAlignSpace:#]Input data is NULL.\n\n[LpNormOpkitForward:#]DelAlignSpace failed.\n\n");

    LayerCase distance("LpNormOpkitForward");
    distance.Online({2, 0, 3}, {}).Output({2, 3});
    distance.Attr<LpNormAttr>().axis = 0;
    EXPECT_EQ(messages(distance), "[LpNormOpkitForward:#]Illegal value, distant is 0\n");

    LayerCase width("LpNormOpkitForward");
    width.Online({0, 3}, {}).Output({2, 0});
    width.Attr<LpNormAttr>().axis = 1;
    EXPECT_EQ(messages(width), "[LpNormOpkitForward:#]widthOut can't be zero.\n\n");

    LayerCase nullOutput("LpNormOpkitForward");
    nullOutput.Online({0, 3}, {}).Output({0, 3}).Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    nullOutput.Attr<LpNormAttr>().axis = 1;
    EXPECT_EQ(messages(nullOutput),
              "[InsertAlignSpace:#]Input data is NULL.\n\n[LpNormOpkitForward:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
