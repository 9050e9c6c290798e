// Pad and the helpers it exports.

#include "tests/reference/pad.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr const char* kTooLarge = "[PadOpkitForward:#]reflect pad is larger than the tensor.\n\n";

std::vector<float> Counting(uint64_t count)
{
    std::vector<float> values(count);
    for (uint64_t i = 0; i < count; ++i) {
        values[i] = static_cast<float>(i + 1);
    }
    return values;
}

// The sizes a model compiler would set; begins and ends by axis.
void SetPads(LayerCase& layer, uint32_t mode, const std::vector<int32_t>& pads, float constant = 0.5f)
{
    const int32_t rank = static_cast<int32_t>(pads.size() / 2);
    PadAttr& attr = layer.Attr<PadAttr>();
    attr.padCount = attr.padCountCheck = static_cast<uint32_t>(pads.size());
    attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = rank;
    attr.reshapedPadsSize = attr.reshapedSlicesSize = 2 * rank;
    attr.inputStartsSize = attr.inputExtentsSize = rank;
    attr.padMode = mode;
    std::copy(pads.begin(), pads.end(), attr.padsAttr);
    attr.padConstant = constant;
    layer.Workspace(static_cast<uint32_t>((5 * rank + 2 * 2 * rank + 4 * rank + 4 * rank) * 4));
}

Shape Padded(const Shape& shape, const std::vector<int32_t>& pads)
{
    Shape out = shape;
    for (size_t i = 0; i < shape.size(); ++i) {
        out[i] += static_cast<uint32_t>(pads[i] + pads[shape.size() + i]);
    }
    return out;
}

LayerCase PadCase(const Shape& shape, uint32_t mode, const std::vector<int32_t>& pads, uint32_t strideIn = 0,
                  uint32_t strideOut = 0)
{
    LayerCase layer("PadOpkitForward");
    layer.Online(shape, Counting(ElementCount(shape)), strideIn).Output(Padded(shape, pads), strideOut);
    SetPads(layer, mode, pads);
    return layer;
}

struct PadRow {
    Shape shape;
    uint32_t mode;
    std::vector<int32_t> pads;
    std::vector<float> expected;
};

const PadRow kRows[] = {
    {{3}, 0, {2, 1}, {0.5f, 0.5f, 1, 2, 3, 0.5f}},
    {{3}, 1, {1, 1}, {2, 1, 2, 3, 2}},
    {{3}, 1, {2, 2}, {3, 2, 1, 2, 3, 2, 1}},
    {{3}, 2, {2, 1}, {1, 1, 1, 2, 3, 3}},
    {{3}, 0, {-1, 2}, {2, 3, 0.5f, 0.5f}},
    {{3}, 1, {-1, 1}, {2, 3, 2}},
    {{3}, 2, {1, -2}, {1, 1}},
    {{2, 3}, 0, {1, 0, 0, 1}, {0.5f, 0.5f, 0.5f, 0.5f, 1, 2, 3, 0.5f, 4, 5, 6, 0.5f}},
    {{2, 3}, 1, {1, 1, 1, 1}, {5, 4, 5, 6, 5, 2, 1, 2, 3, 2, 5, 4, 5, 6, 5, 2, 1, 2, 3, 2}},
    {{2, 3}, 2, {1, 1, 2, 0}, {1, 1, 2, 3, 1, 1, 2, 3, 4, 4, 5, 6, 4, 4, 5, 6, 4, 4, 5, 6}},
    {{3, 2}, 0, {-1, -1, 0, 1}, {4, 0.5f, 6, 0.5f}},
    {{2, 2, 2}, 1, {1, 0, 0, 1, 0, 0}, {5, 6, 7, 8, 1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3, 4}},
    {{1, 2, 4}, 2, {0, 1, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 2, 3, 4, 5, 6, 7, 8}},  // merged: the edge element, not the row
    {{2, 4}, 1, {1, 0, 0, 0}, {5, 4, 3, 2, 1, 2, 3, 4, 5, 6, 7, 8}},           // merged: mirrored element by element
    {{2, 4}, 0, {1, 0, 0, 0}, {0.5f, 0.5f, 0.5f, 0.5f, 1, 2, 3, 4, 5, 6, 7, 8}},
    {{2, 4}, 0, {0, 0, 0, 0}, {1, 2, 3, 4, 5, 6, 7, 8}},
};

TEST(Pad, ByHand)
{
    for (const PadRow& row : kRows) {
        const Shape out = Padded(row.shape, row.pads);
        const bool mergeable = row.shape.back() % 4 == 0;  // then rows with gaps are not told from rows without
        for (const uint32_t strideIn : {0u, 16u, 64u}) {
            if (strideIn != 0 && mergeable && strideIn != row.shape.back() * 4) {
                continue;
            }
            for (const uint32_t strideOut : {0u, 32u}) {
                LayerCase layer = PadCase(row.shape, row.mode, row.pads, strideIn, strideOut);
                World world(layer);
                EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
                EXPECT_THAT(world.Output(), ElementsAreArray(row.expected)) << layer.Describe();
                EXPECT_THAT(world.Input(), ElementsAreArray(Counting(ElementCount(row.shape))));
                ExpectSameAsReference(layer, PadOpkitForward, RefPad);
            }
        }
    }
}

// One row needs no alignment, and how far it reaches is known all the same.
TEST(Pad, ReflectWithoutOutputAlignment)
{
    LayerCase layer = PadCase({3}, OPKIT_PAD_REFLECT, {1, 1});
    layer.Tamper([](World& world) { world.Param().outputs[0].stride = 0; });
    World world(layer);
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(2, 1, 2, 3, 2));
}

// All of an axis cropped away and padded again: no row is visited, so nothing is written.
TEST(Pad, CroppedToNothing)
{
    LayerCase layer = PadCase({2, 1, 3}, 0, {0, -1, 0, 0, 2, 0});
    World world(layer);
    const World before = world.Clone();
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

TEST(Pad, OfflineInput)
{
    LayerCase layer("PadOpkitForward");
    layer.Offline({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2, 5}, 32);
    SetPads(layer, OPKIT_PAD_EDGE, {0, 1, 0, 1});
    World world(layer);
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 1, 2, 3, 3, 4, 4, 5, 6, 6));
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

// Merged rows are read as if they were compact, and the first read takes the row distance where the skips do not.
TEST(Pad, MergedAxesDisregardTheStride)
{
    LayerCase layer("PadOpkitForward");
    layer.Online({2, 4}, Counting(8), 32).Output({2, 4});
    SetPads(layer, OPKIT_PAD_CONSTANT, {0, 0, 0, 0});
    World world(layer);
    const std::vector<float> rows(world.InputRows().begin(), world.InputRows().begin() + 8);  // row 0 and its gap
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    EXPECT_EQ(std::memcmp(world.OutputRows().data(), rows.data(), 32), 0);
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);

    LayerCase sliced = PadCase({3, 2, 4}, OPKIT_PAD_CONSTANT, {-1, 1, 0, 0, 0, 0});  // r is 2, one row is 8 elements
    World start(sliced);
    EXPECT_EQ(start.RunDirect(PadOpkitForward), 0u);
    EXPECT_THAT(start.Output(), ElementsAre(0.5f, 0.5f, 0.5f, 0.5f, 5, 6, 7, 8, 9, 10, 11, 12, 0.5f, 0.5f, 0.5f, 0.5f,
                                            13, 14, 15, 16, 17, 18, 19, 20));
    ExpectSameAsReference(sliced, PadOpkitForward, RefPad);
}

TEST(Pad, UnknownModeOnlyExpands)
{
    LayerCase layer("PadOpkitForward");
    CaseTensor output;
    output.shape = {2, 3};
    output.strideBytes = 16;
    output.raw = {1, 2, 3, 4, 5, 6, 7, 8};
    layer.Online({2, 3}, Counting(6)).Output(output);
    SetPads(layer, 3, {0, 0, 0, 0});
    World world(layer);
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    const std::vector<uint32_t> expected = {1, 2, 3, 4, 4, 5, 6, 8};
    EXPECT_EQ(std::memcmp(world.OutputRows().data(), expected.data(), 32), 0);
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

TEST(Pad, EmptyInput)
{
    struct Row {
        uint32_t mode;
        std::vector<int32_t> pads;
        uint32_t result;
        bool filled;
    };
    const Row rows[] = {{0, {1, 0, 1, 0}, 0, true},  {1, {1, 0, 1, 0}, 0, false}, {2, {1, 0, 1, 0}, 0xFFFFFFFFu, false},
                        {2, {0, 1, 0, 0}, 0, false},                                // the empty axis stays empty
                        {3, {1, 0, 1, 0}, 0, false}, {0, {0, 1, 0, 0}, 0, false}};  // nothing to fill
    for (const Row& row : rows) {
        LayerCase layer("PadOpkitForward");
        layer.Online({0, 3}, {}).Output({2, 3}, 16);
        SetPads(layer, row.mode, row.pads);
        World world(layer);
        const World before = world.Clone();
        const RunResult run = RunCaptured(world, PadOpkitForward);
        EXPECT_EQ(run.result, row.result) << row.mode;
        EXPECT_EQ(run.messages, "");
        if (row.filled) {  // compactly
            EXPECT_THAT(std::vector<float>(world.OutputRows().begin(), world.OutputRows().begin() + 6), Each(0.5f));
            EXPECT_EQ(std::memcmp(&world.OutputRows()[6], &World(before.Clone()).OutputRows()[6], 8), 0);
        } else {
            EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
        }
        ExpectSameAsReference(layer, PadOpkitForward, RefPad);
    }
}

// Columns around rows of no elements.
TEST(Pad, EmptyRows)
{
    LayerCase layer("PadOpkitForward");
    layer.Online({2, 0}, {}, 16).Output({2, 3});
    SetPads(layer, 0, {0, 1, 0, 2});
    World world(layer);
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    EXPECT_THAT(world.Output(), Each(0.5f));
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

TEST(Pad, SilentRefusals)
{
    const auto refuse = [](const LayerCase& layer) {
        World world(layer);
        const World before = world.Clone();
        const RunResult run = RunCaptured(world, PadOpkitForward);
        EXPECT_EQ(run.result, 0xFFFFFFFFu);
        EXPECT_EQ(run.messages, "");
        EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
        ExpectSameAsReference(layer, PadOpkitForward, RefPad);
    };
    LayerCase missing("PadOpkitForward");
    missing.Output({3});
    SetPads(missing, 0, {0, 0});
    refuse(missing);

    LayerCase rankless = PadCase({3}, 0, {1, 1});
    rankless.Tamper([](World& world) {
        LayerAttrHead& head = world.Attr<LayerAttrHead>();
        head.inputFlags[0] = '1';
        head.offlineShape[0].dimNum = 0;
    });
    refuse(rankless);

    const auto with = [&](auto change) {
        LayerCase layer = PadCase({2, 3}, 0, {1, 1, 1, 1});
        change(layer.Attr<PadAttr>());
        layer.Workspace(400);
        refuse(layer);
    };
    with([](PadAttr& attr) { attr.padCountCheck = 5; });
    with([](PadAttr& attr) { attr.padCount = attr.padCountCheck = 2; });
    with([](PadAttr& attr) { attr.inputExtentsSize = 1; });
    with([](PadAttr& attr) { attr.inputStartsSize = 1; });
    with([](PadAttr& attr) { attr.reshapedSlicesSize = 1; });
    with([](PadAttr& attr) { attr.reshapedPadsSize = 3; });
    with([](PadAttr& attr) { attr.reshapedOutputDimsSize = 1; });
    with([](PadAttr& attr) { attr.outputDimsSize = 3; });
}

// With room for only r slices the starts lie on the slices of the ends, and a crop at the start is made good for at
// the end.
TEST(Pad, ShortSlicesArray)
{
    // So 5 elements are kept from the second on, and the row's gap supplies the last.
    LayerCase layer("PadOpkitForward");
    layer.Online({1, 5}, {1, 2, 3, 4, 5}, 32).Output({1, 7}, 32);
    SetPads(layer, OPKIT_PAD_CONSTANT, {0, -1, 0, 1});
    layer.Attr<PadAttr>().reshapedSlicesSize = 2;
    World world(layer);
    world.InputRows()[5] = 6;
    EXPECT_EQ(world.RunDirect(PadOpkitForward), 0u);
    const std::vector<float> rows = world.Output();
    EXPECT_THAT(std::vector<float>(rows.begin(), rows.begin() + 6), ElementsAre(2, 3, 4, 5, 6, 0.5f));
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

TEST(Pad, ReflectBeyondTheExtent)
{
    // Row 0 mirrors into row 1's place, which holds what was there before; row 1 mirrors beyond the tensor.
    LayerCase layer("PadOpkitForward");
    CaseTensor output;
    output.shape = {2, 4};
    output.data = {10, 11, 12, 13, 14, 15, 16, 17};
    layer.Online({2, 1}, {1, 2}).Output(output);
    SetPads(layer, OPKIT_PAD_REFLECT, {0, 3, 0, 0});
    World world(layer);
    const RunResult run = RunCaptured(world, PadOpkitForward);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages, kTooLarge);
    EXPECT_THAT(world.Output(), ElementsAre(16, 15, 14, 1, 14, 15, 16, 2));
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);

    // Behind: elements before the row serve as long as there are any.
    LayerCase behind("PadOpkitForward");
    output.shape = {4};
    output.data = {10, 11, 12, 13};
    behind.Online({2}, {1, 2}).Output(output);
    SetPads(behind, OPKIT_PAD_REFLECT, {0, 2});
    World stopped(behind);
    const RunResult second = RunCaptured(stopped, PadOpkitForward);
    EXPECT_EQ(second.result, 0xFFFFFFFFu);
    EXPECT_EQ(second.messages, kTooLarge);
    EXPECT_THAT(stopped.Output(), ElementsAre(1, 2, 1, 13));
    ExpectSameAsReference(behind, PadOpkitForward, RefPad);
}

TEST(Pad, ExpansionFailure)
{
    LayerCase layer = PadCase({3}, 7, {1, 1});  // an unknown mode touches no data before
    layer.Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    World world(layer);
    const RunResult run = RunCaptured(world, PadOpkitForward);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[PadOpkitForward:#]InsertAlignSpace failed.\n\n");
    ExpectSameAsReference(layer, PadOpkitForward, RefPad);
}

TEST(Pad, SameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        Shape shape = random.Shape(1, 5, 600);
        if (random.Chance(0.4)) {
            shape.back() = static_cast<uint32_t>(4 * random.Int(1, 5));
        }
        const size_t rank = shape.size();
        const uint32_t mode = random.Chance(0.95) ? static_cast<uint32_t>(random.Int(0, 2)) : 9;
        const size_t untouched =
            random.Chance(0.4) ? static_cast<size_t>(random.Int(0, static_cast<int32_t>(rank))) : 0;
        const bool wild = mode == 1 && random.Chance(0.1);  // reflect beyond the extent
        std::vector<int32_t> pads(2 * rank);
        for (size_t i = 0; i + untouched < rank; ++i) {
            const int32_t dim = static_cast<int32_t>(shape[i]);
            const int32_t begin = random.Chance(0.3) ? -random.Int(0, dim - 1) : 0;
            const int32_t end = random.Chance(0.3) ? -random.Int(0, dim - 1 + begin) : 0;
            const int32_t extent = dim + begin + end;
            const int32_t limit = mode == 1 && !wild ? std::min(3, extent - 1) : 3;
            pads[i] = begin != 0 ? begin : random.Int(0, limit);
            pads[rank + i] = end != 0 ? end : random.Int(0, limit);
        }
        LayerCase layer("PadOpkitForward");
        const std::vector<float> data = random.Floats(ElementCount(shape), Values::kBits);
        if (random.Chance(0.25)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const Shape out = Padded(shape, pads);
        layer.Output(out, random.Stride(out.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        SetPads(layer, mode, pads, random.Float(Values::kBits));
        ExpectSameAsReference(layer, PadOpkitForward, RefPad);
    });
}

TEST(PadHelpers, FlattenInnerShape)
{
    struct Row {
        std::vector<uint32_t> dims;
        std::vector<uint32_t> pads;
        std::vector<uint32_t> slices;
        uint32_t aligned;
        std::vector<uint32_t> expected;
    };
    const Row rows[] = {
        {{2, 3, 4}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}, 4, {24}},
        {{2, 3, 4}, {0, 1, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}, 4, {2, 12}},
        {{2, 3, 4}, {0, 0, 0, 0, 1, 0}, {0, 0, 0, 0, 0, 0}, 4, {2, 12}},
        {{2, 3, 4}, {0, 0, 0, 0, 0, 0}, {0, 0xFFFFFFFFu, 0, 0, 0, 0}, 4, {2, 12}},
        {{2, 3, 4}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0xFFFFFFFFu, 0}, 4, {2, 12}},
        {{2, 3, 4}, {0, 0, 0, 0, 0, 5}, {0, 0, 0, 0, 0, 0}, 4, {2, 3, 4}},
        {{2, 3, 5}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}, 8, {2, 3, 5}},
        {{7}, {1, 1}, {0, 0}, 8, {7}},
    };
    for (Row row : rows) {
        FlattenContext context = {row.dims.data(), row.pads.data(), row.slices.data(),
                                  static_cast<uint32_t>(row.dims.size())};
        std::vector<uint32_t> reshaped(row.dims.size(), 99);
        const uint32_t r = FlattenInnerShape(&context, reshaped.data(), row.aligned);
        ASSERT_EQ(r, row.expected.size());
        reshaped.resize(r);
        EXPECT_EQ(reshaped, row.expected);
    }
}

TEST(PadHelpers, ReshapePads)
{
    uint32_t src[] = {1, 2, 3, 4, 5, 6};
    std::vector<uint32_t> reshaped(4);
    ReshapePads(src, 3, 2, 10, reshaped.data());
    EXPECT_THAT(reshaped, ElementsAre(1, 20, 4, 50));
    ReshapePads(src, 3, 1, 0, reshaped.data());
    EXPECT_THAT(reshaped, ElementsAre(0, 0, 4, 50));
}

TEST(PadHelpers, PadInputWithDimValueOfZero)
{
    struct Row {
        int32_t mode;
        uint32_t result;
        std::vector<uint32_t> outputDims;
    };
    uint32_t inputDims[] = {0, 3, 0};
    const Row rows[] = {{0, 0, {2, 3, 4}}, {1, 0, {0, 3, 0}}, {2, 0xFFFFFFFFu, {2, 3, 4}}, {5, 0, {2, 3, 4}}};
    for (const Row& row : rows) {
        std::vector<uint32_t> outputDims = {2, 3, 4};
        EXPECT_EQ(PadInputWithDimValueOfZero(row.mode, inputDims, outputDims.data(), 3), row.result);
        EXPECT_EQ(outputDims, row.outputDims);
    }
    uint32_t stillEmpty[] = {0, 5, 0xFFFFFFFFu};  // -1 is not a size to fill either
    EXPECT_EQ(PadInputWithDimValueOfZero(2, inputDims, stillEmpty, 3), 0u);
}

TEST(PadHelpers, ExtentAxisCounts)
{
    uint32_t counters[] = {9, 9, 9};
    uint32_t extents[] = {2, 2, 5};
    ExtentAxisCounts counts = {};
    counts.counters = counters;
    ExtentAxisCountsInit(&counts, extents, 3);
    EXPECT_EQ(counts.counters, counters);
    EXPECT_EQ(counts.extents, extents);
    EXPECT_THAT(counters, ElementsAre(0, 0, 9));
    EXPECT_EQ(counts.resetAxis, 2);
    EXPECT_EQ(counts.axis, 2);
    EXPECT_EQ(counts.rank, 3);
    EXPECT_EQ(counts.running, 1);
    // Returned value, axis after it: row by row over 2 x 2 rows.
    const std::pair<int32_t, int32_t> steps[] = {{0, 2}, {1, 1}, {0, 2}, {0, 2}, {1, 1}, {1, 0}, {0, -1}};
    for (const auto& [result, axis] : steps) {
        EXPECT_EQ(counts.running, 1);
        EXPECT_EQ(ExtentAxisCountsIncrement(&counts), result);
        EXPECT_EQ(counts.axis, axis);
    }
    EXPECT_EQ(counts.running, 0);
    extents[2] = 0;
    ExtentAxisCountsInit(&counts, extents, 3);
    EXPECT_EQ(counts.running, 0);
}

TEST(PadHelpers, PadSliceIterator)
{
    // 3 x 4 elements in rows of 8, of which rows 1 and 2 and columns 1 and 2 are kept.
    std::vector<float> input(24);
    for (size_t i = 0; i < input.size(); ++i) {
        input[i] = static_cast<float>(i);
    }
    uint32_t dims[] = {3, 4};
    uint32_t extents[] = {2, 2};
    int32_t starts[] = {1, 1};
    uint32_t positions[] = {7, 7};
    int32_t skips[] = {7, 7};
    PadSliceIterator iterator = {};
    iterator.input = input.data();
    iterator.dims = dims;
    iterator.rank = 2;
    iterator.extents = extents;
    iterator.starts = starts;
    iterator.positionCount = 2;
    iterator.positions = positions;
    iterator.skips = skips;
    PadSliceIteratorInit(&iterator, 8, 1);
    EXPECT_EQ(iterator.current, &input[9]);
    EXPECT_EQ(iterator.innerExtent, 2);
    EXPECT_EQ(iterator.innerStride, 1);
    EXPECT_EQ(iterator.skipCount, 2);
    EXPECT_THAT(positions, ElementsAre(0, 0));
    EXPECT_THAT(skips, ElementsAre(8, 6));
    std::vector<float> output(5, -1);
    float* next = CopyInnermostAxisSolitaryInnerStep(&iterator, output.data());
    EXPECT_EQ(next, &output[2]);
    EXPECT_THAT(positions, ElementsAre(1, 0));
    EXPECT_EQ(iterator.current, &input[17]);
    next = CopyInnermostAxisSolitaryInnerStepImpl(&iterator, next);
    EXPECT_THAT(output, ElementsAre(9, 10, 17, 18, -1));
    EXPECT_THAT(positions, ElementsAre(0, 0));

    PadSliceIteratorInit(&iterator, 8, 3);  // merged: steps by the dimension, starts by the row distance
    EXPECT_EQ(iterator.current, &input[9]);
    EXPECT_THAT(skips, ElementsAre(4, 2));

    iterator.innerExtent = 0;  // steps all the same
    next = CopyInnermostAxisSolitaryInnerStepImpl(&iterator, &output[4]);
    EXPECT_EQ(next, &output[4]);
    EXPECT_EQ(iterator.current, &input[11]);
    EXPECT_THAT(output, ElementsAre(9, 10, 17, 18, -1));
}

TEST(PadHelpers, TensorPictchesInit)
{
    uint32_t dims[] = {2, 3, 4};
    uint32_t values[3] = {};
    TensorPitches pitches = {values, 3};
    TensorPictchesInit(&pitches, dims, 3);
    EXPECT_THAT(values, ElementsAre(12, 4, 1));
}

TEST(PadHelpers, PadAxisConstant)
{
    std::vector<float> output(4, 9);
    PadAxisConstant(output.data(), 0, 1);
    PadAxisConstant(output.data(), -3, 1);
    EXPECT_THAT(output, Each(9));
    PadAxisConstant(output.data(), 3, 1);
    EXPECT_THAT(output, ElementsAre(1, 1, 1, 9));
}

TEST(PadHelpers, IsPadAllZero)
{
    uint32_t pads[] = {0, 0, 0xFFFFFFFFu};
    EXPECT_TRUE(IsPadAllZero(pads, 0));
    EXPECT_TRUE(IsPadAllZero(pads, 2));
    EXPECT_FALSE(IsPadAllZero(pads, 3));
    EXPECT_FALSE(IsPadAllZero(pads + 2, 1));
    EXPECT_TRUE(IsPadAllZero(pads, 0x80000000u));  // below 1 as a signed number
}

uint32_t AllZero(LayerParam* param)
{
    return ProcessPadAllZero(param) ? 1 : 0;
}

TEST(PadHelpers, ProcessPadAllZero)
{
    LayerCase layer("PadOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({3, 2}, 32);
    World world(layer);
    EXPECT_EQ(RunCaptured(world, AllZero).result, 1u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(std::vector<float>(world.InputRows().begin(), world.InputRows().begin() + 6),
                ElementsAre(1, 2, 3, 4, 5, 6));  // compacted

    LayerCase missing("PadOpkitForward");
    missing.Output({3});
    World none(missing);
    RunResult run = RunCaptured(none, AllZero);
    EXPECT_EQ(run.result, 1u);
    EXPECT_EQ(run.messages, "");

    LayerCase different("PadOpkitForward");
    different.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({5});
    World counts(different);
    run = RunCaptured(counts, AllZero);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages,
              "[ProcessPadAllZero:#]pad is all zero, but input data num is not equal to output data num.\n\n");

    layer.Tamper([](World& broken) { broken.Param().outputs[0].data = nullptr; });
    LayerCase nullInput = layer;
    nullInput.Tamper([](World& broken) { broken.Param().inputs[0].data = nullptr; });
    World source(nullInput);
    run = RunCaptured(source, AllZero);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "[DelAlignSpace:#]Input data is NULL.\n\n[ProcessPadAllZero:#]DelAlignSpace failed.\n\n");

    LayerCase empty("PadOpkitForward");  // nothing to copy, and no data to expand
    empty.Online({0, 3}, {}).Output({0, 3});
    empty.Tamper([](World& broken) { broken.Param().outputs[0].data = nullptr; });
    World target(empty);
    run = RunCaptured(target, AllZero);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages,
              "[InsertAlignSpace:#]Input data is NULL.\n\n[ProcessPadAllZero:#]InsertAlignSpace failed.\n\n");
}

}  // namespace
}  // namespace opkit
