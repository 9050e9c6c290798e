// The input resolver and the in-place row routines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "common/row_layout.h"
#include "opkit/opkit.h"
#include "tests/reference/reference_frame.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

std::vector<float> Numbers(size_t count)
{
    std::vector<float> values(count);
    std::iota(values.begin(), values.end(), 0.0f);
    return values;
}

TEST(RowLayout, Pitch)
{
    EXPECT_EQ(RowPitch(3, 4), 4u);
    EXPECT_EQ(RowPitch(6, 4), 8u);
    EXPECT_EQ(RowPitch(8, 4), 8u);
    EXPECT_EQ(RowPitch(1, 16), 16u);
}

TEST(DelAlignSpace, MovesRowsToTheFront)
{
    std::vector<float> data = Numbers(8);
    EXPECT_TRUE(DelAlignSpace(data.data(), 6, 3, 4));
    EXPECT_THAT(data, ElementsAre(0, 1, 2, 4, 5, 6, 6, 7));
}

TEST(DelAlignSpace, RoundsTheWidthUp)
{
    std::vector<float> data = Numbers(16);
    EXPECT_TRUE(DelAlignSpace(data.data(), 12, 6, 4));
    EXPECT_THAT(std::vector<float>(data.begin(), data.begin() + 12),
                ElementsAre(0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13));
}

TEST(DelAlignSpace, Refusals)
{
    float value = 5.0f;
    CaptureStdout capture;
    EXPECT_FALSE(DelAlignSpace(nullptr, 1, 1, 1));
    EXPECT_FALSE(DelAlignSpace(&value, 0, 0, 4));
    EXPECT_FALSE(DelAlignSpace(&value, 0, 4, 0));
    EXPECT_TRUE(DelAlignSpace(&value, 0, 3, 4));
    EXPECT_TRUE(DelAlignSpace(&value, -5, 3, 4));
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[DelAlignSpace:#]Input data is NULL.\n\n"
              "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 4\n"
              "[DelAlignSpace:#]Illegal value, widthIn = 4, alignNumIn = 0\n");
    EXPECT_EQ(value, 5.0f);
}

TEST(InsertAlignSpace, SpreadsRows)
{
    std::vector<float> data = {10, 11, 12, 13, 14, 15, 16, 17};
    EXPECT_TRUE(InsertAlignSpace(data.data(), 6, 3, 4, 6));
    EXPECT_THAT(data, ElementsAre(10, 11, 12, 13, 13, 14, 15, 17));
}

TEST(InsertAlignSpace, NothingToMove)
{
    float value = 5.0f;
    CaptureStdout capture;
    EXPECT_TRUE(InsertAlignSpace(&value, 0, 3, 4, 100));
    EXPECT_TRUE(InsertAlignSpace(&value, 0x80000001u, 3, 4, 100));
    EXPECT_FALSE(InsertAlignSpace(nullptr, 0, 3, 4, 100));
    EXPECT_EQ(NormalizeMessages(capture.Stop()), "[InsertAlignSpace:#]Input data is NULL.\n\n");
    EXPECT_EQ(value, 5.0f);
}

// A width of 0 never ends a row, and a last place of its own moves all rows.
TEST(InsertAlignSpace, RowsThatAreNotTheTensors)
{
    std::vector<float> noWidth = {1, 2, 8, 9};
    EXPECT_TRUE(InsertAlignSpace(noWidth.data(), 2, 0, 4, 3));
    EXPECT_THAT(noWidth, ElementsAre(1, 2, 1, 2));
    std::vector<float> negative = {1, 2, 8, 9};
    EXPECT_TRUE(InsertAlignSpace(negative.data(), 2, -1, 4, 3));
    EXPECT_THAT(negative, ElementsAre(1, 2, 1, 2));
    std::vector<float> moved = {1, 2, 3, 4, 8, 9};
    EXPECT_TRUE(InsertAlignSpace(moved.data(), 4, 2, 3, 5));
    EXPECT_THAT(moved, ElementsAre(1, 1, 2, 4, 3, 4));
}

// Whether every place that the expansion writes lies inside `room` floats.
bool StaysInside(uint32_t count, uint32_t width, uint32_t rowDistance, uint32_t lastIndex, size_t room)
{
    uint32_t to = lastIndex;
    for (uint32_t moved = 1; moved <= count; ++moved) {
        if (to >= room) {
            return false;
        }
        to += moved % width == 0 ? width - rowDistance - 1 : 0xFFFFFFFFu;
    }
    return true;
}

TEST(RowRoutines, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const uint32_t width = static_cast<uint32_t>(random.Int(1, 40));
        const uint32_t rows = static_cast<uint32_t>(random.Int(1, 9));
        const uint32_t align = random.Chance(0.2) ? static_cast<uint32_t>(random.Int(1, 12)) : random.Stride(width) / 4;
        // A count that ends within a row, too.
        const uint32_t count =
            random.Chance(0.2) ? static_cast<uint32_t>(random.Int(1, static_cast<int>(width * rows))) : width * rows;
        const size_t room = size_t{rows + 1} * (RefPitch(width, align) + width) + 16;
        const std::vector<float> start = random.Floats(room, Values::kPlain);

        std::vector<float> actual = start;
        std::vector<float> expected = start;
        EXPECT_TRUE(DelAlignSpace(actual.data(), static_cast<int32_t>(count), width, align));
        RefDelAlign(expected.data(), static_cast<int32_t>(count), width, align);
        EXPECT_EQ(actual, expected);

        // Row distances below the width make rows overlap; what results is fixed by the order of the moves.
        const uint32_t last = random.Chance(0.8) ? (count / width) * align + width - align - 1 : count - 1;
        if (StaysInside(count, width, align, last, room)) {
            EXPECT_TRUE(InsertAlignSpace(actual.data(), count, static_cast<int32_t>(width), align, last));
            RefInsertAlign(expected.data(), count, static_cast<int32_t>(width), align, last);
            EXPECT_EQ(actual, expected);
        }
    });
}

TEST(ProcessAlignSpace, ExpandsByTheTensorsShape)
{
    uint32_t shape[2] = {2, 3};
    TensorInfo tensor = {};
    tensor.shape = shape;
    tensor.dimNum = 2;
    tensor.stride = 16;
    std::vector<float> data = Numbers(8);
    EXPECT_TRUE(ProcessAlignSpace(&tensor, data.data()));
    EXPECT_THAT(data, ElementsAre(0, 1, 2, 3, 3, 4, 5, 7));

    CaptureStdout capture;
    EXPECT_FALSE(ProcessAlignSpace(&tensor, nullptr));
    tensor.shape = nullptr;
    EXPECT_FALSE(ProcessAlignSpace(&tensor, data.data()));
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[InsertAlignSpace:#]Input data is NULL.\n\n[ProcessAlignSpace:#]InsertAlignSpace failed.\n");
}

struct Resolved {
    float* data = nullptr;
    uint32_t* shape = nullptr;
    int32_t dimNum = -1;
    uint32_t stride = 99;
    uint32_t count = 1;
};

TEST(ParseInputInfo, WalksOnlineAndOfflineInputs)
{
    LayerCase layer("NegOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16)
        .Offline({5}, {1, 2, 3, 4, 5})
        .Online({7}, std::vector<float>(7))
        .Output({1});
    World world(layer);
    world.RunDirect([](LayerParam* param) {
        uint32_t online = 0;
        uint32_t offline = 0;
        Resolved a;
        EXPECT_TRUE(ParseInputInfo(&a.data, &a.shape, &a.dimNum, &a.stride, &a.count, 0, &online, &offline, param));
        EXPECT_EQ(a.data, param->inputs[0].data);
        EXPECT_EQ(a.shape, param->inputs[0].shape);
        EXPECT_EQ(a.dimNum, 2);
        EXPECT_EQ(a.stride, 16u);
        EXPECT_EQ(a.count, 6u);
        Resolved b;
        b.count = 10;  // multiplied into, not reset
        EXPECT_TRUE(ParseInputInfo(&b.data, &b.shape, &b.dimNum, &b.stride, &b.count, 1, &online, &offline, param));
        EXPECT_EQ(b.data[4], 5.0f);
        EXPECT_EQ(b.dimNum, 1);
        EXPECT_EQ(b.stride, 20u);
        EXPECT_EQ(b.count, 50u);
        EXPECT_EQ(online, 1u);
        EXPECT_EQ(offline, 1u);
        Resolved c;
        EXPECT_TRUE(ParseInputInfo(&c.data, &c.shape, &c.dimNum, &c.stride, &c.count, 2, &online, &offline, param));
        EXPECT_EQ(c.data, param->inputs[1].data);
        Resolved d;
        EXPECT_FALSE(ParseInputInfo(&d.data, &d.shape, &d.dimNum, &d.stride, &d.count, 3, &online, &offline, param));
        EXPECT_EQ(online, 2u);
        EXPECT_EQ(d.data, nullptr);
        return 0u;
    });
}

TEST(ParseInputInfo, RanksBelowOne)
{
    LayerCase layer("NegOpkitForward");
    layer.Offline({2}, {1, 2}).Online({2}, {3, 4}).Output({1});
    World world(layer);
    world.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0;
    world.RunDirect([](LayerParam* param) {
        uint32_t online = 0;
        uint32_t offline = 0;
        Resolved a;
        EXPECT_FALSE(ParseInputInfo(&a.data, &a.shape, &a.dimNum, &a.stride, &a.count, 0, &online, &offline, param));
        EXPECT_EQ(offline, 0u);
        EXPECT_EQ(a.stride, 99u);
        EXPECT_EQ(a.count, 1u);
        param->inputs[0].dimNum = 0;
        Resolved b;
        b.count = 7;
        EXPECT_TRUE(ParseInputInfo(&b.data, &b.shape, &b.dimNum, &b.stride, &b.count, 1, &online, &offline, param));
        EXPECT_EQ(b.count, 7u);
        EXPECT_EQ(b.dimNum, 0);
        EXPECT_EQ(online, 1u);
        return 0u;
    });
}

TEST(ParseInputInfo, OfflineOffsetIsSigned)
{
    LayerCase layer("NegOpkitForward");
    layer.Offline({2}, {1, 2}).Output({2});
    World world(layer);
    LayerAttrHead& head = world.Attr<LayerAttrHead>();
    // The same constant, reached from an address behind it.
    head.offlineOffset[0] -= 4096;
    world.RunDirect([](LayerParam* param) {
        param->model = static_cast<uint8_t*>(param->model) + 4096;
        uint32_t online = 0;
        uint32_t offline = 0;
        Resolved a;
        EXPECT_TRUE(ParseInputInfo(&a.data, &a.shape, &a.dimNum, &a.stride, &a.count, 0, &online, &offline, param));
        EXPECT_EQ(a.data[1], 2.0f);
        return 0u;
    });
}

}  // namespace
}  // namespace opkit
