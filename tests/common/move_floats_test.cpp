// Short moves and index rounding: every length, and every float near a decision.

#include "common/move_floats.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <vector>

#include "common/convert.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

TEST(MoveFloats, EveryLengthAndOverlap)
{
    test::Random random(test::TestSeed());
    for (size_t count = 0; count <= 40; ++count) {
        for (int32_t distance = -45; distance <= 45; ++distance) {
            std::vector<float> memory = random.Floats(140, test::Values::kBits);
            const size_t from = 48;
            const size_t to = static_cast<size_t>(48 + distance);
            std::vector<uint32_t> expected;
            for (const float value : memory) {
                expected.push_back(std::bit_cast<uint32_t>(value));
            }
            const std::vector<uint32_t> source(expected.begin() + from, expected.begin() + from + count);
            std::copy(source.begin(), source.end(), expected.begin() + to);
            MoveFloats(&memory[to], &memory[from], count);
            for (size_t i = 0; i < memory.size(); ++i) {
                ASSERT_EQ(std::bit_cast<uint32_t>(memory[i]), expected[i])
                    << count << " by " << distance << " at " << i;
            }
        }
    }
}

TEST(MoveRows, LeavesGaps)
{
    const std::vector<float> in = {1, 2, 3, 0, 4, 5, 6, 0};
    std::vector<float> out(10, -1.0f);
    MoveRows(out.data(), 5, in.data(), 4, 2, 3);
    EXPECT_EQ(out, (std::vector<float>{1, 2, 3, -1, -1, 4, 5, 6, -1, -1}));
    MoveRows(out.data(), 4, in.data(), 4, 2, 4);
    EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 0, 4, 5, 6, 0, -1, -1}));
}

void ExpectRounded(float value)
{
    const double rounded = std::round(static_cast<double>(value));
    const bool fits = rounded >= -2147483648.0 && rounded < 2147483648.0;
    ASSERT_EQ(RoundToI32(value), fits ? static_cast<int32_t>(rounded) : INT32_MIN) << std::hexfloat << value;
}

TEST(RoundToI32, HalvesGoAwayFromZero)
{
    for (const float whole : {0.0f, 1.0f, 2.0f, 7.0f, 1000.0f, 4194303.0f, 8388607.0f, 8388608.0f, 16777216.0f,
                              2147483520.0f, 2147483648.0f, 1e30f, INFINITY, NAN}) {
        for (const float fraction : {0.0f, 0.25f, 0.5f, 0.75f}) {
            const float value = whole + fraction;
            for (const float near : {std::nextafter(value, -INFINITY), value, std::nextafter(value, INFINITY)}) {
                ExpectRounded(near);
                ExpectRounded(-near);
            }
        }
    }
    test::Random random(test::TestSeed());
    for (int i = 0; i < 200000; ++i) {
        ExpectRounded(random.Float(test::Values::kBits));
    }
}

}  // namespace
}  // namespace opkit
