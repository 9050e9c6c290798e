#include "tests/reference/expand.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefExpandOperator;
using ::testing::ElementsAre;

LayerCase Expand()
{
    LayerCase layer("ExpandOpkitForward");
    layer.Attr<ExpandAttr>();
    return layer;
}

TEST(Expand, Broadcasts)
{
    LayerCase rows = Expand();
    rows.Online({3}, {1, 2, 3}, 16).Output({2, 3}, 16);
    EXPECT_THAT(RunOutput(rows, ExpandOpkitForward), ElementsAre(1, 2, 3, 1, 2, 3));
    LayerCase columns = Expand();
    columns.Offline({2, 1}, {1, 2}).Output({2, 3}, 16);
    EXPECT_THAT(RunOutput(columns, ExpandOpkitForward), ElementsAre(1, 1, 1, 2, 2, 2));
    LayerCase wraps = Expand();
    wraps.Online({2}, {1, 2}).Output({5}, 32);
    EXPECT_THAT(RunOutput(wraps, ExpandOpkitForward), ElementsAre(1, 2, 1, 2, 1));
    LayerCase deeper = Expand();
    deeper.Online({2, 1}, {1, 2}).Output({2}, 16);
    EXPECT_THAT(RunOutput(deeper, ExpandOpkitForward), ElementsAre(1, 1)) << "more dimensions than the output";
}

TEST(Expand, CompactingWithStrideRecords)
{
    LayerCase layer = Expand();
    layer.Online({2, 1, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 2, 3}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ExpandOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 1, 2, 3, 4, 5, 6, 4, 5, 6));
    EXPECT_THAT(world.InputRows().first(6), ElementsAre(1, 2, 3, 4, 5, 6));
    const ExpandAttr& attr = world.Attr<ExpandAttr>();
    EXPECT_EQ(attr.inputStrides[0].count, 3u);
    EXPECT_EQ(attr.inputStrides[0].strides[0], 3u);
    EXPECT_EQ(attr.inputStrides[0].strides[1], 3u);
    EXPECT_EQ(attr.outputStrides[0].count, 3u);
    EXPECT_EQ(attr.outputStrides[0].strides[0], 6u);
    EXPECT_EQ(attr.outputStrides[0].strides[1], 3u);
    EXPECT_EQ(attr.outputStrides[0].strides[2], 1u);
}

TEST(Expand, EqualShapesWriteTheOutputsRecordOnly)
{
    LayerCase layer = Expand();
    layer.Attr<ExpandAttr>().inputStrides[0].count = 77;
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 32);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ExpandOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(world.Attr<ExpandAttr>().inputStrides[0].count, 77u);
    EXPECT_EQ(world.Attr<ExpandAttr>().outputStrides[0].count, 2u);
}

// The eleventh stride lies in the record's count.
TEST(Expand, MoreDimensionsThanARecordHas)
{
    LayerCase layer = Expand();
    layer.Online({2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 3}, {1, 2, 3, 4, 5, 6});
    layer.Output({2, 1, 1, 1, 1, 1, 1, 1, 1, 2, 3}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ExpandOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 1, 2, 3, 4, 5, 6, 4, 5, 6));
    EXPECT_EQ(world.Attr<ExpandAttr>().outputStrides[0].strides[0], 6u);
    EXPECT_EQ(world.Attr<ExpandAttr>().outputStrides[0].count, 1u);
}

TEST(Expand, Messages)
{
    LayerCase missing = Expand();
    missing.Output({3});
    ExpectRun(missing, ExpandOpkitForward, ~0u, "[ExpandOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase input = Expand();
    input.Online({3}, {1, 2, 3}, 16).Output({3}).Tamper(NoInputData);
    ExpectRun(input, ExpandOpkitForward, ~0u, kNullDelAlign + "[ExpandOpkitForward:#]DelAlignSpace failed.\n\n");
    LayerCase width = Expand();
    width.Online({2}, {1, 2}).Output({2, 0}, 16);
    ExpectRun(width, ExpandOpkitForward, ~0u, "[ExpandOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase output = Expand();
    output.Online({2}, {1, 2}).Output({0, 2}).Tamper(NoOutputData);
    ExpectRun(output, ExpandOpkitForward, ~0u, kNullInsertAlign + "[ExpandOpkitForward:#]InsertAlignSpace failed.\n\n");
}

TEST(Expand, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape out = random.Shape(1, 5, 1500);
        Shape in(out.begin() + random.Int(0, static_cast<int32_t>(out.size()) - 1), out.end());
        for (uint32_t& extent : in) {
            extent = random.Chance(0.4) ? 1 : random.Chance(0.1) ? static_cast<uint32_t>(random.Int(1, 7)) : extent;
        }
        if (random.Chance(0.1)) {
            in.insert(in.begin(), static_cast<size_t>(random.Int(1, 2)), 1);
        }
        LayerCase layer = Expand();
        AddInput(layer, random, in, Values::kBits);
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, ExpandOpkitForward, RefExpandOperator);
    });
}

}  // namespace
}  // namespace opkit::test
