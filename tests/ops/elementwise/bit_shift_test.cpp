#include "tests/reference/bit_shift.h"

#include <cmath>

#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

LayerCase Case(uint8_t left)
{
    LayerCase layer("BitShiftOpkitForward");
    layer.Attr<BitShiftAttr>().shiftLeft = left;
    return layer;
}

TEST(BitShift, Elements)
{
    struct Row {
        uint8_t left;
        float a;
        float b;
        float result;
    };
    const Row rows[] = {
        {1, 3, 1, 6},
        {0, 8, 65, 4},
        {0, 8, 64, 8},
        {1, 2.9f, 1.9f, 4},
        {1, 1, 63, 9223372036854775808.0f},
        {1, 2, 63, 0},
        {1, 0, 5, 0},
        {0, 9223372036854775808.0f, 63, 1},
        {0, 9223372036854775808.0f * 1.5f, 62, 3},
        {0, 18446744073709551616.0f, 63, 1},  // beyond the range: only the top bit
        {1, kNan, 0, 9223372036854775808.0f},
        {0, kInf, 1, 4611686018427387904.0f},
        {1, 5, kNan, 5},
        {1, 5, kInf, 5},
        {255, 1, 1, 2},
        {1, 16777215.0f, 1, 33554430.0f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << int{row.left} << ": " << row.a << ", " << row.b);
        LayerCase layer = Case(row.left);
        layer.Online({1}, {row.a}).Online({1}, {row.b}).Output({1});
        ExpectRun(layer, BitShiftOpkitForward, 0, "");
        EXPECT_EQ(Bits(RunCase(layer)), Bits({row.result}));
    }
}

TEST(BitShift, RoundsToNearestEven)
{
    // The 25 ones that remain are a tie between 2^25 - 2 and 2^25.
    LayerCase layer = Case(0);
    layer.Online({1}, {-1}).Online({1}, {39}).Output({1});
    ExpectRun(layer, BitShiftOpkitForward, 0,
              "[BitShiftRight:#]bit_shift op input[-1.000000, 39.000000] is neg number.\n\n");
    CaptureStdout quiet;
    EXPECT_THAT(RunCase(layer), ElementsAre(33554432.0f));
}

TEST(BitShift, WarnsPerElementInOrder)
{
    LayerCase left = Case(1);
    left.Online({4}, {-1, 1, 1, 2}).Online({4}, {1, -1, 1, -0.25f}).Output({4});
    World world(left);
    const RunResult run = RunCaptured(world, BitShiftOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages,
              "[BitShiftLeft:#]bit_shift op input[-1.000000, 1.000000] is neg number.\n\n"
              "[BitShiftLeft:#]bit_shift op input[1.000000, -1.000000] is neg number.\n\n"
              "[BitShiftLeft:#]bit_shift op input[2.000000, -0.250000] is neg number.\n\n");
    EXPECT_THAT(world.Output(), ElementsAre(18446744073709551616.0f, 9223372036854775808.0f, 2, 2));

    LayerCase right = Case(0);
    right.Online({1}, {-1}).Online({1}, {1}).Output({3});
    World repeated(right);
    const std::string line = "[BitShiftRight:#]bit_shift op input[-1.000000, 1.000000] is neg number.\n\n";
    EXPECT_EQ(RunCaptured(repeated, BitShiftOpkitForward).messages, line + line + line);
    EXPECT_THAT(repeated.Output(), ElementsAre(9223372036854775808.0f, 9223372036854775808.0f, 9223372036854775808.0f));
}

TEST(BitShift, OnlyTheFlagByteCounts)
{
    LayerCase layer = Case(0);
    layer.Attr<BitShiftAttr>().reserved8769[0] = 1;
    layer.Online({1}, {8}).Online({1}, {1}).Output({1});
    EXPECT_THAT(RunCase(layer), ElementsAre(4));
}

TEST(BitShift, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 600);
        LayerCase layer = Case(static_cast<uint8_t>(random.Int(0, 2)));
        for (int k = 0; k < 2; ++k) {
            const bool mixed = random.Chance(0.4);
            AddOperand(random, layer, OperandShape(random, shape), mixed ? Values::kMixed : Values::kIntegers);
        }
        layer.Output(shape, random.Stride(shape.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, BitShiftOpkitForward, RefBitShift);
    });
}

// Runs without a negative operand, of all magnitudes; now and then an operand that is out of the common range.
TEST(BitShift, LongRuns)
{
    ForRandomCases(100, [](Random& random) {
        const auto width = static_cast<uint32_t>(random.Int(60, 400));
        const auto operand = [&random](uint32_t count, int32_t bits) {
            std::vector<float> values(count);
            for (float& value : values) {
                value = std::ldexp(random.Float(Values::kUnit), random.Int(0, bits));
            }
            if (random.Chance(0.3)) {
                const std::vector<float> odd = {-1, kNan, 9223372036854775808.0f, 3e38f, -0.0f};
                values[random.Word() % count] = odd[random.Word() % odd.size()];
            }
            return values;
        };
        LayerCase layer = Case(static_cast<uint8_t>(random.Int(0, 1)));
        const uint32_t widths[] = {random.Chance(0.2) ? 1 : width, random.Chance(0.2) ? 1 : width};
        layer.Online({2, widths[0]}, operand(2 * widths[0], 63), random.Stride(widths[0]));
        layer.Online({2, widths[1]}, operand(2 * widths[1], 7), random.Stride(widths[1]));
        layer.Output({2, width}, random.Stride(width));
        ExpectSameAsReference(layer, BitShiftOpkitForward, RefBitShift);
    });
}

TEST(BitShift, EmptyAndUnresolved)
{
    LayerCase empty = Case(1);
    empty.Online({3}, {1, 2, 3}).Online({3}, {1, 1, 1}).Output({0, 3});
    World world(empty);
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(StridesOf(world.Attr<BitShiftAttr>().inputStrides[0]), ElementsAre(1));
    ExpectUnresolved("BitShiftOpkitForward", BitShiftOpkitForward, "");
    LayerCase one = Case(1);
    one.Online({2}, {1, 2}).Output({2});
    ExpectUntouchedFailure(one, BitShiftOpkitForward, "");
}

}  // namespace
}  // namespace opkit
