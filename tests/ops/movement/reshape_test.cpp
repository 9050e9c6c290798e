#include "tests/reference/reshape.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefReshape;
using ::testing::ElementsAre;

LayerCase Reshape(const Shape& dims)
{
    LayerCase layer("ReshapeOpkitForward");
    auto& attr = layer.Attr<ReshapeAttr>();
    std::copy(dims.begin(), dims.end(), attr.reshapeDims);
    attr.reshapeDimCount = static_cast<uint32_t>(dims.size());
    return layer;
}

TEST(Reshape, RowsInPlace)
{
    LayerCase layer = Reshape({3, 2});
    CaseTensor out;
    out.shape = {3, 2};
    out.strideBytes = 16;
    out.raw.assign(12, std::bit_cast<uint32_t>(-1.0f));
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output(out);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReshapeOpkitForward), 0u);
    EXPECT_THAT(world.OutputRows(), ElementsAre(1, 2, -1, -1, 3, 4, -1, -1, 5, 6, -1, -1));
    EXPECT_THAT(world.Input(), ElementsAre(1, 2, 3, 4, 5, 6)) << "the input stays padded";
}

TEST(Reshape, TheAttributesLastDimensionIsTheWidth)
{
    LayerCase layer = Reshape({99, 3});
    layer.Online({6}, {1, 2, 3, 4, 5, 6}, 32).Output({6, 1}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReshapeOpkitForward), 0u);
    EXPECT_THAT(world.OutputRows().first(3), ElementsAre(1, 2, 3));
    EXPECT_THAT(world.OutputRows().subspan(4, 3), ElementsAre(4, 5, 6));
}

// The stride of the first tensor record describes the constant.
TEST(Reshape, OfflineDataTakesTheStrideOfTheFirstTensor)
{
    LayerCase layer = Reshape({4});
    layer.Offline({3, 2}, {1, 2, 3, 4, 5, 6}).Online({1, 2}, {0, 0}, 16).Output({4});
    layer.Tamper([](World& world) { world.Attr<LayerAttrHead>().offlineShape[0].dims[0] = 2; });
    EXPECT_THAT(RunOutput(layer, ReshapeOpkitForward), ElementsAre(1, 2, 5, 6));

    LayerCase unlisted = Reshape({6});
    unlisted.Offline({3, 2}, {1, 2, 3, 4, 5, 6}).Online({1, 2}, {0, 0}, 8).Output({6});
    World world(unlisted);
    EXPECT_EQ(world.RunDirect([](LayerParam* param) {
        param->inputNum = 0;
        return ReshapeOpkitForward(param);
    }),
              0u)
        << "the record is read although it does not count as an input";
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(Reshape, NothingToMoveAndNothingToRead)
{
    LayerCase empty = Reshape({0});
    empty.Online({0, 3}, {}, 16).Output({2});
    ExpectRun(empty, ReshapeOpkitForward, 0, "");
    LayerCase missing = Reshape({2});
    missing.Output({2});
    ExpectRun(missing, ReshapeOpkitForward, ~0u, "");
    LayerCase offline = Reshape({2});
    offline.Offline({2}, {1, 2}).Online({2}, {1, 2}).Output({2}).Tamper(NoDimensions);
    ExpectRun(offline, ReshapeOpkitForward, ~0u, "");
}

TEST(Reshape, OutputIsAnInput)
{
    LayerCase layer = Reshape({1, 2, 3});
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).OutputInPlace(0, {1, 2, 3});
    ExpectSameAsReference(layer, ReshapeOpkitForward, RefReshape);
    LayerCase padded = Reshape({2, 1, 3});
    padded.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).OutputInPlace(0, {2, 1, 3});
    ExpectSameAsReference(padded, ReshapeOpkitForward, RefReshape);
}

TEST(Reshape, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        Shape in = random.Shape(1, 5, 3000);
        Shape out = in;
        if (random.Chance(0.7)) {  // other widths that hold as many elements
            const auto count = static_cast<uint32_t>(modelkit::ElementCount(in));
            uint32_t width = static_cast<uint32_t>(random.Int(1, 70));
            while (count % width != 0) {
                --width;
            }
            out = {count / width, width};
        }
        LayerCase layer = Reshape(out);
        const bool offline = random.Chance(0.2);
        AddInput(layer, random, in, Values::kBits, offline ? 1 : 0);
        if (offline) {
            layer.Online({1, in.back()}, random.Floats(in.back(), Values::kBits), 4 * in.back());
        }
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, ReshapeOpkitForward, RefReshape);
    });
}

}  // namespace
}  // namespace opkit::test
