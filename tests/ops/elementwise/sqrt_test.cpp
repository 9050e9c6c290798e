#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"
#include "tests/reference/activations.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case()
{
    LayerCase layer("SqrtOpkitForward");
    layer.Attr<SqrtAttr>();
    return layer;
}

TEST(Sqrt, Elements)
{
    ForEachLevel([](Level) {
        LayerCase layer = Case();
        layer.Online({9}, {0, -0.0f, 4, 2, -1, kInf, kNan, 1e-40f, -kInf}).Output({9});
        // The root of 2 and of the subnormal, correctly rounded.
        EXPECT_EQ(Bits(RunCase(layer)), Bits({0, -0.0f, 2, static_cast<float>(std::sqrt(2.0)), kNan, kInf, kNan,
                                              static_cast<float>(std::sqrt(static_cast<double>(1e-40f))), kNan}));
    });
}

// An input of a higher rank is read at its first element each time, which the first result overwrites.
TEST(Sqrt, RepeatedInputIsTheOutput)
{
    LayerCase layer = Case();
    layer.Online({1, 2}, {16, 81}, 8).OutputInPlace(0, {2});
    EXPECT_THAT(RunCase(layer), ElementsAre(4, 2));
}

TEST(Sqrt, CompactingWithBroadcast)
{
    LayerCase layer = Case();
    layer.Online({2, 1, 2}, {1, 4, 9, 16}, 16).Output({2, 2, 2}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 1, 2, 3, 4, 3, 4));
    EXPECT_EQ(world.InputRows()[2], 9.0f);
    EXPECT_THAT(StridesOf(world.Attr<SqrtAttr>().inputStrides[0]), ElementsAre(2, 2, 1));
    EXPECT_THAT(StridesOf(world.Attr<SqrtAttr>().outputStrides[0]), ElementsAre(4, 2, 1));
}

TEST(Sqrt, SameAsReference)
{
    ForRandomCases(250, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 3000);
        LayerCase layer = Case();
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, SqrtOpkitForward, RefSqrt, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Sqrt, OutputIsAnInput)
{
    ForRandomCases(60, [](Random& random) {
        const Shape shape = random.Shape(1, 3, 1500);
        LayerCase layer = Case();
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
        layer.OutputInPlace(0, shape);
        ExpectSameAsReference(layer, SqrtOpkitForward, RefSqrt, {.nan = NanPolicy::kAnyNan});
    });
}

// Rows of this length are compacted, mapped and expanded one by one; what lies in the gaps afterwards is compared too.
TEST(Sqrt, LongPaddedRows)
{
    Random random(TestSeed());
    for (const Shape& shape : {Shape{5, 40}, Shape{40}, Shape{5, 1}, Shape{1, 5, 40}}) {
        LayerCase layer = Case();
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), 176).Output({5, 40}, 208);
        ExpectSameAsReference(layer, SqrtOpkitForward, RefSqrt, {.nan = NanPolicy::kAnyNan});
    }
}

TEST(Sqrt, Messages)
{
    ExpectUnresolved("SqrtOpkitForward", SqrtOpkitForward, "[SqrtOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase narrow = Case();
    narrow.Online({2}, {1, 2}).Output({2, 0});
    ExpectRun(narrow, SqrtOpkitForward, OPKIT_FAILURE, "[SqrtOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase empty = Case();
    empty.Online({2}, {1, 2}).Output({0, 2});
    ExpectRun(empty, SqrtOpkitForward, 0, "");
    LayerCase null = Case();
    null.Online({2}, {1, 2}).Output({0, 2}).Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    ExpectRun(null, SqrtOpkitForward, OPKIT_FAILURE,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[SqrtOpkitForward:#]InsertAlignSpace failed.\n\n");
    LayerCase zero = Case();
    zero.Online({2, 0}, {}, 16).Output({2});
    ExpectRun(zero, SqrtOpkitForward, OPKIT_FAILURE,
              "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 4\n"
              "[SqrtOpkitForward:#]DelAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
