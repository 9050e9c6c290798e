#include "tests/reference/scatter.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefScatter;
using ::testing::ElementsAre;

LayerCase Scatter(int32_t axis, uint32_t workspace = 4096)
{
    LayerCase layer("ScatterOpkitForward");
    layer.Attr<ScatterAttr>().scatterAxis = axis;
    layer.Workspace(workspace);
    return layer;
}

std::string OutOfBounds(const std::string& rest)
{
    return "[ScatterOpkitForward:#]indices element out of data bounds, " + rest + "\n";
}

TEST(Scatter, ReplacesAlongBothAxes)
{
    LayerCase rows = Scatter(0);
    rows.Online({3, 2}, {1, 2, 3, 4, 5, 6}, 16).Online({1, 2}, {2, 0}, 16).Online({1, 2}, {8, 9}, 16);
    rows.Output({3, 2}, 16);
    EXPECT_THAT(RunOutput(rows, ScatterOpkitForward), ElementsAre(1, 9, 3, 4, 8, 6));
    LayerCase columns = Scatter(1);
    columns.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Offline({2, 2}, {0, -1, 1, 1}).Online({2, 2}, {7, 8, 9, 10}, 16);
    columns.Output({2, 3}, 16);
    EXPECT_THAT(RunOutput(columns, ScatterOpkitForward), ElementsAre(7, 2, 8, 4, 10, 6)) << "the later update wins";
}

TEST(Scatter, Compacting)
{
    LayerCase layer = Scatter(0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 3}, {0, 1, 1, 0, 0, 1}, 16);
    layer.Online({2, 3}, {7, 8, 9, 10, 11, 12}, 16).Output({2, 3}, 16).Batch(2);
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    for (uint32_t item = 0; item < 2; ++item) {
        EXPECT_THAT(world.InputRows(0, item).first(6), ElementsAre(1, 2, 3, 4, 5, 6));
        EXPECT_THAT(world.InputRows(1, item).first(6), ElementsAre(0, 1, 1, 0, 0, 1));
        EXPECT_THAT(world.InputRows(2, item).first(6), ElementsAre(7, 8, 9, 10, 11, 12));
        EXPECT_THAT(world.Output(0, item), ElementsAre(10, 11, 3, 4, 8, 12));
    }
}

TEST(Scatter, RoundsHalvesAwayFromZero)
{
    LayerCase layer = Scatter(0);
    layer.Online({4}, {0, 0, 0, 0}).Online({3}, {-1.5f, 0.5f, -0.4f}).Online({3}, {1, 2, 3}).Output({4});
    EXPECT_THAT(RunOutput(layer, ScatterOpkitForward), ElementsAre(3, 2, 1, 0));
}

TEST(Scatter, RefusedIndicesLeaveTheOutput)
{
    const auto run = [](float index, const std::string& shown) {
        LayerCase layer = Scatter(0);
        CaseTensor out;
        out.shape = {4};
        out.data = {9, 9, 9, 9};
        layer.Online({4}, {0, 0, 0, 0}).Online({2}, {0, index}).Online({2}, {1, 2}).Output(out);
        World world(layer);
        const RunResult result = RunCaptured(world, ScatterOpkitForward);
        EXPECT_EQ(result.result, ~0u);
        EXPECT_EQ(result.messages, OutOfBounds("idx=" + shown + " must be within the inclusive range [-4,3]"));
        EXPECT_THAT(world.Output(), ElementsAre(9, 9, 9, 9));
    };
    run(3.5f, "4");
    run(-4.5f, "-5");
    run(kNan, "-2147483648");
    run(kInf, "-2147483648");
    run(8388609.0f, "8388609");
}

TEST(Scatter, Messages)
{
    for (int32_t given = 0; given < 3; ++given) {
        LayerCase missing = Scatter(0);
        for (int32_t i = 0; i < given; ++i) {
            missing.Online({2}, {0, 1});
        }
        missing.Output({2});
        ExpectRun(missing, ScatterOpkitForward, ~0u, "");
    }
    for (size_t k = 0; k < 3; ++k) {
        LayerCase null = Scatter(0);
        null.Online({3}, {0, 0, 0}, 16).Online({3}, {0, 0, 0}, 16).Online({3}, {0, 0, 0}, 16).Output({3}, 16);
        null.Tamper([k](World& world) { world.Param().inputs[k].data = nullptr; });
        ExpectRun(null, ScatterOpkitForward, ~0u, kNullDelAlign + "[ScatterOpkitForward:#]DelAlignSpace failed.\n\n");
    }
    LayerCase small = Scatter(0);
    small.Online({3}, {1, 2, 3}).Online({1}, {0}).Online({1}, {5}).Output({2});
    World world(small);
    EXPECT_EQ(RunCaptured(world, ScatterOpkitForward).messages, "[ScatterOpkitForward:#]memcpy failed, errnum = 162\n");
    EXPECT_THAT(world.Output(), ElementsAre(0, 0)) << "cleared";
    LayerCase empty = Scatter(0);
    empty.Online({0, 4}, {}).Online({0, 4}, {}).Online({0, 4}, {}).Output({0, 4});
    ExpectRun(empty, ScatterOpkitForward, ~0u, "[ScatterOpkitForward:#]memcpy failed, errnum = 34\n");
    LayerCase null = Scatter(0);
    null.Online({3}, {1, 2, 3}).Online({1}, {0}).Online({1}, {5}).Output({3}).Tamper(NoOutputData);
    ExpectRun(null, ScatterOpkitForward, ~0u, "[ScatterOpkitForward:#]memcpy failed, errnum = 22\n");
}

TEST(Scatter, NoIndicesCopy)
{
    LayerCase layer = Scatter(0);
    layer.Online({2, 3}, Iota(6), 16).Online({0, 3}, {}, 16).Online({0, 3}, {}, 16).Output({2, 3}, 16);
    EXPECT_THAT(RunOutput(layer, ScatterOpkitForward), ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(Scatter, OutputIsAnInput)
{
    LayerCase layer = Scatter(1);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 1}, {2, 0}, 16).Online({2, 1}, {8, 9}, 16);
    layer.OutputInPlace(0, {2, 3});
    EXPECT_THAT(RunOutput(layer, ScatterOpkitForward), ElementsAre(1, 2, 8, 9, 5, 6));
    ExpectSameAsReference(layer, ScatterOpkitForward, RefScatter);
}

// More dimensions than a constant may have, so all tensors are online.
TEST(Scatter, AnyRank)
{
    const Shape shape = {2, 1, 2, 1, 2, 3, 1, 2, 1, 1, 2, 1, 2};
    for (const int32_t axis : {0, 5, 9, 10, 12}) {
        Shape indices = shape;
        indices[static_cast<size_t>(axis)] = 3;
        std::vector<float> values(modelkit::ElementCount(indices));
        for (size_t i = 0; i < values.size(); ++i) {
            values[i] = static_cast<float>(i * 7 % shape[static_cast<size_t>(axis)]);
        }
        LayerCase layer = Scatter(axis);
        layer.Online(shape, Iota(192), 16).Online(indices, values, 32);
        layer.Online(indices, Iota(static_cast<uint32_t>(values.size())), 16).Output(shape, 16);
        ExpectSameAsReference(layer, ScatterOpkitForward, RefScatter);
    }
}

// Updates that are narrower than the data: rows of one, an inner axis of one, a whole plane.
TEST(Scatter, UpdatesOfFewerElements)
{
    LayerCase narrow = Scatter(1);
    narrow.Online({3, 2}, Iota(6)).Online({3, 1}, {1, 0, 1}).Online({3, 1}, {7, 8, 9}).Output({3, 2});
    EXPECT_THAT(RunOutput(narrow, ScatterOpkitForward), ElementsAre(0, 7, 8, 3, 4, 9));
    LayerCase column = Scatter(0);
    column.Online({3, 2}, Iota(6)).Online({3, 1}, {2, 0, 0}).Online({3, 1}, {7, 8, 9}).Output({3, 2});
    EXPECT_THAT(RunOutput(column, ScatterOpkitForward), ElementsAre(9, 1, 2, 3, 7, 5));
    LayerCase inner = Scatter(0);
    inner.Online({2, 2, 2}, Iota(8)).Online({1, 2, 1}, {1, 0}).Online({1, 2, 1}, {8, 9}).Output({2, 2, 2});
    EXPECT_THAT(RunOutput(inner, ScatterOpkitForward), ElementsAre(0, 1, 9, 3, 8, 5, 6, 7));
    LayerCase plane = Scatter(0);
    plane.Online({2, 2, 2}, Iota(8)).Online({1, 2, 2}, {1, 0, 0, 1}).Online({1, 2, 2}, {10, 11, 12, 13});
    plane.Output({2, 2, 2});
    EXPECT_THAT(RunOutput(plane, ScatterOpkitForward), ElementsAre(0, 11, 12, 3, 10, 5, 6, 13));
}

// The walk is driven by the number of indices, its counters by the shape of the updates.
TEST(Scatter, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const Shape data = random.Shape(1, 5, 1200);
        const auto axis = static_cast<size_t>(random.Int(0, static_cast<int32_t>(data.size()) - 1));
        Shape updates = data;
        for (uint32_t& extent : updates) {
            extent = static_cast<uint32_t>(random.Int(1, static_cast<int32_t>(extent)));
        }
        updates[axis] = static_cast<uint32_t>(random.Int(1, 9));
        const auto count = static_cast<uint32_t>(modelkit::ElementCount(updates));
        const Shape indices =
            random.Chance(0.8) ? updates : Shape{count - static_cast<uint32_t>(random.Int(0, 1)) % count};
        const int32_t extent = static_cast<int32_t>(data[axis]);
        std::vector<float> values(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.1);
        for (float& value : values) {
            value = static_cast<float>(random.Int(-4 * extent, 4 * extent - 3)) * 0.25f;
            if (wild && random.Chance(0.05)) {
                value = random.Float(Values::kMixed);
            }
        }
        LayerCase layer = Scatter(static_cast<int32_t>(axis), 4 * (count + 2 * static_cast<uint32_t>(data.size())));
        AddInput(layer, random, data, Values::kBits);
        AddInput(layer, random, indices, values);
        AddInput(layer, random, updates, Values::kBits);
        layer.Output(data, random.Stride(data.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, ScatterOpkitForward, RefScatter);
    });
}

}  // namespace
}  // namespace opkit::test
