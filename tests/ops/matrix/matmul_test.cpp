#include "tests/reference/matmul.h"
#include "tests/ops/matrix/matrix_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;

constexpr const char* kName = "MatMulOpkitForward";

TEST(MatmulGetCount, AllButTheLastTwo)
{
    uint32_t shape[] = {2, 3, 4, 5};
    EXPECT_EQ(MatmulGetCount(shape, 4), 6);
    EXPECT_EQ(MatmulGetCount(shape, 3), 2);
    EXPECT_EQ(MatmulGetCount(shape, 2), 1);
    EXPECT_EQ(MatmulGetCount(shape, 1), 1);
    EXPECT_EQ(MatmulGetCount(shape, 0), 1);
    EXPECT_EQ(MatmulGetCount(shape, -1), 1);
    uint32_t wrapping[] = {0x10000, 0x10001, 1, 1};
    EXPECT_EQ(MatmulGetCount(wrapping, 4), 0x10000);
    uint32_t negative[] = {0x80000000u, 1, 1};
    EXPECT_EQ(MatmulGetCount(negative, 3), INT32_MIN);
}

TEST(MatMul, TwoMatrices)
{
    LayerCase layer(kName);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Offline({3, 2}, {1, 0, 2, 1, 0, 3}).Output({2, 2}, 16);
    ExpectOutput(layer, MatMulOpkitForward, {5, 11, 14, 23});
    World world(layer);
    ExpectSuccess(RunCaptured(world, MatMulOpkitForward));
    EXPECT_TRUE(SameFloats(world.InputRows(0).first(6), Floats{1, 2, 3, 4, 5, 6})) << "A stays compact";
}

TEST(MatMul, OneDimensionalA)
{
    LayerCase layer(kName);
    layer.Online({3}, {1, 2, 3}).Online({3, 2}, {1, 0, 2, 1, 0, 3}).Output({2});
    ExpectOutput(layer, MatMulOpkitForward, {5, 11});
}

TEST(MatMul, SmallerStacksRepeatInIndexOrder)
{
    LayerCase layer(kName);
    layer.Online({2, 1, 1}, {2, 3}).Online({6, 1, 1}, {1, 10, 100, 1000, 10000, 100000}).Output({6, 1, 1}, 8);
    ExpectOutput(layer, MatMulOpkitForward, {2, 30, 200, 3000, 20000, 300000});
    LayerCase broad(kName);  // (2, 1) against (1, 3) is not broadcast by coordinates
    broad.Online({2, 1, 1, 1}, {2, 3}).Online({1, 3, 1, 1}, {1, 10, 100}).Output({2, 3, 1, 1});
    ExpectOutput(broad, MatMulOpkitForward, {2, 30, 200, 3, 20, 300});
    LayerCase oneRight(kName);
    oneRight.Online({2, 1, 2}, {1, 2, 3, 4}).Online({2, 2}, {1, 10, 100, 1000}).Output({2, 1, 2});
    ExpectOutput(oneRight, MatMulOpkitForward, {201, 2010, 403, 4030});
    LayerCase larger(kName);  // more matrices than the result has
    larger.Online({3, 1, 1}, {2, 3, 4}).Online({1, 1}, {5}).Output({1, 1});
    ExpectOutput(larger, MatMulOpkitForward, {10});
}

TEST(MatMul, OldResultDoesNotMatter)
{
    LayerCase layer(kName);
    layer.Online({1, 1}, {2}).Online({1, 1}, {3}).Output(Holding({1, 1}, {kNan}));
    ExpectOutput(layer, MatMulOpkitForward, {6});
}

TEST(MatMul, EmptyStacks)
{
    LayerCase empty(kName);
    empty.Online({0, 1, 1}, {}).Online({1, 1}, {5}).Output({0, 1, 1});
    ExpectOutput(empty, MatMulOpkitForward, {});
    LayerCase emptyA(kName);
    emptyA.Online({0, 1, 1}, {}).Online({2, 1, 1}, {5, 6}).Output({2, 1, 1});
    ExpectFailure(emptyA, MatMulOpkitForward, Message(kName, "cannot divisor zero, len0 = 0, len1 = 2\n"));
    LayerCase emptyB(kName);
    emptyB.Online({3, 1, 1}, {1, 2, 3}).Online({0, 1, 1}, {}).Output({2, 1, 1});
    ExpectFailure(emptyB, MatMulOpkitForward, Message(kName, "cannot divisor zero, len0 = 3, len1 = 0\n"));
}

// Rows of no columns, more than one product of both stacks could count.
TEST(MatMul, ManyEmptyRows)
{
    LayerCase layer(kName);
    layer.Online({2, 1, 1}, {1, 2}).Online({1, 1}, {3}).Output({2, 1, 1});
    const auto empty = [](LayerParam* param) {
        uint32_t a[] = {2, 0x40000000, 1};
        uint32_t y[] = {2, 0x40000000, 0};
        param->inputs[0].shape = a;
        param->outputs[0].shape = y;
        return MatMulOpkitForward(param);
    };
    ExpectFailure(layer, empty, Message(kName, "widthOut can't be zero.\n\n"));
}

TEST(MatMul, Failures)
{
    LayerCase noAttr(kName);
    noAttr.Online({2, 2}, {1, 2, 3, 4}, 12).Online({2, 2}, {1, 2, 3, 4}).Output({2, 2});
    World world(noAttr);
    World untouched = world.Clone();
    const auto withoutAttr = [](LayerParam* param) {
        LayerParam copy = *param;
        copy.attr = nullptr;
        return MatMulOpkitForward(&copy);
    };
    ExpectFailure(RunCaptured(world, withoutAttr), "");
    EXPECT_EQ(World::Difference(world, untouched, NanPolicy::kExactBits), "");

    const std::string unresolved = Message(kName, "ParseInputInfo failed.\n\n");
    LayerCase missing(kName);
    missing.Online({2, 2}, {1, 2, 3, 4}).Output({2, 2});
    ExpectFailure(missing, MatMulOpkitForward, unresolved);
    LayerCase noDimensions(kName);
    noDimensions.Offline({2, 2}, {1, 2, 3, 4}).Online({2, 2}, {1, 2, 3, 4}).Output({2, 2});
    noDimensions.Tamper([](World& w) { w.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0; });
    ExpectFailure(noDimensions, MatMulOpkitForward, unresolved);
    for (uint32_t k = 0; k < 2; ++k) {
        LayerCase null(kName);
        null.Online({2, 2}, {1, 2, 3, 4}, 12).Online({2, 2}, {1, 2, 3, 4}, 12).Output({2, 2});
        NullInput(null, k);
        ExpectFailure(
            null, MatMulOpkitForward,
            Message("DelAlignSpace", "Input data is NULL.\n\n") + Message(kName, "DelAlignSpace failed.\n\n"));
    }
    LayerCase noWidth(kName);
    noWidth.Online({2, 2}, {1, 2, 3, 4}).Offline({2, 0}, {}).Output({2, 0});
    ExpectFailure(noWidth, MatMulOpkitForward, Message(kName, "widthOut can't be zero.\n\n"));
    LayerCase nullOutput(kName);
    nullOutput.Online({0, 2, 2}, {}).Online({2, 2}, {1, 2, 3, 4}).Output({0, 2, 2});
    NullOutput(nullOutput);
    ExpectFailure(
        nullOutput, MatMulOpkitForward,
        Message("InsertAlignSpace", "Input data is NULL.\n\n") + Message(kName, "InsertAlignSpace failed.\n\n"));
}

TEST(MatMul, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const auto size = [&random](int32_t most) { return static_cast<uint32_t>(random.Int(1, most)); };
        const uint32_t M = size(9);
        const uint32_t N = random.Chance(0.5) ? size(70) : size(9);
        const uint32_t K = size(20);
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed});
        const auto stack = [&] { return random.OneOf<Shape>({{}, {size(4)}, {size(3), size(3)}, {1, size(4), 1}}); };
        const Shape result = stack();
        LayerCase layer(kName);
        const bool vector = random.Chance(0.1);
        AddInput(random, layer, vector ? Shape{K} : Stacked(random.Chance(0.4) ? result : stack(), M, K), kind);
        AddInput(random, layer, Stacked(random.Chance(0.4) ? result : stack(), K, N), kind);
        layer.Output(vector ? Stacked(result, 1, N) : Stacked(result, M, N), random.Stride(N)).Batch(size(2));
        ExpectSameAsReference(layer, MatMulOpkitForward, RefMatMul, {.nan = NanPolicy::kAnyNan});
    });
}

}  // namespace
}  // namespace opkit
