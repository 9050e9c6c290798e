// One-input element functions over every float, against their literal forms, at every instruction-set level.
// OPKIT_EXHAUSTIVE_STEP says how far apart the bit patterns are: 1 for all of them (script/exhaustive), a prime by
// default, so that the loops are exercised by every run of the tests.

#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "common/convert.h"
#include "opkit/opkit.h"
#include "tests/reference/activations.h"
#include "tests/reference/unary.h"
#include "tests/support/float_bits.h"
#include "tests/support/twin.h"

namespace opkit::test {
namespace {

using namespace opkit::reference;

constexpr uint32_t kBlock = 1 << 16;

uint64_t Step()
{
    const char* const text = std::getenv("OPKIT_EXHAUSTIVE_STEP");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : 65537;
}

// Calls body(floats) with blocks of bit patterns, until it returns false.
template <class Body>
void ForEachBlock(Body body)
{
    std::vector<float> block(kBlock);
    bool good = true;
    for (uint64_t bits = 0; bits < (uint64_t{1} << 32) && good;) {
        for (float& x : block) {
            x = std::bit_cast<float>(static_cast<uint32_t>(bits));
            bits += Step();
        }
        good = body(block);
    }
}

struct OperatorRow {
    const char* name;
    ForwardFunc forward;
    ForwardFunc reference;
    float first = 0.0f;  // of the attributes
    float second = 0.0f;
    uint32_t mode = 0;
    NanPolicy nan = NanPolicy::kAnyNan;
};

class EveryFloat : public testing::TestWithParam<OperatorRow> {};

TEST_P(EveryFloat, IsAsTheLiteralFormHasIt)
{
    const OperatorRow& row = GetParam();
    LayerCase layer(std::string(row.name) + "OpkitForward");
    layer.Online({kBlock}, {}).Output({kBlock});
    if (row.reference == RefRound) {
        layer.Attr<RoundAttr>().roundMode = row.mode;
    } else if (row.reference == RefSqrt) {
        layer.Attr<SqrtAttr>();
    } else {
        layer.Attr<SeluAttr>().alpha = row.first;
        layer.Attr<SeluAttr>().gamma = row.second;
    }
    World world(layer);
    World expected(layer);
    const auto start = std::chrono::steady_clock::now();
    ForEachBlock([&](const std::vector<float>& in) {
        std::ranges::copy(in, expected.InputRows().begin());
        EXPECT_EQ(expected.RunDirect(row.reference), 0u);
        ForEachLevel([&](Level) {
            std::ranges::copy(in, world.InputRows().begin());
            EXPECT_EQ(world.RunDirect(row.forward), 0u);
            EXPECT_EQ(World::Difference(world, expected, row.nan), "");
        });
        return !HasFailure();
    });
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    RecordProperty("seconds", std::to_string(seconds.count()));
}

const OperatorRow kRows[] = {
    {"Acos", AcosOpkitForward, RefUnary<acosf>},
    {"Acosh", AcoshOpkitForward, RefAcosh},
    {"Asin", AsinOpkitForward, RefUnary<asinf>},
    {"Asinh", AsinhOpkitForward, RefUnary<asinhf>},
    {"Atan", AtanOpkitForward, RefUnary<atanf>},
    {"Atanh", AtanhOpkitForward, RefUnary<atanhf>},
    {"Cos", CosOpkitForward, RefUnary<cosf>},
    {"Cosh", CoshOpkitForward, RefUnary<coshf>},
    {"Neg", NegOpkitForward, RefUnary<RefNeg>, 0, 0, 0, NanPolicy::kExactBits},
    {"Reciprocal", ReciprocalOpkitForward, RefUnary<RefReciprocal>},
    {"Sigmoid", SigmoidOpkitForward, RefUnary<RefSigmoid>},
    {"Sign", SignOpkitForward, RefUnary<RefSign>, 0, 0, 0, NanPolicy::kExactBits},
    {"Sin", SinOpkitForward, RefUnary<sinf>},
    {"Softplus", SoftplusOpkitForward, RefUnary<RefSoftplus>},
    {"Softsign", SoftsignOpkitForward, RefUnary<RefSoftsign>},
    {"Tan", TanOpkitForward, RefUnary<tanf>},
    {"Celu", CeluOpkitForward, RefCelu, 1.0f},
    {"Celu", CeluOpkitForward, RefCelu, -0.75f},
    {"Selu", SeluOpkitForward, RefSelu, 1.6732632f, 1.050701f},
    {"Selu", SeluOpkitForward, RefSelu, -0.3f, 2.0f},
    {"Shrink", ShrinkOpkitForward, RefShrink, 0.25f, 0.5f},
    {"Shrink", ShrinkOpkitForward, RefShrink, 1.5f, -1.0f},
    {"HardSigmoid", HardSigmoidOpkitForward, RefHardSigmoid, 0.2f, 0.5f},
    {"ThresholdedRelu", ThresholdedReluOpkitForward, RefThresholdedRelu, 1.0f},
    {"ThresholdedRelu", ThresholdedReluOpkitForward, RefThresholdedRelu, -0.0f},
    {"Round", RoundOpkitForward, RefRound, 0, 0, 0},
    {"Round", RoundOpkitForward, RefRound, 0, 0, 1},
    {"Round", RoundOpkitForward, RefRound, 0, 0, 2},
    {"Sqrt", SqrtOpkitForward, RefSqrt},
    {"Sinh", SinhOpkitForward, RefSinh},
};

INSTANTIATE_TEST_SUITE_P(Operators, EveryFloat, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name) + "_" + std::to_string(row.index); });

// The conversion as the language has it, where it has one; the instruction's answer elsewhere.
int64_t LiteralI64(float x)
{
    return x >= -0x1p63f && x < 0x1p63f ? static_cast<int64_t>(x) : INT64_MIN;
}

int32_t LiteralI32(float x)
{
    return x >= -0x1p31f && x < 0x1p31f ? static_cast<int32_t>(x) : INT32_MIN;
}

uint64_t LiteralU64(float x)
{
    return x >= 0x1p64f   ? uint64_t{1} << 63
           : x >= 0x1p63f ? static_cast<uint64_t>(x)
                          : static_cast<uint64_t>(LiteralI64(x));
}

TEST(EveryFloatHelpers, Comparisons)
{
    ForEachBlock([](const std::vector<float>& in) {
        uint32_t differing = 0;
        for (const float x : in) {
            const double wide = std::fabs(static_cast<double>(x));
            differing += IsEqualToZero(x) != (wide <= 1e-6 ? 1 : 0);
            differing +=
                IsFloatEqZero(x) != (std::fpclassify(x) == FP_ZERO || std::fpclassify(x) == FP_SUBNORMAL ? 1 : 0);
            differing += IsEqualToHalf(x) != RefIsEqualToHalf(x);
        }
        EXPECT_EQ(differing, 0u);
        return differing == 0;
    });
}

TEST(EveryFloatHelpers, Conversions)
{
    ForEachBlock([](const std::vector<float>& in) {
        uint32_t differing = 0;
        for (const float x : in) {
            differing += TruncateToI32(x) != LiteralI32(x);
            differing += TruncateToI64(x) != LiteralI64(x);
            differing += TruncateToU32(x) != static_cast<uint32_t>(LiteralI64(x));
            differing += TruncateToU64(x) != LiteralU64(x);
            differing += TruncateToByte(x) != static_cast<uint8_t>(LiteralI32(x));
            differing += RoundToI32(x) != LiteralI32(std::roundf(x));
        }
        EXPECT_EQ(differing, 0u);
        return differing == 0;
    });
}

}  // namespace
}  // namespace opkit::test
