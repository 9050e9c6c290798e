#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"
#include "tests/reference/activations.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint32_t mode)
{
    LayerCase layer("RoundOpkitForward");
    layer.Attr<RoundAttr>().roundMode = mode;
    return layer;
}

TEST(Round, Elements)
{
    struct Row {
        float x;
        std::array<float, 3> results;  // ceiling, floor, nearest
    };
    const Row rows[] = {
        {1.2f, {2, 1, 1}},
        {-1.2f, {-1, -2, -1}},
        {-0.5f, {-0.0f, -1, 0}},
        {0.5f, {1, 0, 0}},
        {0.0f, {0, 0, 0}},
        {-0.0f, {-0.0f, -0.0f, -0.0f}},
        {-0.2f, {-0.0f, -1, -0.0f}},
        {1e-40f, {1, 0, 0}},
        {1.5f, {2, 1, 2}},
        {2.5f, {3, 2, 2}},
        {3.5f, {4, 3, 4}},
        {-1.5f, {-1, -2, -2}},
        {-2.5f, {-2, -3, -2}},
        {-3.5f, {-3, -4, -4}},
        {2.5000005f, {3, 2, 2}},
        {3.4999995f, {4, 3, 2}},
        {1.4999995f, {2, 1, 0}},
        {3.499998f, {4, 3, 3}},
        {2.500002f, {3, 2, 3}},
        {-0.4999995f, {-0.0f, -1, 0}},
        {0.4999995f, {1, 0, 0}},
        {4194304.5f, {4194305, 4194304, 4194304}},
        {4194305.5f, {4194306, 4194305, 4194306}},
        {-8388607.5f, {-8388607, -8388608, -8388608}},
        {8388607.5f, {8388608, 8388607, 8388608}},
        {8388609.0f, {8388609, 8388609, 8388609}},
        {-3e30f, {-3e30f, -3e30f, -3e30f}},
        {kInf, {kInf, kInf, kInf}},
        {-kInf, {-kInf, -kInf, -kInf}},
        {kNan, {kNan, kNan, kNan}},
    };
    ForEachLevel([&](Level) {
        for (const Row& row : rows) {
            for (uint32_t mode = 0; mode < 3; ++mode) {
                SCOPED_TRACE(testing::Message() << mode << ": " << row.x);
                LayerCase layer = Case(mode);
                layer.Online({19}, std::vector<float>(19, row.x)).Output({19});
                EXPECT_EQ(Bits(RunCase(layer)), Bits(std::vector<float>(19, row.results[mode])));
            }
        }
    });
}

TEST(Round, IsEqualToHalf)
{
    for (const float half : {0.5f, -0.5f, 2.5f, -7.5f, 0.4999995f, 0.5000005f, 3.4999995f, -3.5000005f, 8388607.5f}) {
        EXPECT_EQ(IsEqualToHalf(half), 1) << half;
    }
    for (const float other :
         {0.0f, 1.0f, -2.0f, 0.49999f, 0.50001f, 8388608.0f, 1e30f, kInf, -kInf, kNan, 1e-40f, -1e-40f}) {
        EXPECT_EQ(IsEqualToHalf(other), 0) << other;
    }
}

// Halves and the values around them, over all magnitudes.
TEST(Round, NeighboursOfHalves)
{
    Random random(TestSeed());
    std::vector<float> values;
    for (int exponent = -3; exponent < 24; ++exponent) {
        for (int i = 0; i < 40; ++i) {
            const float whole = std::floor(std::ldexp(1.0f + random.Float(Values::kUnit), exponent));
            float x = whole + (i % 2 == 0 ? 0.5f : 0.0f);
            for (int steps = random.Int(-12, 12); steps != 0; steps += steps > 0 ? -1 : 1) {
                x = std::nextafterf(x, steps > 0 ? kInf : -kInf);
            }
            values.push_back(x);
            values.push_back(-x);
            EXPECT_EQ(IsEqualToHalf(x), RefIsEqualToHalf(x)) << x;
            EXPECT_EQ(IsEqualToHalf(-x), RefIsEqualToHalf(-x)) << -x;
        }
    }
    const Shape shape = {static_cast<uint32_t>(values.size())};
    for (uint32_t mode = 0; mode < 3; ++mode) {
        LayerCase layer = Case(mode);
        layer.Online(shape, values).Output(shape);
        ExpectSameAsReference(layer, RoundOpkitForward, RefRound);
    }
}

TEST(Round, SameAsReference)
{
    ForRandomCases(250, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 1500);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 3)));
        AddOperand(random, layer, shape, Values::kMixed);
        Shape outShape = shape;
        std::reverse(outShape.begin(), outShape.end());  // only the counts must agree
        layer.Output(outShape, random.Chance(0.1) ? 16 : random.Stride(outShape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, RoundOpkitForward, RefRound, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Round, OutputIsAnInput)
{
    ForRandomCases(60, [](Random& random) {
        const Shape shape = random.Shape(1, 3, 1500);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 2)));
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
        layer.OutputInPlace(0, shape);
        ExpectSameAsReference(layer, RoundOpkitForward, RefRound, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Round, UnknownModeOnlyExpands)
{
    LayerCase layer = Case(3);
    CaseTensor out;
    out.shape = {2, 3};
    out.strideBytes = 16;
    out.raw = {1, 2, 3, 4, 5, 6, 7, 8};
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output(out);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    std::vector<uint32_t> words;
    for (const float value : world.OutputRows()) {
        words.push_back(std::bit_cast<uint32_t>(value));
    }
    EXPECT_THAT(words, ElementsAre(1, 2, 3, 4, 4, 5, 6, 8));
}

TEST(Round, CountsMustAgree)
{
    for (const Shape& shape : {Shape{6}, Shape{2, 2}, Shape{1, 2, 3}, Shape{3, 3}}) {
        LayerCase layer = Case(0);
        layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output(shape);
        ExpectUntouchedFailure(layer, RoundOpkitForward, "");
    }
}

TEST(Round, Messages)
{
    ExpectUnresolved("RoundOpkitForward", RoundOpkitForward, "[RoundOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase narrow = Case(0);
    narrow.Online({0, 2}, {}).Output({2, 0});
    ExpectUntouchedFailure(narrow, RoundOpkitForward, "[RoundOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase empty = Case(0);
    empty.Online({0, 2}, {}).Output({0, 2});
    ExpectRun(empty, RoundOpkitForward, 0, "");
    LayerCase null = Case(0);
    null.Online({0, 2}, {}).Output({0, 2}).Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    ExpectUntouchedFailure(null, RoundOpkitForward,
                           "[InsertAlignSpace:#]Input data is NULL.\n\n"
                           "[RoundOpkitForward:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
