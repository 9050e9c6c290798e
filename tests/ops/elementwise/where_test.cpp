#include "tests/reference/where.h"
#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint32_t inputCount = 3)
{
    LayerCase layer("WhereOpkitForward");
    layer.Attr<WhereAttr>().inputCount = inputCount;
    return layer;
}

TEST(Where, Condition)
{
    LayerCase layer = Case();
    layer.Online({8}, {1e-7f, 2e-6f, kNan, 0, -0.0f, -1, kInf, 1e-6f});
    layer.Offline({1}, {10}).Offline({1}, {20}).Output({8});
    EXPECT_THAT(RunCase(layer), ElementsAre(20, 10, 10, 20, 20, 10, 10, 20));
}

TEST(Where, ThreeShapes)
{
    for (const float condition : {0.0f, 1.0f}) {
        LayerCase layer = Case();
        layer.Online({1}, {condition}).Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({3}, {7, 8, 9}, 32);
        layer.Output({2, 3}, 16);
        World world(layer);
        ASSERT_EQ(world.RunRequest(), 0u);
        EXPECT_EQ(world.Output(),
                  (condition != 0 ? std::vector<float>{1, 2, 3, 4, 5, 6} : std::vector<float>{7, 8, 9, 7, 8, 9}));
        const WhereAttr& attr = world.Attr<WhereAttr>();
        EXPECT_THAT(StridesOf(attr.outputStrides[0]), ElementsAre(3, 1));
        EXPECT_THAT(StridesOf(attr.inputStrides[0]), ElementsAre(1));
        EXPECT_EQ(attr.inputStrides[1].count, 0u);
        EXPECT_THAT(StridesOf(attr.inputStrides[2]), ElementsAre(1));
        EXPECT_EQ(world.InputRows(1)[3], 4.0f);  // compacted
    }
}

TEST(Where, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 3000);
        LayerCase layer = Case();
        AddOperand(random, layer, OperandShape(random, shape),
                   random.OneOf({Values::kMixed, Values::kIntegers, Values::kBits}));
        AddOperand(random, layer, OperandShape(random, shape), Values::kBits);
        AddOperand(random, layer, OperandShape(random, shape), Values::kBits);
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, WhereOpkitForward, RefWhere);
    });
}

TEST(Where, OutputIsAnInput)
{
    ForRandomCases(80, [](Random& random) {
        const Shape shape = random.Shape(1, 3, 3000);
        LayerCase layer = Case();
        const int own = random.Int(0, 2);
        for (int k = 0; k < 3; ++k) {
            const Shape operand = k == own ? shape : OperandShape(random, shape);
            layer.Online(operand, random.Floats(ElementCount(operand), Values::kMixed), random.Stride(operand.back()));
        }
        layer.OutputInPlace(own, shape);
        ExpectSameAsReference(layer, WhereOpkitForward, RefWhere);
    });
}

TEST(Where, InputCountMustBeThree)
{
    for (const uint32_t count : {0u, 2u, 4u, 259u}) {
        LayerCase layer = Case(count);
        layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({1}, {1}).Online({1}, {1}).Output({2, 3}, 16);
        ExpectUntouchedFailure(layer, WhereOpkitForward, "");
    }
}

TEST(Where, UnresolvedInputsLeaveEarlierOnesCompacted)
{
    const std::string unresolved = "[WhereOpkitForward:#]ParseInputInfo failed.\n\n";
    for (size_t inputs = 0; inputs < 3; ++inputs) {
        LayerCase layer = Case();
        for (size_t k = 0; k < inputs; ++k) {
            layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16);
        }
        layer.Output({2, 3}, 16);
        World world(layer);
        const RunResult run = RunCaptured(world, WhereOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        EXPECT_EQ(run.messages, unresolved);
        for (size_t k = 0; k < inputs; ++k) {
            EXPECT_EQ(world.InputRows(k)[5], 6.0f);
        }
        EXPECT_EQ(world.Attr<WhereAttr>().outputStrides[0].count, 0u);
    }
}

TEST(Where, Messages)
{
    const auto filled = [] {
        LayerCase layer = Case();
        layer.Online({2}, {1, 2}).Online({2}, {1, 2});
        return layer;
    };
    LayerCase narrow = filled();
    narrow.Online({2}, {1, 2}).Output({2, 0});
    ExpectRun(narrow, WhereOpkitForward, OPKIT_FAILURE, "[WhereOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase empty = filled();
    empty.Online({2}, {1, 2}).Output({0, 2});
    ExpectRun(empty, WhereOpkitForward, 0, "");
    LayerCase null = filled();
    null.Online({2}, {1, 2}).Output({0, 2}).Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    ExpectRun(null, WhereOpkitForward, OPKIT_FAILURE,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[WhereOpkitForward:#]InsertAlignSpace failed.\n\n");
    LayerCase zero = filled();
    zero.Online({2, 0}, {}, 16).Output({2});
    ExpectRun(zero, WhereOpkitForward, OPKIT_FAILURE,
              "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 4\n"
              "[WhereOpkitForward:#]DelAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
