// The harness itself: that it sees differences, and where.

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <bit>
#include <cstring>

#include "opkit/opkit.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/twin.h"

namespace opkit::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

float* Data(const TensorInfo& tensor)
{
    return static_cast<float*>(tensor.data);
}

uint32_t RefNeg(LayerParam* param)
{
    const TensorInfo& in = param->inputs[0];
    const TensorInfo& out = param->outputs[0];
    for (uint32_t row = 0; row < 2; ++row) {
        for (uint32_t i = 0; i < 3; ++i) {
            const uint32_t bits = std::bit_cast<uint32_t>(Data(in)[row * in.stride / 4 + i]) ^ 0x80000000;
            Data(out)[row * out.stride / 4 + i] = std::bit_cast<float>(bits);
        }
    }
    return 0;
}

uint32_t NegAndGap(LayerParam* param)
{
    RefNeg(param);
    Data(param->outputs[0])[7] = 5.0f;
    return 0;
}

uint32_t NegAndInput(LayerParam* param)
{
    RefNeg(param);
    Data(param->inputs[0])[4] = 8.0f;
    return 0;
}

uint32_t NegAndAttribute(LayerParam* param)
{
    RefNeg(param);
    static_cast<char*>(param->attr)[4000] = 1;
    return 0;
}

uint32_t NegAndSegId(LayerParam* param)
{
    RefNeg(param);
    param->segId = 77;
    return 0;
}

uint32_t NegAndMessage(LayerParam* param)
{
    RefNeg(param);
    RefReport("NegOpkitForward", "hello %d\n", 1);
    return 0;
}

uint32_t NegAndWorkspace(LayerParam* param)
{
    RefNeg(param);
    std::memset(param->opkitBuf, 1, param->opkitBufSize);
    return 0;
}

uint32_t NegThenFail(LayerParam* param)
{
    RefNeg(param);
    return UINT32_MAX;
}

LayerCase NegCase()
{
    LayerCase layer("NegOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 16).Workspace(64).SegId(3);
    return layer;
}

const TwinOptions kDirectOnly = {.throughRequest = false};

TEST(Twin, SameIsSame)
{
    ExpectSameAsReference(NegCase(), NegOpkitForward, RefNeg);
    ExpectSameAsReference(NegCase(), NegAndWorkspace, RefNeg, kDirectOnly);
}

// Runs the comparison where it must fail and expects the text in what it says.
void ExpectDifference(ForwardFunc actual, ForwardFunc reference, const std::string& text)
{
    testing::TestPartResultArray failures;
    {
        testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        const LevelScope one(Level::kBaseline);
        ExpectSameAsReference(NegCase(), actual, reference, kDirectOnly);
    }
    std::string all;
    for (int i = 0; i < failures.size(); ++i) {
        all += failures.GetTestPartResult(i).message();
    }
    EXPECT_THAT(all, HasSubstr(text));
    EXPECT_THAT(all, HasSubstr("layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16)"));
}

TEST(Twin, SeesEveryKindOfDifference)
{
    ExpectDifference(NegAndGap, RefNeg,
                     "output \"output0\", byte 28 (item 0) (row 1, column 3, a gap of [2, 3]): 0x40a00000");
    ExpectDifference(
        NegAndInput, RefNeg,
        "input \"input0\", byte 16 (item 0) (row 1, column 0 of [2, 3]): 0x41000000 (8), expected 0x40800000 (4)");
    ExpectDifference(NegAndAttribute, RefNeg, "(byte 4000 of layer 0's attribute block)");
    ExpectDifference(NegAndSegId, RefNeg, "segId is 77, expected 3");
    ExpectDifference(NegAndMessage, RefNeg, "[NegOpkitForward:#]hello 1");
    ExpectDifference(NegThenFail, RefNeg, "actual.run.result");
    ExpectDifference(RefNeg, NegAndGap, "a gap");
}

TEST(Twin, ThroughARequestTheTableCounts)
{
    testing::TestPartResultArray failures;
    {
        testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        ExpectSameAsReference(NegCase(), RefNeg, RefNeg);
    }
    ASSERT_GT(failures.size(), 0);
    EXPECT_THAT(failures.GetTestPartResult(0).message(), HasSubstr("the operator table leads elsewhere"));
}

#if !defined(OPKIT_TESTS_UNDER_ADDRESS_SANITIZER)  // which ends the blocks where the tensors end
TEST(Twin, SeesWritesBehindATensor)
{
    const auto overrun = [](LayerParam* param) -> uint32_t {
        RefNeg(param);
        Data(param->outputs[0])[8] = 1.0f;
        return 0;
    };
    ExpectDifference(overrun, RefNeg, "byte 32, behind its end at 32");
}
#endif

uint32_t WriteNan(LayerParam* param, uint32_t bits)
{
    std::memcpy(Data(param->outputs[0]), &bits, sizeof(bits));
    return 0;
}

TEST(World, NanPolicies)
{
    const auto quiet = [](LayerParam* param) { return WriteNan(param, 0x7fc00000); };
    const auto other = [](LayerParam* param) { return WriteNan(param, 0xffc12345); };
    const auto signalling = [](LayerParam* param) { return WriteNan(param, 0x7f800001); };
    const auto run = [](ForwardFunc function) {
        World world(NegCase());
        world.RunDirect(function);
        return world;
    };
    EXPECT_EQ(World::Difference(run(quiet), run(other), NanPolicy::kAnyNan), "");
    EXPECT_NE(World::Difference(run(quiet), run(other), NanPolicy::kExactBits), "");
    EXPECT_NE(World::Difference(run(quiet), run(signalling), NanPolicy::kAnyNan), "");
    EXPECT_EQ(World::Difference(run(signalling), run(signalling), NanPolicy::kExactBits), "");
}

TEST(World, PlacesBatchesKindsAndConstants)
{
    LayerCase layer("NegOpkitForward");
    CaseTensor scratch;
    scratch.shape = {2};
    scratch.data = {1, 2, 3, 4};
    scratch.strideBytes = 16;
    scratch.memKind = OPKIT_MEM_SCRATCH_BATCHED;
    CaseTensor raw;
    raw.shape = {1, 1};
    raw.strideBytes = 8;
    raw.raw = {0x3f800000, 0x40000000};
    layer.Online(scratch).Offline({3}, {7, 8, 9}).Online(raw).OutputInPlace(0, {2}).Output({2}).Batch(2);
    World world(layer);
    EXPECT_THAT(world.Input(0, 0), ElementsAre(1, 2));
    EXPECT_THAT(world.Input(0, 1), ElementsAre(3, 4));
    EXPECT_THAT(world.OfflineData(0), ElementsAre(7, 8, 9));
    EXPECT_THAT(world.InputRows(1, 1), ElementsAre(1, 2));
    EXPECT_EQ(world.Attr<LayerAttrHead>().offlineInputNum, 1u);
    EXPECT_EQ(world.OutputRows(0, 1).data(), world.InputRows(0, 1).data());
    EXPECT_EQ(world.Param().outputs[0].size, 16u);

    LayerCase inPlace("NegOpkitForward");
    inPlace.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).OutputInPlace(0, {2, 3});
    World same(inPlace);
    EXPECT_EQ(same.Param().outputs[0].data, same.Param().inputs[0].data);
    World clone = same.Clone();
    EXPECT_EQ(clone.Param().outputs[0].data, clone.Param().inputs[0].data);
    EXPECT_NE(clone.Param().outputs[0].data, same.Param().outputs[0].data);
    EXPECT_EQ(clone.RunRequest(), 0u);
    EXPECT_THAT(clone.Output(), ElementsAre(-1, -2, -3, -4, -5, -6));
    EXPECT_THAT(same.Output(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(World, RunsEveryBatchItemAndStopsAtAFailure)
{
    LayerCase layer = NegCase();
    layer.Batch(3);
    World world(layer);
    EXPECT_EQ(world.RunDirect(RefNeg), 0u);
    EXPECT_THAT(world.Output(0, 2), ElementsAre(-1, -2, -3, -4, -5, -6));
    World failing(layer);
    EXPECT_EQ(failing.RunDirect(NegThenFail), UINT32_MAX);
    EXPECT_THAT(failing.Output(0, 0), ElementsAre(-1, -2, -3, -4, -5, -6));
    EXPECT_NE(failing.Output(0, 1)[0], -1.0f);
}

TEST(World, TamperSeesTheLaidOutMemory)
{
    LayerCase layer = NegCase();
    layer.Tamper([](World& world) { world.Param().inputs[0].data = nullptr; });
    World world(layer);
    EXPECT_EQ(world.Clone().Param().inputs[0].data, nullptr);
}

TEST(Capture, NormalizesLinesOnly)
{
    EXPECT_EQ(NormalizeMessages("[Foo:12]a [x] [Bar_1:3]\n[Foo:]"), "[Foo:#]a [x] [Bar_1:#]\n[Foo:]");
    CaptureStdout capture;
    RefReport("Foo", "Malloc %lu failed!\n\n", 12ul);
    EXPECT_EQ(capture.Stop(), "[Foo:#]Malloc 12 failed!\n\n");
    EXPECT_EQ(capture.Stop(), "");
}

TEST(RandomData, RepeatsAndCovers)
{
    Random a(5);
    Random b(5);
    EXPECT_EQ(a.Word(), b.Word());
    int nans = 0;
    int negativeZeros = 0;
    int infinities = 0;
    for (const float x : a.Floats(20000, Values::kMixed)) {
        const uint32_t bits = std::bit_cast<uint32_t>(x);
        nans += (bits & 0x7fffffff) > 0x7f800000;
        negativeZeros += bits == 0x80000000;
        infinities += (bits & 0x7fffffff) == 0x7f800000;
        EXPECT_TRUE((bits & 0x7fffffff) <= 0x7f800000 || (bits & 0x400000) != 0) << "a signalling NaN";
    }
    EXPECT_GT(nans, 100);
    EXPECT_GT(negativeZeros, 100);
    EXPECT_GT(infinities, 100);
    for (int i = 0; i < 1000; ++i) {
        const auto shape = a.Shape(1, 4, 500);
        EXPECT_LE(ElementCount(shape), 500u);
        EXPECT_GE(ElementCount(shape), 1u);
        EXPECT_GE(a.Stride(shape.back()), shape.back() * 4);
        EXPECT_EQ(a.Stride(shape.back()) % 4, 0u);
        const int32_t n = a.Int(-2, 3);
        EXPECT_TRUE(n >= -2 && n <= 3);
    }
}

TEST(RandomData, NarrowRowsOnRequest)
{
    setenv("OPKIT_TEST_NARROW_ROWS", "1", 1);
    Random random(1);
    int narrow = 0;
    for (int i = 0; i < 1000; ++i) {
        const uint32_t stride = random.Stride(70);
        EXPECT_TRUE(stride >= 4 && stride % 4 == 0);
        narrow += stride < 280 ? 1 : 0;
    }
    unsetenv("OPKIT_TEST_NARROW_ROWS");
    EXPECT_TRUE(narrow > 400 && narrow < 600);
}

TEST(RandomData, AFailingCaseNamesItsSeed)
{
    testing::TestPartResultArray failures;
    std::vector<uint64_t> seeds;
    {
        testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        ForRandomCases(3, [&](Random& random) {
            seeds.push_back(random.Seed());
            EXPECT_EQ(seeds.size(), 0u);
        });
    }
    EXPECT_EQ(seeds.front(), TestSeed());
    ASSERT_GE(failures.size(), 1);
    EXPECT_THAT(failures.GetTestPartResult(0).message(), HasSubstr("OPKIT_TEST_SEED=" + std::to_string(TestSeed())));
}

TEST(Levels, EachOnceAndRestored)
{
    const Level before = ActiveLevel();
    int count = 0;
    ForEachLevel([&](Level level) {
        EXPECT_EQ(ActiveLevel(), level);
        ++count;
    });
    EXPECT_EQ(count, static_cast<int>(DetectedLevel()) + 1);
    EXPECT_EQ(ActiveLevel(), before);
}

TEST(AllocFaultTest, FailsTheNthAndCountsTheRest)
{
    if (!AllocFaultAvailable()) {
        AllocFault fault(0);
        void* block = malloc(8);
        EXPECT_NE(block, nullptr);
        free(block);
        return;
    }
    void* volatile blocks[3];
    AllocFault fault(1);
    for (auto& block : blocks) {
        block = malloc(10);
    }
    free(blocks[2]);
    fault.Disarm();
    EXPECT_NE(blocks[0], nullptr);
    EXPECT_EQ(blocks[1], nullptr);
    EXPECT_EQ(fault.Seen(), 3u);
    EXPECT_EQ(fault.Live(), 1);
    EXPECT_EQ(fault.LiveBytes(), 10u);
    fault.FreeLive();
    EXPECT_EQ(fault.Live(), 0);
}

}  // namespace
}  // namespace opkit::test
