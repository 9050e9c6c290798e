// InstanceNormalization: planes by rank, order of operations, limits of the two copies.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/instance_normalization.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr const char* kName = "InstanceNormalizationOpkitForward";

// Floats of one plane.
uint32_t PlaneSize(const Shape& x)
{
    return x.size() >= 4   ? x[x.size() - 2] * x.back()
           : x.size() == 3 ? x.back()
                           : static_cast<uint32_t>(ElementCount(x));
}

uint32_t Channels(const Shape& x)
{
    return x.size() >= 4 ? x[x.size() - 3] : x.size() == 3 ? x[1] : 1;
}

LayerCase Norm(const Shape& x, const std::vector<float>& data, const std::vector<float>& scale,
               const std::vector<float>& bias, int32_t epsilon, uint32_t stride = 0)
{
    LayerCase layer(kName);
    layer.Online(x, data, stride).Online({static_cast<uint32_t>(scale.size())}, scale);
    layer.Online({static_cast<uint32_t>(bias.size())}, bias).Output(x, stride).Workspace(PlaneSize(x) * 4);
    layer.Attr<InstanceNormalizationAttr>().epsilon = epsilon;
    return layer;
}

TEST(InstanceNormalization, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape x = random.Shape(1, 5, 1500);
        const uint32_t channels = Channels(x);
        const Values values = random.OneOf({Values::kMixed, Values::kPlain, Values::kPlain, Values::kUnit});
        const std::vector<float> data = random.Floats(ElementCount(x), values);
        LayerCase layer(kName);
        const bool inPlace = random.Chance(0.25);
        if (!inPlace && random.Chance(0.25)) {
            layer.Offline(x, data);
        } else {
            layer.Online(x, data, random.Stride(x.back()));
        }
        const Shape perChannel = random.Chance(0.5) ? Shape{channels} : Shape{channels, 1};
        for (int i = 0; i < 2; ++i) {
            const std::vector<float> parameters = random.Floats(channels, values);
            if (random.Chance(0.5)) {
                layer.Offline(perChannel, parameters);
            } else {
                layer.Online(perChannel, parameters, random.Stride(perChannel.back()));
            }
        }
        if (inPlace) {
            layer.OutputInPlace(0, x);
        } else {
            layer.Output(x, random.Stride(x.back()));
        }
        const uint32_t need = PlaneSize(x) * 4;
        layer.Workspace(random.Chance(0.05) ? need - 4 : need + (random.Chance(0.2) ? 64 : 0));
        layer.Attr<InstanceNormalizationAttr>().epsilon = random.OneOf({0, 1, 2, -1, 100000000});
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, InstanceNormalizationOpkitForward, RefInstanceNormalization,
                              {.nan = NanPolicy::kAnyNan});
    });
}

// Mean 2, variance 5; with epsilon 4 the deviation is 3.
TEST(InstanceNormalization, OnePlane)
{
    const std::vector<float> x = {-1, 5, 2 + 1.0f, 1};
    World world(Norm({1, 1, 2, 2}, x, {6}, {10}, 4, 16));
    ASSERT_EQ(world.RunRequest(), 0u);
    const float a = static_cast<float>(1.0 / 3.0) * 6;
    const float shift = 10 - 2 * a;
    EXPECT_THAT(world.Output(), ElementsAre(-1 * a + shift, 5 * a + shift, 3 * a + shift, 1 * a + shift));
}

// The form x * a + (bias - mean * a) rounds otherwise than (x - mean) * a + bias: with a large mean it cancels.
TEST(InstanceNormalization, RoundsInItsOwnForm)
{
    const std::vector<float> x = {16777216, 16777218};
    World world(Norm({2}, x, {1}, {0.125f}, 0));
    ASSERT_EQ(world.RunRequest(), 0u);
    // Sum 33554434 rounds to 33554432: mean 16777216, squares 0 and 4, variance 2.
    const float a = static_cast<float>(1.0 / std::sqrt(2.0));
    const float product = 16777216 * a;
    const float shift = 0.125f - product;
    const float scaled0 = x[0] * a;
    const float scaled1 = x[1] * a;
    EXPECT_THAT(world.Output(), ElementsAre(scaled0 + shift, scaled1 + shift));
    EXPECT_EQ(world.Output()[0], 0.0f);  // not 0.125
}

TEST(InstanceNormalization, ChannelOfEachPlane)
{
    // Rank 3: plane i takes scale[i % C]; two elements at distance 1 from their mean.
    World world(Norm({2, 2, 2}, {0, 2, 0, 2, 0, 2, 0, 2}, {1, 10}, {0, 100}, 0));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(-1, 1, 90, 110, -1, 1, 90, 110));
    // Rank 2: one plane, channel 0.
    World flat(Norm({2, 2}, {0, 2, 0, 2}, {5}, {1}, 0));
    ASSERT_EQ(flat.RunRequest(), 0u);
    EXPECT_THAT(flat.Output(), ElementsAre(-4, 6, -4, 6));
}

// Of five dimensions only the last four are visited.
TEST(InstanceNormalization, OuterDimensionIsNotVisited)
{
    LayerCase layer(kName);
    CaseTensor out;
    out.shape = {2, 1, 1, 1, 2};
    out.data = {7, 7, 7, 7};
    layer.Online({2, 1, 1, 1, 2}, {0, 2, 0, 2}).Online({1}, {1}).Online({1}, {0}).Output(out).Workspace(8);
    layer.Attr<InstanceNormalizationAttr>();
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(-1, 1, 7, 7));
}

TEST(InstanceNormalization, ConstantPlaneWithoutEpsilon)
{
    World world(Norm({2}, {3, 3}, {1}, {0}, 0));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_TRUE(std::isnan(world.Output()[0]));
    World zero(Norm({2}, {3, 3}, {1}, {0}, 1));
    ASSERT_EQ(zero.RunRequest(), 0u);
    EXPECT_THAT(zero.Output(), ElementsAre(0, 0));
}

TEST(InstanceNormalization, NoInstanceExpandsOnly)
{
    LayerCase layer(kName);
    CaseTensor out;
    out.shape = {2, 3};
    out.raw = {1, 2, 3, 4, 5, 6, 7, 8};
    out.strideBytes = 16;
    layer.Online({1, 0, 2, 2}, {}).Online({1}, {1}).Online({1}, {0}).Output(out).Workspace(16);
    layer.Attr<InstanceNormalizationAttr>();
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    const auto* words = reinterpret_cast<const uint32_t*>(world.OutputRows().data());
    EXPECT_THAT(std::vector<uint32_t>(words, words + 8), ElementsAre(1, 2, 3, 4, 4, 5, 6, 8));
}

TEST(InstanceNormalization, Compacting)
{
    LayerCase layer(kName);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 1}, {1, 2}, 16).Online({2, 1}, {3, 4}, 16);
    layer.Output({2, 3}, 16).Workspace(24);
    layer.Attr<InstanceNormalizationAttr>();
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    const auto front = [&world](size_t k, size_t n) {
        const auto rows = world.InputRows(k);
        return std::vector<float>(rows.begin(), rows.begin() + static_cast<ptrdiff_t>(n));
    };
    EXPECT_THAT(front(0, 6), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(front(1, 2), ElementsAre(1, 2));
    EXPECT_THAT(front(2, 2), ElementsAre(3, 4));
}

TEST(InstanceNormalization, Failures)
{
    const auto messages = [](const LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, InstanceNormalizationOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        return run.messages;
    };
    for (const int inputs : {0, 1, 2}) {
        LayerCase missing(kName);
        for (int k = 0; k < inputs; ++k) {
            missing.Online({2}, {1, 2});
        }
        missing.Output({2}).Workspace(8);
        missing.Attr<InstanceNormalizationAttr>();
        EXPECT_EQ(messages(missing), "");
    }

    LayerCase small = Norm({2, 2}, {1, 2, 3, 4}, {1}, {0}, 1);
    small.Workspace(12);
    EXPECT_EQ(messages(small), "[InstanceNormalizationOpkitForward:#]memcpy failed, errnum = 162\n");
    small.Workspace(0);
    EXPECT_EQ(messages(small), "[InstanceNormalizationOpkitForward:#]memcpy failed, errnum = 34\n");

    // The output holds one plane of two: the first is written, the second fails.
    LayerCase halfOutput(kName);
    halfOutput.Online({1, 2, 2}, {0, 2, 0, 2}).Online({2}, {1, 1}).Online({2}, {0, 0}).Output({1, 1, 2}).Workspace(8);
    halfOutput.Attr<InstanceNormalizationAttr>();
    EXPECT_EQ(messages(halfOutput), "[InstanceNormalizationOpkitForward:#]memcpy failed, errnum = 34\n");
    World half(halfOutput);
    RunCaptured(half, InstanceNormalizationOpkitForward);
    EXPECT_THAT(half.Output(), ElementsAre(-1, 1));

    for (const uint32_t k : {0u, 1u, 2u}) {
        LayerCase nullInput(kName);
        nullInput.Online({2, 1}, {1, 2}, 16).Online({1, 1}, {1}, 16).Online({1, 1}, {0}, 16);
        nullInput.Output({2, 1}, 16).Workspace(8);
        nullInput.Attr<InstanceNormalizationAttr>();
        nullInput.Tamper([k](World& w) { w.Param().inputs[k].data = nullptr; });
        EXPECT_EQ(messages(nullInput),
                  "[DelAlignSpace:#]Input data is NULL.\n\n"
                  "[InstanceNormalizationOpkitForward:#]DelAlignSpace failed.\n\n");
    }
    LayerCase nullOutput(kName);
    nullOutput.Online({1, 0, 2, 2}, {}).Online({1}, {1}).Online({1}, {0}).Output({0, 2}).Workspace(16);
    nullOutput.Attr<InstanceNormalizationAttr>();
    nullOutput.Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messages(nullOutput),
              "[InsertAlignSpace:#]Input data is NULL.\n\n"
              "[InstanceNormalizationOpkitForward:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
