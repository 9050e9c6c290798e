#include "common/convert.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace opkit {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kTwoTo31 = 2147483648.0f;
constexpr float kTwoTo63 = 9223372036854775808.0f;
constexpr uint64_t kTop = 0x8000000000000000u;

TEST(Convert, ToI32)
{
    EXPECT_EQ(TruncateToI32(2.9f), 2);
    EXPECT_EQ(TruncateToI32(-2.9f), -2);
    EXPECT_EQ(TruncateToI32(-0.0f), 0);
    EXPECT_EQ(TruncateToI32(2147483520.0f), 2147483520);
    for (const float outside : {kTwoTo31, -3e9f, kInf, -kInf, kNan}) {
        EXPECT_EQ(TruncateToI32(outside), INT32_MIN) << outside;
    }
    EXPECT_EQ(TruncateToI32(-kTwoTo31), INT32_MIN);
    EXPECT_EQ(TruncateToI32(2147483647.9), INT32_MAX);
    EXPECT_EQ(TruncateToI32(2147483648.0), INT32_MIN);
    EXPECT_EQ(TruncateToI32(-2147483648.9), INT32_MIN);
    EXPECT_EQ(TruncateToI32(std::nan("")), INT32_MIN);
}

TEST(Convert, ToI64)
{
    EXPECT_EQ(TruncateToI64(-7.9f), -7);
    EXPECT_EQ(TruncateToI64(4294967296.0f), 4294967296);
    EXPECT_EQ(TruncateToI64(-kTwoTo63), INT64_MIN);
    for (const float outside : {kTwoTo63, -1e19f, kInf, kNan}) {
        EXPECT_EQ(TruncateToI64(outside), INT64_MIN) << outside;
    }
    EXPECT_EQ(TruncateToI64(1e15 + 0.5), 1000000000000000);
    EXPECT_EQ(TruncateToI64(1e300), INT64_MIN);
}

TEST(Convert, ToU32KeepsTheLowHalf)
{
    EXPECT_EQ(TruncateToU32(3.9f), 3u);
    EXPECT_EQ(TruncateToU32(-1.0f), 0xFFFFFFFFu);
    EXPECT_EQ(TruncateToU32(-0.9f), 0u);
    EXPECT_EQ(TruncateToU32(3e9f), 3000000000u);
    EXPECT_EQ(TruncateToU32(4294967296.0f), 0u);
    EXPECT_EQ(TruncateToU32(4294967296.0f * 1.5f), 0x80000000u);
    for (const float outside : {kTwoTo63, kInf, -kInf, kNan}) {
        EXPECT_EQ(TruncateToU32(outside), 0u) << outside;
    }
}

TEST(Convert, ToU64)
{
    EXPECT_EQ(TruncateToU64(5.9f), 5u);
    EXPECT_EQ(TruncateToU64(-1.0f), UINT64_MAX);
    EXPECT_EQ(TruncateToU64(kTwoTo63), kTop);
    EXPECT_EQ(TruncateToU64(kTwoTo63 * 1.5f), 0xC000000000000000u);
    EXPECT_EQ(TruncateToU64(std::nextafterf(kTwoTo63 * 2, 0.0f)), 0xFFFFFF0000000000u);
    EXPECT_EQ(TruncateToU64(std::nextafterf(kTwoTo63, 0.0f)), 0x7FFFFF8000000000u);
    for (const float outside : {kTwoTo63 * 2, kInf, -kInf, -1e19f, kNan}) {
        EXPECT_EQ(TruncateToU64(outside), kTop) << outside;
    }
}

TEST(Convert, ToByte)
{
    EXPECT_EQ(TruncateToByte(255.9f), 255);
    EXPECT_EQ(TruncateToByte(256.0f), 0);
    EXPECT_EQ(TruncateToByte(-1.5f), 255);
    EXPECT_EQ(TruncateToByte(3e9f), 0);
    EXPECT_EQ(TruncateToByte(kNan), 0);
}

}  // namespace
}  // namespace opkit
