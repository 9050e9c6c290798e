// One-input element functions over every float, against their literal forms, at every instruction-set level.
// OPKIT_EXHAUSTIVE_STEP says how far apart the bit patterns are: 1 for all of them (script/exhaustive), a prime by
// default, so that the loops are exercised by every run of the tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <span>

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
    const uint64_t step = Step();
    std::vector<float> block(kBlock);
    bool good = true;
    for (uint64_t bits = 0; bits < (uint64_t{1} << 32) && good;) {
        for (float& x : block) {
            x = std::bit_cast<float>(static_cast<uint32_t>(bits));
            bits += step;
        }
        good = body(block);
    }
}

// The literal form of one element; `first` and `second` are the attributes.
using Literal = float (*)(float x, float first, float second);

template <float (*Element)(float)>
float Plain(float x, float, float)
{
    return Element(x);
}

template <uint32_t Mode>
float RoundElement(float x, float, float)
{
    return RefRoundElement(Mode, x);
}

float AcoshElement(float x)
{
    return static_cast<float>(std::acosh(static_cast<double>(x)));
}

float SinhElement(float x)
{
    return static_cast<float>(std::sinh(static_cast<double>(x)));
}

float CeluElement(float x, float alpha, float)
{
    return RefCeluElement(x, alpha);
}

float ThresholdElement(float x, float alpha, float)
{
    return x > alpha ? x : 0.0f;
}

struct OperatorRow {
    const char* name;
    ForwardFunc forward;
    Literal literal;
    float first = 0.0f;
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
    if (row.forward == RoundOpkitForward) {
        layer.Attr<RoundAttr>().roundMode = row.mode;
    } else if (row.forward == SqrtOpkitForward) {
        layer.Attr<SqrtAttr>();
    } else {
        layer.Attr<SeluAttr>().alpha = row.first;
        layer.Attr<SeluAttr>().gamma = row.second;
    }
    World world(layer);
    std::vector<float> expected(kBlock);
    ForEachBlock([&](const std::vector<float>& in) {
        std::ranges::transform(in, expected.begin(), [&](float x) { return row.literal(x, row.first, row.second); });
        ForEachLevel([&](Level) {
            std::ranges::copy(in, world.InputRows().begin());
            EXPECT_EQ(world.RunDirect(row.forward), 0u);
            const std::span<const float> actual = world.OutputRows();
            const bool same = std::memcmp(actual.data(), expected.data(), kBlock * sizeof(float)) == 0;
            EXPECT_TRUE(same || (row.nan == NanPolicy::kAnyNan && SameFloats(actual, expected)))
                << "from " << std::bit_cast<uint32_t>(in[0]) << " on: " << SameFloats(actual, expected);
        });
        return !HasFailure();
    });
}

const OperatorRow kRows[] = {
    {"Acos", AcosOpkitForward, Plain<acosf>},
    {"Acosh", AcoshOpkitForward, Plain<AcoshElement>},
    {"Asin", AsinOpkitForward, Plain<asinf>},
    {"Asinh", AsinhOpkitForward, Plain<asinhf>},
    {"Atan", AtanOpkitForward, Plain<atanf>},
    {"Atanh", AtanhOpkitForward, Plain<atanhf>},
    {"Cos", CosOpkitForward, Plain<cosf>},
    {"Cosh", CoshOpkitForward, Plain<coshf>},
    {"Neg", NegOpkitForward, Plain<RefNeg>, 0, 0, 0, NanPolicy::kExactBits},
    {"Reciprocal", ReciprocalOpkitForward, Plain<RefReciprocal>},
    {"Sigmoid", SigmoidOpkitForward, Plain<RefSigmoid>},
    {"Sign", SignOpkitForward, Plain<RefSign>, 0, 0, 0, NanPolicy::kExactBits},
    {"Sin", SinOpkitForward, Plain<sinf>},
    {"Softplus", SoftplusOpkitForward, Plain<RefSoftplus>},
    {"Softsign", SoftsignOpkitForward, Plain<RefSoftsign>},
    {"Tan", TanOpkitForward, Plain<tanf>},
    {"Celu", CeluOpkitForward, CeluElement, 1.0f},
    {"Celu", CeluOpkitForward, CeluElement, -0.75f},
    {"Selu", SeluOpkitForward, RefSeluElement, 1.6732632f, 1.050701f},
    {"Selu", SeluOpkitForward, RefSeluElement, -0.3f, 2.0f},
    {"Shrink", ShrinkOpkitForward, RefShrinkElement, 0.25f, 0.5f},
    {"Shrink", ShrinkOpkitForward, RefShrinkElement, 1.5f, -1.0f},
    {"HardSigmoid", HardSigmoidOpkitForward, RefHardSigmoidElement, 0.2f, 0.5f},
    {"ThresholdedRelu", ThresholdedReluOpkitForward, ThresholdElement, 1.0f},
    {"ThresholdedRelu", ThresholdedReluOpkitForward, ThresholdElement, -0.0f},
    {"Round", RoundOpkitForward, RoundElement<0>, 0, 0, 0},
    {"Round", RoundOpkitForward, RoundElement<1>, 0, 0, 1},
    {"Round", RoundOpkitForward, RoundElement<2>, 0, 0, 2},
    {"Sqrt", SqrtOpkitForward, Plain<sqrtf>},
    {"Sinh", SinhOpkitForward, Plain<SinhElement>},
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
