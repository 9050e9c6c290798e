#include "tests/reference/gather.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefGather;
using ::testing::ElementsAre;

LayerCase Gather(uint32_t axis)
{
    LayerCase layer("GatherOpkitForward");
    layer.Attr<GatherAttr>().gatherAxis = axis;
    return layer;
}

std::string Outside(const std::string& index)
{
    return "[GatherOpkitForward:#]Gather index " + index + " reads outside the data.\n\n";
}

TEST(Gather, SlicesKeepTheOutputsGaps)
{
    LayerCase layer = Gather(0);
    CaseTensor out;
    out.shape = {3, 3};
    out.strideBytes = 16;
    out.raw.assign(12, std::bit_cast<uint32_t>(-1.0f));
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({3}, {1, 0, 1.9f}).Output(out);
    World world(layer);
    EXPECT_EQ(world.RunDirect(GatherOpkitForward), 0u);
    EXPECT_THAT(world.OutputRows(), ElementsAre(4, 5, 6, -1, 1, 2, 3, -1, 4, 5, 6, -1));
    EXPECT_THAT(world.Input(1), ElementsAre(1, 0, 1.9f)) << "indices stay as they are";
}

TEST(Gather, LastAxisWalksTheIndexRows)
{
    LayerCase layer = Gather(1);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 2}, {2, 0, 1, 2.9f}, 16).Output({2, 2, 2}, 16);
    EXPECT_THAT(RunOutput(layer, GatherOpkitForward), ElementsAre(3, 1, 2, 3, 6, 4, 5, 6));
}

TEST(Gather, MiddleAxis)
{
    LayerCase layer = Gather(1);
    layer.Offline({2, 2, 2}, Iota(8)).Online({1}, {1}).Output({2, 1, 2}, 16);
    EXPECT_THAT(RunOutput(layer, GatherOpkitForward), ElementsAre(2, 3, 6, 7));
}

// The wrapped offset is followed inside the data and refused outside; what was written before stays.
TEST(Gather, OffsetsBeyondTheAxis)
{
    LayerCase before = Gather(1);
    before.Online({2, 2, 1}, {1, 2, 3, 4}).Online({1}, {-1}).Output({2, 1, 1});
    ExpectRun(before, GatherOpkitForward, ~0u, Outside("-1.000000"));
    LayerCase previous = Gather(0);
    previous.Online({2, 2}, {1, 2, 3, 4}).Online({2}, {1, 2}).Output({2, 2});
    World world(previous);
    const RunResult run = RunCaptured(world, GatherOpkitForward);
    EXPECT_EQ(run.messages, Outside("2.000000"));
    EXPECT_THAT(world.OutputRows().first(2), ElementsAre(3, 4));

    LayerCase next = Gather(1);  // beyond the axis of the first row, inside the tensor
    next.Online({3, 2}, {1, 2, 3, 4, 5, 6}).Online({1}, {2}).Output({3, 1});
    World rows(next);
    EXPECT_EQ(RunCaptured(rows, GatherOpkitForward).messages, Outside("2.000000"));
    EXPECT_THAT(rows.OutputRows().first(2), ElementsAre(3, 5));

    LayerCase gap = Gather(0);  // the gap of the last row belongs to the tensor
    gap.Online({3}, {1, 2, 3}, 16).Online({2}, {3, 4}).Output({2});
    ExpectRun(gap, GatherOpkitForward, ~0u, Outside("4.000000"));
}

TEST(Gather, WrappingIndicesInside)
{
    LayerCase layer = Gather(0);  // 2^32 + 1 keeps its low 32 bits, 1
    layer.Online({2, 2}, {1, 2, 3, 4}).Online({1}, {4294967296.0f}).Output({1, 2});
    EXPECT_THAT(RunOutput(layer, GatherOpkitForward), ElementsAre(1, 2));
    LayerCase nan = Gather(0);  // and NaN has none
    nan.Online({2, 2}, {1, 2, 3, 4}).Online({1}, {kNan}).Output({1, 2});
    EXPECT_THAT(RunOutput(nan, GatherOpkitForward), ElementsAre(1, 2));
}

TEST(Gather, NoWork)
{
    LayerCase indices = Gather(0);
    indices.Online({2, 2}, Iota(4)).Online({0}, {}, 16).Output({2});
    ExpectRun(indices, GatherOpkitForward, 0, "");
    LayerCase outer = Gather(1);
    outer.Online({0, 2}, {}).Online({1}, {0}).Output({2});
    ExpectRun(outer, GatherOpkitForward, 0, "");
    LayerCase width = Gather(0);
    width.Online({2, 0}, {}, 16).Online({1}, {9}).Output({2});
    ExpectRun(width, GatherOpkitForward, 0, "");
    LayerCase inner = Gather(0);
    inner.Online({2, 0, 2}, {}).Online({1}, {9}).Output({2});
    ExpectRun(inner, GatherOpkitForward, 0, "");
}

// Rows of the data lie at multiples of the alignment, not of a pitch: without one they all start at element 0.
TEST(Gather, DataWithoutAlignment)
{
    LayerCase row = Gather(0);
    row.Online({4}, {5, 6, 7, 8}).Online({3}, {2, 0, 3}).Output({3}).Tamper(NoInputStride);
    EXPECT_THAT(RunOutput(row, GatherOpkitForward), ElementsAre(7, 5, 8));
    LayerCase rows = Gather(0);
    rows.Online({2, 2}, {5, 6, 7, 8}).Online({2}, {1, 0}).Output({2, 2}).Tamper(NoInputStride);
    EXPECT_THAT(RunOutput(rows, GatherOpkitForward), ElementsAre(5, 6, 5, 6));
}

TEST(Gather, UnresolvedInputs)
{
    LayerCase none = Gather(0);
    none.Output({2});
    ExpectRun(none, GatherOpkitForward, ~0u, "[GatherOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase indices = Gather(0);
    indices.Online({2}, {0, 1}).Output({2});
    ExpectRun(indices, GatherOpkitForward, ~0u, "[GatherOpkitForward:#]ParseInputInfo failed.\n\n");
}

TEST(Gather, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const Shape data = random.Shape(1, 4, 800);
        const Shape indices = random.Shape(1, 3, 40);
        const auto axis = static_cast<size_t>(random.Int(0, static_cast<int32_t>(data.size()) - 1));
        std::vector<float> values(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.3);
        for (float& value : values) {
            value = static_cast<float>(random.Int(0, 4 * static_cast<int32_t>(data[axis]) - 1)) * 0.25f;
            if (wild && random.Chance(0.2)) {
                value = random.Chance(0.5) ? static_cast<float>(random.Int(-3, 20)) : random.Float(Values::kMixed);
            }
        }
        Shape out(data.begin(), data.begin() + static_cast<int32_t>(axis));
        out.insert(out.end(), indices.begin(), indices.end());
        out.insert(out.end(), data.begin() + static_cast<int32_t>(axis) + 1, data.end());
        LayerCase layer = Gather(static_cast<uint32_t>(axis));
        AddInput(layer, random, data, Values::kBits);
        AddInput(layer, random, indices, values);
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, GatherOpkitForward, RefGather);
    });
}

}  // namespace
}  // namespace opkit::test
