// The sixteen unary operators, the two wrappers and the element functions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/unary.h"
#include "tests/support/overlap.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

struct UnaryRow {
    const char* name;
    ForwardFunc forward;
    ForwardFunc reference;
    NanPolicy nan = NanPolicy::kAnyNan;
};

const UnaryRow kRows[] = {
    {"AcosOpkitForward", AcosOpkitForward, RefUnary<acosf>},
    {"AcoshOpkitForward", AcoshOpkitForward, RefAcosh},
    {"AsinOpkitForward", AsinOpkitForward, RefUnary<asinf>},
    {"AsinhOpkitForward", AsinhOpkitForward, RefUnary<asinhf>},
    {"AtanOpkitForward", AtanOpkitForward, RefUnary<atanf>},
    {"AtanhOpkitForward", AtanhOpkitForward, RefUnary<atanhf>},
    {"CosOpkitForward", CosOpkitForward, RefUnary<cosf>},
    {"CoshOpkitForward", CoshOpkitForward, RefUnary<coshf>},
    {"NegOpkitForward", NegOpkitForward, RefUnary<RefNeg>, NanPolicy::kExactBits},
    {"ReciprocalOpkitForward", ReciprocalOpkitForward, RefUnary<RefReciprocal>},
    {"SigmoidOpkitForward", SigmoidOpkitForward, RefUnary<RefSigmoid>},
    {"SignOpkitForward", SignOpkitForward, RefUnary<RefSign>, NanPolicy::kExactBits},
    {"SinOpkitForward", SinOpkitForward, RefUnary<sinf>},
    {"SoftplusOpkitForward", SoftplusOpkitForward, RefUnary<RefSoftplus>},
    {"SoftsignOpkitForward", SoftsignOpkitForward, RefUnary<RefSoftsign>},
    {"TanOpkitForward", TanOpkitForward, RefUnary<tanf>},
};

TEST(Unary, SameAsReference)
{
    for (const UnaryRow& row : kRows) {
        SCOPED_TRACE(row.name);
        ForRandomCases(60, [&](Random& random) {
            const std::vector<uint32_t> shape = random.Shape(1, 4, 600);
            const std::vector<float> data = random.Floats(modelkit::ElementCount(shape), Values::kMixed);
            LayerCase layer(row.name);
            if (random.Chance(0.25)) {
                layer.Offline(shape, data);
            } else {
                layer.Online(shape, data, random.Stride(shape.back()));
            }
            layer.Output(shape, random.Stride(shape.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = row.nan});
        });
    }
}

// Each side is addressed by its own width: an input of two rows may fill an output of three.
TEST(Unary, SidesOfDifferentWidth)
{
    LayerCase layer("NegOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({3, 2}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(NegOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(-1, -2, -3, -4, -5, -6));
    ExpectSameAsReference(layer, NegOpkitForward, RefUnary<RefNeg>);
}

TEST(Unary, OutputIsAnInput)
{
    for (const UnaryRow& row : kRows) {
        if (std::string(row.name) == "AcoshOpkitForward") {
            continue;  // the compacting one
        }
        SCOPED_TRACE(row.name);
        ForRandomCases(10, [&](Random& random) {
            const std::vector<uint32_t> shape = random.Shape(1, 3, 300);
            LayerCase layer(row.name);
            layer.Online(shape, random.Floats(modelkit::ElementCount(shape), Values::kMixed),
                         random.Stride(shape.back()));
            layer.OutputInPlace(0, shape);
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = row.nan});
        });
    }
}

// Results are read again as elements, one by one, at every level.
TEST(Unary, OutputOverlapsTheInput)
{
    for (const UnaryRow& row : kRows) {
        SCOPED_TRACE(row.name);
        ForRandomCases(20, [&](Random& random) {
            const std::vector<uint32_t> shape = random.Shape(1, 3, 300);
            LayerCase layer(row.name);
            AddOverlapping(layer, random, shape, random.Floats(modelkit::ElementCount(shape), Values::kPlain));
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = NanPolicy::kAnyNan});
        });
    }
}

TEST(Unary, LoopWrapperInPlace)
{
    LayerCase layer("AcosOpkitForward");
    layer.Online({2, 3}, {1, 1, 1, 1, 1, 1}, 16).Output({2, 3}, 16);
    World world(layer);
    const World before = world.Clone();
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Input(), ElementsAre(1, 1, 1, 1, 1, 1));
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 0, 0, 0, 0));
    World unchanged = before.Clone();
    EXPECT_EQ(std::memcmp(&world.OutputRows()[3], &unchanged.OutputRows()[3], 4), 0);
}

TEST(Unary, AcoshCompacting)
{
    LayerCase layer("AcoshOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 16);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    const std::span<float> rows = world.InputRows();
    EXPECT_THAT(std::vector<float>(rows.begin(), rows.begin() + 6), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(world.Output()[5], static_cast<float>(std::acosh(6.0)));
}

TEST(Unary, AcoshMessages)
{
    LayerCase empty("AcoshOpkitForward");
    empty.Online({0, 2}, {}, 8).Output({2, 0});
    World emptyWorld(empty);
    const RunResult result = RunCaptured(emptyWorld, AcoshOpkitForward);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages, "[SingleInOutCalcfuncWrapper:#]widthOut can't be zero.\n\n");

    LayerCase zeroAlign("AcoshOpkitForward");
    zeroAlign.Online({0, 2}, {}, 8).Output({2, 2}).Tamper([](World& w) { w.Param().inputs[0].stride = 0; });
    World alignWorld(zeroAlign);
    const RunResult align = RunCaptured(alignWorld, AcoshOpkitForward);
    EXPECT_EQ(align.result, OPKIT_FAILURE);
    EXPECT_EQ(align.messages,
              "[DelAlignSpace:#]Illegal value, widthIn = 2, alignNumIn = 0\n"
              "[SingleInOutCalcfuncWrapper:#]DelAlignSpace failed.\n\n");
}

TEST(Unary, UnresolvedInputFailsSilently)
{
    LayerCase offline("AcosOpkitForward");
    offline.Offline({2}, {1, 1}).Output({2});
    World world(offline);
    world.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0;
    const RunResult result = RunCaptured(world, AcosOpkitForward);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages, "");

    LayerCase missing("AcosOpkitForward");
    missing.Output({2});
    World missingWorld(missing);
    const RunResult none = RunCaptured(missingWorld, AcosOpkitForward);
    EXPECT_EQ(none.result, OPKIT_FAILURE);
    EXPECT_EQ(none.messages, "");
}

TEST(Unary, EmptyInputSucceeds)
{
    LayerCase layer("SinOpkitForward");
    layer.Online({0, 3}, {}).Output({2, 3});
    World world(layer);
    const World before = world.Clone();
    EXPECT_EQ(world.RunDirect(SinOpkitForward), 0u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

TEST(Unary, ElementFunctions)
{
    EXPECT_EQ(ReciprocalCalcFunc(0.0f), 8388608.0f);
    EXPECT_EQ(ReciprocalCalcFunc(-0.0f), 8388608.0f);
    EXPECT_EQ(ReciprocalCalcFunc(-1e-8f), -8388608.0f);
    EXPECT_EQ(ReciprocalCalcFunc(1.1920929e-7f), 8388608.0f);
    EXPECT_EQ(ReciprocalCalcFunc(std::nextafterf(1.1920929e-7f, 1.0f)), 1.0f / std::nextafterf(1.1920929e-7f, 1.0f));
    EXPECT_TRUE(std::isnan(ReciprocalCalcFunc(kNan)));
    EXPECT_EQ(ReciprocalCalcFunc(-kInf), -0.0f);
    EXPECT_EQ(SignCalcFunc(kNan), 0.0f);
    EXPECT_EQ(SignCalcFunc(-0.0f), 0.0f);
    EXPECT_FALSE(std::signbit(SignCalcFunc(-0.0f)));
    EXPECT_EQ(SignCalcFunc(-kInf), -1.0f);
    EXPECT_TRUE(std::signbit(NegCalcFunc(0.0f)));
    EXPECT_EQ(SoftplusCalcFunc(1000.0f), kInf);
    EXPECT_EQ(SoftplusCalcFunc(0.0f), static_cast<float>(std::log(2.0)));
    EXPECT_EQ(SigmoidCalcFunc(0.0f), 0.5f);
    EXPECT_EQ(SigmoidCalcFunc(-1000.0f), 0.0f);
    EXPECT_EQ(SoftsignCalcFunc(-3.0f), -0.75f);
    float in[2] = {1.0f, 2.0f};
    float out[2] = {9.0f, 9.0f};
    AcoshCalcFunc(in, out, nullptr, 1);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 9.0f);
}

uint32_t g_resolverCalls = 0;

bool RefusingResolver(float**, uint32_t**, int32_t*, uint32_t*, uint32_t*, uint32_t, uint32_t*, uint32_t*, LayerParam*)
{
    ++g_resolverCalls;
    return false;
}

TEST(Unary, LoopWrapperTakesAnyResolverAndElement)
{
    LayerCase layer("AcosOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 32);
    World world(layer);
    EXPECT_EQ(world.RunDirect([](LayerParam* param) {
        return SingleInOutCalcfuncWithLoopWrapper([](float x) { return x * 10; }, ParseInputInfo, param);
    }),
              0u);
    EXPECT_THAT(world.Output(), ElementsAre(10, 20, 30, 40, 50, 60));
    EXPECT_EQ(world.RunDirect([](LayerParam* param) {
        return SingleInOutCalcfuncWithLoopWrapper(SignCalcFunc, RefusingResolver, param);
    }),
              OPKIT_FAILURE);
    EXPECT_EQ(g_resolverCalls, 1u);
}

}  // namespace
}  // namespace opkit
