#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <vector>

#include "opkit/helpers.h"

namespace opkit {
namespace {

using ::testing::ElementsAre;

TEST(Copy, Floats)
{
    std::vector<float> from = {1, 2, 3};
    std::vector<float> to = {7, 8, 9};
    EXPECT_EQ(Copy(2, from.data(), to.data()), 0u);
    EXPECT_THAT(to, ElementsAre(1, 2, 9));
    EXPECT_EQ(Copy(0, from.data(), to.data()), 0u);
    EXPECT_THAT(to, ElementsAre(1, 2, 9));
    EXPECT_EQ(Copy(0, nullptr, nullptr), 0u);
}

TEST(Copy, OverlapsAscending)
{
    for (size_t distance = 1; distance < 12; ++distance) {
        std::vector<float> values(40);
        for (size_t i = 0; i < values.size(); ++i) {
            values[i] = static_cast<float>(i);
        }
        Copy(28, values.data(), values.data() + distance);
        for (size_t i = 0; i < 28 + distance; ++i) {
            EXPECT_EQ(values[i], static_cast<float>(i % distance)) << distance << ", " << i;  // replicated
        }
        EXPECT_EQ(values[28 + distance], static_cast<float>(28 + distance));
    }
    std::vector<float> down = {0, 1, 2, 3, 4, 5};
    Copy(4, down.data() + 2, down.data());
    EXPECT_THAT(down, ElementsAre(2, 3, 4, 5, 4, 5));
}

TEST(Copy, KeepsSignallingNan)
{
    float from = std::bit_cast<float>(0x7fa00001u);
    float to = 0.0f;
    Copy(1, &from, &to);
    EXPECT_EQ(std::bit_cast<uint32_t>(to), 0x7fa00001u);
}

}  // namespace
}  // namespace opkit
