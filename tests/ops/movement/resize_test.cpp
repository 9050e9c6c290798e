// Resize: scales and regions, the coordinate and rounding rules, both sampling modes.

#include "tests/reference/resize.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <limits>

#include "opkit/opkit.h"
#include "ops/movement/resize.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::vector<float> Counting(uint64_t count)
{
    std::vector<float> values(count);
    for (uint64_t i = 0; i < count; ++i) {
        values[i] = static_cast<float>(i);
    }
    return values;
}

void SetScales(LayerCase& layer, std::initializer_list<float> scales)
{
    std::copy(scales.begin(), scales.end(), layer.Attr<ResizeAttr>().scales);
}

// One row of `width` elements 0, 1, 2, ... resampled to `outWidth`.
LayerCase RowCase(uint32_t width, uint32_t outWidth, float scale, uint32_t resizeMode)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({1, 1, 1, width}, Counting(width), 32).Output({1, 1, 1, outWidth}, 64);
    SetScales(layer, {1, 1, 1, scale});
    layer.Attr<ResizeAttr>().resizeMode = resizeMode;
    layer.Attr<ResizeAttr>().extrapolationValue = -7;
    return layer;
}

void ExpectRow(const LayerCase& layer, const std::vector<float>& expected)
{
    World world(layer);
    EXPECT_EQ(world.RunDirect(ResizeOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAreArray(expected)) << layer.Describe();
    ExpectSameAsReference(layer, ResizeOpkitForward, RefResize, {.nan = NanPolicy::kAnyNan});
}

struct NearestRow {
    uint32_t width;
    uint32_t outWidth;
    float scale;
    uint32_t coordinateMode;
    uint32_t nearestMode;
    std::vector<float> expected;
};

const NearestRow kNearest[] = {
    // Half pixel, scale 2: x is -0.25, 0.25, 0.75, 1.25, ...
    {3, 6, 2, 0, 0, {0, 0, 1, 1, 2, 2}},
    {3, 6, 2, 0, 1, {0, 0, 1, 1, 2, 2}},
    {3, 6, 2, 0, 2, {0, 0, 0, 1, 1, 2}},
    {3, 6, 2, 0, 3, {0, 1, 1, 2, 2, 2}},
    {3, 6, 2, 0, 4, {0, 0, 0, 1, 1, 2}},  // truncated
    {3, 6, 2, 6, 5, {0, 0, 1, 1, 2, 2}},  // unknown codes are code 0
    {3, 6, 2, 259, 259, {0, 0, 1, 1, 2, 2}},
    // Scale 0.5: x is 0.5, 2.5, 4.5: halves go up with codes 0 and 1.
    {6, 3, 0.5f, 0, 0, {1, 3, 5}},
    {6, 3, 0.5f, 0, 1, {1, 3, 5}},
    {6, 3, 0.5f, 0, 2, {0, 2, 4}},
    {6, 3, 0.5f, 0, 3, {1, 3, 5}},
    {6, 3, 0.5f, 0, 4, {1, 3, 5}},  // a scale below 1: the ceiling
    {6, 1, 0.5f, 0, 0, {1}},
    {6, 1, 0.5f, 1, 0, {0}},
    {6, 3, 0.5f, 1, 2, {0, 2, 4}},
    // Align corners.
    {5, 3, 0.6f, 2, 0, {0, 2, 4}},
    {5, 1, 0.2f, 2, 3, {0}},
    {3, 5, 1.7f, 2, 2, {0, 0, 1, 1, 2}},
    // Asymmetric: x is 0, 0.5, 1, ...
    {3, 6, 2, 3, 0, {0, 1, 1, 2, 2, 2}},
    {3, 6, 2, 3, 2, {0, 0, 1, 1, 2, 2}},
    // Crop of the default region: the whole input; one element: its centre.
    {5, 3, 9, 4, 0, {0, 2, 4}},
    {5, 1, 9, 4, 0, {2}},
    {6, 1, 9, 4, 2, {2}},
    {6, 1, 9, 4, 3, {3}},
    // Half pixel unshifted: x is 0.25, 0.75, ...
    {3, 6, 2, 5, 2, {0, 0, 1, 1, 2, 2}},
    {3, 6, 2, 5, 3, {1, 1, 2, 2, 2, 2}},
    // A scale of 1 keeps positions, whatever the rules.
    {3, 3, 1, 5, 3, {0, 1, 2}},
    {3, 3, 1.0000005f, 0, 2, {0, 1, 2}},
    {3, 3, 1.000002f, 5, 3, {1, 2, 2}},
    {4, 2, 1, 2, 0, {0, 1}},
    // About -0.5 code 0 rounds down and code 1 away from zero: both are clamped to 0.
    {4, 2, 1e8f, 0, 0, {0, 0}},
};

TEST(ResizeNearest, ByHand)
{
    for (const NearestRow& row : kNearest) {
        LayerCase layer = RowCase(row.width, row.outWidth, row.scale, OPKIT_RESIZE_NEAREST);
        layer.Attr<ResizeAttr>().coordinateMode = row.coordinateMode;
        layer.Attr<ResizeAttr>().nearestMode = row.nearestMode;
        ExpectRow(layer, row.expected);
    }
}

TEST(ResizeNearest, AllFourAxes)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({2, 1, 2, 3}, Counting(12), 16).Output({4, 2, 1, 3}, 32);
    SetScales(layer, {2, 2, 0.5f, 1});
    layer.Attr<ResizeAttr>().coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
    layer.Attr<ResizeAttr>().nearestMode = OPKIT_RESIZE_FLOOR;
    ExpectRow(layer, {0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 1, 2, 6, 7, 8, 6, 7, 8, 6, 7, 8, 6, 7, 8});
}

// Positions are kept on an axis that grows all the same: the walk then runs on into the next rows.
TEST(ResizeNearest, KeptPositionsBeyondTheRow)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({1, 1, 3, 3}, Counting(9), 16).Output({1, 1, 2, 5}, 32);
    SetScales(layer, {1, 1, 1, 1});
    ExpectRow(layer, {0, 1, 2, 3, 4, 3, 4, 5, 6, 7});
}

TEST(ResizeNearest, OutsideWithExtrapolation)
{
    // Half pixel, scale 2: the first x is -0.25 and the last 2.25, outside 0 to 2, before rounding.
    LayerCase layer = RowCase(3, 6, 2, OPKIT_RESIZE_NEAREST);
    layer.Attr<ResizeAttr>().extrapolate = 5;
    ExpectRow(layer, {-7, 0, 1, 1, 2, -7});
    layer.Attr<ResizeAttr>().coordinateMode = OPKIT_RESIZE_ASYMMETRIC;  // 0, 0.5, 1, 1.5, 2, 2.5
    ExpectRow(layer, {0, 1, 1, 2, 2, -7});

    LayerCase rows("ResizeOpkitForward");  // at their padded places, on every axis
    rows.Online({1, 1, 2, 3}, Counting(6), 16).Output({1, 2, 4, 3}, 32);
    SetScales(rows, {1, 2, 2, 1});
    rows.Attr<ResizeAttr>().extrapolate = 1;
    rows.Attr<ResizeAttr>().extrapolationValue = -7;
    rows.Attr<ResizeAttr>().nearestMode = OPKIT_RESIZE_FLOOR;
    rows.Attr<ResizeAttr>().coordinateMode = OPKIT_RESIZE_ASYMMETRIC;  // channel 1 is at 0.5, row 3 at 1.5
    ExpectRow(rows, {0, 1, 2, 0, 1, 2, 3, 4, 5, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7});
}

TEST(ResizeNearest, StrangeScales)
{
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const float scale : {0.0f, -1.0f, -0.5f, inf, -inf, nan, 1e-30f, 1e30f}) {
        for (uint32_t coordinateMode = 0; coordinateMode < 6; ++coordinateMode) {
            for (uint32_t nearestMode = 0; nearestMode < 5; ++nearestMode) {
                LayerCase layer = RowCase(5, 7, scale, OPKIT_RESIZE_NEAREST);
                layer.Attr<ResizeAttr>().coordinateMode = coordinateMode;
                layer.Attr<ResizeAttr>().nearestMode = nearestMode;
                ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
            }
            LayerCase linear = RowCase(5, 7, scale, OPKIT_RESIZE_LINEAR);
            linear.Attr<ResizeAttr>().coordinateMode = coordinateMode;
            ExpectSameAsReference(linear, ResizeOpkitForward, RefResize, {.nan = NanPolicy::kAnyNan});
        }
    }
}

// Tables too long for the stack.
TEST(ResizeNearest, LongAxis)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({1, 1, 1, 3}, {1, 2, 3}).Output({1, 1, 1, 60000});
    SetScales(layer, {1, 1, 1, 20000});
    layer.Attr<ResizeAttr>().coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
    layer.Attr<ResizeAttr>().nearestMode = OPKIT_RESIZE_FLOOR;
    World world(layer);
    EXPECT_EQ(world.RunDirect(ResizeOpkitForward), 0u);
    EXPECT_EQ(world.Output()[19999], 1.0f);
    EXPECT_EQ(world.Output()[20001], 2.0f);
    EXPECT_EQ(world.Output()[59999], 3.0f);
    ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
}

TEST(ResizeLinear, ByHand)
{
    struct Row {
        uint32_t width;
        uint32_t outWidth;
        float scale;
        uint32_t coordinateMode;
        std::vector<float> expected;
    };
    const Row rows[] = {
        {3, 6, 2, 0, {0, 0.25f, 0.75f, 1.25f, 1.75f, 2}},  // clamped at both ends; the last is 0.5 * 2 + 0.5 * 2
        {3, 5, 1.7f, 2, {0, 0.5f, 1, 1.5f, 2}},
        {3, 6, 2, 3, {0, 0.5f, 1, 1.5f, 2, 2}},
        {4, 1, 0.25f, 1, {0}},
        {4, 1, 0.25f, 2, {0}},
        {4, 1, 0.25f, 4, {1.5f}},
        {4, 2, 0.5f, 5, {1, 3}},
        {4, 2, 0.5f, 77, {0.5f, 2.5f}},
        {3, 3, 1, 5, {0, 1, 2}},
        {1, 3, 3, 0, {0, 0, 0}},
    };
    for (const Row& row : rows) {
        LayerCase layer = RowCase(row.width, row.outWidth, row.scale, OPKIT_RESIZE_LINEAR);
        layer.Attr<ResizeAttr>().coordinateMode = row.coordinateMode;
        ExpectRow(layer, row.expected);
    }
}

TEST(ResizeLinear, RowsAndColumns)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({1, 2, 2, 2}, {0, 1, 10, 11, 20, 21, 30, 31}, 16).Output({1, 2, 3, 3}, 32);
    SetScales(layer, {1, 1, 1.5f, 1.5f});
    layer.Attr<ResizeAttr>().resizeMode = OPKIT_RESIZE_LINEAR;
    layer.Attr<ResizeAttr>().coordinateMode = OPKIT_RESIZE_ALIGN_CORNERS;
    ExpectRow(layer, {0, 0.5f, 1, 5, 5.5f, 6, 10, 10.5f, 11, 20, 20.5f, 21, 25, 25.5f, 26, 30, 30.5f, 31});
}

// Wider than the block of columns that is gathered at a time, and rows that share source rows.
TEST(ResizeLinear, WideOutput)
{
    Random random(TestSeed());
    for (const uint32_t outWidth : {511u, 512u, 513u, 1300u}) {
        for (const bool extrapolate : {false, true}) {
            LayerCase layer("ResizeOpkitForward");
            layer.Online({1, 2, 3, 300}, random.Floats(1800, Values::kPlain), 1280).Output({1, 2, 9, outWidth}, 64);
            SetScales(layer, {1, 1, 3, static_cast<float>(outWidth) / 300});
            layer.Attr<ResizeAttr>().resizeMode = OPKIT_RESIZE_LINEAR;
            layer.Attr<ResizeAttr>().extrapolate = extrapolate ? 1 : 0;
            ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
        }
    }
}

// The sum starts with the upper right term: in f32 another order would lose the 1.
TEST(ResizeLinear, OrderOfTheSum)
{
    LayerCase layer("ResizeOpkitForward");
    // Centre of the square: each weight is 0.25. X12 and X11 cancel before the small ones come.
    layer.Online({1, 1, 2, 2}, {-1e9f, 1e9f, 4, 8}, 0).Output({1, 1, 1, 1});
    SetScales(layer, {1, 1, 0.5f, 0.5f});
    layer.Attr<ResizeAttr>().resizeMode = OPKIT_RESIZE_LINEAR;
    ExpectRow(layer, {3});
}

TEST(ResizeLinear, ExtrapolatedElementsGoToTheirCompactPlace)
{
    // Asymmetric, scale 2: rows and columns 0, 0.5, 1, 1.5: the last of each lies outside.
    LayerCase layer("ResizeOpkitForward");
    CaseTensor output;
    output.shape = {1, 1, 4, 4};
    output.strideBytes = 32;
    output.raw.assign(32, std::bit_cast<uint32_t>(9.0f));
    layer.Online({1, 1, 2, 2}, {0, 1, 10, 11}).Output(output);
    SetScales(layer, {1, 1, 2, 2});
    ResizeAttr& attr = layer.Attr<ResizeAttr>();
    attr.resizeMode = OPKIT_RESIZE_LINEAR;
    attr.coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
    attr.extrapolate = 1;
    attr.extrapolationValue = -7;
    World world(layer);
    EXPECT_EQ(world.RunDirect(ResizeOpkitForward), 0u);
    // Row y's last column goes to 4 y + 3, row 3 to 12 to 15: over elements that were stored, and gaps.
    const std::vector<float> rows(world.OutputRows().begin(), world.OutputRows().end());
    EXPECT_THAT(rows, ElementsAre(0, 0.5f, 1, -7, 9, 9, 9, -7,     //
                                  5, 5.5f, 6, -7, -7, -7, -7, -7,  // -7 at 11 and 12 to 15
                                  10, 10.5f, 11, 9, 9, 9, 9, 9,    //
                                  9, 9, 9, 9, 9, 9, 9, 9));
    ExpectSameAsReference(layer, ResizeOpkitForward, RefResize, {.nan = NanPolicy::kAnyNan});
}

TEST(Resize, UnknownModeLeavesTheOutput)
{
    LayerCase layer = RowCase(3, 6, 2, 2);
    World world(layer);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, ResizeOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
}

TEST(Resize, SilentFailures)
{
    const auto expectFailure = [](const LayerCase& layer, const char* message) {
        World world(layer);
        const World before = world.Clone();
        const RunResult run = RunCaptured(world, ResizeOpkitForward);
        EXPECT_EQ(run.result, 0xFFFFFFFFu);
        EXPECT_EQ(run.messages, message);
        EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
        ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
    };
    LayerCase noInput("ResizeOpkitForward");
    noInput.Output({1, 1, 1, 1});
    noInput.Attr<ResizeAttr>();
    expectFailure(noInput, "");

    LayerCase noRegion = RowCase(3, 6, 2, 0);
    noRegion.Attr<ResizeAttr>().hasRoi = 1;
    noRegion.Attr<ResizeAttr>().roiCount = 11;
    expectFailure(noRegion, "");

    for (const uint32_t resizeMode : {0u, 1u, 9u}) {  // also where nothing would be computed
        LayerCase noScales = RowCase(3, 6, -1, resizeMode);
        noScales.Attr<ResizeAttr>().scales[0] = -1;
        expectFailure(noScales, "");
    }
    LayerCase noSizes = RowCase(3, 6, 2, 0);
    noSizes.Attr<ResizeAttr>().useSizes = 1;
    noSizes.Attr<ResizeAttr>().sizes[0] = -1;
    expectFailure(noSizes, "");

    LayerCase rankless = RowCase(3, 6, 2, 0);
    rankless.Tamper([](World& world) {
        LayerAttrHead& head = world.Attr<LayerAttrHead>();
        head.inputFlags[0] = '1';
        head.offlineShape[0].dimNum = 0;
    });
    expectFailure(rankless, "[ResizeOpkitForward:#]Malloc failed!\n\n");
}

// A result in the memory of X is read by what comes after it.
TEST(Resize, NearestOutputIsTheInput)
{
    ForRandomCases(200, [](Random& random) {
        const Shape shape = {static_cast<uint32_t>(random.Int(1, 2)), static_cast<uint32_t>(random.Int(1, 3)),
                             static_cast<uint32_t>(random.Int(1, 9)), static_cast<uint32_t>(random.Int(1, 40))};
        LayerCase layer("ResizeOpkitForward");
        layer.Online(shape, random.Floats(ElementCount(shape), Values::kBits), random.Stride(shape.back()));
        layer.OutputInPlace(0, shape);
        for (size_t axis = 0; axis < 4; ++axis) {
            layer.Attr<ResizeAttr>().scales[axis] =
                random.Chance(0.5) ? 1.0f : 0.5f + 0.25f * static_cast<float>(random.Int(0, 10));
        }
        layer.Attr<ResizeAttr>().coordinateMode = static_cast<uint32_t>(random.Int(0, 4));
        layer.Attr<ResizeAttr>().nearestMode = static_cast<uint32_t>(random.Int(0, 3));
        ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
    });
}

TEST(Resize, RankBeyondTheScalesOfSizes)
{
    const auto runOfRank = [](uint32_t rank) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online(Shape(rank, 1), {1}).Online({rank}, Counting(rank)).Output(Shape(rank, 1));
        layer.Attr<ResizeAttr>().useSizes = 1;
        layer.Attr<ResizeAttr>().sizes[0] = -1;
        layer.Attr<ResizeAttr>().resizeMode = 2;  // samples nothing
        World world(layer);
        return RunCaptured(world, ResizeOpkitForward);
    };
    EXPECT_EQ(runOfRank(10).result, 0u);
    EXPECT_EQ(runOfRank(11).result, 0xFFFFFFFFu);
    EXPECT_EQ(runOfRank(11).messages, "[ResizeOpkitForward:#]Resize rank 11 larger than 10!\n\n");
}

// Every route to the scales; an outcome of 2 doubles the row, one of 1 keeps it.
TEST(Resize, WhereScalesComeFrom)
{
    struct Row {
        float firstScale;  // of the attribute
        uint32_t useSizes;
        int32_t firstSize;
        bool fromInput;
    };
    const Row rows[] = {
        {1, 0, 0, false},          {1, 0, -1, false}, {-1, 0, 0, true},  {-1.0000005f, 0, 0, true},
        {-1.000002f, 0, 0, false}, {-1, 2, -1, true}, {1, 2, -1, false},  // only a useSizes of 1 counts
        {-1, 1, 0, false},         {1, 1, 7, false},
    };
    for (const Row& row : rows) {
        for (const bool offline : {false, true}) {
            LayerCase layer("ResizeOpkitForward");
            layer.Online({1, 1, 1, 3}, Counting(3));
            const std::vector<float> scales = {1, 1, 1, 2};
            offline ? layer.Offline({4}, scales) : layer.Online({4}, scales);
            layer.Output({1, 1, 1, 6});
            ResizeAttr& attr = layer.Attr<ResizeAttr>();
            attr.coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
            attr.nearestMode = OPKIT_RESIZE_FLOOR;
            SetScales(layer, {row.firstScale, 1, 1, 0.5f});
            attr.useSizes = row.useSizes;
            attr.sizes[0] = row.firstSize;
            ExpectRow(layer,
                      row.fromInput ? std::vector<float>{0, 0, 1, 1, 2, 2} : std::vector<float>{0, 2, 2, 2, 2, 2});
        }
    }
}

TEST(Resize, SizesFromAnInput)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({1, 1, 1, 3}, Counting(3)).Offline({4}, {1, 1, 1, 6}).Output({1, 1, 1, 6});
    ResizeAttr& attr = layer.Attr<ResizeAttr>();
    attr.coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
    attr.nearestMode = OPKIT_RESIZE_FLOOR;
    attr.useSizes = 1;
    attr.sizes[0] = -1;
    ExpectRow(layer, {0, 0, 1, 1, 2, 2});
}

TEST(Resize, Regions)
{
    // Crop of columns 2 to 6 of 0 .. 8, by region: a quarter to three quarters.
    struct Row {
        uint32_t hasRoi;
        uint32_t roiCount;
        float firstStart;  // of the attribute
        bool regionOffline;
        bool scalesFromInput;
        std::vector<float> expected;
    };
    const std::vector<float> cropped = {2, 4, 6};
    const std::vector<float> whole = {0, 4, 8};
    const Row rows[] = {
        {1, 11, 0, false, false, cropped},        {1, 11, 5e-7f, true, false, cropped},
        {1, 11, 2e-6f, false, false, whole},      {1, 10, 0, false, false, whole},
        {2, 11, 0, false, false, whole},          {1, 11, 0, false, true, cropped},
        {1, 0xFFFFFFFFu, 0, true, true, cropped},
    };
    for (const Row& row : rows) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online({1, 1, 1, 9}, Counting(9));
        // As scales the region makes columns 2 apart; as a region it is a quarter to three quarters.
        const std::vector<float> region = {0, 0, 0, 0.25f, 1, 1, 1, 0.75f};
        row.regionOffline ? layer.Offline({8}, region) : layer.Online({8}, region);
        layer.Online({4}, {1, 1, 1, 1.0f / 3});
        layer.Output({1, 1, 1, 3});
        ResizeAttr& attr = layer.Attr<ResizeAttr>();
        attr.coordinateMode = OPKIT_RESIZE_CROP;
        attr.hasRoi = row.hasRoi;
        attr.roiCount = row.roiCount;
        const float roi[] = {row.firstStart, 0, 0, 0, 1, 1, 1, 1};
        std::copy(roi, roi + 8, attr.roi);
        SetScales(layer, {row.scalesFromInput ? -1.0f : 1.0f, 1, 1, 1.0f / 3});
        ExpectRow(layer, row.expected);
    }
}

// With an online region, or one of the attribute, scales are input 2; with an offline region they are the region.
TEST(Resize, ScalesInputBehindARegion)
{
    for (const bool offline : {false, true}) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online({1, 1, 1, 6}, Counting(6));
        const std::vector<float> region = {0, 1, 1, 2, 1, 1, 1, 1};
        offline ? layer.Offline({8}, region) : layer.Online({8}, region);
        layer.Online({4}, {1, 1, 1, 0.5f}).Output({1, 1, 1, 3});
        ResizeAttr& attr = layer.Attr<ResizeAttr>();
        attr.coordinateMode = OPKIT_RESIZE_ASYMMETRIC;
        attr.nearestMode = OPKIT_RESIZE_FLOOR;
        attr.hasRoi = 1;
        attr.roiCount = 11;
        attr.scales[0] = -1;
        ExpectRow(layer, offline ? std::vector<float>{0, 0, 1} : std::vector<float>{0, 2, 4});
    }
}

TEST(ParseAttrInput, StoresThroughSlots)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Online({2, 4, 8}, {}).Online({3}, {1, 8, 6}).Output({1});
    ResizeAttr& attr = layer.Attr<ResizeAttr>();
    attr.useSizes = 1;
    attr.sizes[0] = -1;
    World world(layer);
    static float values[3];
    const auto parse = [](LayerParam* param) {
        float* slots[3] = {&values[2], &values[0], &values[1]};
        return ParseAttrInput(param, static_cast<LayerAttrBlock*>(param->attr), slots, 1);
    };
    EXPECT_EQ(world.RunDirect(parse), 0u);
    EXPECT_THAT(values, ElementsAre(2, 0.75f, 0.5f));

    attr.useSizes = 0;
    World stored(layer);
    const auto address = [](LayerParam* param) {
        float* scales = nullptr;
        const uint32_t result = ParseAttrInput(param, static_cast<LayerAttrBlock*>(param->attr), &scales, 1);
        return result == 0 && scales == static_cast<ResizeAttr*>(param->attr)->scales ? 0u : 1u;
    };
    EXPECT_EQ(stored.RunDirect(address), 0u);
    const auto missing = [](LayerParam* param) {
        float* scales = nullptr;
        static_cast<ResizeAttr*>(param->attr)->scales[0] = -1;
        return ParseAttrInput(param, static_cast<LayerAttrBlock*>(param->attr), &scales, 2);
    };
    EXPECT_EQ(stored.RunDirect(missing), 0xFFFFFFFFu);
}

TEST(ParseAttrInput, NeedsX)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Output({1});
    layer.Attr<ResizeAttr>().scales[0] = 1;
    World world(layer);
    const auto parse = [](LayerParam* param) {
        float* scales = nullptr;
        return ParseAttrInput(param, static_cast<LayerAttrBlock*>(param->attr), &scales, 1);
    };
    EXPECT_EQ(world.RunDirect(parse), 0xFFFFFFFFu);
}

// An input without elements has nothing to give.
TEST(Resize, EmptyInput)
{
    for (const uint32_t resizeMode : {0u, 1u}) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online({1, 1, 0, 3}, {}).Output({1, 1, 2, 3});
        SetScales(layer, {1, 1, 2, 1});
        layer.Attr<ResizeAttr>().resizeMode = resizeMode;
        World world(layer);
        const World before = world.Clone();
        EXPECT_EQ(world.RunDirect(ResizeOpkitForward), 0u);
        EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    }
}

// All of the output lies outside of it.
TEST(Resize, EmptyInputWithExtrapolation)
{
    for (const uint32_t resizeMode : {0u, 1u}) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online({1, 1, 0, 3}, {}).Output({1, 1, 2, 3});
        SetScales(layer, {1, 1, 2, 1});
        layer.Attr<ResizeAttr>().resizeMode = resizeMode;
        layer.Attr<ResizeAttr>().extrapolate = 1;
        layer.Attr<ResizeAttr>().extrapolationValue = -7;
        World world(layer);
        EXPECT_EQ(world.RunDirect(ResizeOpkitForward), 0u);
        EXPECT_THAT(world.Output(), ElementsAre(-7, -7, -7, -7, -7, -7));
    }
}

// The two modes by themselves take a missing input for no work.
TEST(Resize, ModesWithoutX)
{
    LayerCase layer("ResizeOpkitForward");
    layer.Output({1, 1, 2, 3});
    layer.Attr<ResizeAttr>();
    const ForwardFunc modes[] = {
        [](LayerParam* param) {
            return ResizeNearest({param, &AttrOf<ResizeAttr>(param), nullptr, nullptr});
        },
        [](LayerParam* param) {
            return ResizeLinear({param, &AttrOf<ResizeAttr>(param), nullptr, nullptr});
        },
    };
    for (const ForwardFunc mode : modes) {
        World world(layer);
        const World before = world.Clone();
        const RunResult run = RunCaptured(world, mode);
        EXPECT_EQ(run.result, 0u);
        EXPECT_EQ(run.messages, "");
        EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    }
}

TEST(Resize, EmptyOutput)
{
    for (const uint32_t resizeMode : {0u, 1u}) {
        LayerCase layer("ResizeOpkitForward");
        layer.Online({1, 1, 2, 3}, Counting(6)).Output({1, 1, 0, 3});
        SetScales(layer, {1, 1, 0.1f, 1});
        layer.Attr<ResizeAttr>().resizeMode = resizeMode;
        ExpectSameAsReference(layer, ResizeOpkitForward, RefResize);
    }
}

TEST(Resize, MemoryRunsOut)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    constexpr uint64_t kParserAllocations = 2;  // the layer's inputs and outputs
    struct Row {
        uint32_t resizeMode;
        uint32_t outWidth;
        std::vector<std::string> messages;  // by the allocation that fails; the first is the default region's
    };
    const auto built = [](const char* bytes) {
        return std::string("[BuildBilinearParams:#]Malloc ") + bytes + " failed!\n\n";
    };
    const std::string region = "[ResizeOpkitForward:#]Malloc 32 failed!\n\n";
    const Row rows[] = {
        {OPKIT_RESIZE_LINEAR, 6, {region, built("88"), built("24"), built("4"), built("168")}},
        {OPKIT_RESIZE_NEAREST, 6, {region}},
        {OPKIT_RESIZE_NEAREST, 60000, {region, "[ResizeOpkitForward:#]Malloc 240012 failed!\n\n"}},
    };
    for (const Row& row : rows) {
        for (size_t n = 0; n <= row.messages.size(); ++n) {
            World world(RowCase(3, row.outWidth, 2, row.resizeMode));
            const World before = world.Clone();
            CaptureStdout capture;
            AllocFault fault(kParserAllocations + n);
            const uint32_t result = world.RunDirect(ResizeOpkitForward);
            fault.Disarm();
            const std::string messages = NormalizeMessages(capture.Stop());
            EXPECT_EQ(fault.Live(), 0);
            if (n == row.messages.size()) {
                EXPECT_EQ(fault.Seen(), kParserAllocations + n);
                EXPECT_EQ(messages, "");
                continue;
            }
            EXPECT_EQ(messages, row.messages[n]);
            EXPECT_EQ(result, n == 0 ? 0xFFFFFFFFu : 0u);  // tables that find no memory are no failure
            EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
        }
    }
}

TEST(Resize, SameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        const auto dim = [&](int32_t most) { return static_cast<uint32_t>(random.Int(1, most)); };
        const bool linear = random.Chance(0.5);
        Shape in = {dim(2), dim(3), dim(8), dim(24)};
        Shape out = {dim(2), dim(3), dim(12), dim(40)};
        if (linear) {
            out[0] = in[0];
            out[1] = in[1];
        }
        const bool ranked5 = random.Chance(0.1);
        if (ranked5) {
            in.push_back(dim(5));
            out.push_back(dim(5));
        }
        LayerCase layer("ResizeOpkitForward");
        const auto add = [&](const Shape& shape, const std::vector<float>& data) {
            if (random.Chance(0.3)) {
                layer.Offline(shape, data);
                return true;
            }
            layer.Online(shape, data, random.Stride(shape.back()));
            return false;
        };
        add(in, random.Floats(ElementCount(in), linear ? Values::kMixed : Values::kBits));
        ResizeAttr& attr = layer.Attr<ResizeAttr>();
        const uint32_t rank = static_cast<uint32_t>(in.size());
        std::vector<float> scales(rank);
        std::vector<float> sizes(rank);
        for (uint32_t i = 0; i < rank; ++i) {
            const bool keep = random.Chance(0.3) && out[i] <= in[i];
            scales[i] = keep ? 1.0f : static_cast<float>(out[i]) / static_cast<float>(in[i]);
            if (!keep && random.Chance(0.2)) {
                scales[i] = std::fabs(random.Float(Values::kPlain)) + 0.1f;
            }
            if (scales[i] == 1.0f && out[i] > in[i]) {
                scales[i] = 1.5f;
            }
            sizes[i] = static_cast<float>(in[i]) * scales[i];
        }
        std::vector<float> region(2 * rank);
        for (float& value : region) {
            value = random.Float(random.Chance(0.8) ? Values::kUnit : Values::kPlain);
        }
        const uint32_t hasRoi = random.Chance(0.5) ? 1 : 0;
        attr.hasRoi = hasRoi;
        attr.roiCount = random.Chance(0.9) ? 11 : 10;
        region[0] = random.Chance(0.3) ? 0.0f : region[0] + 0.1f;
        std::copy(region.begin(), region.begin() + std::min<uint32_t>(2 * rank, 10), attr.roi);
        const bool regionInput = hasRoi == 1 && attr.roiCount > 10 && RefTiny(region[0]);
        bool regionOffline = false;
        if (regionInput) {
            regionOffline = add({2 * rank}, region);
        } else if (hasRoi == 1 && attr.roiCount > 10) {
            add({1}, {0});
        }
        std::copy(scales.begin(), scales.end(), attr.scales);
        const int32_t route = random.Int(0, 3);
        if (route == 1 && !regionOffline) {
            attr.scales[0] = -1;
            add({rank}, scales);
        } else if (route == 2 && !regionOffline) {
            attr.useSizes = 1;
            attr.sizes[0] = -1;
            add({rank}, sizes);
        }
        attr.coordinateMode = static_cast<uint32_t>(random.Int(0, 6));
        attr.nearestMode = static_cast<uint32_t>(random.Int(0, 5));
        attr.resizeMode = linear ? 1 : 0;
        attr.extrapolate = random.Chance(0.4) ? random.Word() | 1 : 0;
        attr.extrapolationValue = random.Float(Values::kPlain);
        layer.Output(out, random.Stride(out.back())).Batch(dim(2));
        ExpectSameAsReference(layer, ResizeOpkitForward, RefResize,
                              {.nan = linear ? NanPolicy::kAnyNan : NanPolicy::kExactBits});
    });
}

}  // namespace
}  // namespace opkit
