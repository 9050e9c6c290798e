#include "tests/reference/concat.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefConcat;
using ::testing::ElementsAre;

LayerCase Concat(uint32_t inputs, int32_t axis)
{
    LayerCase layer("ConcatOpkitForward");
    layer.Attr<ConcatAttr>().concatInputCount = inputs;
    layer.Attr<ConcatAttr>().concatAxis = axis;
    return layer;
}

TEST(Concat, EachInputHasItsOwnExtent)
{
    LayerCase layer = Concat(3, 1);
    layer.Online({2, 1}, {1, 2}).Offline({2, 2}, {3, 4, 5, 6}).Online({2, 3}, {7, 8, 9, 10, 11, 12}, 16);
    layer.Output({2, 6}, 32);
    EXPECT_THAT(RunOutput(layer, ConcatOpkitForward), ElementsAre(1, 3, 4, 7, 8, 9, 2, 5, 6, 10, 11, 12));
}

TEST(Concat, Compacting)
{
    LayerCase layer = Concat(2, 0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({1, 3}, {7, 8, 9}, 16).Output({3, 3}, 16).Batch(2);
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    for (uint32_t item = 0; item < 2; ++item) {
        EXPECT_THAT(world.Output(0, item), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9));
        EXPECT_THAT(world.InputRows(0, item).first(6), ElementsAre(1, 2, 3, 4, 5, 6));
    }
}

TEST(Concat, SameTensorTwiceIsCompactedTwice)
{
    LayerCase layer = Concat(2, 0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 3}, {}, 16).Output({4, 3});
    layer.Tamper([](World& world) {
        std::byte* const base = world.ModelBytes().data() + world.ModelInfo().tables[0].layerTableOffset;
        auto* const records = reinterpret_cast<TensorRecord*>(base + world.Layer().inputTableOffset);
        records[1] = records[0];
    });
    EXPECT_THAT(RunOutput(layer, ConcatOpkitForward), ElementsAre(1, 2, 3, 4, 5, 6, 1, 2, 3, 5, 6, 6));
    ExpectSameAsReference(layer, ConcatOpkitForward, RefConcat);
}

TEST(Concat, NoInputsOnlyExpandTheOutput)
{
    LayerCase layer = Concat(0, 1);
    CaseTensor out;
    out.shape = {2, 3};
    out.strideBytes = 16;
    for (float value : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f, 8.0f}) {
        out.raw.push_back(std::bit_cast<uint32_t>(value));
    }
    layer.Output(out);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ConcatOpkitForward), 0u);
    EXPECT_THAT(world.OutputRows(), ElementsAre(1, 2, 3, 4, 4, 5, 6, 8));
}

TEST(Concat, MissingInputFailsSilently)
{
    LayerCase none = Concat(1, 0);
    none.Output({2});
    ExpectRun(none, ConcatOpkitForward, ~0u, "");

    LayerCase offline = Concat(1, 0);
    offline.Offline({2}, {1, 2}).Output({2}).Tamper(NoDimensions);
    ExpectRun(offline, ConcatOpkitForward, ~0u, "");

    LayerCase second = Concat(2, 0);
    second.Online({2, 2}, {1, 2, 3, 4}).Output({3, 2}, 16);
    World world(second);
    const std::vector<float> before = world.Output();
    EXPECT_EQ(RunCaptured(world, ConcatOpkitForward).result, ~0u);
    EXPECT_THAT(world.OutputRows().first(4), ElementsAre(1, 2, 3, 4)) << "joined, not expanded";
    EXPECT_EQ(std::bit_cast<uint32_t>(world.Output()[4]), std::bit_cast<uint32_t>(before[4]));
}

TEST(Concat, EmptyInputsAddNothing)
{
    LayerCase layer = Concat(3, 0);
    layer.Online({0, 3}, {}, 16).Online({1, 3}, {1, 2, 3}, 16).Online({0, 3}, {}, 16).Output({1, 3}, 16);
    EXPECT_THAT(RunOutput(layer, ConcatOpkitForward), ElementsAre(1, 2, 3));
    LayerCase empty = Concat(1, 0);
    empty.Online({0, 3}, {}, 16).Output({0, 3}, 16);
    ExpectRun(empty, ConcatOpkitForward, 0, "");
}

TEST(Concat, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        Shape shape = random.Shape(1, 5, 500);
        const auto axis = static_cast<size_t>(random.Int(0, static_cast<int32_t>(shape.size()) - 1));
        const int32_t inputs = random.Int(1, 5);
        LayerCase layer = Concat(static_cast<uint32_t>(inputs), static_cast<int32_t>(axis));
        Shape out = shape;
        out[axis] = 0;
        for (int32_t k = 0; k < inputs; ++k) {
            shape[axis] = static_cast<uint32_t>(random.Int(k == 0 ? 1 : 0, 9));
            if (shape[axis] == 0) {
                layer.Online(shape, {}, 16 * ((shape.back() + 3) / 4));
            } else {
                AddInput(layer, random, shape, Values::kBits);
            }
            out[axis] += shape[axis];
        }
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, ConcatOpkitForward, RefConcat);
    });
}

// The first input alone decides how many blocks there are and how large a step of the axis is.
TEST(Concat, OuterAndInnerComeFromTheFirstInput)
{
    LayerCase layer = Concat(2, 1);
    layer.Online({2, 1, 2}, {1, 2, 3, 4}).Online({4, 2, 1}, {5, 6, 7, 8, 9, 10, 11, 12}).Output({2, 3, 2}, 16);
    EXPECT_THAT(RunOutput(layer, ConcatOpkitForward), ElementsAre(1, 2, 5, 6, 7, 8, 3, 4, 9, 10, 11, 12));
    ExpectSameAsReference(layer, ConcatOpkitForward, RefConcat);
}

}  // namespace
}  // namespace opkit::test
