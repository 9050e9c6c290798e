// The exported broadcast mapping, and the walk that replaces it in loops.

#include "common/broadcast.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "opkit/helpers.h"
#include "tests/support/broadcast_shapes.h"

namespace opkit {
namespace {

using namespace opkit::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

DimPair Pair(Shape& dims)
{
    return {dims.data(), static_cast<uint32_t>(dims.size())};
}

uint32_t Differ(Shape a, Shape b)
{
    return JudgeBroadCast(a.data(), static_cast<uint32_t>(a.size()), b.data(), static_cast<int32_t>(b.size()));
}

Shape Strides(Shape shape)
{
    Shape strides(shape.size());
    uint32_t count = 0;
    SetStride(strides.data(), &count, shape.data(), static_cast<uint32_t>(shape.size()));
    EXPECT_EQ(count, shape.size());
    return strides;
}

uint32_t Map(uint32_t index, Shape source, Shape out)
{
    Shape sourceStrides = Strides(source);
    Shape outStrides = Strides(out);
    return BroadCast(index, Pair(sourceStrides), Pair(outStrides), Pair(source), Pair(out));
}

TEST(JudgeBroadCast, SaysWhetherShapesDiffer)
{
    EXPECT_EQ(Differ({2, 3}, {3}), 1u);
    EXPECT_EQ(Differ({2, 3}, {2, 4}), 1u);
    EXPECT_EQ(Differ({2, 3}, {1, 3}), 1u);
    EXPECT_EQ(Differ({2, 3}, {2, 3}), 0u);
    EXPECT_EQ(Differ({}, {}), 0u);
    EXPECT_EQ(Differ({}, {1}), 1u);
}

TEST(SetStride, OfCompactTensors)
{
    EXPECT_THAT(Strides({2, 3, 4}), ElementsAre(12, 4, 1));
    EXPECT_THAT(Strides({7}), ElementsAre(1));
    EXPECT_THAT(Strides({}), IsEmpty());
    EXPECT_THAT(Strides({5, 0x10000, 0x10000}), ElementsAre(0, 0x10000, 1));  // wraps
}

TEST(SetStride, NegativeCountWritesOnlyTheCount)
{
    uint32_t strides[1] = {77};
    uint32_t shape[1] = {5};
    uint32_t count = 0;
    SetStride(strides, &count, shape, 0xFFFFFFFFu);
    EXPECT_EQ(count, 0xFFFFFFFFu);
    EXPECT_EQ(strides[0], 77u);
}

TEST(BroadCast, Mapping)
{
    EXPECT_EQ(Map(4, {3}, {2, 3}), 1u);
    EXPECT_EQ(Map(4, {2, 1}, {2, 3}), 1u);
    EXPECT_EQ(Map(5, {1}, {2, 3}), 0u);
    EXPECT_EQ(Map(5, {2, 2}, {3, 3}), 2u);     // row 1, column 2 wraps to 0
    EXPECT_EQ(Map(7, {2, 2}, {3, 3}), 1u);     // row 2 wraps to 0
    EXPECT_EQ(Map(5, {2, 5}, {2, 3}), 7u);     // a longer dimension: row 1, column 2
    EXPECT_EQ(Map(5, {2, 2, 3}, {2, 3}), 0u);  // more dimensions than the output
    EXPECT_EQ(Map(5, {3}, {}), 0u);
    EXPECT_EQ(Map(11, {3, 1, 2}, {2, 3, 1, 2}), 5u);
}

TEST(GetIndBroadCast, FlagDecides)
{
    Shape source = {3};
    Shape out = {2, 3};
    Shape sourceStrides = Strides(source);
    Shape outStrides = Strides(out);
    const auto map = [&](uint64_t packed) {
        return GetIndBroadCast(packed, Pair(sourceStrides), Pair(outStrides), Pair(source), Pair(out));
    };
    EXPECT_EQ(GenSrcIdxFlag(4, 1), 0x100000004u);
    EXPECT_EQ(GenSrcIdxFlag(0xFFFFFFFFu, -1), 0xFFFFFFFFFFu);
    EXPECT_EQ(GenSrcIdxFlag(7, 0x100), 7u);
    EXPECT_EQ(map(GenSrcIdxFlag(4, 0)), 4u);
    EXPECT_EQ(map(GenSrcIdxFlag(4, 1)), 1u);
    EXPECT_EQ(map(GenSrcIdxFlag(4, 0x80)), 1u);
    EXPECT_EQ(map(0xFFFFFF0000000004u), 4u);  // only the eight bits of the flag count
}

uint32_t RandomPitch(Random& random, uint32_t width)
{
    return random.Chance(0.5) ? width : random.Stride(width) / 4;
}

size_t Padded(uint32_t n, const RowShape& rows)
{
    const uint32_t width = rows.shape[rows.dimNum - 1];
    return size_t{n / width} * rows.rowPitch + n % width;
}

template <uint32_t N>
void CompareWithMapping(Random& random)
{
    const Shape out = random.Shape(1, random.OneOf({5U, 5U, 5U, 10U, 14U}), 3000);
    const RowShape outRows = {out.data(), static_cast<uint32_t>(out.size()), RandomPitch(random, out.back())};
    Shape shapes[N];
    RowShape operands[N];
    for (uint32_t k = 0; k < N; ++k) {
        shapes[k] = OperandShape(random, out);
        operands[k] = {shapes[k].data(), static_cast<uint32_t>(shapes[k].size()),
                       RandomPitch(random, shapes[k].back())};
    }
    uint32_t next = 0;
    size_t mismatches = 0;
    ForEachBroadcastRun(outRows, operands,
                        [&](size_t to, const size_t(&from)[N], const uint32_t(&steps)[N], uint32_t length) {
                            mismatches += length == 0;
                            for (uint32_t i = 0; i < length; ++i, ++next) {
                                mismatches += to + i != Padded(next, outRows);
                                for (uint32_t k = 0; k < N; ++k) {
                                    const size_t source = Padded(Map(next, shapes[k], out), operands[k]);
                                    mismatches += steps[k] > 1 || from[k] + i * steps[k] != source;
                                }
                            }
                        });
    EXPECT_EQ(next, ElementCount(out));
    for (const Shape& shape : shapes) {
        EXPECT_EQ(mismatches, 0u) << modelkit::ShapeText(shape) << " against " << modelkit::ShapeText(out);
    }
}

TEST(ForEachBroadcastRun, SameAsBroadCast)
{
    ForRandomCases(300, CompareWithMapping<1>);
    ForRandomCases(300, CompareWithMapping<2>);
    ForRandomCases(150, CompareWithMapping<3>);
}

struct RunRecord {
    size_t to;
    size_t from;
    uint32_t step;
    uint32_t length;
    bool operator==(const RunRecord&) const = default;
};

std::vector<RunRecord> Runs(const Shape& operand, uint32_t pitch, const Shape& out, uint32_t outPitch)
{
    const RowShape outRows = {out.data(), static_cast<uint32_t>(out.size()), outPitch};
    const RowShape operands[1] = {{operand.data(), static_cast<uint32_t>(operand.size()), pitch}};
    std::vector<RunRecord> runs;
    ForEachBroadcastRun(outRows, operands,
                        [&](size_t to, const size_t(&from)[1], const uint32_t(&steps)[1], uint32_t length) {
                            runs.push_back({to, from[0], steps[0], length});
                        });
    return runs;
}

TEST(ForEachBroadcastRun, MergesWhatItCan)
{
    EXPECT_THAT(Runs({2, 3}, 3, {2, 3}, 3), ElementsAre(RunRecord{0, 0, 1, 6}));
    EXPECT_THAT(Runs({1, 1}, 1, {2, 3}, 3), ElementsAre(RunRecord{0, 0, 0, 6}));
    EXPECT_THAT(Runs({2, 1, 1}, 1, {2, 3, 2}, 2), ElementsAre(RunRecord{0, 0, 0, 6}, RunRecord{6, 1, 0, 6}));
    EXPECT_THAT(Runs({3, 2}, 2, {2, 3, 2}, 2), ElementsAre(RunRecord{0, 0, 1, 6}, RunRecord{6, 0, 1, 6}));
    EXPECT_THAT(Runs({2, 3}, 4, {2, 3}, 8), ElementsAre(RunRecord{0, 0, 1, 3}, RunRecord{8, 4, 1, 3}));
}

TEST(ForEachBroadcastRun, CutsADimensionThatWrapsIntoWholeParts)
{
    EXPECT_THAT(Runs({2}, 2, {6}, 6), ElementsAre(RunRecord{0, 0, 1, 2}, RunRecord{2, 0, 1, 2}, RunRecord{4, 0, 1, 2}));
    EXPECT_THAT(Runs({2, 3}, 3, {4, 3}, 3), ElementsAre(RunRecord{0, 0, 1, 6}, RunRecord{6, 0, 1, 6}));
    EXPECT_THAT(Runs({2, 1}, 1, {4, 3}, 3), ElementsAre(RunRecord{0, 0, 0, 3}, RunRecord{3, 1, 0, 3},
                                                        RunRecord{6, 0, 0, 3}, RunRecord{9, 1, 0, 3}));
}

TEST(ForEachBroadcastRun, WalksByElementWhereADimensionCannotBeCut)
{
    EXPECT_THAT(Runs({2}, 2, {3}, 3), ElementsAre(RunRecord{0, 0, 1, 1}, RunRecord{1, 1, 1, 1}, RunRecord{2, 0, 1, 1}));
    EXPECT_THAT(Runs({2, 1}, 4, {3, 2}, 8),
                ElementsAre(RunRecord{0, 0, 1, 1}, RunRecord{1, 0, 1, 1}, RunRecord{8, 4, 1, 1}, RunRecord{9, 4, 1, 1},
                            RunRecord{16, 0, 1, 1}, RunRecord{17, 0, 1, 1}));
}

// What one operand alone allows, 2 or 3 times in 6, the two together do not.
TEST(ForEachBroadcastRun, TwoOperandsThatWrapDifferently)
{
    const Shape out = {6};
    const Shape shapes[] = {{2}, {3}};
    const RowShape operands[] = {{shapes[0].data(), 1, 2}, {shapes[1].data(), 1, 3}};
    std::vector<size_t> offsets;
    ForEachBroadcastRun({out.data(), 1, 6}, operands,
                        [&](size_t to, const size_t(&from)[2], const uint32_t(&)[2], uint32_t length) {
                            EXPECT_EQ(to, offsets.size() / 2);
                            EXPECT_EQ(length, 1u);
                            offsets.insert(offsets.end(), {from[0], from[1]});
                        });
    EXPECT_THAT(offsets, ElementsAre(0, 0, 1, 1, 0, 2, 1, 0, 0, 1, 1, 2));
}

// Only the wrapped count of elements is walked, as an index of 32 bits would do.
TEST(ForEachBroadcastRun, CountThatWraps)
{
    EXPECT_THAT(Runs({1}, 1, {0x10001, 0x10000}, 0x10000), ElementsAre(RunRecord{0, 0, 0, 0x10000}));
    EXPECT_THAT(Runs({0x10001, 1}, 1, {0x10001, 0x10000}, 0x10000), ElementsAre(RunRecord{0, 0, 0, 0x10000}));
}

TEST(CopyBroadcast, MovesRunsAndRepeatsElements)
{
    const std::vector<float> values = {1, 2, 3, 4};
    const uint32_t out[] = {2, 2, 2};
    const uint32_t columns[] = {2, 2, 1};
    const uint32_t rows[] = {2, 1, 2};
    std::vector<float> to(8);
    CopyBroadcast(to.data(), CompactShape(out, 3), values.data(), CompactShape(columns, 3));
    EXPECT_THAT(to, ElementsAre(1, 1, 2, 2, 3, 3, 4, 4));
    CopyBroadcast(to.data(), CompactShape(out, 3), values.data(), CompactShape(rows, 3));
    EXPECT_THAT(to, ElementsAre(1, 2, 1, 2, 3, 4, 3, 4));
}

TEST(ForEachBroadcastRun, OperandOfAHigherRankStandsAtItsFirstElement)
{
    EXPECT_THAT(Runs({1, 2, 3}, 3, {2, 3}, 3), ElementsAre(RunRecord{0, 0, 0, 6}));
    Shape out(11, 1);
    Shape operand(12, 1);
    out.back() = operand.back() = 2;
    EXPECT_THAT(Runs(operand, 2, out, 2), ElementsAre(RunRecord{0, 0, 0, 2}));
}

TEST(ForEachBroadcastRun, EmptyOutput)
{
    EXPECT_THAT(Runs({3}, 3, {0, 3}, 3), IsEmpty());
    EXPECT_THAT(Runs({0}, 0, {2, 0}, 0), IsEmpty());
}

}  // namespace
}  // namespace opkit
