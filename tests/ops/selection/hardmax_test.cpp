// Hardmax.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/lines.h"
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

LayerCase HardmaxCase(const Shape& shape, const std::vector<float>& data, int32_t axis, int32_t opset)
{
    LayerCase layer("HardmaxOpkitForward");
    layer.Online(shape, data).Output(shape);
    layer.Attr<HardmaxAttr>().axis = axis;
    layer.Attr<HardmaxAttr>().opsetVersion = opset;
    return layer;
}

std::vector<float> Hardmax(const Shape& shape, const std::vector<float>& data, int32_t axis, int32_t opset)
{
    World world(HardmaxCase(shape, data, axis, opset));
    EXPECT_EQ(world.RunDirect(HardmaxOpkitForward), 0u);
    return world.Output();
}

TEST(Hardmax, Rules)
{
    const Shape shape = {2, 3};
    const std::vector<float> data = {1, 5, 2, 4, 3, 6};
    EXPECT_THAT(Hardmax(shape, data, 0, 11), ElementsAre(0, 0, 0, 0, 0, 1));
    EXPECT_THAT(Hardmax(shape, data, 0, 12), ElementsAre(0, 0, 0, 0, 0, 1));
    EXPECT_THAT(Hardmax(shape, data, 0, -5), ElementsAre(0, 0, 0, 0, 0, 1));
    EXPECT_THAT(Hardmax(shape, data, 0, 13), ElementsAre(0, 1, 0, 1, 0, 1));
    for (const int32_t opset : {11, 13}) {
        EXPECT_THAT(Hardmax(shape, data, -1, opset), ElementsAre(0, 1, 0, 0, 0, 1));
        EXPECT_THAT(Hardmax(shape, data, 1, opset), ElementsAre(0, 1, 0, 0, 0, 1));
    }
    EXPECT_THAT(Hardmax(shape, data, -2, 13), ElementsAre(0, 1, 0, 1, 0, 1));
}

// The first of equal ones, and strictly so; a NaN only when it comes first.
TEST(Hardmax, TiesAndNan)
{
    for (const int32_t opset : {11, 13}) {
        EXPECT_THAT(Hardmax({3}, {2, 2, 1}, 0, opset), ElementsAre(1, 0, 0));
        EXPECT_THAT(Hardmax({3}, {-0.0f, 0.0f, -1}, 0, opset), ElementsAre(1, 0, 0));
        EXPECT_THAT(Hardmax({3}, {1, 1.0000002f, 1}, 0, opset), ElementsAre(0, 1, 0));
        EXPECT_THAT(Hardmax({3}, {kNan, 2, 1}, 0, opset), ElementsAre(1, 0, 0));
        EXPECT_THAT(Hardmax({3}, {1, kNan, 2}, 0, opset), ElementsAre(0, 0, 1));
    }
    std::vector<float> row(40, 1.0f);  // two equal maxima in different blocks of the search
    row[35] = row[18] = 7;
    std::vector<float> expected(40, 0.0f);
    expected[18] = 1;
    EXPECT_EQ(Hardmax({40}, row, 0, 11), expected);
}

TEST(Hardmax, Compacting)
{
    LayerCase layer("HardmaxOpkitForward");
    layer.Online({2, 3}, {1, 5, 2, 4, 3, 6}, 16).Output({2, 3}, 16);
    layer.Attr<HardmaxAttr>().axis = 1;
    World world(layer);
    EXPECT_EQ(world.RunDirect(HardmaxOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 1, 0, 0, 0, 1));
    const auto rows = world.InputRows();
    EXPECT_THAT(std::vector<float>(rows.begin(), rows.begin() + 6), ElementsAre(1, 5, 2, 4, 3, 6));
}

// The output is cleared before the search: in place every element is a candidate of value 0.
TEST(Hardmax, OutputIsAnInput)
{
    for (const int32_t opset : {11, 13}) {
        LayerCase layer("HardmaxOpkitForward");
        layer.Online({2, 3}, {1, 5, 2, 4, 3, 6}).OutputInPlace(0, {2, 3});
        layer.Attr<HardmaxAttr>().axis = 1;
        layer.Attr<HardmaxAttr>().opsetVersion = opset;
        World world(layer);
        EXPECT_EQ(world.RunDirect(HardmaxOpkitForward), 0u);
        EXPECT_THAT(world.Output(), ElementsAre(1, 0, 0, 1, 0, 0));
        ExpectSameAsReference(layer, HardmaxOpkitForward, RefHardmax);
    }
}

// Without elements behind the axis the old rule still marks the front.
TEST(Hardmax, EmptyRest)
{
    LayerCase layer("HardmaxOpkitForward");
    layer.Online({2, 0}, {}).Output({2, 3});
    layer.Tamper([](World& world) { world.Param().inputs[0].stride = 0; });
    layer.Attr<HardmaxAttr>().axis = 1;
    World world(layer);
    EXPECT_EQ(world.RunDirect(HardmaxOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 0, 0, 0, 0, 0));
}

TEST(Hardmax, Messages)
{
    const auto messageOf = [](const std::function<void(World&)>& tamper, const Shape& out, bool offline) {
        LayerCase layer("HardmaxOpkitForward");
        if (offline) {
            layer.Offline({2, 3}, {1, 2, 3, 4, 5, 6});
        } else {
            layer.Online({2, 3}, {1, 2, 3, 4, 5, 6});
        }
        layer.Output(out).Tamper(tamper);
        World world(layer);
        const RunResult run = RunCaptured(world, HardmaxOpkitForward);
        EXPECT_EQ(run.result, UINT32_MAX);
        ExpectSameAsReference(layer, HardmaxOpkitForward, RefHardmax);
        return run.messages;
    };
    EXPECT_EQ(messageOf([](World& w) { w.Attr<HardmaxAttr>().head.offlineShape[0].dimNum = 0; }, {2, 3}, true),
              "[HardmaxOpkitForward:#]ParseInputInfo failed.\n\n");
    EXPECT_EQ(messageOf([](World& w) { w.Param().inputs[0].stride = 0; }, {2, 3}, false),
              "[DelAlignSpace:#]Illegal value, widthIn = 3, alignNumIn = 0\n"
              "[HardmaxOpkitForward:#]DelAlignSpace failed.\n\n");
    LayerCase empty("HardmaxOpkitForward");
    empty.Online({0, 3}, {}).Output({2, 0});
    World world(empty);
    const RunResult run = RunCaptured(world, HardmaxOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "[HardmaxOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase null("HardmaxOpkitForward");
    null.Online({0, 3}, {}).Output({0, 3}).Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    World nullWorld(null);
    const RunResult nullRun = RunCaptured(nullWorld, HardmaxOpkitForward);
    EXPECT_EQ(nullRun.result, UINT32_MAX);
    EXPECT_EQ(nullRun.messages,
              "[InsertAlignSpace:#]Input data is NULL.\n\n"
              "[HardmaxOpkitForward:#]InsertAlignSpace failed.\n\n");
}

// Marks are read again as elements by the lines behind, and zeros too.
TEST(Hardmax, OutputOverlapsTheInput)
{
    ForRandomCases(200, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 300);
        LayerCase layer("HardmaxOpkitForward");
        AddOverlapping(layer, random, shape, random.Floats(ElementCount(shape), Values::kPlain));
        layer.Attr<HardmaxAttr>().axis = random.Int(0, static_cast<int32_t>(shape.size()) - 1);
        layer.Attr<HardmaxAttr>().opsetVersion = random.OneOf({12, 13, 13});
        ExpectSameAsReference(layer, HardmaxOpkitForward, RefHardmax);
    });
}

TEST(Hardmax, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 5, 2000);
        const int32_t rank = static_cast<int32_t>(shape.size());
        const auto data = random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kIntegers}));
        LayerCase layer("HardmaxOpkitForward");
        if (random.Chance(0.3)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        layer.Output(shape, random.Stride(shape.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        layer.Attr<HardmaxAttr>().axis = random.Int(-rank, rank - 1);
        layer.Attr<HardmaxAttr>().opsetVersion = random.Int(11, 14);
        ExpectSameAsReference(layer, HardmaxOpkitForward, RefHardmax);
    });
}

}  // namespace
}  // namespace opkit
