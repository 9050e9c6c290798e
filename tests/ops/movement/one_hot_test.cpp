#include "tests/reference/one_hot.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefOneHot;
using ::testing::ElementsAre;

LayerCase OneHot(int32_t axis)
{
    LayerCase layer("OneHotOpkitForward");
    layer.Attr<OneHotAttr>().oneHotAxis = axis;
    return layer;
}

// Moves the flag of the second listed input to logical input 2, where the operator looks.
void ValuesOffline(World& world)
{
    world.Attr<LayerAttrHead>().inputFlags[1] = '0';
    world.Attr<LayerAttrHead>().inputFlags[2] = '1';
}

TEST(OneHot, LastAxis)
{
    LayerCase layer = OneHot(1);
    layer.Online({4}, {0, 2.9f, -1, -0.0f}, 16).Online({2}, {5, 7}, 16).Output({4, 3}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(OneHotOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(7, 5, 5, 5, 5, 7, 5, 5, 7, 7, 5, 5));
    EXPECT_THAT(world.Input(), ElementsAre(0, 2.9f, 2, 0)) << "the adjusted index stays";
}

TEST(OneHot, OuterAxis)
{
    LayerCase layer = OneHot(0);
    layer.Online({2, 2}, {0, 1, 2, 0}, 16).Offline({2}, {0, 1}).Output({3, 2, 2}, 16).Tamper(ValuesOffline);
    World world(layer);
    EXPECT_EQ(world.RunDirect(OneHotOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0));
    EXPECT_THAT(world.InputRows().first(4), ElementsAre(0, 1, 2, 0)) << "compacted";
}

TEST(OneHot, FlagOneIsNotLookedAt)
{
    LayerCase layer = OneHot(1);
    layer.Offline({1}, {1}).Offline({2}, {3, 4}).Output({1, 2});
    layer.Flag(1, '0').Flag(2, '1');
    EXPECT_THAT(RunOutput(layer, OneHotOpkitForward), ElementsAre(3, 4));
    LayerCase online = OneHot(1);
    online.Online({1}, {1}).Online({2}, {3, 4}).Output({1, 2}).Flag(1, '1');
    EXPECT_THAT(RunOutput(online, OneHotOpkitForward), ElementsAre(3, 4));
}

TEST(OneHot, OneElement)
{
    for (const float on : {8.0f, -8.0f}) {
        LayerCase layer = OneHot(1);
        layer.Online({1}, {0}).Online({2}, {3, on}).Output({1, 1});
        EXPECT_THAT(RunOutput(layer, OneHotOpkitForward), ElementsAre(on));
    }
    LayerCase off = OneHot(1);
    off.Online({1}, {-2}).Online({2}, {3, 4}).Output({1, 1});
    World world(off);
    EXPECT_EQ(RunCaptured(world, OneHotOpkitForward).messages,
              "[OneHotOpkitForward:#]Invalid input idx : -1.000000\n\n");
    EXPECT_THAT(world.Output(), ElementsAre(3));
}

TEST(OneHot, RefusedIndices)
{
    const auto run = [](float index, const std::string& shown, std::vector<float> left) {
        LayerCase layer = OneHot(1);
        layer.Online({3}, {1, index, 0}, 16).Online({2}, {5, 7}).Output({3, 5}, 32);
        World world(layer);
        const RunResult result = RunCaptured(world, OneHotOpkitForward);
        EXPECT_EQ(result.result, ~0u);
        EXPECT_EQ(result.messages, "[OneHotOpkitForward:#]Invalid input idx : " + shown + "\n\n");
        const auto rows = world.OutputRows();
        EXPECT_EQ(std::vector<float>(rows.begin(), rows.begin() + 15), left) << "partly written, not expanded";
    };
    const std::vector<float> first = {5, 7, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
    run(5, "5.000000", first);
    run(kInf, "inf", first);
    run(-1e-9f, "5.000000", first);  // the sum rounds up to the depth
    run(-11, "-6.000000", first);    // 5 - 6: before the tensor
    run(-1e30f, "-1000000015047466219876688855040.000000", first);
}

// Below -depth the offset is used as it stands while it stays inside.
TEST(OneHot, TooNegativeIndexWritesEarlier)
{
    LayerCase layer = OneHot(1);
    layer.Online({2}, {0, -7}).Online({2}, {5, 7}).Output({2, 5});
    EXPECT_THAT(RunOutput(layer, OneHotOpkitForward), ElementsAre(7, 5, 5, 7, 5, 5, 5, 5, 5, 5));
}

// -3.5 + 3 truncates to 0. One row needs no alignment.
TEST(OneHot, TooNegativeIndexWithoutAlignment)
{
    LayerCase layer = OneHot(0);
    layer.Online({1}, {-3.5f}).Online({2}, {5, 7}).Output({3}).Tamper(NoOutputStride);
    EXPECT_THAT(RunOutput(layer, OneHotOpkitForward), ElementsAre(7, 5, 5));
}

TEST(OneHot, Messages)
{
    LayerCase none = OneHot(0);
    none.Output({2});
    ExpectRun(none, OneHotOpkitForward, ~0u, "[OneHotOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase values = OneHot(0);
    values.Online({2}, {0, 1}).Output({2, 2});
    ExpectRun(values, OneHotOpkitForward, ~0u, "[OneHotOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase null = OneHot(0);
    null.Online({2}, {0, 1}, 16).Online({2}, {0, 1}).Output({2, 2}).Tamper(NoInputData);
    ExpectRun(null, OneHotOpkitForward, ~0u, kNullDelAlign + "[OneHotOpkitForward:#]DelAlignSpace failed.\n\n");
    LayerCase nullValues = OneHot(0);
    nullValues.Online({2}, {0, 1}).Online({2}, {0, 1}, 16).Output({2, 2});
    nullValues.Tamper([](World& world) { world.Param().inputs[1].data = nullptr; });
    ExpectRun(nullValues, OneHotOpkitForward, ~0u, kNullDelAlign + "[OneHotOpkitForward:#]DelAlignSpace failed.\n\n");
    LayerCase inner = OneHot(0);
    inner.Online({2}, {0, 1}).Online({2}, {0, 1}).Output({2, 0}, 16);
    ExpectRun(inner, OneHotOpkitForward, ~0u, "[OneHotOpkitForward:#]Illegal value, inOffset is 0\n");
    LayerCase output = OneHot(1);
    output.Online({0, 2}, {}).Online({2}, {0, 1}).Output({0, 2}).Tamper(NoOutputData);
    ExpectRun(output, OneHotOpkitForward, ~0u, kNullInsertAlign + "[OneHotOpkitForward:#]InsertAlignSpace failed.\n\n");
}

TEST(OneHot, OfflineIndicesAreAdjustedOverBatchItems)
{
    LayerCase layer = OneHot(1);
    layer.Offline({2}, {-1, -3}).Online({2}, {0, 1}).Output({2, 3}).Batch(2);
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.OfflineData(0), ElementsAre(2, 0));
    EXPECT_THAT(world.Output(0, 1), ElementsAre(0, 0, 1, 1, 0, 0));
}

TEST(OneHot, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        Shape indices = random.Shape(1, 4, 300);
        const auto axis = random.Int(0, static_cast<int32_t>(indices.size()));
        const int32_t depth = random.Int(1, 20);
        Shape out = indices;
        out.insert(out.begin() + axis, static_cast<uint32_t>(depth));
        std::vector<float> data(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.4);
        for (float& value : data) {
            value = static_cast<float>(random.Int(-2 * depth, 2 * depth - 1)) * 0.5f;
            if (wild && random.Chance(0.1)) {
                value =
                    random.Chance(0.5) ? static_cast<float>(random.Int(-4 * depth, 0)) : random.Float(Values::kMixed);
            }
        }
        LayerCase layer = OneHot(axis);
        AddInput(layer, random, indices, data);
        const bool offline = random.Chance(0.5);
        AddInput(layer, random, {2}, Values::kBits, offline ? 1 : 0);
        layer.Flag(1, random.Chance(0.5) ? '1' : '0').Flag(2, offline ? '1' : '0');
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, OneHotOpkitForward, RefOneHot);
    });
}

// -0x30000000 steps of 3 elements wrap to 0x70000000, far behind the output.
TEST(OneHot, TooNegativeIndexThatWraps)
{
    LayerCase layer = OneHot(0);
    layer.Online({3}, {0, -805306368, 0}).Online({2}, {5, 7}).Output({2, 3});
    World world(layer);
    const RunResult run = RunCaptured(world, OneHotOpkitForward);
    EXPECT_EQ(run.result, ~0u);
    EXPECT_EQ(run.messages, "[OneHotOpkitForward:#]Invalid input idx : -805306368.000000\n\n");
    EXPECT_THAT(world.Output(), ElementsAre(7, 5, 5, 5, 5, 5));
}

}  // namespace
}  // namespace opkit::test
