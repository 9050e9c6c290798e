#include "common/shape.h"

#include <gtest/gtest.h>

#include "opkit/helpers.h"

namespace opkit {
namespace {

TEST(ShapeCount, ProductOfARange)
{
    uint32_t shape[] = {2, 3, 4};
    EXPECT_EQ(ShapeCount(shape, 3, 0, 3), 24u);
    EXPECT_EQ(ShapeCount(shape, 3, 1, 99), 12u);
    EXPECT_EQ(ShapeCount(shape, 3, 1, 2), 3u);
    EXPECT_EQ(ShapeCount(shape, 3, 2, 2), 1u);
    EXPECT_EQ(ShapeCount(shape, 3, 5, 99), 1u);
    EXPECT_EQ(ShapeCount(shape, 0, 0, 99), 1u);
    EXPECT_EQ(ShapeCount(shape, 3, 0, -1), 1u);
    uint32_t large[] = {0x10000, 0x10000, 7};
    EXPECT_EQ(ShapeCount(large, 3, 0, 3), 0u);  // wraps
}

TEST(Getters, CountFromTheEnd)
{
    uint32_t shape[] = {6, 5, 4, 3, 2};
    EXPECT_EQ(GetImgNum(shape, 5), 5u);
    EXPECT_EQ(GetChannels(shape, 5), 4u);
    EXPECT_EQ(GetHeight(shape, 5), 3u);
    EXPECT_EQ(GetWidth(shape, 5), 2u);
}

TEST(Getters, ShortShapesHaveLeadingOnes)
{
    uint32_t shape[] = {5, 7, 9, 11};
    EXPECT_EQ(GetWidth(shape, 1), 5u);
    EXPECT_EQ(GetHeight(shape, 1), 1u);
    EXPECT_EQ(GetHeight(shape, 2), 5u);
    EXPECT_EQ(GetChannels(shape, 2), 1u);
    EXPECT_EQ(GetChannels(shape, 3), 5u);
    EXPECT_EQ(GetImgNum(shape, 3), 1u);
    EXPECT_EQ(GetImgNum(shape, 4), 5u);
    EXPECT_EQ(GetWidth(shape, 0), 1u);
    EXPECT_EQ(GetWidth(shape, -1), 1u);
}

TEST(Shape, ElementCountAndLastDimension)
{
    const uint32_t shape[] = {2, 3, 4};
    EXPECT_EQ(ElementCount(shape, 3), 24u);
    EXPECT_EQ(ElementCount(shape, 0), 1u);
    EXPECT_EQ(LastDimension(shape, 3), 4u);
    EXPECT_EQ(LastDimension(shape, 0), 0u);
    const uint32_t empty[] = {2, 0};
    EXPECT_EQ(ElementCount(empty, 2), 0u);
}

}  // namespace
}  // namespace opkit
