#include "tests/reference/binary_math.h"

#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"
#include "tests/support/overlap.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint32_t type)
{
    LayerCase layer("BinaryMathOpkitForward");
    layer.Attr<BinaryMathAttr>().mathType = type;
    return layer;
}

struct ElementRow {
    uint32_t type;
    float a;
    float b;
    float result;
};

TEST(BinaryMath, Elements)
{
    const float aboveTolerance = std::nextafterf(1e-6f, 1.0f);
    const ElementRow rows[] = {
        {0, 1.5f, 2.0f, 3.5f},           {0, kInf, -kInf, kNan},  {0, -0.0f, -0.0f, -0.0f},
        {0, 3e38f, 3e38f, kInf},         {1, 1.5f, 2.0f, -0.5f},  {1, 0.0f, 0.0f, 0.0f},
        {1, kNan, 1.0f, kNan},           {2, 3.0f, -2.0f, -6.0f}, {2, 1e7f, 1e-7f, 0.0f},
        {2, 1e-7f, 1e7f, 1e-7f * 1e7f},  {2, kInf, 0.0f, 0.0f},   {2, 0.0f, kInf, kNan},
        {2, kInf, 1e-6f, 0.0f},          {2, -1.0f, 0.0f, 0.0f},  {2, 1.0f, -1e-6f, 0.0f},
        {2, kNan, 0.0f, 0.0f},           {2, 1.0f, kNan, kNan},   {2, 1.0f, aboveTolerance, aboveTolerance},
        {3, 3.0f, -2.0f, -1.5f},         {3, 1.0f, 0.0f, 0.0f},   {3, 0.0f, 0.0f, 0.0f},
        {3, -1.0f, -0.0f, 0.0f},         {3, kNan, 1e-7f, 0.0f},  {3, 1.0f, -1e-6f, 0.0f},
        {3, 0.0f, aboveTolerance, 0.0f}, {3, kInf, 2.0f, kInf},   {3, 1.0f, kInf, 0.0f},
        {4, 1.0f, 2.0f, 2.0f},           {4, 2.0f, 1.0f, 2.0f},   {4, kNan, 5.0f, 5.0f},
        {4, 5.0f, kNan, kNan},           {4, 0.0f, -0.0f, -0.0f}, {4, -0.0f, 0.0f, 0.0f},
        {4, -kInf, -1.0f, -1.0f},
    };
    ForEachLevel([&](Level) {
        for (const ElementRow& row : rows) {
            SCOPED_TRACE(testing::Message() << row.type << ": " << row.a << ", " << row.b);
            // Long enough for vectors, with a tail.
            LayerCase layer = Case(row.type);
            layer.Online({19}, std::vector<float>(19, row.a)).Online({19}, std::vector<float>(19, row.b)).Output({19});
            EXPECT_EQ(Bits(RunCase(layer)), Bits(std::vector<float>(19, row.result)));
        }
    });
}

TEST(BinaryMath, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 3000);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 5)));
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, BinaryMathOpkitForward, RefBinaryMath, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(BinaryMath, MoreDimensionsThanARecordHas)
{
    for (const uint32_t width : {3u, 32u}) {
        for (const uint32_t gap : {0u, 16u}) {
            Shape first(11, 1);
            first[9] = 2;
            first[10] = width;
            Shape out = first;
            out[8] = 3;
            LayerCase layer = Case(0);
            layer.Online(first, std::vector<float>(2 * width, 1.0f), 4 * width + 16);
            layer.Online({3, 1, 1}, {10, 20, 30}).Output(out, 4 * width + gap);
            std::vector<float> expected;
            for (const float sum : {11.0f, 21.0f, 31.0f}) {
                expected.insert(expected.end(), 2 * width, sum);
            }
            EXPECT_EQ(RunCase(layer), expected);
        }
    }
}

TEST(BinaryMath, OutputIsAnInput)
{
    ForRandomCases(100, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 3000);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 4)));
        const int own = random.Int(0, 1);
        for (int k = 0; k < 2; ++k) {
            const Shape operand = k == own ? shape : OperandShape(random, shape);
            layer.Online(operand, random.Floats(ElementCount(operand), Values::kMixed), random.Stride(operand.back()));
        }
        layer.OutputInPlace(own, shape);
        ExpectSameAsReference(layer, BinaryMathOpkitForward, RefBinaryMath, {.nan = NanPolicy::kAnyNan});
    });
}

// An input that is repeated, or that begins elsewhere, is read element by element: by then it may be a result.
TEST(BinaryMath, OutputOverlapsAnInput)
{
    LayerCase sum = Case(0);
    sum.Online({1}, {1}).Online({8}, std::vector<float>(8, 1.0f)).Output({8});
    sum.Tamper([](World& world) {
        *static_cast<float*>(world.Param().outputs[0].data) = 1;
        world.Param().inputs[0].data = world.Param().outputs[0].data;
    });
    EXPECT_THAT(RunCase(sum), ElementsAre(2, 3, 3, 3, 3, 3, 3, 3));
    ForRandomCases(300, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 300);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 4)));
        for (int k = 0; k < 2; ++k) {
            const Shape operand = OperandShape(random, shape);
            layer.Online(operand, random.Floats(ElementCount(operand), Values::kPlain));
        }
        layer.Online({4000}, std::vector<float>(4000, 1.0f)).Output(shape);
        const uint32_t own = static_cast<uint32_t>(random.Int(0, 1));
        const int32_t shift = random.Chance(0.5) ? random.Int(-20, 20) : random.Int(-300, 300);
        layer.Tamper([own, shift](World& world) { PlaceOutputOver(world, own, 2, 1000, shift); });
        ExpectSameAsReference(layer, BinaryMathOpkitForward, RefBinaryMath, {.nan = NanPolicy::kAnyNan});
    });
}

TEST(BinaryMath, BothOffline)
{
    LayerCase layer = Case(1);
    layer.Offline({3}, {1, 2, 3}).Offline({3}, {3, 1, 0.5f}).Output({3});
    EXPECT_THAT(RunCase(layer), ElementsAre(-2, 1, 2.5f));
}

TEST(BinaryMath, OfflineThenOnline)
{
    LayerCase layer = Case(1);
    layer.Offline({1}, {10}).Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 32);
    EXPECT_THAT(RunCase(layer), ElementsAre(9, 8, 7, 6, 5, 4));
}

TEST(BinaryMath, ScalarWritesNoGaps)
{
    LayerCase layer = Case(0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Online({1}, {100}, 16).Output({2, 3}, 16);
    World world(layer);
    World before = world.Clone();
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(101, 102, 103, 104, 105, 106));
    for (const size_t gap : {3u, 7u}) {
        EXPECT_EQ(std::bit_cast<uint32_t>(world.OutputRows()[gap]), std::bit_cast<uint32_t>(before.OutputRows()[gap]));
    }
}

TEST(BinaryMath, RowsAndWrap)
{
    LayerCase row = Case(0);
    row.Online({2, 3}, {0, 0, 0, 10, 10, 10}).Online({3}, {1, 2, 3}).Output({2, 3});
    EXPECT_THAT(RunCase(row), ElementsAre(1, 2, 3, 11, 12, 13));
    LayerCase wrap = Case(0);
    wrap.Online({2}, {1, 2}).Online({1}, {0}).Output({5});
    EXPECT_THAT(RunCase(wrap), ElementsAre(1, 2, 1, 2, 1));
}

TEST(BinaryMath, StrideRecords)
{
    LayerCase layer = Case(0);
    layer.Online({2, 3, 4}, std::vector<float>(24, 1)).Online({3, 1}, {1, 2, 3}).Output({2, 3, 4});
    World world(layer);
    const BinaryMathAttr before = world.Attr<BinaryMathAttr>();
    ASSERT_EQ(world.RunRequest(), 0u);
    const BinaryMathAttr& attr = world.Attr<BinaryMathAttr>();
    EXPECT_THAT(StridesOf(attr.outputStrides[0]), ElementsAre(12, 4, 1));
    EXPECT_THAT(StridesOf(attr.inputStrides[1]), ElementsAre(1, 1));
    EXPECT_EQ(std::memcmp(&attr.inputStrides[0], &before.inputStrides[0], sizeof(StrideRecord)), 0);
}

TEST(BinaryMath, UnknownTypeFailsAfterTheStrides)
{
    for (const Shape& shape : {Shape{2, 3}, Shape{0, 3}}) {
        LayerCase layer = Case(5);
        layer.Online({3}, {1, 2, 3}).Online({3}, {1, 2, 3}).Output(shape);
        World world(layer);
        const RunResult run = RunCaptured(world, BinaryMathOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        EXPECT_EQ(run.messages, "[BinaryMathOpkitForward:#]Binary math type[5] error. failed.\n\n");
        EXPECT_THAT(StridesOf(world.Attr<BinaryMathAttr>().outputStrides[0]), ElementsAre(3, 1));
        EXPECT_THAT(StridesOf(world.Attr<BinaryMathAttr>().inputStrides[1]), ElementsAre(1));
    }
    LayerCase negative = Case(0xFFFFFFFEu);
    negative.Online({1}, {1}).Online({1}, {1}).Output({1});
    ExpectRun(negative, BinaryMathOpkitForward, OPKIT_FAILURE,
              "[BinaryMathOpkitForward:#]Binary math type[-2] error. failed.\n\n");
}

TEST(BinaryMath, EmptyOutputSucceeds)
{
    LayerCase layer = Case(0);
    layer.Online({3}, {1, 2, 3}).Online({1}, {1}).Output({0, 3});
    ExpectRun(layer, BinaryMathOpkitForward, 0, "");
    LayerCase narrow = Case(0);
    narrow.Online({3}, {1, 2, 3}).Online({1}, {1}).Output({3, 0});
    ExpectRun(narrow, BinaryMathOpkitForward, 0, "");
    narrow.Tamper([](World& world) { world.Param().outputs[0].stride = 0; });  // no pitch is computed
    ExpectRun(narrow, BinaryMathOpkitForward, 0, "");
}

TEST(BinaryMath, UnresolvedInputsFailSilently)
{
    LayerCase none = Case(0);
    none.Output({2});
    ExpectUntouchedFailure(none, BinaryMathOpkitForward, "");
    LayerCase one = Case(0);
    one.Online({2}, {1, 2}).Output({2});
    ExpectUntouchedFailure(one, BinaryMathOpkitForward, "");
    LayerCase offlineThenNone = Case(0);
    offlineThenNone.Offline({2}, {1, 2}).Output({2});
    ExpectUntouchedFailure(offlineThenNone, BinaryMathOpkitForward, "");
    LayerCase shapeless = Case(0);
    shapeless.Online({2}, {1, 2}).Offline({2}, {1, 2}).Output({2}).Tamper([](World& world) {
        world.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0;
    });
    ExpectUntouchedFailure(shapeless, BinaryMathOpkitForward, "");
}

}  // namespace
}  // namespace opkit
