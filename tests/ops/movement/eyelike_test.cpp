#include "tests/ops/movement/movement_cases.h"
#include "tests/reference/one_hot.h"

namespace opkit::test {
namespace {

using reference::RefEyelike;
using ::testing::ElementsAre;

LayerCase Eyelike(int32_t k)
{
    LayerCase layer("EyelikeOpkitForward");
    layer.Attr<EyelikeAttr>().eyeK = k;
    return layer;
}

std::vector<float> Eye(const Shape& shape, int32_t k)
{
    LayerCase layer = Eyelike(k);
    layer.Online(shape, {}, 16).Output(shape, 16);
    return RunOutput(layer, EyelikeOpkitForward);
}

TEST(Eyelike, OnesDownOneColumn)
{
    EXPECT_THAT(Eye({3, 3}, 0), ElementsAre(1, 0, 0, 1, 0, 0, 1, 0, 0));
    EXPECT_THAT(Eye({3, 3}, 1), ElementsAre(0, 1, 0, 0, 1, 0, 0, 1, 0));
    EXPECT_THAT(Eye({3, 3}, -1), ElementsAre(0, 0, 0, 1, 0, 0, 1, 0, 0));
    EXPECT_THAT(Eye({2, 3}, 2), ElementsAre(0, 0, 1, 0, 0, 1));
    EXPECT_THAT(Eye({2, 2}, 2), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(Eye({2, 2}, -2), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(Eye({2, 2}, INT32_MIN), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(Eye({2, 2}, INT32_MAX), ElementsAre(0, 0, 0, 0));
}

TEST(Eyelike, Messages)
{
    LayerCase missing = Eyelike(0);
    missing.Output({2, 2});
    ExpectRun(missing, EyelikeOpkitForward, ~0u, "");

    LayerCase input = Eyelike(0);
    input.Online({2, 3}, Iota(6), 16).Output({2, 3}).Tamper(NoInputData);
    ExpectRun(input, EyelikeOpkitForward, ~0u, kNullDelAlign + "[EyelikeOpkitForward:#]DelAlignSpace failed.\n\n");

    LayerCase rank = Eyelike(0);
    rank.Online({2, 1, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3});
    World world(rank);
    const RunResult run = RunCaptured(world, EyelikeOpkitForward);
    EXPECT_EQ(run.result, ~0u);
    EXPECT_EQ(run.messages, "[EyelikeOpkitForward:#]eye like input shape0 size[3] error.\n\n");
    EXPECT_THAT(world.InputRows().first(6), ElementsAre(1, 2, 3, 4, 5, 6)) << "compacted before the rank is looked at";

    LayerCase size = Eyelike(0);
    size.Online({2, 3}, Iota(6)).Output({1, 5});
    World small(size);
    EXPECT_EQ(RunCaptured(small, EyelikeOpkitForward).messages, "[EyelikeOpkitForward:#]eyelike memset error.\n\n");
    EXPECT_THAT(small.Output(), ElementsAre(0, 0, 0, 0, 0)) << "cleared up to its size";

    LayerCase null = Eyelike(0);
    null.Online({2, 3}, Iota(6)).Output({2, 3}).Tamper(NoOutputData);
    ExpectRun(null, EyelikeOpkitForward, ~0u, "[EyelikeOpkitForward:#]eyelike memset error.\n\n");
}

TEST(Eyelike, SameAsReference)
{
    ForRandomCases(200, [](Random& random) {
        const Shape shape = random.Chance(0.9) ? random.Shape(2, 2, 900) : random.Shape(1, 3, 900);
        LayerCase layer = Eyelike(random.Int(-20, 80));
        AddInput(layer, random, shape, Values::kBits);
        Shape out = shape;
        if (random.Chance(0.15)) {
            out.back() += 1;
        }
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, EyelikeOpkitForward, RefEyelike);
    });
}

}  // namespace
}  // namespace opkit::test
