#include "tests/reference/logical.h"
#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint32_t type)
{
    LayerCase layer("LogicalOpkitForward");
    layer.Attr<LogicalAttr>().logicalType = type;
    return layer;
}

TEST(Logical, Elements)
{
    struct Row {
        float a;
        float b;
        std::array<float, 4> results;  // and, or, xor; not of a
    };
    const Row rows[] = {
        {1, 1, {1, 1, 0, 0}},     {1, 0, {0, 1, 1, 0}},         {0, 1, {0, 1, 1, 1}},      {0, -0.0f, {0, 0, 0, 1}},
        {1e-7f, 5, {0, 1, 1, 1}}, {-1e-6f, 5, {0, 1, 1, 1}},    {2e-6f, -5, {1, 1, 0, 0}}, {kNan, kInf, {1, 1, 0, 0}},
        {kNan, 0, {0, 1, 1, 0}},  {1e-40f, kNan, {0, 1, 1, 1}},
    };
    ForEachLevel([&](Level) {
        for (const Row& row : rows) {
            for (uint32_t type = 0; type < 4; ++type) {
                SCOPED_TRACE(testing::Message() << type << ": " << row.a << ", " << row.b);
                LayerCase layer = Case(type);
                layer.Online({1, 21}, std::vector<float>(21, row.a)).Online({1}, {row.b}).Output({1, 21}, 96);
                EXPECT_EQ(RunCase(layer), std::vector<float>(21, row.results[type]));
            }
        }
    });
}

TEST(Logical, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 3000);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 4)));
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        layer.Output(shape, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, LogicalOpkitForward, RefLogical);
    });
}

TEST(Logical, OutputIsAnInput)
{
    ForRandomCases(80, [](Random& random) {
        const Shape shape = random.Shape(1, 3, 3000);
        LayerCase layer = Case(static_cast<uint32_t>(random.Int(0, 3)));
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
        AddOperand(random, layer, OperandShape(random, shape), Values::kMixed);
        layer.OutputInPlace(0, shape);
        ExpectSameAsReference(layer, LogicalOpkitForward, RefLogical);
    });
}

TEST(Logical, Compacting)
{
    LayerCase layer = Case(0);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({2, 3}, {1, 0, 1, 0, 1, 0}, 32).Output({2, 3}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 0, 1, 0, 1, 0));
    const auto front = [&](size_t k) {
        const std::span<float> rows = world.InputRows(k);
        return std::vector<float>(rows.begin(), rows.begin() + 6);
    };
    EXPECT_THAT(front(0), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(front(1), ElementsAre(1, 0, 1, 0, 1, 0));
}

// The first input is compacted before the second is looked at.
TEST(Logical, FailureLeavesTheFirstInputCompacted)
{
    LayerCase layer = Case(1);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 16);
    World world(layer);
    const RunResult run = RunCaptured(world, LogicalOpkitForward);
    EXPECT_EQ(run.result, OPKIT_FAILURE);
    EXPECT_EQ(run.messages, "[AndOrXorForward:#]ParseInputInfo failed.\n\n");
    EXPECT_EQ(world.InputRows()[3], 4.0f);
    EXPECT_EQ(world.Attr<LogicalAttr>().outputStrides[0].count, 0u);
}

TEST(Logical, UnknownTypeStillExpands)
{
    LayerCase layer = Case(7);
    CaseTensor out;
    out.shape = {2, 3};
    out.strideBytes = 16;
    out.raw = {1, 2, 3, 4, 5, 6, 7, 8};
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Online({3}, {1, 2, 3}).Output(out);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    std::vector<uint32_t> words;
    for (const float value : world.OutputRows()) {
        words.push_back(std::bit_cast<uint32_t>(value));
    }
    EXPECT_THAT(words, ElementsAre(1, 2, 3, 4, 4, 5, 6, 8));
    EXPECT_EQ(world.InputRows()[3], 4.0f);
    EXPECT_THAT(StridesOf(world.Attr<LogicalAttr>().inputStrides[1]), ElementsAre(1));
}

TEST(Logical, DirectCalls)
{
    // NotForward does not look at the code, and to AndOrXorForward code 3 is unknown.
    LayerCase layer = Case(1);
    layer.Online({2}, {0, 1}).Online({2}, {0, 1}).Output({2});
    World negated(layer);
    EXPECT_EQ(negated.RunDirect(NotForward), 0u);
    EXPECT_THAT(negated.Output(), ElementsAre(1, 0));
    LayerCase three = Case(3);
    three.Online({2}, {0, 1}).Online({2}, {0, 1}).Output({2});
    World untouched(three);
    const std::vector<uint32_t> before = Bits(untouched.Output());
    EXPECT_EQ(untouched.RunDirect(AndOrXorForward), 0u);
    EXPECT_EQ(Bits(untouched.Output()), before);
}

TEST(Logical, NotBroadcastsAndLeavesStrides)
{
    LayerCase layer = Case(3);
    layer.Online({2, 1}, {0, 5}, 16).Output({2, 3}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 1, 1, 0, 0, 0));
    EXPECT_THAT(StridesOf(world.Attr<LogicalAttr>().inputStrides[0]), ElementsAre(1, 1));
    EXPECT_THAT(StridesOf(world.Attr<LogicalAttr>().outputStrides[0]), ElementsAre(3, 1));
}

TEST(Logical, Messages)
{
    for (const uint32_t type : {0u, 3u, 7u}) {
        SCOPED_TRACE(type);
        const std::string reporter = type == 3 ? "NotForward" : "AndOrXorForward";
        LayerCase missing = Case(type);
        missing.Output({2});
        ExpectUntouchedFailure(missing, LogicalOpkitForward, "[" + reporter + ":#]ParseInputInfo failed.\n\n");
        LayerCase narrow = Case(type);
        narrow.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({2, 0});
        ExpectRun(narrow, LogicalOpkitForward, OPKIT_FAILURE, "[" + reporter + ":#]widthOut can't be zero.\n\n");
        LayerCase empty = Case(type);
        empty.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({0, 2});
        ExpectRun(empty, LogicalOpkitForward, 0, "");
        LayerCase null = Case(type);
        null.Online({2}, {1, 2}).Online({2}, {1, 2}).Output({0, 2}).Tamper([](World& world) {
            world.Param().outputs[0].data = nullptr;
        });
        ExpectRun(null, LogicalOpkitForward, OPKIT_FAILURE,
                  "[InsertAlignSpace:#]Input data is NULL.\n\n[" + reporter + ":#]InsertAlignSpace failed.\n\n");
        LayerCase zero = Case(type);
        zero.Online({2, 0}, {}, 16).Online({2}, {1, 2}).Output({2});
        ExpectRun(zero, LogicalOpkitForward, OPKIT_FAILURE,
                  "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 4\n[" + reporter +
                      ":#]DelAlignSpace failed.\n\n");
    }
}

// Long padded output rows, but inputs that may not go along with them row by row.
TEST(Logical, LongRowsWithUnfitInputs)
{
    const std::vector<float> ones(80, 1.0f);
    const auto expectRefused = [&](std::function<void(World&)> change, const std::string& message) {
        LayerCase layer = Case(0);
        layer.Online({2, 40}, ones, 176).Online({2, 40}, ones, 176).Output({2, 40}, 176).Tamper(change);
        ExpectRun(layer, LogicalOpkitForward, OPKIT_FAILURE,
                  "[DelAlignSpace:#]" + message + "[AndOrXorForward:#]DelAlignSpace failed.\n\n");
    };
    expectRefused([](World& world) { world.Param().inputs[1].data = nullptr; }, "Input data is NULL.\n\n");
    expectRefused([](World& world) { world.Param().inputs[1].stride = 3; },
                  "Illegal value, widthIn = 40, alignNumIn = 0\n");
    LayerCase noWidth = Case(0);
    noWidth.Online({2, 40}, ones, 176).Online({2, 0}, {}, 16).Output({2, 40}, 176);
    ExpectRun(noWidth, LogicalOpkitForward, OPKIT_FAILURE,
              "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 4\n"
              "[AndOrXorForward:#]DelAlignSpace failed.\n\n");

    Random random(TestSeed());
    LayerCase twice = Case(2);  // one tensor as both inputs is compacted twice
    twice.Online({3, 40}, random.Floats(120, Values::kMixed), 176).Online({3, 40}, std::vector<float>(120), 176);
    twice.Output({3, 40}, 176).Tamper([](World& world) {
        world.Param().inputs[1].data = world.Param().inputs[0].data;
    });
    ExpectSameAsReference(twice, LogicalOpkitForward, RefLogical);
}

}  // namespace
}  // namespace opkit
