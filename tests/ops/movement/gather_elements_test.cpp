#include <csignal>

#include "tests/ops/movement/movement_cases.h"
#include "tests/reference/gather.h"

namespace opkit::test {
namespace {

using reference::RefGatherElements;
using ::testing::ElementsAre;

LayerCase GatherElements(int32_t axis)
{
    LayerCase layer("GatherElementsOpkitForward");
    layer.Attr<GatherElementsAttr>().gatherAxis = axis;
    return layer;
}

std::string Outside(const std::string& index)
{
    return "[GatherElementsOpkitForward:#]GatherElements index " + index + " reads outside the data.\n\n";
}

TEST(GatherElements, RoundsAndClips)
{
    LayerCase layer = GatherElements(0);
    layer.Online({7}, {0, 1, 2, 3, 4, 5, 6}, 32);
    layer.Online({6}, {2.5f, -2.5f, 9, -9, -0.0f, 1.49f}, 32).Output({6}, 32);
    World world(layer);
    EXPECT_EQ(world.RunDirect(GatherElementsOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(3, 4, 6, 0, 0, 1));
    EXPECT_THAT(world.Input(1), ElementsAre(2.5f, -2.5f, 6, -7, 0, 1.49f)) << "clipped in place";
}

TEST(GatherElements, BothAxesOfPaddedTensors)
{
    LayerCase rows = GatherElements(0);
    rows.Online({3, 2}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 2}, {2, 0, 1, 2}, 32).Output({2, 2}, 16);
    EXPECT_THAT(RunOutput(rows, GatherElementsOpkitForward), ElementsAre(5, 2, 3, 6));
    LayerCase columns = GatherElements(1);
    columns.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Offline({2, 2}, {2, 0, -1, -3}).Output({2, 2}, 16);
    EXPECT_THAT(RunOutput(columns, GatherElementsOpkitForward), ElementsAre(3, 1, 6, 4));
}

TEST(GatherElementsDeathTest, OutputWithoutWidthFaults)
{
    LayerCase layer = GatherElements(0);
    layer.Online({3}, {1, 2, 3}).Online({2}, {0, 1}).Output({2, 0}, 16);
    World world(layer);
    EXPECT_EXIT(world.RunDirect(GatherElementsOpkitForward), testing::KilledBySignal(SIGILL), "");

    LayerCase empty = GatherElements(0);  // where there is nothing to write, there is no fault
    empty.Online({3, 0}, {}, 16).Online({2, 0}, {}, 16).Output({2, 0}, 16);
    World nothing(empty);
    EXPECT_EQ(nothing.RunDirect(GatherElementsOpkitForward), 0u);
}

// The sign test looks at the unrounded index, so just below 0 the sum is D, one past the axis.
TEST(GatherElements, JustBelowZero)
{
    LayerCase inside = GatherElements(1);
    inside.Online({2, 5}, Iota(10)).Online({1, 1}, {-0.4f}).Output({1, 1});
    EXPECT_THAT(RunOutput(inside, GatherElementsOpkitForward), ElementsAre(5));
    LayerCase padded = GatherElements(1);
    padded.Online({2, 5}, Iota(10), 32).Online({2, 1}, {-0.4f, -0.6f}).Output({2, 1});
    EXPECT_THAT(RunOutput(padded, GatherElementsOpkitForward), ElementsAre(5, 9));
    LayerCase outside = GatherElements(0);
    outside.Online({5}, Iota(5), 32).Online({2}, {1, -0.4f}).Output({2});
    World world(outside);
    EXPECT_EQ(RunCaptured(world, GatherElementsOpkitForward).messages, Outside("-0.400000"));
    EXPECT_EQ(world.Output()[0], 1);
}

TEST(GatherElements, NanIsNotClipped)
{
    LayerCase outside = GatherElements(0);  // the lowest number, which no row has
    outside.Online({5}, Iota(5)).Online({1}, {kNan}).Output({1});
    ExpectRun(outside, GatherElementsOpkitForward, ~0u, Outside("nan"));
    LayerCase inside = GatherElements(0);  // times an even pitch it wraps to 0
    inside.Online({2, 2}, {1, 2, 3, 4}).Online({1, 2}, {kNan, 1}).Output({1, 2});
    EXPECT_THAT(RunOutput(inside, GatherElementsOpkitForward), ElementsAre(1, 4));
}

TEST(GatherElements, OfflineIndicesStayClippedForTheNextItem)
{
    LayerCase layer = GatherElements(0);
    layer.Online({5}, Iota(5)).Offline({2}, {9, -7}).Output({2}).Batch(2);
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.OfflineData(0), ElementsAre(4, -5));
    EXPECT_THAT(world.Output(0, 1), ElementsAre(4, 0));
}

TEST(GatherElements, NoWorkAndUnresolvedInputs)
{
    LayerCase empty = GatherElements(0);
    empty.Online({2, 2}, Iota(4)).Online({0, 2}, {}).Output({2});
    ExpectRun(empty, GatherElementsOpkitForward, 0, "");
    LayerCase none = GatherElements(0);
    none.Output({2});
    ExpectRun(none, GatherElementsOpkitForward, ~0u, "[GatherElementsOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase indices = GatherElements(0);
    indices.Offline({2}, {0, 1}).Output({2});
    ExpectRun(indices, GatherElementsOpkitForward, ~0u, "[GatherElementsOpkitForward:#]ParseInputInfo failed.\n\n");
}

TEST(GatherElements, SameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        const Shape data = random.Shape(1, 5, 1200);
        const auto axis = static_cast<size_t>(random.Int(0, static_cast<int32_t>(data.size()) - 1));
        Shape indices = data;
        for (uint32_t& extent : indices) {
            extent = static_cast<uint32_t>(random.Int(1, static_cast<int32_t>(extent)));
        }
        indices[axis] = static_cast<uint32_t>(random.Int(1, 9));
        if (random.Chance(0.1)) {
            indices.back() += 2;  // columns that the data lacks
        }
        const int32_t extent = static_cast<int32_t>(data[axis]);
        std::vector<float> values(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.5);
        for (float& value : values) {
            value = static_cast<float>(random.Int(0, 2 * extent - 2)) * (random.Chance(0.5) ? 0.5f : -0.5f);
            if (wild && random.Chance(0.1)) {
                value =
                    random.Chance(0.5) ? static_cast<float>(random.Int(-3, 3) * extent) : random.Float(Values::kMixed);
            } else if (value > -0.6f && value < 0) {
                value = 0;
            }
        }
        Shape out = indices;
        if (random.Chance(0.2)) {  // other rows that hold as many elements
            const auto count = static_cast<uint32_t>(values.size());
            const uint32_t width = random.Chance(0.5) ? count : static_cast<uint32_t>(random.Int(2, 5));
            out = {(count + width - 1) / width, width};
        }
        LayerCase layer = GatherElements(static_cast<int32_t>(axis));
        AddInput(layer, random, data, Values::kBits);
        AddInput(layer, random, indices, values);
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, GatherElementsOpkitForward, RefGatherElements);
    });
}

// The last axis of the data is not the last of the indices: the column counts besides the index, and the base has the
// coordinates of the data's outer axes only.
TEST(GatherElements, IndicesOfAHigherRank)
{
    LayerCase layer = GatherElements(1);
    layer.Online({2, 3}, Iota(6), 16).Online({2, 1, 2}, {0, 1, 2, 0}, 16).Output({2, 1, 2}, 16);
    EXPECT_THAT(RunOutput(layer, GatherElementsOpkitForward), ElementsAre(0, 2, 5, 4));
    ExpectSameAsReference(layer, GatherElementsOpkitForward, RefGatherElements);
}

// More dimensions than a constant may have, so all tensors are online.
TEST(GatherElements, AnyRank)
{
    const Shape shape = {2, 1, 2, 1, 2, 3, 1, 2, 1, 1, 2, 1, 2};
    for (const int32_t axis : {0, 5, 9, 10, 12}) {
        Shape indices = shape;
        indices[static_cast<size_t>(axis)] = 3;
        std::vector<float> values(modelkit::ElementCount(indices));
        for (size_t i = 0; i < values.size(); ++i) {
            values[i] = static_cast<float>(i * 7 % shape[static_cast<size_t>(axis)]);
        }
        LayerCase layer = GatherElements(axis);
        layer.Online(shape, Iota(192), 16).Online(indices, values, 32).Output(indices, 16);
        ExpectSameAsReference(layer, GatherElementsOpkitForward, RefGatherElements);
    }
}

}  // namespace
}  // namespace opkit::test
