#include "tests/reference/cmp.h"
#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint32_t type)
{
    LayerCase layer("CmpOpkitForward");
    layer.Attr<CmpAttr>().cmpType = type;
    return layer;
}

TEST(Cmp, Elements)
{
    struct Row {
        float a;
        float b;
        std::array<float, 6> results;  // greater, equal, less, not equal, greater or equal, less or equal
    };
    const Row rows[] = {
        {1, 2, {0, 0, 1, 1, 0, 1}},
        {2, 1, {1, 0, 0, 1, 1, 0}},
        {3, 3, {0, 1, 0, 0, 1, 1}},
        {1.0f, 1.0f + 1e-7f, {0, 1, 1, 0, 0, 1}},
        {1.0000001f, 1.0f, {1, 1, 0, 0, 1, 0}},
        {1e-7f, 0, {1, 1, 0, 0, 1, 0}},
        {1e-6f, 0, {1, 1, 0, 0, 1, 0}},
        {std::nextafterf(1e-6f, 1), 0, {1, 0, 0, 1, 1, 0}},
        {0.0f, -0.0f, {0, 1, 0, 0, 1, 1}},
        {kInf, kInf, {0, 0, 0, 1, 1, 1}},
        {kInf, -kInf, {1, 0, 0, 1, 1, 0}},
        {kNan, 1, {0, 0, 0, 1, 0, 0}},
        {1, kNan, {0, 0, 0, 1, 0, 0}},
        {kNan, kNan, {0, 0, 0, 1, 0, 0}},
    };
    ForEachLevel([&](Level) {
        for (const Row& row : rows) {
            for (uint32_t type = 0; type < 6; ++type) {
                SCOPED_TRACE(testing::Message() << type << ": " << row.a << ", " << row.b);
                LayerCase layer = Case(type);
                layer.Online({21}, std::vector<float>(21, row.a)).Offline({1}, {row.b}).Output({21});
                EXPECT_EQ(RunCase(layer), std::vector<float>(21, row.results[type]));
            }
        }
    });
}

TEST(Cmp, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 3000);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 6)));
        const Values values = random.OneOf({Values::kIntegers, Values::kMixed});
        AddOperand(random, layer, OperandShape(random, shape), values);
        AddOperand(random, layer, OperandShape(random, shape), values);
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, CmpOpkitForward, RefCmp);
    });
}

TEST(Cmp, OutputIsAnInputOfPaddedRows)
{
    LayerCase layer = Case(0);
    layer.Online({2, 3}, {1, 5, 3, 4, 2, 6}, 16).Online({3}, {3, 3, 3}, 32).OutputInPlace(0, {2, 3});
    EXPECT_THAT(RunCase(layer), ElementsAre(0, 1, 0, 1, 0, 1));
    ExpectSameAsReference(layer, CmpOpkitForward, RefCmp);
}

TEST(Cmp, UnknownTypeComputesNothing)
{
    LayerCase layer = Case(9);
    layer.Online({3}, {1, 2, 3}).Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2, 3});
    World world(layer);
    const std::vector<uint32_t> before = Bits(world.Output());
    const RunResult run = RunCaptured(world, CmpOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    EXPECT_EQ(Bits(world.Output()), before);
    EXPECT_THAT(StridesOf(world.Attr<CmpAttr>().outputStrides[0]), ElementsAre(3, 1));
    EXPECT_THAT(StridesOf(world.Attr<CmpAttr>().inputStrides[0]), ElementsAre(1));
    EXPECT_EQ(world.Attr<CmpAttr>().inputStrides[1].count, 0u);  // the output's shape: no record
}

TEST(Cmp, EmptyAndUnresolved)
{
    LayerCase empty = Case(0);
    empty.Online({3}, {1, 2, 3}).Online({3}, {1, 2, 3}).Output({3, 0});
    ExpectRun(empty, CmpOpkitForward, 0, "");
    const std::string unresolved = "[CmpOpkitForward:#]ParseInputInfo failed.\n\n";
    ExpectUnresolved("CmpOpkitForward", CmpOpkitForward, unresolved);
    LayerCase one = Case(0);
    one.Online({2}, {1, 2}).Output({2});
    ExpectUntouchedFailure(one, CmpOpkitForward, unresolved);
}

}  // namespace
}  // namespace opkit
