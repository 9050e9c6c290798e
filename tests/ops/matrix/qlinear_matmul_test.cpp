#include "opkit/attributes/matrix.h"
#include "tests/ops/matrix/matrix_cases.h"
#include "tests/reference/matmul.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;

constexpr const char* kName = "QLinearMatMulOpkitForward";

LayerCase Case(int32_t inputCount)
{
    LayerCase layer(kName);
    layer.Attr<QLinearMatMulAttr>().inputCount = inputCount;
    return layer;
}

Floats Quantized(int32_t mode, float scale, float zero, Floats data, int32_t count)
{
    QLinearMatMulQuantize(data.data(), count, mode, scale, zero);
    return data;
}

TEST(QLinearMatMulQuantize, BothModes)
{
    ForEachLevel([](Level) {
        EXPECT_TRUE(SameFloats(Quantized(0, 0.5f, 2, {10, 2, -3, kNan, kInf}, 5), Floats{4, 0, -2.5f, kNan, kInf}));
        const Floats halves = {2.5f, -2.5f, 0.5f, -0.5f, 0.49999997f, 8388607.5f, 8388609.0f, -0.2f};
        EXPECT_TRUE(SameFloats(Quantized(1, 1, -0.0f, halves, 8), Floats{3, -3, 1, -1, 0, 8388608, 8388609, -0.0f}));
        for (const int32_t mode : {1, 2, -1}) {
            EXPECT_TRUE(SameFloats(Quantized(mode, 1, 10, {255.6f, -17.2f, 290}, 3), Floats{266, -7, 300}));
            EXPECT_TRUE(SameFloats(Quantized(mode, 2, 0.25f, {5, -5, 4.9f}, 3), Floats{3.25f, -2.75f, 2.25f}));
        }
        EXPECT_TRUE(SameFloats(Quantized(1, 0, 1, {1, -1, 0, kNan}, 4), Floats{kInf, -kInf, kNan, kNan}));
        EXPECT_TRUE(SameFloats(Quantized(1, kInf, 1, {1, kInf}, 2), Floats{1, kNan}));
        for (const int32_t count : {0, -1, INT32_MIN}) {
            EXPECT_TRUE(SameFloats(Quantized(0, 2, 1, {7}, count), Floats{7}));
            EXPECT_TRUE(SameFloats(Quantized(1, 2, 1, {7}, count), Floats{7}));
        }
    });
}

TEST(QLinearMatMulQuantize, SameAsReference)
{
    ForRandomCases(200, [](Random& random) {
        const Floats data = random.Floats(static_cast<uint64_t>(random.Int(1, 80)), Values::kMixed);
        const float scale = random.Chance(0.3) ? 1.0f : random.Float(Values::kMixed);
        const float zero = random.Float(random.OneOf({Values::kMixed, Values::kIntegers}));
        Floats quantized = data;
        Floats dequantized = data;
        for (size_t i = 0; i < data.size(); ++i) {
            quantized[i] = RefQuantized(data[i], scale, zero);
            dequantized[i] = (data[i] - zero) * scale;
        }
        ForEachLevel([&](Level) {
            const int32_t count = static_cast<int32_t>(data.size());
            EXPECT_TRUE(SameFloats(Quantized(1, scale, zero, data, count), quantized)) << scale << " " << zero;
            EXPECT_TRUE(SameFloats(Quantized(0, scale, zero, data, count), dequantized)) << scale << " " << zero;
        });
    });
}

TEST(QLinearMatMul, Forms)
{
    // A = ((1, 2), (3, 4)), B = ((5, 6), (7, 8))
    const Floats a = {1, 2, 3, 4};
    const Floats b = {5, 6, 7, 8};
    LayerCase plain = Case(2);
    plain.Online({2, 2}, a, 12).Offline({2, 2}, b).Output({2, 2}, 16);
    ExpectOutput(plain, QLinearMatMulOpkitForward, {19, 22, 43, 50});
    LayerCase three = Case(3);  // A - 1 = ((0, 1), (2, 3))
    three.Online({2, 2}, a, 12).Offline({2, 2}, b).Online({2}, {1, 99}).Output({2, 2});
    ExpectOutput(three, QLinearMatMulOpkitForward, {7, 8, 31, 36});
    LayerCase four = Case(4);  // B - 5 = ((0, 1), (2, 3))
    four.Online({2, 2}, a).Offline({2, 2}, b).Online({1}, {1}).Offline({1}, {5}).Output({2, 2}, 16);
    ExpectOutput(four, QLinearMatMulOpkitForward, {2, 3, 6, 11});
    for (const int32_t count : {5, 6, 7, 9, 264, INT32_MAX}) {  // eight inputs, the zero-point form
        LayerCase more = Case(count);
        more.Online({2, 2}, a).Offline({2, 2}, b).Online({1}, {1}).Offline({1}, {5}).Output({2, 2}, 16);
        more.Online({1}, {7}).Online({1}, {7}).Online({1}, {7}).Online({1}, {7});
        ExpectOutput(more, QLinearMatMulOpkitForward, {2, 3, 6, 11});
    }
    LayerCase full = Case(8);  // 0.5 * ((0, 1), (2, 3)) * 2 * ((0, 1), (2, 3)) = ((2, 3), (6, 11)); / 4 + 10
    full.Online({2, 2}, a, 12)
        .Online({1}, {0.5f})
        .Online({1}, {1})
        .Offline({2, 2}, b)
        .Online({1}, {2})
        .Online({1}, {5});
    full.Online({1}, {4}).Online({1}, {10}).Output({2, 2}, 16);
    ExpectOutput(full, QLinearMatMulOpkitForward, {11, 11, 12, 13});
}

TEST(QLinearMatMul, ConstantsAreDequantisedAgain)
{
    LayerCase layer = Case(8);
    layer.Offline({1, 1}, {10})
        .Offline({1}, {2})
        .Offline({1}, {1})
        .Offline({1, 1}, {7})
        .Offline({1}, {3})
        .Offline({1}, {2});
    layer.Offline({1}, {1}).Offline({1}, {0}).Output({1, 1}).Batch(2);
    // an online input makes it a request
    layer.Online({1}, {0});
    World world(layer);
    ExpectSuccess(RunCaptured(world, QLinearMatMulOpkitForward));
    EXPECT_TRUE(SameFloats(world.Output(0, 0), Floats{18 * 15}));  // (10 - 1) * 2 and (7 - 2) * 3
    EXPECT_TRUE(SameFloats(world.Output(0, 1), Floats{34 * 39}));  // (18 - 1) * 2 and (15 - 2) * 3
    EXPECT_TRUE(SameFloats(world.OfflineData(0), Floats{34}));
    EXPECT_TRUE(SameFloats(world.OfflineData(3), Floats{39}));
}

TEST(QLinearMatMul, SizesComeFromYAndA)
{
    LayerCase stacks = Case(2);
    stacks.Online({2, 1, 1}, {2, 3}).Online({3, 1, 1}, {1, 10, 100}).Output({2, 3, 1, 1}, 8);
    ExpectOutput(stacks, QLinearMatMulOpkitForward, {2, 30, 200, 3, 20, 300});
    LayerCase vector = Case(2);  // A of one dimension, two rows of Y
    vector.Online({4}, {1, 2, 3, 4}).Online({4, 1}, {1, 1, 1, 1}).Output({1, 1});
    ExpectOutput(vector, QLinearMatMulOpkitForward, {10});
    LayerCase empty = Case(8);  // nothing to multiply, yet the inputs are dequantised and the output is expanded
    empty.Online({1, 1}, {4})
        .Online({1}, {0.5f})
        .Online({1}, {2})
        .Online({1, 1}, {6})
        .Online({1}, {1})
        .Online({1}, {0});
    empty.Online({1}, {1}).Online({1}, {0}).Output({0, 1, 1});
    World world(empty);
    ExpectSuccess(RunCaptured(world, QLinearMatMulOpkitForward));
    EXPECT_TRUE(SameFloats(world.Input(0), Floats{1}));
}

TEST(QLinearMatMul, Failures)
{
    const auto text = [](uint32_t y, int32_t a, int32_t count) {
        char line[120];
        std::snprintf(line, sizeof(line), "dimNumOut(%u) < 2,  dimNumIn0:%d < 1, inputNum:%d < 2\n", y, a, count);
        return Message(kName, line);
    };
    for (const int32_t count : {1, 0, -5}) {
        LayerCase layer = Case(count);
        layer.Online({2, 2}, {1, 2, 3, 4}, 12).Output({2, 2});
        World world(layer);
        World untouched = world.Clone();
        ExpectFailure(RunCaptured(world, QLinearMatMulOpkitForward), text(2, 0, count));
        EXPECT_EQ(World::Difference(world, untouched, NanPolicy::kExactBits), "");
    }
    LayerCase flat = Case(2);
    flat.Online({2, 2, 2}, Floats(8, 1)).Online({2, 2}, {1, 2, 3, 4}).Output({4});
    ExpectFailure(flat, QLinearMatMulOpkitForward, text(1, 3, 2));
    LayerCase scalar = Case(2);
    scalar.Online(Shape{}, {1}).Online({2, 2}, {1, 2, 3, 4}).Output({2, 2});
    scalar.Tamper([](World& world) { world.Param().inputs[0].stride = 0; });  // or it would be compacted, which fails
    ExpectFailure(scalar, QLinearMatMulOpkitForward, text(2, 0, 2));

    for (int32_t count = 2; count <= 9; ++count) {
        const int32_t reads = count <= 4 ? count : 8;
        for (int32_t present = 1; present < reads; ++present) {
            LayerCase missing = Case(count);
            for (int32_t k = 0; k < present; ++k) {
                missing.Online({1, 1}, {1});
            }
            ExpectFailure(missing.Output({1, 1}), QLinearMatMulOpkitForward, "");
        }
        for (int32_t k = 0; k < reads; ++k) {
            LayerCase null = Case(count);
            for (int32_t i = 0; i < reads; ++i) {
                null.Online({1, 1}, {1}, 8);
            }
            NullInput(null, static_cast<uint32_t>(k));
            ExpectFailure(
                null.Output({1, 1}), QLinearMatMulOpkitForward,
                Message("DelAlignSpace", "Input data is NULL.\n\n") + Message(kName, "DelAlignSpace failed.\n\n"));
        }
    }
    LayerCase emptyA = Case(2);
    emptyA.Online({0, 1, 1}, {}).Online({2, 1, 1}, {5, 6}).Output({2, 1, 1});
    ExpectFailure(emptyA, QLinearMatMulOpkitForward, Message(kName, "cannot divisor zero, aBatch = 0, bBatch = 2\n"));
    LayerCase emptyB = Case(3);
    emptyB.Online({1, 1}, {4}).Online({0, 1, 1}, {}).Online({1}, {1}).Output({2, 1, 1});
    World world(emptyB);
    ExpectFailure(RunCaptured(world, QLinearMatMulOpkitForward),
                  Message(kName, "cannot divisor zero, aBatch = 1, bBatch = 0\n"));
    EXPECT_TRUE(SameFloats(world.Input(0), Floats{3})) << "dequantised before the failure";
    LayerCase nullOutput = Case(2);
    nullOutput.Online({0, 2, 2}, {}).Online({2, 2}, {1, 2, 3, 4}).Output({0, 2, 2});
    NullOutput(nullOutput);
    ExpectFailure(
        nullOutput, QLinearMatMulOpkitForward,
        Message("InsertAlignSpace", "Input data is NULL.\n\n") + Message(kName, "InsertAlignSpace failed.\n\n"));
    LayerCase noAttr = Case(2);
    noAttr.Online({1, 1}, {1}).Online({1, 1}, {1}).Output({1, 1});
    ExpectFailure(
        noAttr,
        [](LayerParam* param) {
            LayerParam copy = *param;
            copy.attr = nullptr;
            return QLinearMatMulOpkitForward(&copy);
        },
        "");
}

TEST(QLinearMatMul, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const auto size = [&random](int32_t most) { return static_cast<uint32_t>(random.Int(1, most)); };
        const uint32_t M = size(7);
        const uint32_t N = random.Chance(0.5) ? size(70) : size(9);
        const uint32_t K = size(12);
        const int32_t count = random.OneOf({8, 8, 8, 2, 3, 4, 5, 9});
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed});
        const auto stack = [&] { return random.OneOf<Shape>({{}, {size(4)}, {size(3), size(2)}}); };
        LayerCase layer = Case(count);
        const Shape result = stack();
        const int32_t reads = count <= 4 ? count : 8;
        const int32_t bIndex = count == 8 ? 3 : 1;
        for (int32_t k = 0; k < reads; ++k) {
            if (k == 0) {
                AddInput(random, layer, Stacked(random.Chance(0.5) ? result : stack(), M, K), kind);
            } else if (k == bIndex) {
                AddInput(random, layer, Stacked(random.Chance(0.5) ? result : stack(), K, N), kind);
            } else {
                AddInput(random, layer, random.OneOf<Shape>({{1}, {2, 3}}), random.OneOf({Values::kPlain, kind}));
            }
        }
        layer.Output(Stacked(result, M, N), random.Stride(N)).Batch(size(3));
        ExpectSameAsReference(layer, QLinearMatMulOpkitForward, RefQLinearMatMul, {.nan = NanPolicy::kAnyNan});
    });
}

}  // namespace
}  // namespace opkit
