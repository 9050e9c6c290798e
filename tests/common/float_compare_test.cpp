#include "common/float_compare.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "opkit/helpers.h"

namespace opkit {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

TEST(IsEqualToZero, Tolerance)
{
    for (const float zero : {0.0f, -0.0f, 1e-6f, -1e-6f, 1e-7f, 1e-30f, 1e-45f}) {
        EXPECT_EQ(IsEqualToZero(zero), 1) << zero;
    }
    for (const float other :
         {std::nextafterf(1e-6f, 1.0f), -std::nextafterf(1e-6f, 1.0f), 2e-6f, 1.0f, kInf, -kInf, kNan}) {
        EXPECT_EQ(IsEqualToZero(other), 0) << other;
    }
}

// The constant is an f64, and every f32 near it falls on the same side.
TEST(IsEqualToZero, AgreesWithTheWideComparison)
{
    const uint32_t middle = std::bit_cast<uint32_t>(1e-6f);
    for (uint32_t bits = middle - 5000; bits < middle + 5000; ++bits) {
        const float x = std::bit_cast<float>(bits);
        EXPECT_EQ(IsEqualToZero(x), std::fabs(static_cast<double>(x)) <= 1e-6 ? 1 : 0) << x;
        EXPECT_EQ(IsEqualToZero(-x), IsEqualToZero(x)) << x;
    }
}

TEST(IsEqualFloat, AbsoluteDifferenceInF32)
{
    EXPECT_EQ(IsEqualFloat(1.0f, 1.0f + 1e-7f), 1);
    EXPECT_EQ(IsEqualFloat(1.0f, 1.00001f), 0);
    EXPECT_EQ(IsEqualFloat(-1.0f, 1.0f), 0);
    EXPECT_EQ(IsEqualFloat(1e30f, std::nextafterf(1e30f, kInf)), 0);  // not relative
    EXPECT_EQ(IsEqualFloat(kInf, kInf), 0);
    EXPECT_EQ(IsEqualFloat(kNan, kNan), 0);
    EXPECT_EQ(IsEqualFloat(0.0f, -0.0f), 1);
}

TEST(IsFloatEqZero, ByClass)
{
    const float smallestNormal = std::numeric_limits<float>::min();
    for (const float zero : {0.0f, -0.0f, 1e-45f, -1e-45f, std::nextafterf(smallestNormal, 0.0f)}) {
        EXPECT_EQ(IsFloatEqZero(zero), 1) << zero;
    }
    for (const float other : {smallestNormal, -smallestNormal, 1e-30f, 1.0f, kInf, -kInf, kNan}) {
        EXPECT_EQ(IsFloatEqZero(other), 0) << other;
    }
}

TEST(FloatCompare, InlineFormsAreTheExportedOnes)
{
    for (const float x : {0.0f, 1e-6f, -1e-6f, 2e-6f, 1.0f, kInf, kNan}) {
        EXPECT_EQ(NearZero(x), IsEqualToZero(x) == 1);
        EXPECT_EQ(NearlyEqual(x, 1e-6f), IsEqualFloat(x, 1e-6f) == 1);
    }
}

}  // namespace
}  // namespace opkit
