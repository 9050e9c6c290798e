#include "tests/ops/movement/movement_cases.h"
#include "tests/reference/gather.h"

namespace opkit::test {
namespace {

using reference::RefGatherND;
using ::testing::ElementsAre;

LayerCase GatherND(int32_t batchDims)
{
    LayerCase layer("GatherNDOpkitForward");
    layer.Attr<GatherNDAttr>().gatherAxis = batchDims;
    return layer;
}

std::string Clipped(const std::string& rest)
{
    return "[CheckIndex:#]GatherND index should be in " + rest + "\n\n";
}

TEST(GatherND, SlicesCarryTheDatasGaps)
{
    LayerCase layer = GatherND(0);
    CaseTensor data;
    data.shape = {2, 3};
    data.strideBytes = 16;
    for (float value : {1.0f, 2.0f, 3.0f, -1.0f, 4.0f, 5.0f, 6.0f, -2.0f}) {
        data.raw.push_back(std::bit_cast<uint32_t>(value));
    }
    layer.Online(data).Online({3, 1}, {1, 0, -1}, 16).Output({3, 4});
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(4, 5, 6, -2, 1, 2, 3, -1, 4, 5, 6, -2));
}

TEST(GatherND, FullTuplesCountElementsWithoutGaps)
{
    LayerCase layer = GatherND(0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Online({3, 2}, {1, 2, -1, 0.9f, 0, -3}, 16).Output({3});
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(6, 4, 1));
}

TEST(GatherND, BatchDimensions)
{
    LayerCase slices = GatherND(1);
    slices.Online({2, 2, 2}, Iota(8)).Online({2, 1, 1}, {1, 0}).Output({2, 2});
    EXPECT_THAT(RunOutput(slices, GatherNDOpkitForward), ElementsAre(2, 3, 4, 5));
    LayerCase elements = GatherND(1);  // the batch pitch of full tuples is 2, not 6
    elements.Online({2, 2, 3}, Iota(12)).Online({2, 2}, {1, 1, 0, 2}).Output({2});
    EXPECT_THAT(RunOutput(elements, GatherNDOpkitForward), ElementsAre(4, 4));
}

TEST(GatherND, ClipsWithAMessage)
{
    LayerCase layer = GatherND(0);
    layer.Online({5}, Iota(5)).Online({3, 1}, {5, -6, -1}).Output({3});
    World world(layer);
    const RunResult run = RunCaptured(world, GatherNDOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, Clipped("[-5, 4]. Clip it to [4.000000]") + Clipped("[-5, 4]. Clip it to [0.000000]"));
    EXPECT_THAT(world.Output(), ElementsAre(4, 0, 4));
    EXPECT_THAT(world.Input(1), ElementsAre(4, 0, -1));
}

// Both additions are f32: beyond 2^24 the first rounds on its own.
TEST(GatherND, SumsInSinglePrecision)
{
    LayerCase layer = GatherND(0);
    layer.Online({1, 3}, {1, 2, 3}).Online({1, 2}, {0, 2.9999998f}).Output({1});
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(3));
    LayerCase rounds = GatherND(0);  // 2.9999998 + 3 rounds to 6, one past the last element
    rounds.Online({2, 3}, Iota(6)).Online({1, 2}, {1, 2.9999998f}).Output({1});
    ExpectRun(rounds, GatherNDOpkitForward, ~0u,
              "[GatherNDOpkitForward:#]GatherND index 3.000000 reads outside the data.\n\n");
    LayerCase inside = GatherND(0);
    inside.Online({3, 3}, Iota(9)).Online({1, 2}, {1, 2.9999998f}).Output({1});
    EXPECT_THAT(RunOutput(inside, GatherNDOpkitForward), ElementsAre(6));
    LayerCase below = GatherND(0);  // -1e-9 + 3 is 3
    below.Online({3}, Iota(3), 16).Online({1, 1}, {-1e-9f}).Output({1});
    World world(below);
    EXPECT_EQ(RunCaptured(world, GatherNDOpkitForward).result, 0u);
    EXPECT_EQ(std::bit_cast<uint32_t>(world.Output()[0]), std::bit_cast<uint32_t>(world.InputRows()[3])) << "the gap";
}

TEST(GatherND, NanCountsAsZero)
{
    LayerCase layer = GatherND(0);
    layer.Online({2, 2}, Iota(4)).Online({1, 1}, {kNan}).Output({2});
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(0, 1));
}

TEST(GatherND, EmptyTuplesTakeTheWholeItem)
{
    LayerCase layer = GatherND(0);
    layer.Online({2, 2}, Iota(4)).Online({2, 0}, {}, 16).Output({2, 2, 2});
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(0, 1, 2, 3, 0, 1, 2, 3));
}

TEST(GatherND, NoWorkAndUnresolvedInputs)
{
    LayerCase empty = GatherND(0);
    empty.Online({2, 2}, Iota(4)).Online({0, 1}, {}).Output({2});
    ExpectRun(empty, GatherNDOpkitForward, 0, "");
    LayerCase batches = GatherND(1);
    batches.Online({2, 2}, Iota(4)).Online({0, 1}, {}).Output({2});
    ExpectRun(batches, GatherNDOpkitForward, 0, "");
    LayerCase none = GatherND(0);
    none.Output({2});
    ExpectRun(none, GatherNDOpkitForward, ~0u, "[GatherNDOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase indices = GatherND(0);
    indices.Online({2}, {0, 1}).Output({2});
    ExpectRun(indices, GatherNDOpkitForward, ~0u, "[GatherNDOpkitForward:#]ParseInputInfo failed.\n\n");
}

TEST(GatherND, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const Shape data = random.Shape(1, 5, 900);
        const int32_t rank = static_cast<int32_t>(data.size());
        const int32_t batchDims = random.Int(0, std::min(rank - 1, 2));
        const int32_t length = random.Int(1, rank - batchDims);
        Shape indices(data.begin(), data.begin() + batchDims);
        const Shape tuples = random.Shape(1, 2, 12);
        indices.insert(indices.end(), tuples.begin(), tuples.end());
        indices.push_back(static_cast<uint32_t>(length));
        std::vector<float> values(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.3);
        for (size_t i = 0; i < values.size(); ++i) {
            const auto axis = static_cast<size_t>(batchDims) + i % static_cast<size_t>(length);
            const int32_t extent = static_cast<int32_t>(data[axis]);
            values[i] = static_cast<float>(random.Int(-4 * extent, 4 * extent - 1)) * 0.25f;
            if (wild && random.Chance(0.1)) {
                values[i] =
                    random.Chance(0.5) ? static_cast<float>(random.Int(-2, 2) * extent) : random.Float(Values::kMixed);
            }
        }
        const uint32_t stride = random.Stride(data.back());
        uint32_t slice = batchDims + length == rank ? 1 : stride / 4;
        for (int32_t d = batchDims + length; d < rank - 1; ++d) {
            slice *= data[static_cast<size_t>(d)];
        }
        LayerCase layer = GatherND(batchDims);
        layer.Online(data, random.Floats(modelkit::ElementCount(data), Values::kBits), stride);
        AddInput(layer, random, indices, values);
        layer.Output({static_cast<uint32_t>(values.size()) / static_cast<uint32_t>(length), slice});
        layer.Batch(RandomBatch(random));
        ExpectSameAsReference(layer, GatherNDOpkitForward, RefGatherND);
    });
}

// Full tuples count elements: [1, 2] is 1 * 3 + 2, whatever the alignment of the data.
TEST(GatherND, FullTuplesWithoutAlignment)
{
    LayerCase layer = GatherND(0);
    layer.Online({2, 3}, {5, 6, 7, 8, 9, 10}).Online({2, 2}, {1, 2, 0, 1}).Output({2}).Tamper(NoInputStride);
    EXPECT_THAT(RunOutput(layer, GatherNDOpkitForward), ElementsAre(10, 6));
}

TEST(GatherND, SlicesOutsideTheData)
{
    LayerCase batches = GatherND(1);  // three of them, the data has two
    batches.Online({2, 2}, Iota(4)).Online({3, 1, 0}, {}, 16).Output({3, 2});
    World world(batches);
    const RunResult run = RunCaptured(world, GatherNDOpkitForward);
    EXPECT_EQ(run.result, ~0u);
    EXPECT_EQ(run.messages, "[GatherNDOpkitForward:#]GatherND index 0.000000 reads outside the data.\n\n");
    EXPECT_THAT(world.OutputRows().first(4), ElementsAre(0, 1, 2, 3)) << "what was written stays";

    LayerCase wraps = GatherND(0);  // 0x30000000 slices of 4 are a negative offset
    wraps.Online({1, 4}, Iota(4)).Online({1, 1}, {805306368}).Output({4});
    const auto manySlices = [](LayerParam* param) {
        uint32_t shape[] = {0x40000000, 4};
        param->inputs[0].shape = shape;
        return GatherNDOpkitForward(param);
    };
    ExpectRun(wraps, manySlices, ~0u,
              "[GatherNDOpkitForward:#]GatherND index 805306368.000000 reads outside the data.\n\n");
}

}  // namespace
}  // namespace opkit::test
