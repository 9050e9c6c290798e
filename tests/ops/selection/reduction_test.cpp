// Reduction and its exported helpers.

#include "tests/reference/reduction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/support/overlap.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kLowest = -3.4028235e38f;

void SetReduction(LayerCase& layer, uint32_t type, const std::vector<uint32_t>& axes, bool all = false)
{
    ReductionAttr& attr = layer.Attr<ReductionAttr>();
    std::copy(axes.begin(), axes.end(), attr.axes);
    attr.axesNum = static_cast<uint32_t>(axes.size());
    attr.reductionType = type;
    attr.reduceAll = all ? 1 : 0;
    layer.Workspace(80);
}

std::vector<float> Reduce(uint32_t type, const Shape& shape, const std::vector<float>& data,
                          const std::vector<uint32_t>& axes, const Shape& outShape, bool all = false)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online(shape, data).Output(outShape);
    SetReduction(layer, type, axes, all);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReductionOpkitForward), 0u);
    return world.Output();
}

TEST(Reduction, Kinds)
{
    const Shape shape = {2, 3};
    const std::vector<float> data = {1, -2, 3, 4, 0.5f, -8};
    const auto rows = [&](uint32_t type) { return Reduce(type, shape, data, {1}, {2, 1}); };
    EXPECT_THAT(rows(OPKIT_REDUCE_SUM), ElementsAre(2, -3.5f));
    EXPECT_THAT(rows(OPKIT_REDUCE_L1), ElementsAre(6, 12.5f));
    EXPECT_THAT(rows(OPKIT_REDUCE_SUM_SQUARE), ElementsAre(14, 80.25f));
    EXPECT_THAT(rows(OPKIT_REDUCE_MEAN), ElementsAre(2.0f / 3, -3.5f / 3));
    EXPECT_THAT(rows(OPKIT_REDUCE_L2), ElementsAre(sqrtf(14), sqrtf(80.25f)));
    EXPECT_THAT(rows(OPKIT_REDUCE_MAX), ElementsAre(3, 4));
    EXPECT_THAT(rows(OPKIT_REDUCE_MIN), ElementsAre(-2, -8));
    EXPECT_THAT(rows(OPKIT_REDUCE_PROD), ElementsAre(-6, -16));
    EXPECT_THAT(rows(10), ElementsAre(0, 0));
    EXPECT_THAT(rows(259), ElementsAre(0, 0));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_LOG_SUM, {2}, {2, 6}, {0}, {1}), ElementsAre(2.0794415f));
    // Three elements of 0 give log 3; large ones overflow, since no maximum is subtracted.
    EXPECT_THAT(Reduce(OPKIT_REDUCE_LOG_SUM_EXP, {3}, {0, 0, 0}, {0}, {1}), ElementsAre(1.0986123f));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_LOG_SUM_EXP, {1}, {89}, {0}, {1}), ElementsAre(kInf));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_LOG_SUM_EXP, {1}, {-200}, {0}, {1}), ElementsAre(-kInf));
}

TEST(Reduction, Axes)
{
    const Shape shape = {2, 3};
    const std::vector<float> data = {1, 2, 3, 10, 20, 30};
    EXPECT_THAT(Reduce(0, shape, data, {1}, {2, 1}), ElementsAre(6, 60));
    EXPECT_THAT(Reduce(0, shape, data, {0}, {3}), ElementsAre(11, 22, 33));
    EXPECT_THAT(Reduce(0, shape, data, {0, 1}, {1}), ElementsAre(66));
    EXPECT_THAT(Reduce(0, shape, data, {1, 0}, {1, 1}), ElementsAre(66));
    EXPECT_THAT(Reduce(0, shape, data, {1, 1}, {2}), ElementsAre(6, 60));
    EXPECT_THAT(Reduce(0, shape, data, {2}, {2, 3}), ElementsAre(1, 2, 3, 10, 20, 30));
    EXPECT_THAT(Reduce(0, shape, data, {0xFFFFFFFF}, {2, 3}), ElementsAre(1, 2, 3, 10, 20, 30));
    EXPECT_THAT(Reduce(0, shape, data, {}, {2, 3}), ElementsAre(1, 2, 3, 10, 20, 30));
    EXPECT_THAT(Reduce(0, {2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, {0, 2}, {2}), ElementsAre(14, 22));
    EXPECT_THAT(Reduce(0, {2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, {1}, {2, 2}), ElementsAre(4, 6, 12, 14));
    // All of them, whatever the axes say; the other outputs keep the initial value and take the final step.
    EXPECT_THAT(Reduce(0, shape, data, {0}, {3}, true), ElementsAre(66, 0, 0));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MEAN, shape, data, {0}, {3}, true), ElementsAre(33, 0, 0));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_LOG_SUM, {2}, {0.25f, 0.75f}, {}, {2}, true), ElementsAre(0, -kInf));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_PROD, {2}, {3, 5}, {}, {2}, true), ElementsAre(15, 1));
}

// The divisor is the quotient of the counts, not the product of the reduced dimensions.
TEST(Reduction, MeanDividesByQuotientOfCounts)
{
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MEAN, {5}, {1, 2, 3, 4, 5}, {0}, {2}), ElementsAre(7.5f, 0));
}

TEST(Reduction, InfinitiesAndNan)
{
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MAX, {2}, {-kInf, -kInf}, {0}, {1}), ElementsAre(kLowest));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MIN, {2}, {kInf, kInf}, {0}, {1}), ElementsAre(-kLowest));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MAX, {3}, {kNan, 2, kNan}, {0}, {1}), ElementsAre(2));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MIN, {3}, {kNan, 2, kNan}, {0}, {1}), ElementsAre(2));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MAX, {1}, {kNan}, {0}, {1}), ElementsAre(kLowest));
    for (const uint32_t type : {0, 1, 2, 3, 4, 5, 6, 9}) {
        EXPECT_TRUE(std::isnan(Reduce(type, {3}, {1, kNan, 2}, {0}, {1})[0])) << type;
    }
}

TEST(Reduction, EmptyInput)
{
    const auto empty = [](uint32_t type) {
        LayerCase layer("ReductionOpkitForward");
        layer.Online({2, 0}, {}).Output({2});
        SetReduction(layer, type, {1});
        World world(layer);
        EXPECT_EQ(world.RunDirect(ReductionOpkitForward), 0u);
        return world.Output();
    };
    for (const uint32_t type : {0, 1, 2, 4}) {
        EXPECT_THAT(empty(type), ElementsAre(0, 0)) << type;
    }
    EXPECT_TRUE(std::isnan(empty(OPKIT_REDUCE_MEAN)[0]));
    EXPECT_THAT(empty(OPKIT_REDUCE_LOG_SUM), ElementsAre(-kInf, -kInf));
    EXPECT_THAT(empty(OPKIT_REDUCE_LOG_SUM_EXP), ElementsAre(-kInf, -kInf));
    EXPECT_THAT(empty(OPKIT_REDUCE_MAX), ElementsAre(kLowest, kLowest));
    EXPECT_THAT(empty(OPKIT_REDUCE_MIN), ElementsAre(-kLowest, -kLowest));
    EXPECT_THAT(empty(OPKIT_REDUCE_PROD), ElementsAre(1, 1));
}

TEST(Reduction, EmptyOutputFails)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online({2}, {1, 2}).Output({0});
    SetReduction(layer, 0, {0});
    World world(layer);
    const RunResult run = RunCaptured(world, ReductionOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "[ReductionOpkitForward:#]Illegal value, outLen is 0\n");
    ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction);
}

// The order of a sum shows: 1e8 swallows a 1 that comes after it.
TEST(Reduction, AscendingOrder)
{
    EXPECT_THAT(Reduce(0, {4}, {1, 1e8f, -1e8f, 1}, {0}, {1}), ElementsAre(1));
    EXPECT_THAT(Reduce(0, {4}, {1e8f, -1e8f, 1, 1}, {0}, {1}), ElementsAre(2));
    std::vector<float> rows;  // 20 rows of 40, each with its own order
    std::vector<float> expected;
    for (int r = 0; r < 20; ++r) {
        std::vector<float> row(40, 0.0f);
        row[static_cast<size_t>(r)] = 1e8f;
        row[static_cast<size_t>(r) + 1] = -1e8f;
        row[0] += 2.0f;  // swallowed
        row[39] += 1.0f;
        rows.insert(rows.end(), row.begin(), row.end());
        expected.push_back(1.0f);
    }
    EXPECT_EQ(Reduce(0, {20, 40}, rows, {1}, {20, 1}), expected);
}

// Every address that is computed with a zero alignment is one message; input before output.
TEST(Reduction, ZeroAlignmentReportsPerElement)
{
    const std::string in = "[GetReductionRealIdx:#]Illegal value, align = 0, width = 3\n";
    const std::string out = "[GetReductionRealIdx:#]Illegal value, align = 0, width = 2\n";
    for (const uint32_t type : {0u, 3u, 10u}) {
        LayerCase layer("ReductionOpkitForward");
        layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2});
        SetReduction(layer, type, {1});
        layer.Tamper([](World& world) { world.Param().inputs[0].stride = world.Param().outputs[0].stride = 3; });
        World world(layer);
        const RunResult run = RunCaptured(world, ReductionOpkitForward);
        EXPECT_EQ(run.result, 0u);
        std::string expected = out + out;
        for (int i = 0; i < 6; ++i) {
            expected += in + out;
        }
        EXPECT_EQ(run.messages, expected + (type == 3 ? out + out : ""));
        // All elements met at offset 0: six times the input's first; the mean divides by 3, once for each output.
        EXPECT_EQ(world.OutputRows()[0], type == 0 ? 6.0f : type == 3 ? 6.0f / 3 / 3 : 0.0f);
        ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction);
    }
}

TEST(Reduction, OneSideWithoutAlignment)
{
    for (const bool input : {false, true}) {
        LayerCase layer("ReductionOpkitForward");
        layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2, 1}, 16);
        SetReduction(layer, OPKIT_REDUCE_L2, {1});
        layer.Tamper([input](World& world) { (input ? world.Param().inputs : world.Param().outputs)[0].stride = 0; });
        ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction);
    }
}

// Entries behind axesNum count for the output distances, not for the walk.
TEST(Reduction, StaleAxes)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online({2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}).Output({2, 2});
    SetReduction(layer, 0, {0});
    layer.Attr<ReductionAttr>().axes[1] = 2;  // [1, 1, 1] instead of [4, 2, 1]
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReductionOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1 + 5, 2 + 3 + 6 + 7, 4 + 8, 0));
    ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction);
}

TEST(Reduction, AxesNumIsSigned)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online({2, 2}, {1, 2, 3, 4}).Output({2, 2});
    SetReduction(layer, 0, {1});
    layer.Attr<ReductionAttr>().axesNum = 0x80000000u;
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReductionOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2 + 3, 4, 0));  // found for the distances, not in the walk
    ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction);
}

// Accumulators in the input's own memory: a later element may be an accumulator already.
TEST(Reduction, OutputInInputMemory)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).OutputInPlace(0, {2, 3});
    SetReduction(layer, 0, {1});
    World world(layer);
    EXPECT_EQ(world.RunDirect(ReductionOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 0, 0, 0, 0));
    for (uint32_t type = 0; type < 10; ++type) {
        for (const uint32_t axis : {0u, 1u, 2u}) {
            LayerCase other("ReductionOpkitForward");
            other.Online({3, 4, 5}, Random(type + axis).Floats(60, Values::kPlain), 32).OutputInPlace(0, {3, 4, 5});
            SetReduction(other, type, {axis});
            ExpectSameAsReference(other, ReductionOpkitForward, RefReduction, {.nan = NanPolicy::kAnyNan});
        }
    }
}

// The same where the output begins inside the input, or ends there.
TEST(Reduction, OutputOverlapsInput)
{
    for (const int32_t shift : {-7, -2, 3, 20, 41}) {
        for (const uint32_t axis : {0u, 1u, 2u}) {
            Shape reduced = {3, 4, 5};
            reduced[axis] = 1;
            LayerCase layer("ReductionOpkitForward");
            layer.Online({3, 4, 5}, Random(axis).Floats(60, Values::kPlain)).Output(reduced);
            layer.Online({100}, std::vector<float>(100, 1.0f));
            SetReduction(layer, OPKIT_REDUCE_SUM, {axis});
            layer.Tamper([shift](World& world) { PlaceOutputOver(world, 0, 1, 20, shift); });
            ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction, {.nan = NanPolicy::kAnyNan});
        }
    }
}

// What is at the edge of a plan of loops: no elements, more axes than a layer's attributes name, a count that wraps.
TEST(Reduction, UnplannedShapes)
{
    EXPECT_THAT(Reduce(OPKIT_REDUCE_SUM, {0, 3}, {}, {}, {1}, true), ElementsAre(0));
    EXPECT_THAT(Reduce(OPKIT_REDUCE_MAX, {0, 3}, {}, {0}, {3}), ElementsAre(kLowest, kLowest, kLowest));
    Shape deep(11, 1);
    deep.back() = 3;
    EXPECT_THAT(Reduce(OPKIT_REDUCE_SUM, deep, {1, 2, 4}, {}, {1}, true), ElementsAre(7));

    LayerCase wraps("ReductionOpkitForward");
    wraps.Online({1, 65536}, std::vector<float>(65536, 1.0f)).Output({1});
    SetReduction(wraps, OPKIT_REDUCE_SUM, {}, true);
    World world(wraps);
    const auto manyRows = [](LayerParam* param) {
        uint32_t shape[] = {65537, 65536};
        param->inputs[0].shape = shape;
        return ReductionOpkitForward(param);
    };
    EXPECT_EQ(world.RunDirect(manyRows), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(65536));  // one row, where the count stops
}

// Accumulators behind the output's own elements start from what is there.
TEST(Reduction, OutputSmallerThanTheResult)
{
    LayerCase layer("ReductionOpkitForward");
    CaseTensor out;
    out.shape = {2, 1};
    out.data = {9, 100};
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output(out);
    SetReduction(layer, OPKIT_REDUCE_SUM, {1});
    World world(layer);
    const auto oneRow = [](LayerParam* param) {
        uint32_t shape[] = {1, 1};
        param->outputs[0].shape = shape;
        return ReductionOpkitForward(param);
    };
    EXPECT_EQ(world.RunDirect(oneRow), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(6, 115));
}

// A row of 2^32 - 1 elements has a pitch that wraps to 0; the first of them is all that counts.
TEST(Reduction, PitchBeyond32Bits)
{
    LayerCase layer("ReductionOpkitForward");
    layer.Online({3}, {1, 2, 4}).Output({1, 4});
    SetReduction(layer, OPKIT_REDUCE_SUM, {}, true);
    World world(layer);
    const auto wideRows = [](LayerParam* param) {
        uint32_t shape[] = {0xFFFFFFFFu, 0xFFFFFFFFu};  // one element
        param->outputs[0].shape = shape;
        return ReductionOpkitForward(param);
    };
    EXPECT_EQ(world.RunDirect(wideRows), 0u);
    EXPECT_EQ(world.Output()[0], 7);
}

Shape OutputShape(Random& random, const Shape& shape, const ReductionAttr& attr)
{
    Shape kept;
    Shape dropped;
    for (uint32_t k = 0; k < shape.size(); ++k) {
        const bool reduced = attr.reduceAll != 0 || std::count(attr.axes, attr.axes + attr.axesNum, k) != 0;
        kept.push_back(reduced ? 1 : shape[k]);
        if (!reduced) {
            dropped.push_back(shape[k]);
        }
    }
    const auto count = static_cast<uint32_t>(ElementCount(kept));
    switch (random.Int(0, 5)) {
        case 0:
            return {count};
        case 1:
            return {count, 1};
        case 2:
            return {2, count};
        case 3:
            return dropped.empty() ? Shape{1} : dropped;
        default:
            return kept;
    }
}

TEST(Reduction, SameAsReference)
{
    ForRandomCases(700, [](Random& random) {
        const Shape shape = random.Shape(1, 5, random.Chance(0.1) ? 20000 : 2500);
        LayerCase layer("ReductionOpkitForward");
        const uint32_t type = static_cast<uint32_t>(random.Int(0, 10));
        std::vector<uint32_t> axes;
        for (uint32_t k = 0; k < shape.size(); ++k) {
            if (random.Chance(0.45)) {
                axes.push_back(k);
            }
        }
        if (random.Chance(0.3) && !axes.empty()) {
            axes.push_back(axes[0]);
            std::swap(axes.front(), axes.back());
        }
        SetReduction(layer, type, axes, random.Chance(0.1));
        ReductionAttr& attr = layer.Attr<ReductionAttr>();
        for (size_t i = axes.size(); i < 10; ++i) {
            attr.axes[i] = axes.empty() ? 77 : axes[0];
            attr.axes[i] = random.Chance(0.05) ? static_cast<uint32_t>(random.Int(0, 4)) : attr.axes[i];
        }
        const auto kind = random.OneOf({Values::kMixed, Values::kPlain, Values::kIntegers});
        const auto data = random.Floats(ElementCount(shape), kind);
        if (random.Chance(0.25)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const Shape outShape = OutputShape(random, shape, attr);
        layer.Output(outShape, random.Stride(outShape.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction, {.nan = NanPolicy::kAnyNan});
    });
}

// Wide reductions, so that every block of every kernel is crossed.
TEST(Reduction, LongAxes)
{
    for (const Shape& shape : {Shape{3, 5000}, Shape{5000, 3}, Shape{7, 2100}, Shape{1100, 9}, Shape{2, 700, 5}}) {
        for (const uint32_t axis : {0u, 1u}) {
            for (const uint32_t type : {0u, 1u, 2u, 7u, 8u, 9u}) {
                Random random(axis + type);
                LayerCase layer("ReductionOpkitForward");
                layer.Online(shape, random.Floats(ElementCount(shape), Values::kPlain), (shape.back() + 3) * 4);
                Shape out = shape;
                out[axis] = 1;
                layer.Output(out, (out.back() + 1) * 4);
                SetReduction(layer, type, {axis});
                std::fill(layer.Attr<ReductionAttr>().axes, layer.Attr<ReductionAttr>().axes + 10, axis);
                ExpectSameAsReference(layer, ReductionOpkitForward, RefReduction, {.nan = NanPolicy::kAnyNan});
            }
        }
    }
}

TEST(Reduction, Helpers)
{
    uint32_t shape[] = {2, 3, 4};
    EXPECT_EQ(GetReductionCount(0, shape, 3), 24u);
    EXPECT_EQ(GetReductionCount(1, shape, 2), 3u);
    EXPECT_EQ(GetReductionCount(3, shape, 3), 1u);
    EXPECT_EQ(GetReductionCount(5, nullptr, 3), 1u);

    uint32_t axes[] = {7, 1, 2};
    EXPECT_EQ(ReductionFind(axes, 1, 3), 1u);
    EXPECT_EQ(ReductionFind(axes, 2, 2), 0u);
    EXPECT_EQ(ReductionFind(axes, 7, 0), 0u);
    EXPECT_EQ(ReductionFind(axes, 7, -1), 0u);

    uint32_t in[3];
    uint32_t out[3];
    GetReductionDistant(in, out, axes, shape, 3);
    EXPECT_THAT(in, ElementsAre(12, 4, 1));
    EXPECT_THAT(out, ElementsAre(1, 1, 1));
    uint32_t first[] = {0, 0};
    uint32_t small[] = {2, 3};
    GetReductionDistant(in, out, first, small, 2);
    EXPECT_THAT(std::vector<uint32_t>(in, in + 2), ElementsAre(3, 1));
    EXPECT_THAT(std::vector<uint32_t>(out, out + 2), ElementsAre(3, 1));

    EXPECT_EQ(GetReductionRealIdx(7, 4, 3), 9u);  // row 2, column 1, pitch 4
    EXPECT_EQ(GetReductionRealIdx(7, 2, 3), 9u);  // the width rounds up to 4
    EXPECT_EQ(GetReductionRealIdx(7, 1, 3), 7u);
    CaptureStdout capture;
    EXPECT_EQ(GetReductionRealIdx(7, 0, 3), 0u);
    EXPECT_EQ(GetReductionRealIdx(7, 4, 0), 0u);
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[GetReductionRealIdx:#]Illegal value, align = 0, width = 3\n"
              "[GetReductionRealIdx:#]Illegal value, align = 4, width = 0\n");
}

}  // namespace
}  // namespace opkit
