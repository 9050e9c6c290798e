// Argmin and its comparators.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
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

LayerCase ArgminCase(const Shape& shape, const std::vector<float>& data, int32_t axis, uint32_t last, const Shape& out)
{
    LayerCase layer("ArgminOpkitForward");
    layer.Online(shape, data).Output(out);
    layer.Attr<ArgminAttr>().axis = axis;
    layer.Attr<ArgminAttr>().selectLastIndex = last;
    layer.Workspace(8 * shape[static_cast<size_t>(axis)]);
    return layer;
}

float ArgminOf(const std::vector<float>& line, uint32_t last)
{
    World world(ArgminCase({static_cast<uint32_t>(line.size())}, line, 0, last, {1}));
    EXPECT_EQ(world.RunDirect(ArgminOpkitForward), 0u);
    return world.Output()[0];
}

TEST(Argmin, FirstAndLast)
{
    EXPECT_EQ(ArgminOf({3, 1, 1}, 0), 1.0f);
    EXPECT_EQ(ArgminOf({3, 1, 1}, 1), 2.0f);
    EXPECT_EQ(ArgminOf({3, 1, 1}, 256), 2.0f);
    EXPECT_EQ(ArgminOf({5}, 0), 0.0f);
    EXPECT_EQ(ArgminOf({0.0f, -0.0f}, 0), 0.0f);
    EXPECT_EQ(ArgminOf({0.0f, -0.0f}, 1), 1.0f);
    EXPECT_EQ(ArgminOf({kInf, -kInf, 2}, 0), 1.0f);
}

// Within the tolerance the strict test comes first: only `last` may prefer an element that is not the smallest.
TEST(Argmin, Tolerance)
{
    EXPECT_EQ(ArgminOf({1.0f, 1.0f - 5e-7f}, 0), 1.0f);
    EXPECT_EQ(ArgminOf({1.0f, 1.0f - 5e-7f}, 1), 1.0f);
    EXPECT_EQ(ArgminOf({1.0f, 1.0f + 5e-7f}, 0), 0.0f);
    EXPECT_EQ(ArgminOf({1.0f, 1.0f + 5e-7f}, 1), 1.0f);
    EXPECT_EQ(ArgminOf({1.0f, 1.0f + 2e-6f}, 1), 0.0f);
    // Two equal infinities are not within it.
    EXPECT_EQ(ArgminOf({-kInf, -kInf}, 1), 0.0f);
}

// A NaN is above nothing and equal to nothing, so the left one stays.
TEST(Argmin, Nan)
{
    EXPECT_EQ(ArgminOf({kNan, 1}, 0), 0.0f);
    EXPECT_EQ(ArgminOf({1, kNan}, 0), 0.0f);
    EXPECT_EQ(ArgminOf({3, kNan, 1}, 0), 0.0f);  // {3} against {NaN 1}: 3 stands against the NaN alone
    EXPECT_EQ(ArgminOf({3, 2, kNan}, 0), 1.0f);
}

TEST(Argmin, InnerAxis)
{
    std::vector<float> data(24);
    std::vector<float> expected(8);
    for (size_t g = 0; g < 8; ++g) {
        expected[g] = static_cast<float>(g % 3);
        for (size_t c = 0; c < 3; ++c) {
            data[g / 4 * 12 + c * 4 + g % 4] = c == g % 3 ? -1.0f : static_cast<float>(c);
        }
    }
    World world(ArgminCase({2, 3, 4}, data, 1, 0, {2, 1, 4}));
    EXPECT_EQ(world.RunDirect(ArgminOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAreArray(expected));
}

TEST(Argmin, UnresolvedInputIsSilent)
{
    LayerCase layer("ArgminOpkitForward");
    layer.Offline({2}, {1, 2}).Output({1}).Workspace(16);
    layer.Tamper([](World& world) { world.Attr<ArgminAttr>().head.offlineShape[0].dimNum = 0; });
    World world(layer);
    const RunResult run = RunCaptured(world, ArgminOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "");
}

TEST(Argmin, NoLines)
{
    LayerCase layer("ArgminOpkitForward");
    layer.Online({0, 3}, {}).Output({2}).Workspace(24);
    layer.Attr<ArgminAttr>().axis = 1;
    World world(layer);
    const World before = world.Clone();
    EXPECT_EQ(world.RunDirect(ArgminOpkitForward), 0u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

TEST(ArgminDeathTest, OutputWithoutWidthFaults)
{
    LayerCase layer("ArgminOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2, 0}, 16).Workspace(24);
    layer.Attr<ArgminAttr>().axis = 1;
    World world(layer);
    EXPECT_EXIT(world.RunDirect(ArgminOpkitForward), testing::KilledBySignal(SIGILL), "");
}

TEST(Argmin, OutOfMemory)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    const LayerCase layer = ArgminCase({200}, Random(1).Floats(200, Values::kPlain), 0, 0, {1});
    uint64_t failures = 0;
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
        const uint32_t result = ArgminOpkitForward(&param);
        fault.Disarm();
        const std::string messages = NormalizeMessages(capture.Stop());
        ReleaseLayerParam(&param);
        EXPECT_EQ(fault.Live(), 0);
        if (fault.Seen() <= n) {
            EXPECT_EQ(result, 0u);
            break;
        }
        ++failures;
        EXPECT_EQ(result, UINT32_MAX);
        EXPECT_EQ(messages, "[ArgminOpkitForward:#]Malloc 1600 failed!\n\n");
    }
    EXPECT_LE(failures, 1u);
}

TEST(Argmin, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 4, random.Chance(0.2) ? 3000 : 500);
        const int32_t axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        const auto data = random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kIntegers}));
        LayerCase layer("ArgminOpkitForward");
        if (random.Chance(0.3)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        Shape out = shape;
        out[static_cast<size_t>(axis)] = 1;
        if (random.Chance(0.3)) {
            out = {static_cast<uint32_t>(ElementCount(out))};
        }
        layer.Output(out, random.Stride(out.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        layer.Attr<ArgminAttr>().axis = axis;
        layer.Attr<ArgminAttr>().selectLastIndex = random.OneOf({0u, 1u, 7u});
        layer.Workspace(8 * shape[static_cast<size_t>(axis)]);
        ExpectSameAsReference(layer, ArgminOpkitForward, RefArgmin);
    });
}

TEST(Argmin, Comparators)
{
    const auto first = [](SortEntry a, SortEntry b) { return LessCompareSelectFirst(&a, &b); };
    const auto last = [](SortEntry a, SortEntry b) { return LessCompareSelectLast(&a, &b); };
    EXPECT_EQ(first({2, 0}, {1, 1}), 1);
    EXPECT_EQ(first({1, 0}, {2, 1}), 0);
    EXPECT_EQ(first({1, 0}, {1, 1}), 0);
    EXPECT_EQ(first({1, 1}, {1, 0}), 1);
    EXPECT_EQ(first({1, 1}, {1.0000005f, 0}), 1);
    EXPECT_EQ(first({kNan, 1}, {1, 0}), 0);
    EXPECT_EQ(first({kInf, 1}, {kInf, 0}), 0);
    EXPECT_EQ(last({2, 0}, {1, 1}), 1);
    EXPECT_EQ(last({1, 0}, {2, 1}), 0);
    EXPECT_EQ(last({1, 0}, {1, 1}), 1);
    EXPECT_EQ(last({1, 1}, {1, 0}), 0);
    EXPECT_EQ(last({1, 0}, {1.0000005f, 1}), 1);
    EXPECT_EQ(last({1, 0}, {kNan, 1}), 0);
    ForRandomCases(500, [&](Random& random) {
        const SortEntry a = {random.Float(Values::kMixed), random.Int(0, 3)};
        const SortEntry b = {random.Chance(0.3) ? a.value : random.Float(Values::kMixed), random.Int(0, 3)};
        EXPECT_EQ(first(a, b), RefLessFirst(a, b));
        EXPECT_EQ(last(a, b), RefLessLast(a, b));
    });
}

}  // namespace
}  // namespace opkit
