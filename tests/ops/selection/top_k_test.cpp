// TopK and its comparators.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/lines.h"
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

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

void SetTopK(LayerCase& layer, uint32_t k, int32_t axis, uint32_t largest, bool values = true, bool indices = true)
{
    TopKAttr& attr = layer.Attr<TopKAttr>();
    attr.k = k;
    attr.axis = axis;
    attr.largest = largest;
    attr.hasValues = values ? 1 : 0;
    attr.hasIndices = indices ? 1 : 0;
}

struct TopKResult {
    std::vector<float> values;
    std::vector<float> indices;
};

TopKResult TopKOf(const std::vector<float>& line, uint32_t k, uint32_t largest)
{
    const auto count = static_cast<uint32_t>(line.size());
    LayerCase layer("TopKOpkitForward");
    layer.Online({count}, line).Output({k}).Output({k}).Workspace(8 * count);
    SetTopK(layer, k, 0, largest);
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    return {world.Output(0), world.Output(1)};
}

TEST(TopK, EqualValuesKeepTheirOrder)
{
    const TopKResult largest = TopKOf({3, 1, 3}, 2, 1);
    EXPECT_THAT(largest.values, ElementsAre(3, 3));
    EXPECT_THAT(largest.indices, ElementsAre(0, 2));
    const TopKResult smallest = TopKOf({1, 2, 1}, 2, 0);
    EXPECT_THAT(smallest.values, ElementsAre(1, 1));
    EXPECT_THAT(smallest.indices, ElementsAre(0, 2));
    EXPECT_THAT(TopKOf({1, 3, 2}, 3, 256).values, ElementsAre(3, 2, 1));
    EXPECT_THAT(TopKOf({1, 1.0000005f}, 2, 1).indices, ElementsAre(1, 0));
    EXPECT_THAT(TopKOf({0.0f, -0.0f, 0.0f}, 3, 1).indices, ElementsAre(0, 1, 2));
}

// A comparison with a NaN keeps the left entry; its bits move.
TEST(TopK, Nan)
{
    EXPECT_THAT(TopKOf({kNan, 5}, 2, 1).indices, ElementsAre(0, 1));
    EXPECT_THAT(TopKOf({5, kNan}, 2, 1).indices, ElementsAre(0, 1));
    EXPECT_THAT(TopKOf({1, kNan, 5}, 3, 1).indices, ElementsAre(0, 1, 2));  // 1 meets the NaN first, 5 stays behind it
    EXPECT_THAT(TopKOf({1, 5, kNan}, 3, 1).indices, ElementsAre(1, 0, 2));
    LayerCase layer("TopKOpkitForward");
    CaseTensor bits = {{2}, {}, 0, {0x7f800001, 0xffc12345}};
    layer.Online(bits).Output({2}).Workspace(16);
    SetTopK(layer, 2, 0, 1, true, false);
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    EXPECT_EQ(memcmp(world.OutputRows().data(), bits.raw.data(), 8), 0);
}

TEST(TopK, InnerAxis)
{
    std::vector<float> data(24);
    std::vector<float> values;
    std::vector<float> indices;
    for (size_t i = 0; i < 24; ++i) {
        data[i] = static_cast<float>((i * 7) % 24);
    }
    for (size_t o = 0; o < 2; ++o) {  // the largest of each column of three
        for (size_t i = 0; i < 4; ++i) {
            size_t best = 0;
            for (size_t c = 1; c < 3; ++c) {
                best = data[o * 12 + c * 4 + i] > data[o * 12 + best * 4 + i] ? c : best;
            }
            values.push_back(data[o * 12 + best * 4 + i]);
            indices.push_back(static_cast<float>(best));
        }
    }
    LayerCase layer("TopKOpkitForward");
    layer.Online({2, 3, 4}, data, 32).Output({2, 1, 4}, 20).Output({2, 1, 4}, 16).Workspace(24);
    SetTopK(layer, 1, 1, 1);
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAreArray(values));
    EXPECT_THAT(world.Output(1), ElementsAreArray(indices));
}

// The count comes from the second online tensor, truncated, also when the values are offline.
TEST(TopK, CountFromInput)
{
    for (const bool offline : {false, true}) {
        LayerCase layer("TopKOpkitForward");
        if (offline) {
            layer.Offline({4}, {1, 4, 2, 3}).Online({1}, {9});
        } else {
            layer.Online({4}, {1, 4, 2, 3});
        }
        layer.Online({1}, {2.9f}).Output({3}).Workspace(32);
        SetTopK(layer, OPKIT_TOPK_K_FROM_INPUT, 0, 1, true, false);
        World world(layer);
        const float untouched = world.OutputRows()[2];
        EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
        EXPECT_EQ(world.Output()[0], 4.0f);
        EXPECT_EQ(world.Output()[1], 3.0f);
        EXPECT_EQ(memcmp(&world.OutputRows()[2], &untouched, 4), 0);
    }
}

TEST(TopK, WhichOutputs)
{
    LayerCase indices("TopKOpkitForward");
    indices.Online({3}, {5, 9, 7}).Output({2}).Workspace(24);
    SetTopK(indices, 2, 0, 1, false, true);
    World indexWorld(indices);
    EXPECT_EQ(indexWorld.RunDirect(TopKOpkitForward), 0u);
    EXPECT_THAT(indexWorld.Output(), ElementsAre(1, 2));

    for (const bool values : {false, true}) {  // nothing to write: neither flag, or a k of 0
        LayerCase none("TopKOpkitForward");
        none.Online({3}, {5, 9, 7}).Output({2}).Output({2}).Workspace(24);
        SetTopK(none, values ? 0 : 2, 0, 1, values, values);
        World world(none);
        const World before = world.Clone();
        EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
        EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    }
}

// A k beyond the line goes on with what the work space holds.
TEST(TopK, CountBeyondLine)
{
    LayerCase layer("TopKOpkitForward");
    layer.Online({2, 2}, {1, 2, 4, 3}).Output({2, 3}).Output({2, 3}, 16).Workspace(24);
    SetTopK(layer, 3, 1, 1);
    layer.Tamper([](World& world) {
        const SortEntry entry = {42.5f, 17};
        memcpy(static_cast<char*>(world.Param().opkitBuf) + world.Layer().bufOffset + 16, &entry, 8);
    });
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(2, 1, 42.5f, 4, 3, 42.5f));
    EXPECT_THAT(world.Output(1), ElementsAre(1, 0, 17, 0, 1, 17));
    ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
}

// The indices are addressed by the width of the values' rows.
TEST(TopK, OneWidthForBothOutputs)
{
    LayerCase layer("TopKOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 6, 5, 4}).Output({2, 2}).Output({1, 8}).Workspace(24);
    SetTopK(layer, 2, 1, 1);
    layer.Tamper([](World& world) { world.Param().outputs[1].stride = 16; });
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    const auto rows = world.OutputRows(1);
    EXPECT_THAT(std::vector<float>(rows.begin(), rows.begin() + 2), ElementsAre(2, 1));
    EXPECT_THAT(std::vector<float>(rows.begin() + 4, rows.begin() + 6), ElementsAre(0, 1));
    ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
}

// A line that is longer than the output's rows goes on in the next ones.
TEST(TopK, LinesOverSeveralRows)
{
    LayerCase layer("TopKOpkitForward");
    layer.Online({2, 5}, {1, 2, 3, 4, 5, 10, 9, 8, 7, 6}).Output({4, 3}, 16).Output({4, 3}, 16).Workspace(40);
    SetTopK(layer, 5, 1, 1);
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
    const auto firstTen = [&world](size_t output) {
        std::vector<float> all = world.Output(output);
        all.resize(10);
        return all;
    };
    EXPECT_THAT(firstTen(0), ElementsAre(5, 4, 3, 2, 1, 10, 9, 8, 7, 6));
    EXPECT_THAT(firstTen(1), ElementsAre(4, 3, 2, 1, 0, 0, 1, 2, 3, 4));
    ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
}

TEST(TopK, NoLines)
{
    LayerCase layer("TopKOpkitForward");
    layer.Online({0, 3}, {}).Output({2}).Workspace(24);
    SetTopK(layer, 2, 1, 1, true, false);
    layer.Tamper([](World& world) { world.Param().outputs[0].stride = 0; });
    World world(layer);
    EXPECT_EQ(world.RunDirect(TopKOpkitForward), 0u);
}

TEST(TopK, Messages)
{
    LayerCase layer("TopKOpkitForward");
    layer.Offline({3}, {1, 2, 3}).Output({1}).Workspace(24);
    SetTopK(layer, 1, 0, 1);
    layer.Tamper([](World& world) { world.Attr<TopKAttr>().head.offlineShape[0].dimNum = 0; });
    World world(layer);
    const RunResult run = RunCaptured(world, TopKOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "[TopKOpkitForward:#]ParseInputInfo failed.\n\n");

    LayerCase online("TopKOpkitForward");
    online.Online({3}, {1, 2, 3}).Output({1}).Workspace(24);
    online.Tamper([](World& w) { w.Layer().inputNum = 0; });
    World onlineWorld(online);
    const RunResult onlineRun = RunCaptured(onlineWorld, TopKOpkitForward);
    EXPECT_EQ(onlineRun.result, UINT32_MAX);
    EXPECT_EQ(onlineRun.messages, "[TopKOpkitForward:#]ParseInputInfo failed.\n\n");
}

TEST(TopK, OutOfMemory)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    LayerCase layer("TopKOpkitForward");
    layer.Online({300}, Random(1).Floats(300, Values::kPlain)).Output({300}).Output({300}).Workspace(2400);
    SetTopK(layer, 300, 0, 1);
    for (uint64_t n = 0;; ++n) {
        World world(layer);
        LayerParam param = {};
        ASSERT_EQ(ParseLayerParam(&world.Param(),
                                  reinterpret_cast<const uint32_t*>(world.ModelBytes().data() +
                                                                    world.ModelInfo().tables[0].layerTableOffset)[1],
                                  &param, 0),
                  0u);
        CaptureStdout capture;
        AllocFault fault(n);
        const uint32_t result = TopKOpkitForward(&param);
        fault.Disarm();
        const std::string messages = NormalizeMessages(capture.Stop());
        ReleaseLayerParam(&param);
        EXPECT_EQ(fault.Live(), 0);
        if (fault.Seen() <= n) {
            EXPECT_EQ(result, 0u);
            break;
        }
        EXPECT_EQ(result, UINT32_MAX);
        EXPECT_THAT(messages, ::testing::MatchesRegex("\\[TopKOpkitForward:#\\]Malloc [0-9]+ failed!\n\n"));
    }
}

TEST(TopK, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const Shape shape = random.Shape(1, 4, random.Chance(0.2) ? 3000 : 600);
        const int32_t axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        const uint32_t length = shape[static_cast<size_t>(axis)];
        const uint32_t k = static_cast<uint32_t>(random.Int(random.Chance(0.05) ? 0 : 1, static_cast<int32_t>(length)));
        const auto data =
            random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kIntegers, Values::kBits}));
        LayerCase layer("TopKOpkitForward");
        const bool offline = random.Chance(0.3);
        if (offline) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const bool fromInput = !offline && random.Chance(0.3);
        if (fromInput) {
            layer.Online({1}, {static_cast<float>(k) + 0.75f});
        }
        Shape out = shape;
        out[static_cast<size_t>(axis)] = k == 0 ? 1 : k;
        if (random.Chance(0.15)) {
            out = random.Chance(0.5) ? Shape{static_cast<uint32_t>(ElementCount(out))}
                                     : Shape{static_cast<uint32_t>(ElementCount(out)), 1};
        }
        const bool values = random.Chance(0.8);
        const bool indices = random.Chance(0.8);
        layer.Output(out, random.Stride(out.back())).Output(out, random.Stride(out.back()));
        SetTopK(layer, fromInput ? OPKIT_TOPK_K_FROM_INPUT : k, axis, random.OneOf({0u, 1u, 9u}), values, indices);
        layer.Workspace(8 * length).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
    });
}

TEST(TopK, LongLines)
{
    for (const uint32_t count : {127u, 128u, 129u, 1000u, 4097u}) {
        for (const uint32_t largest : {0u, 1u}) {
            for (const Values kind : {Values::kMixed, Values::kUnit, Values::kIntegers}) {
                LayerCase layer("TopKOpkitForward");
                layer.Online({2, count}, Random(count).Floats(2 * count, kind)).Output({2, count}).Output({2, count});
                layer.Workspace(8 * count);
                SetTopK(layer, count, 1, largest);
                ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
            }
        }
    }
}

// Few entries of long lines: selected where no NaN stands in the line, from wherever one stands merged.
TEST(TopK, FewOfLongLines)
{
    ForRandomCases(120, [](Random& random) {
        const auto count = static_cast<uint32_t>(random.Int(1, 700));
        const auto inner = static_cast<uint32_t>(random.Int(1, 3));
        const auto k = static_cast<uint32_t>(random.Int(1, 45));
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed});
        std::vector<float> data = random.Floats(uint64_t{count} * inner, kind);
        if (kind == Values::kPlain && random.Chance(0.3)) {
            std::sort(data.begin(), data.end());  // every element enters, or none
        }
        if (random.Chance(0.3)) {
            data[static_cast<size_t>(random.Int(0, static_cast<int32_t>(data.size()) - 1))] = kNan;
        }
        LayerCase layer("TopKOpkitForward");
        layer.Online({count, inner}, data, random.Stride(inner)).Output({k, inner}).Output({k, inner});
        layer.Workspace(8 * std::max(count, k));
        SetTopK(layer, k, 0, random.OneOf({0u, 1u}));
        ExpectSameAsReference(layer, TopKOpkitForward, RefTopK);
    });
}

TEST(TopK, Comparators)
{
    const auto down = [](SortEntry a, SortEntry b) { return TopkDecSort(&a, &b); };
    const auto up = [](SortEntry a, SortEntry b) { return TopkAscSort(&a, &b); };
    EXPECT_EQ(down({1, 0}, {2, 1}), 1);
    EXPECT_EQ(down({2, 0}, {1, 1}), -1);
    EXPECT_EQ(down({1, 0}, {1, 1}), -1);
    EXPECT_EQ(down({1, 1}, {1, 0}), 1);
    EXPECT_EQ(down({1.0000005f, 1}, {1, 0}), 1);  // both ways round
    EXPECT_EQ(down({1, 0}, {1.0000005f, 1}), 1);
    EXPECT_EQ(down({kNan, 1}, {1, 0}), -1);
    EXPECT_EQ(down({kInf, 1}, {kInf, 0}), -1);
    EXPECT_EQ(up({2, 0}, {1, 1}), 1);
    EXPECT_EQ(up({1, 0}, {2, 1}), -1);
    EXPECT_EQ(up({1, 1}, {1, 0}), 1);
    EXPECT_EQ(up({1, 1}, {1.0000005f, 0}), 1);
    EXPECT_EQ(up({1, 1}, {kNan, 0}), -1);
    ForRandomCases(500, [&](Random& random) {
        const SortEntry a = {random.Float(Values::kMixed), random.Int(0, 3)};
        const SortEntry b = {random.Chance(0.3) ? a.value : random.Float(Values::kMixed), random.Int(0, 3)};
        EXPECT_EQ(down(a, b), RefTopkDec(a, b));
        EXPECT_EQ(up(a, b), RefTopkAsc(a, b));
    });
}

}  // namespace
}  // namespace opkit
