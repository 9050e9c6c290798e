// NonZero.

#include "tests/reference/non_zero.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

LayerCase NonZeroCase(const Shape& shape, const std::vector<float>& data, const Shape& out)
{
    LayerCase layer("NonZeroOpkitForward");
    layer.Online(shape, data).Output(out);
    return layer;
}

std::vector<float> NonZero(const Shape& shape, const std::vector<float>& data, const Shape& out)
{
    World world(NonZeroCase(shape, data, out));
    EXPECT_EQ(world.RunDirect(NonZeroOpkitForward), 0u);
    return world.Output();
}

TEST(NonZero, PackedByCount)
{
    EXPECT_THAT(NonZero({4}, {0, 5, 0, 7}, {1, 4}), ElementsAre(1, 3, 0, 0));
    EXPECT_THAT(NonZero({2, 2}, {1, 0, 0, 2}, {2, 4}), ElementsAre(0, 1, 0, 1, 0, 0, 0, 0));
    EXPECT_THAT(NonZero({2, 2}, {1, 0, 0, 2}, {2, 2}), ElementsAre(0, 1, 0, 1));
    EXPECT_THAT(NonZero({2, 2}, {0, 0, 0, 0}, {2, 2}), Each(0));
    EXPECT_THAT(NonZero({2, 1, 2}, {0, 1, 1, 1}, {3, 3}), ElementsAre(0, 1, 1, 0, 0, 0, 1, 0, 1));
}

TEST(NonZero, Tolerance)
{
    EXPECT_THAT(NonZero({8}, {1e-7f, 2e-6f, kNan, 1e-6f, -kInf, -2e-6f, 1e-40f, 0.0f}, {1, 5}),
                ElementsAre(1, 2, 4, 5, 0));
}

TEST(NonZero, EmptyInput)
{
    EXPECT_THAT(NonZero({2, 0}, {}, {2, 3}), Each(0));
}

TEST(NonZero, Expanding)
{
    LayerCase layer("NonZeroOpkitForward");
    layer.Online({2, 3}, {0, 1, 0, 1, 0, 1}, 16).Output({2, 3}, 20);
    World world(layer);
    const World before = world.Clone();
    EXPECT_EQ(world.RunDirect(NonZeroOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 1, 1, 1, 0, 2));
    World same = before.Clone();  // the input keeps its rows
    EXPECT_EQ(memcmp(world.InputRows().data(), same.InputRows().data(), 32), 0);
}

TEST(NonZero, Messages)
{
    const auto messageOf = [](LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, NonZeroOpkitForward);
        EXPECT_EQ(run.result, UINT32_MAX);
        return run.messages;
    };
    LayerCase unresolved("NonZeroOpkitForward");
    unresolved.Offline({2}, {1, 2}).Output({1, 2});
    unresolved.Tamper([](World& world) { world.Attr<ReductionAttr>().head.offlineShape[0].dimNum = 0; });
    EXPECT_EQ(messageOf(unresolved), "[NonZeroOpkitForward:#]ParseInputInfo failed.\n\n");

    const std::string memset = "[NonZeroOpkitForward:#]nonZero memset error.\n\n";
    LayerCase null = NonZeroCase({2, 0}, {}, {2, 0});
    null.Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messageOf(null), memset);
    LayerCase nullFilled = NonZeroCase({2}, {0, 0}, {1, 2});
    nullFilled.Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messageOf(nullFilled), memset);

    // More coordinates than places: nothing is written.
    LayerCase small = NonZeroCase({2, 2}, {1, 1, 1, 0}, {1, 5});
    World world(small);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, NonZeroOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, memset);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");

    LayerCase flat = NonZeroCase({2}, {0, 0}, {2, 0});
    EXPECT_EQ(messageOf(flat), "[NonZeroOpkitForward:#]widthOut can't be zero.\n\n");
}

TEST(NonZero, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 1500);
        auto data = random.Floats(ElementCount(shape), Values::kMixed);
        const double zeros = random.OneOf({0.0, 0.1, 0.5, 0.95, 1.0});
        for (float& x : data) {
            x = random.Chance(zeros) ? random.OneOf({0.0f, -0.0f, 1e-7f}) : x;
        }
        const auto found =
            static_cast<uint32_t>(std::count_if(data.begin(), data.end(), [](float x) { return !RefIsZero(x); }));
        LayerCase layer("NonZeroOpkitForward");
        if (random.Chance(0.3)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const auto rank = static_cast<uint32_t>(shape.size());
        const Shape out = {rank,
                           found + static_cast<uint32_t>(random.Chance(0.3) && found != 0 ? 0 : random.Int(1, 9))};
        layer.Output(out, random.Stride(out.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, NonZeroOpkitForward, RefNonZero);
    });
}

}  // namespace
}  // namespace opkit
