// Nests against odometers: which axes are dropped or merged, and that the walk visits every position in order.

#include "common/loop_nest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

template <uint32_t N>
using Positions = std::vector<std::array<size_t, N>>;  // the offset of each operand

// Axis by axis, nothing dropped or merged; the innermost axis comes first.
template <uint32_t N>
Positions<N> Odometer(const std::vector<LoopAxis<N>>& axes)
{
    Positions<N> positions;
    std::vector<size_t> index(axes.size());
    for (const LoopAxis<N>& axis : axes) {
        if (axis.extent == 0) {
            return positions;
        }
    }
    for (size_t turned = 0; turned < axes.size() || positions.empty();) {
        std::array<size_t, N> offsets = {};
        for (size_t i = 0; i < axes.size(); ++i) {
            for (uint32_t n = 0; n < N; ++n) {
                offsets[n] += index[i] * axes[i].steps[n];
            }
        }
        positions.push_back(offsets);
        for (turned = 0; turned < axes.size() && ++index[turned] == axes[turned].extent; ++turned) {
            index[turned] = 0;
        }
    }
    return positions;
}

template <uint32_t N>
LoopNest<N> NestOf(const std::vector<LoopAxis<N>>& axes)
{
    LoopNest<N> nest;
    for (const LoopAxis<N>& axis : axes) {
        nest.AddOuter(axis);
    }
    return nest;
}

template <uint32_t N>
std::array<size_t, N> Stand(const LoopWalk<N>& walk)
{
    std::array<size_t, N> offsets;
    for (uint32_t n = 0; n < N; ++n) {
        offsets[n] = walk.Offset(n);
    }
    return offsets;
}

template <uint32_t N>
Positions<N> Walked(const LoopNest<N>& nest)
{
    Positions<N> positions;
    for (LoopWalk<N> walk(nest); !walk.Done(); walk.Next()) {
        positions.push_back(Stand(walk));
    }
    return positions;
}

std::vector<size_t> Extents(const std::vector<LoopAxis<2>>& axes)
{
    const LoopNest<2> nest = NestOf(axes);
    std::vector<size_t> extents;
    for (uint32_t i = 0; i < nest.count; ++i) {
        extents.push_back(nest.axes[i].extent);
    }
    return extents;
}

TEST(LoopNest, DropsAxesOfExtentOne)
{
    EXPECT_THAT(Extents({{1, {1, 1}}}), IsEmpty());
    EXPECT_THAT(Extents({{1, {7, 7}}, {3, {4, 1}}, {1, {0, 5}}, {2, {99, 0}}}), ElementsAre(3, 2));
}

TEST(LoopNest, MergesWhatGoesOnInEveryOperand)
{
    EXPECT_THAT(Extents({{3, {1, 1}}, {5, {4, 3}}, {2, {20, 15}}}), ElementsAre(3, 10)) << "the example of the header";
    EXPECT_THAT(Extents({{3, {1, 1}}, {5, {3, 3}}, {2, {15, 15}}}), ElementsAre(30));
    EXPECT_THAT(Extents({{3, {1, 0}}, {5, {3, 0}}, {2, {15, 1}}}), ElementsAre(15, 2)) << "one stands still";
    EXPECT_THAT(Extents({{3, {1, 1}}, {5, {3, 4}}}), ElementsAre(3, 5)) << "only the first goes on";
    EXPECT_THAT(Extents({{3, {1, 1}}, {5, {4, 3}}}), ElementsAre(3, 5)) << "only the second goes on";
    EXPECT_THAT(Extents({{3, {2, 1}}, {1, {9, 9}}, {5, {6, 3}}}), ElementsAre(15)) << "over a dropped axis";
}

TEST(LoopNest, MergedAxesKeepTheInnerSteps)
{
    LoopNest<2> nest = NestOf<2>({{3, {2, 5}}, {4, {6, 15}}});
    const LoopAxis<2> axis = nest.Take(0);
    EXPECT_EQ(axis.extent, 12u);
    EXPECT_THAT(axis.steps, ElementsAre(2, 5));
    EXPECT_EQ(nest.count, 0u);
}

TEST(LoopNest, TakesAnyAxis)
{
    const std::vector<LoopAxis<1>> axes = {{2, {100}}, {3, {10}}, {2, {1}}};
    for (uint32_t i = 0; i < 3; ++i) {
        LoopNest<1> nest = NestOf(axes);
        const LoopAxis<1> taken = nest.Take(i);
        EXPECT_EQ(taken.extent, axes[i].extent);
        EXPECT_EQ(taken.steps[0], axes[i].steps[0]);
        std::vector<LoopAxis<1>> rest = axes;
        rest.erase(rest.begin() + i);
        EXPECT_EQ(Walked(nest), Odometer(rest));
        const LoopAxis<1> none = nest.Take(2);
        EXPECT_EQ(none.extent, 1u);
        EXPECT_EQ(none.steps[0], 0u);
        EXPECT_EQ(nest.count, 2u);
    }
}

TEST(LoopWalk, OnePositionWithoutAxesNoneWithoutExtent)
{
    EXPECT_THAT(Walked(LoopNest<3>()), ElementsAre(std::array<size_t, 3>{0, 0, 0}));
    EXPECT_THAT(Walked(NestOf<1>({{3, {1}}, {0, {7}}, {2, {4}}})), IsEmpty());
    EXPECT_THAT(Walked(NestOf<1>({{0, {1}}, {2, {4}}})), IsEmpty());
    EXPECT_THAT(Walked(NestOf<1>({{3, {1}}, {0, {3}}})), IsEmpty()) << "merged";
}

TEST(LoopWalk, StartsAgainBehindTheEnd)
{
    const LoopNest<1> nest = NestOf<1>({{2, {5}}, {2, {1}}});
    LoopWalk<1> walk(nest);
    std::vector<size_t> offsets;
    for (int i = 0; i < 6; ++i, walk.Next()) {
        EXPECT_EQ(walk.Done(), i >= 4);
        offsets.push_back(walk.Offset(0));
    }
    EXPECT_THAT(offsets, ElementsAre(0, 5, 1, 6, 0, 5));
}

// 40 axes that cannot be merged: the innermost 32 are as many as a count of 32 bits reaches.
TEST(LoopWalk, MoreAxesThanThereIsRoomFor)
{
    std::vector<LoopAxis<1>> axes;
    for (size_t i = 0; i < 40; ++i) {
        axes.push_back({2, {size_t{1} << (40 - i)}});
    }
    const LoopNest<1> nest = NestOf(axes);
    EXPECT_EQ(nest.count, kMaxLoopAxes);
    LoopWalk<1> walk(nest);
    size_t wrong = 0;
    for (size_t i = 0; i < 100000; ++i, walk.Next()) {
        size_t expected = 0;
        for (size_t bit = 0; bit < 40; ++bit) {
            expected += (i >> bit & 1) << (40 - bit);
        }
        wrong += walk.Offset(0) != expected || walk.Done();
    }
    EXPECT_EQ(wrong, 0u);
}

// Axes that often have extent 1 or 0, and steps that often go on where the axis inside ends.
template <uint32_t N>
void CompareWithOdometer(Random& random)
{
    std::vector<LoopAxis<N>> axes(static_cast<size_t>(random.Int(0, 6)));
    for (size_t i = 0; i < axes.size(); ++i) {
        axes[i].extent = random.Chance(0.03) ? 0 : static_cast<size_t>(random.Int(1, 4));
        for (uint32_t n = 0; n < N; ++n) {
            const size_t next = i > 0 ? axes[i - 1].extent * axes[i - 1].steps[n] : 1;
            axes[i].steps[n] = random.Chance(0.8) ? next : static_cast<size_t>(random.Int(0, 9));
        }
    }
    const LoopNest<N> nest = NestOf(axes);
    EXPECT_EQ(Walked(nest), Odometer(axes));
    for (uint32_t i = 0; i < nest.count; ++i) {
        EXPECT_NE(nest.axes[i].extent, 1u);
    }
}

TEST(LoopWalk, SameAsOdometer)
{
    ForRandomCases(400, CompareWithOdometer<1>);
    ForRandomCases(400, CompareWithOdometer<2>);
    ForRandomCases(400, CompareWithOdometer<3>);
}

}  // namespace
}  // namespace opkit
