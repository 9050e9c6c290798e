// CumSum.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/lines.h"
#include "tests/support/overlap.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::ElementsAre;

constexpr float kInf = std::numeric_limits<float>::infinity();

LayerCase CumSumCase(const Shape& shape, const std::vector<float>& data, int32_t axis, uint32_t reverse,
                     uint32_t exclusive, uint32_t stride = 0, uint32_t outStride = 0)
{
    LayerCase layer("CumSumOpkitForward");
    layer.Online(shape, data, stride).Output(shape, outStride);
    CumSumAttr& attr = layer.Attr<CumSumAttr>();
    attr.axis = axis;
    attr.reverse = reverse;
    attr.exclusive = exclusive;
    return layer;
}

std::vector<float> CumSum(const Shape& shape, const std::vector<float>& data, int32_t axis, uint32_t reverse,
                          uint32_t exclusive)
{
    World world(CumSumCase(shape, data, axis, reverse, exclusive));
    EXPECT_EQ(world.RunDirect(CumSumOpkitForward), 0u);
    return world.Output();
}

TEST(CumSum, Directions)
{
    EXPECT_THAT(CumSum({3}, {1, 2, 3}, 0, 0, 0), ElementsAre(1, 3, 6));
    EXPECT_THAT(CumSum({3}, {1, 2, 3}, 0, 1, 0), ElementsAre(6, 5, 3));
    EXPECT_THAT(CumSum({3}, {1, 2, 3}, 0, 0, 1), ElementsAre(0, 1, 3));
    EXPECT_THAT(CumSum({3}, {1, 2, 3}, 0, 1, 1), ElementsAre(5, 3, 0));
    EXPECT_THAT(CumSum({3}, {1, 2, 3}, 0, 2, 256), ElementsAre(0, 1, 3));  // only 1 reverses
    EXPECT_THAT(CumSum({2, 3}, {1, 2, 3, 4, 5, 6}, 0, 0, 0), ElementsAre(1, 2, 3, 5, 7, 9));
    EXPECT_THAT(CumSum({2, 3}, {1, 2, 3, 4, 5, 6}, 1, 1, 0), ElementsAre(6, 5, 3, 15, 11, 6));
    EXPECT_THAT(CumSum({2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, 1, 0, 1), ElementsAre(0, 0, 1, 2, 0, 0, 5, 6));
}

// An exclusive sum is a difference: infinities leave NaN, and what was rounded away stays away.
TEST(CumSum, ExclusiveSubtracts)
{
    const auto infinite = CumSum({2}, {kInf, 1}, 0, 0, 1);
    EXPECT_TRUE(std::isnan(infinite[0]));
    EXPECT_EQ(infinite[1], kInf);
    EXPECT_THAT(CumSum({2}, {1, 1e8f}, 0, 0, 1), ElementsAre(0, 0));
    const auto zero = CumSum({1}, {-3}, 0, 0, 1);
    EXPECT_FALSE(std::signbit(zero[0]));
}

TEST(CumSum, Compacting)
{
    LayerCase layer = CumSumCase({2, 3}, {1, 2, 3, 4, 5, 6}, 1, 0, 0, 16, 20);
    World world(layer);
    EXPECT_EQ(world.RunDirect(CumSumOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 3, 6, 4, 9, 15));
    const auto out = world.OutputRows();  // the gap keeps what the compact result had there
    EXPECT_THAT(std::vector<float>(out.begin(), out.begin() + 5), ElementsAre(1, 3, 6, 4, 9));
    const auto rows = world.InputRows();
    EXPECT_THAT(std::vector<float>(rows.begin(), rows.begin() + 6), ElementsAre(1, 2, 3, 4, 5, 6));
}

// In place an exclusive sum subtracts what it just wrote.
TEST(CumSum, OutputIsAnInput)
{
    for (const int32_t axis : {0, 1}) {
        for (const uint32_t exclusive : {0u, 1u}) {
            for (const uint32_t reverse : {0u, 1u}) {
                LayerCase layer("CumSumOpkitForward");
                layer.Online({20, 9}, Random(1).Floats(180, Values::kPlain), 48).OutputInPlace(0, {20, 9});
                layer.Attr<CumSumAttr>().axis = axis;
                layer.Attr<CumSumAttr>().exclusive = exclusive;
                layer.Attr<CumSumAttr>().reverse = reverse;
                ExpectSameAsReference(layer, CumSumOpkitForward, RefCumSum);
                World world(layer);
                EXPECT_EQ(world.RunDirect(CumSumOpkitForward), 0u);
                EXPECT_EQ(world.Output() == std::vector<float>(180, 0.0f), exclusive == 1);
            }
        }
    }
}

TEST(CumSum, EmptyInput)
{
    LayerCase layer("CumSumOpkitForward");
    layer.Online({2, 0}, {}).Output({1, 3}, 16);
    World world(layer);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, CumSumOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

TEST(CumSum, EmptyOutput)
{
    LayerCase layer("CumSumOpkitForward");
    layer.Online({0, 2}, {}).Output({0, 2});
    layer.Attr<CumSumAttr>().axis = 1;
    World world(layer);
    const RunResult run = RunCaptured(world, CumSumOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
}

TEST(CumSum, OutputOverlapsTheInput)
{
    ForRandomCases(200, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 300);
        LayerCase layer("CumSumOpkitForward");
        AddOverlapping(layer, random, shape, random.Floats(ElementCount(shape), Values::kPlain));
        CumSumAttr& attr = layer.Attr<CumSumAttr>();
        attr.axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        attr.reverse = random.OneOf({0u, 1u});
        attr.exclusive = random.OneOf({0u, 0u, 1u});
        ExpectSameAsReference(layer, CumSumOpkitForward, RefCumSum, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(CumSum, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 1500);
        const auto data = random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kPlain}));
        LayerCase layer("CumSumOpkitForward");
        if (random.Chance(0.3)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const Shape outShape = random.Chance(0.1) ? Shape{static_cast<uint32_t>(ElementCount(shape))} : shape;
        layer.Output(outShape, random.Stride(outShape.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        CumSumAttr& attr = layer.Attr<CumSumAttr>();
        attr.axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        attr.reverse = random.OneOf({0u, 1u, 2u});
        attr.exclusive = random.OneOf({0u, 0u, 1u, 3u});
        ExpectSameAsReference(layer, CumSumOpkitForward, RefCumSum, {.nan = NanPolicy::kAnyNan});
    });
}

}  // namespace
}  // namespace opkit
