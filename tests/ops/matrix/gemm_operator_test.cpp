#include "opkit/attributes/matrix.h"
#include "tests/ops/matrix/matrix_cases.h"
#include "tests/reference/gemm.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Eq;

constexpr const char* kName = "GemmOpkitForward";

// A = ((1, 2, 3), (4, 5, 6)), B = ((1, 0), (2, 1), (0, 3)): A * B = ((5, 11), (14, 23)).
const Floats kA = {1, 2, 3, 4, 5, 6};
const Floats kB = {1, 0, 2, 1, 0, 3};

LayerCase Case(uint32_t inputCount, float alpha = 1.0f, float beta = 1.0f)
{
    LayerCase layer(kName);
    GemmAttr& attr = layer.Attr<GemmAttr>();
    attr.inputCount = inputCount;
    attr.alpha = alpha;
    attr.beta = beta;
    layer.Workspace(256);
    return layer;
}

LayerCase CaseWithC(const Shape& shape, const Floats& c, float alpha, float beta)
{
    LayerCase layer = Case(3, alpha, beta);
    layer.Online({2, 3}, kA, 16).Offline({3, 2}, kB).Online(shape, c, shape.back() * 4 + 8).Output({2, 2}, 16);
    return layer;
}

TEST(Gemm, WithAndWithoutC)
{
    ExpectOutput(CaseWithC({2, 2}, {1, 2, 3, 4}, 2, 10), GemmOpkitForward, {20, 42, 58, 86});
    ExpectOutput(CaseWithC({2}, {1, 2}, 1, 10), GemmOpkitForward, {15, 31, 24, 43});
    ExpectOutput(CaseWithC({2, 1}, {1, 2}, 1, 10), GemmOpkitForward, {15, 21, 34, 43});
    ExpectOutput(CaseWithC({1}, {7}, 1, 1), GemmOpkitForward, {12, 18, 21, 30});
    ExpectOutput(CaseWithC({1, 1, 2, 2}, {7, 8, 9, 10}, 1, 1), GemmOpkitForward, {12, 18, 21, 30});  // more dimensions
    ExpectOutput(CaseWithC({3}, {7, 8, 9}, 1, 1), GemmOpkitForward, {12, 19, 21, 31});
    ExpectOutput(CaseWithC({2, 2}, {kNan, 2, 3, 4}, 1, 0), GemmOpkitForward, {5, 11, 14, 23});
    ExpectOutput(CaseWithC({2, 2}, {kNan, 2, 3, 4}, 0, 1), GemmOpkitForward, {kNan, 2, 3, 4});

    for (const uint32_t count : {0u, 2u, 4u, 259u}) {  // anything but 3: no C, though one is there
        LayerCase layer = Case(count, 1, 10);
        layer.Online({2, 3}, kA, 16).Offline({3, 2}, kB).Online({2}, {1, 2}).Output({2, 2}, 16);
        ExpectOutput(layer, GemmOpkitForward, {5, 11, 14, 23});
    }
    for (const float beta : {kNan, kInf}) {  // without C the cleared output is scaled
        LayerCase layer = Case(2, 1, beta);
        layer.Online({2, 3}, kA).Offline({3, 2}, kB).Output({2, 2});
        ExpectOutput(layer, GemmOpkitForward, {kNan, kNan, kNan, kNan});
    }
}

TEST(Gemm, TransposedFlagsAreBytes)
{
    const Floats at = {1, 4, 2, 5, 3, 6};
    const Floats bt = {1, 2, 0, 0, 1, 3};
    for (const uint8_t flag : {1, 2, 128, 255}) {
        for (int form = 0; form < 4; ++form) {
            LayerCase layer = Case(2);
            GemmAttr& attr = layer.Attr<GemmAttr>();
            attr.transA = form & 1 ? flag : 0;
            attr.transB = form & 2 ? flag : 0;
            attr.reserved8782[0] = attr.reserved8782[1] = 1;  // not read
            form & 1 ? layer.Online({3, 2}, at, 12) : layer.Online({2, 3}, kA, 16);
            form & 2 ? layer.Online({2, 3}, bt) : layer.Online({3, 2}, kB, 32);
            layer.Output({2, 2}, 20);
            ExpectOutput(layer, GemmOpkitForward, {5, 11, 14, 23});
        }
    }
}

TEST(Gemm, StackAdvancesBothMatrices)
{
    LayerCase layer = Case(3, 1, 1);
    layer.Online({2, 1, 2}, {1, 2, 3, 4})
        .Online({2, 2, 1}, {5, 6, 7, 8})
        .Online({2, 1, 1}, {100, 200})
        .Output({2, 1, 1});
    ExpectOutput(layer, GemmOpkitForward, {117, 253});
    LayerCase deep = Case(2);
    deep.Online({1, 2, 1, 1}, {2, 3}).Online({2, 1, 1, 1}, {5, 7}).Output({2, 1, 1, 1}, 16);
    ExpectOutput(deep, GemmOpkitForward, {10, 21});
}

TEST(Gemm, ShapeOfBIsReadAtTheRankOfA)
{
    // B has rank 2, A rank 3: the sizes come from places 1 and 2 of B's shape, the second one behind its end.
    LayerCase layer = Case(2);
    layer.Online({1, 2, 3}, kA).Offline({2, 3}, kB).Output({1, 2, 2});
    layer.Tamper([](World& world) { world.Attr<GemmAttr>().head.offlineShape[0].dims[2] = 2; });
    ExpectOutput(layer, GemmOpkitForward, {5, 11, 14, 23});
    // A has rank 2, B rank 3: places 0 and 1.
    LayerCase shorter = Case(2);
    shorter.Online({2, 3}, kA).Offline({3, 2, 1}, kB).Output({2, 2});
    ExpectOutput(shorter, GemmOpkitForward, {5, 11, 14, 23});
}

TEST(Gemm, StrideRecords)
{
    const auto preset = [](LayerCase& layer) {
        std::memset(&layer.Attr<GemmAttr>().inputStrides, 0x5a, sizeof(GemmAttr::inputStrides));
        std::memset(&layer.Attr<GemmAttr>().outputStrides, 0x5a, sizeof(GemmAttr::outputStrides));
    };
    const auto run = [](const LayerCase& layer) {
        World world(layer);
        ExpectSuccess(RunCaptured(world, GemmOpkitForward));
        return world;
    };
    const uint32_t kPreset = 0x5a5a5a5a;
    LayerCase broadcast = CaseWithC({2, 1}, {1, 2}, 1, 1);
    preset(broadcast);
    World world = run(broadcast);
    const GemmAttr& attr = world.Attr<GemmAttr>();
    const auto strides = [](const StrideRecord& record) { return std::vector(record.strides, record.strides + 3); };
    EXPECT_THAT(strides(attr.outputStrides[0]), ElementsAre(2, 1, kPreset));
    EXPECT_EQ(attr.outputStrides[0].count, 2u);
    EXPECT_THAT(strides(attr.inputStrides[2]), ElementsAre(1, 1, kPreset));
    EXPECT_EQ(attr.inputStrides[2].count, 2u);
    for (const int untouched : {0, 1, 3}) {
        EXPECT_EQ(attr.inputStrides[untouched].count, kPreset);
        EXPECT_THAT(strides(attr.inputStrides[untouched]), Each(Eq(kPreset)));
    }
    LayerCase same = CaseWithC({2, 2}, {1, 2, 3, 4}, 1, 1);  // same shape: only the output's
    preset(same);
    World second = run(same);
    EXPECT_EQ(second.Attr<GemmAttr>().outputStrides[0].count, 2u);
    EXPECT_EQ(second.Attr<GemmAttr>().inputStrides[2].count, kPreset);
    LayerCase without = Case(2);
    preset(without);
    without.Online({2, 3}, kA).Offline({3, 2}, kB).Output({2, 2});
    World third = run(without);
    EXPECT_EQ(third.Attr<GemmAttr>().outputStrides[0].count, kPreset);
}

TEST(Gemm, Compacting)
{
    LayerCase layer = CaseWithC({2, 2}, {1, 2, 3, 4}, 1, 1);
    World world(layer);
    std::vector<float> rows(world.InputRows(0).begin(), world.InputRows(0).end());
    ExpectSuccess(RunCaptured(world, GemmOpkitForward));
    EXPECT_TRUE(SameFloats(world.InputRows(0).first(6), kA));
    EXPECT_TRUE(SameFloats(world.InputRows(0).subspan(6), std::span(rows).subspan(6)));
    EXPECT_TRUE(SameFloats(world.InputRows(1).first(4), Floats{1, 2, 3, 4}));
}

TEST(Gemm, OutputIsClearedBeforeTheProduct)
{
    // The output is A's memory: with a C the product still sees A as zeros.
    LayerCase layer = Case(3, 1, 1);
    layer.Online({2, 2}, {1, 2, 3, 4}).Offline({2, 2}, {1, 0, 0, 1}).Offline({1}, {5}).OutputInPlace(0, {2, 2});
    ExpectOutput(layer, GemmOpkitForward, {5, 5, 5, 5});
}

TEST(Gemm, Failures)
{
    const std::string unresolved = Message(kName, "ParseInputInfo failed.\n\n");
    const std::string compaction =
        Message("DelAlignSpace", "Input data is NULL.\n\n") + Message(kName, "DelAlignSpace failed.\n\n");
    for (uint32_t missing = 0; missing < 3; ++missing) {
        LayerCase online = Case(3);
        LayerCase offline = Case(3);
        LayerCase null = Case(3);
        for (uint32_t k = 0; k < 3; ++k) {
            if (k < missing) {
                online.Online({2, 2}, {1, 2, 3, 4}, 12);
            }
            offline.Offline({2, 2}, {1, 2, 3, 4});
            null.Online({2, 2}, {1, 2, 3, 4}, 12);
        }
        offline.Tamper([missing](World& world) { world.Attr<GemmAttr>().head.offlineShape[missing].dimNum = 0; });
        NullInput(null, missing);
        if (missing > 0) {  // a request has at least one input
            online.Output({2, 2});
            World world(online);
            ExpectFailure(RunCaptured(world, GemmOpkitForward), unresolved);
            EXPECT_TRUE(SameFloats(world.InputRows(0).first(4), Floats{1, 2, 3, 4})) << "compacted before the failure";
        }
        ExpectFailure(offline.Output({2, 2}), GemmOpkitForward, unresolved);
        ExpectFailure(null.Output({2, 2}), GemmOpkitForward, compaction);
    }
    LayerCase noWidth = Case(2);
    noWidth.Online({2, 2}, {1, 2, 3, 4}).Offline({2, 0}, {}).Output({2, 0});
    ExpectFailure(noWidth, GemmOpkitForward, Message(kName, "widthOut can't be zero.\n\n"));
    LayerCase nullOutput = Case(2);
    nullOutput.Online({0, 2}, {}).Online({2, 2}, {1, 2, 3, 4}).Output({0, 2});
    NullOutput(nullOutput);
    ExpectFailure(
        nullOutput, GemmOpkitForward,
        Message("InsertAlignSpace", "Input data is NULL.\n\n") + Message(kName, "InsertAlignSpace failed.\n\n"));
}

TEST(Gemm, EmptyResultWithC)
{
    LayerCase layer = Case(3);
    layer.Online({0, 2}, {}).Online({2, 2}, {1, 2, 3, 4}).Online({2}, {5, 6}).Output({0, 2});
    ExpectOutput(layer, GemmOpkitForward, {});
    layer.Workspace(0).Tamper([](World& world) { world.Param().opkitBuf = nullptr; });
    ExpectOutput(layer, GemmOpkitForward, {});
}

TEST(Gemm, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const auto size = [&random](int32_t most) { return static_cast<uint32_t>(random.Int(1, most)); };
        Shape stack;
        for (int d = random.Int(0, 3); d > 0; --d) {
            stack.push_back(size(3));
        }
        const uint32_t M = size(9);
        const uint32_t N = random.Chance(0.5) ? size(70) : size(9);
        const uint32_t K = size(20);
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed});
        LayerCase layer(kName);
        GemmAttr& attr = layer.Attr<GemmAttr>();
        attr.inputCount = random.OneOf({3u, 3u, 3u, 2u, 0u});
        attr.alpha = random.OneOf({1.0f, 1.0f, 0.5f, -2.3f, 0.0f});
        attr.beta = random.OneOf({1.0f, 0.0f, -1.7f, kNan});
        attr.transA = random.OneOf<uint8_t>({0, 0, 1, 7});
        attr.transB = random.OneOf<uint8_t>({0, 0, 1, 7});
        const bool transA = attr.transA != 0;
        const bool transB = attr.transB != 0;
        AddInput(random, layer, transA ? Stacked(stack, K, M) : Stacked(stack, M, K), kind);
        AddInput(random, layer, transB ? Stacked(stack, N, K) : Stacked(stack, K, N), kind);
        const Shape result = Stacked(stack, M, N);
        if (attr.inputCount == 3 || random.Chance(0.3)) {
            Shape c = result;
            if (random.Chance(0.7)) {
                for (uint32_t& dimension : c) {
                    dimension = random.Chance(0.4) ? 1 : random.Chance(0.2) ? size(9) : dimension;  // also wraps around
                }
                c.erase(c.begin(), c.begin() + random.Int(0, static_cast<int32_t>(c.size()) - 1));
            }
            AddInput(random, layer, c, kind);
        }
        layer.Output(result, random.Stride(N)).Batch(size(2));
        layer.Workspace(static_cast<uint32_t>(ElementCount(result)) * 4);
        ExpectSameAsReference(layer, GemmOpkitForward, RefGemmForward, {.nan = NanPolicy::kAnyNan});
    });
}

}  // namespace
}  // namespace opkit
