#include "tests/reference/mod.h"
#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint8_t ofFloats)
{
    LayerCase layer("ModOpkitForward");
    layer.Attr<ModAttr>().fmod = ofFloats;
    return layer;
}

TEST(Mod, Elements)
{
    struct Row {
        uint8_t ofFloats;
        float a;
        float b;
        float result;
    };
    const Row rows[] = {
        {0, -7, 3, 2},
        {0, 7, -3, -2},
        {0, 7, 3, 1},
        {0, -7, -3, -1},
        {0, 7, 0.5f, 0},
        {0, kNan, 0.9f, 0},
        {0, 7.9f, 3.9f, 1},
        {0, -6, 3, 0},
        {0, 6, -3, 0},
        {0, kNan, 3, 1},  // -2147483648 % 3 is -2
        {0, kInf, 5, 2},  // -2147483648 % 5 is -3
        {0, 3e9f, -5, -3},
        {0, 5, kNan, -2147483648.0f},  // 5 - 2147483648 rounds in f32
        {0, 2147483520.0f, 2147483520.0f, 0},
        {1, -7, 3, -1},
        {1, 7, -3, 1},
        {1, 7.5f, 2, 1.5f},
        {1, 1, 1e-7f, 0},
        {1, kNan, 0, 0},
        {1, -4, 2, -0.0f},
        {1, kInf, 2, kNan},
        {1, 2, kInf, 2},
        {1, 2, kNan, kNan},
        {255, 5.5f, 4, 1.5f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << int{row.ofFloats} << ": " << row.a << ", " << row.b);
        LayerCase layer = Case(row.ofFloats);
        layer.Online({1}, {row.a}).Online({1}, {row.b}).Output({1});
        EXPECT_EQ(Bits(RunCase(layer)), Bits({row.result}));
    }
}

TEST(Mod, Expanding)
{
    LayerCase layer = Case(0);
    layer.Online({2, 3}, {4, 5, 6, 7, 8, 9}, 16).Online({1}, {4}).Output({2, 3}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 1, 2, 3, 0, 1));
    EXPECT_EQ(world.OutputRows()[3], 3.0f);  // where element 3 stood before its row moved
    EXPECT_THAT(world.Input(), ElementsAre(4, 5, 6, 7, 8, 9));
}

// Divisors whose quotient fits: INT_MIN / -1 is a processor fault.
std::vector<float> Divisors(Random& random, uint64_t count, Values values)
{
    std::vector<float> divisors = random.Floats(count, values);
    for (float& divisor : divisors) {
        divisor = divisor > -2.0f && divisor <= -1.0f ? 2.0f : divisor;
    }
    return divisors;
}

TEST(Mod, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 1500);
        LayerCase layer = Case(static_cast<uint8_t>(random.Int(0, 2)));
        const Values values = random.OneOf({Values::kIntegers, Values::kMixed});
        AddOperand(random, layer, OperandShape(random, shape), values);
        const Shape divisors = OperandShape(random, shape);
        if (random.Chance(0.5)) {
            layer.Offline(divisors, Divisors(random, ElementCount(divisors), values));
        } else {
            layer.Online(divisors, Divisors(random, ElementCount(divisors), values), random.Stride(divisors.back()));
        }
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, ModOpkitForward, RefMod, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Mod, OutputIsAnInput)
{
    ForRandomCases(60, [](Random& random) {
        const Shape shape = random.Shape(1, 3, 1500);
        LayerCase layer = Case(static_cast<uint8_t>(random.Int(0, 1)));
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
        layer.Offline({1}, {3}).OutputInPlace(0, shape);
        ExpectSameAsReference(layer, ModOpkitForward, RefMod, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(Mod, Messages)
{
    const std::string unresolved = "[ModOpkitForward:#]ParseInputInfo failed.\n\n";
    ExpectUnresolved("ModOpkitForward", ModOpkitForward, unresolved);
    LayerCase one = Case(0);
    one.Online({2}, {1, 2}).Output({2});
    ExpectUntouchedFailure(one, ModOpkitForward, unresolved);

    LayerCase narrow = Case(0);
    narrow.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({2, 0});
    ExpectRun(narrow, ModOpkitForward, OPKIT_FAILURE, "[ModOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase empty = Case(0);
    empty.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({0, 2});
    ExpectRun(empty, ModOpkitForward, 0, "");
    LayerCase null = Case(0);
    null.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({0, 2}).Tamper([](World& world) {
        world.Param().outputs[0].data = nullptr;
    });
    ExpectRun(null, ModOpkitForward, OPKIT_FAILURE,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[ModOpkitForward:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
