// The loop's head, pass by pass.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/control.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::ElementsAre;

constexpr uint32_t kNoJump = 0xFFFFFFFFu;
constexpr uint32_t kExit = 77;

void Ready(LoopAttr& attr, int64_t tripCount, uint32_t carriedNum, int32_t condition = -1)
{
    attr.iteration = 0;
    attr.condition = condition;
    attr.tripCount = tripCount;
    attr.inputCursor = 1;
    attr.carriedNum = carriedNum;
    attr.exitSegId = kExit;
}

// One carried value; online inputs: first condition, first value, condition and value from the body.
LayerCase OneCarried(int64_t tripCount, float condition, float bodyCondition)
{
    LayerCase layer("LoopOpkitForward");
    layer.Online({1}, {condition}).Online({2}, {10, 11}).Online({1}, {bodyCondition}).Online({2}, {30, 31}, 16);
    layer.Output({1}).Output({2}, 16).Output({2}).SegId(5);
    Ready(layer.Attr<LoopAttr>(), tripCount, 1);
    return layer;
}

struct State {
    int32_t iteration;
    int32_t condition;
    uint32_t inputCursor;
    uint32_t segId;
    bool operator==(const State&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const State& s)
{
    return stream << "iteration " << s.iteration << " condition " << s.condition << " cursor " << s.inputCursor
                  << " segId " << s.segId;
}

State Pass(World& world)
{
    EXPECT_EQ(world.RunRequest(), 0u);
    const LoopAttr attr = world.Attr<LoopAttr>();
    return {attr.iteration, attr.condition, attr.inputCursor, world.Param().segId};
}

const State kReset = {0, -1, 1, kExit};

void Clear(World& world)
{
    for (size_t k = 0; k < 3; ++k) {
        const std::span<float> rows = world.OutputRows(k);
        std::fill(rows.begin(), rows.end(), -9.0f);
    }
}

TEST(Loop, WalkOfThreePasses)
{
    World world(OneCarried(3, 1, 1));
    Clear(world);
    EXPECT_EQ(Pass(world), (State{1, 1, 2, kNoJump}));
    EXPECT_EQ(world.Output(0)[0], -9.0f);  // a condition that was read is not written
    EXPECT_THAT(world.Output(1), ElementsAre(10, 11));
    EXPECT_THAT(world.Output(2), ElementsAre(-9, -9));
    for (int32_t iteration = 2; iteration <= 3; ++iteration) {
        Clear(world);
        EXPECT_EQ(Pass(world), (State{iteration, 1, 2, kNoJump}));
        EXPECT_EQ(world.Output(0)[0], 1.0f);
        EXPECT_THAT(world.Output(1), ElementsAre(30, 31));
        EXPECT_THAT(world.Output(2), ElementsAre(-9, -9));
    }
    Clear(world);
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_EQ(world.Output(0)[0], -9.0f);
    EXPECT_THAT(world.Output(1), ElementsAre(-9, -9));
    EXPECT_THAT(world.Output(2), ElementsAre(30, 31));
    const uint64_t outputTotal = world.Attr<LoopAttr>().outputTotal;
    EXPECT_EQ(outputTotal, 3u);
    EXPECT_EQ(Pass(world), (State{1, 1, 2, kNoJump}));  // the same model runs again
}

TEST(Loop, ConditionZeroLeavesWithTheFinalValues)
{
    World world(OneCarried(3, 1, 0.5f));  // truncates to 0
    Pass(world);
    Clear(world);
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_EQ(world.Output(0)[0], 0.5f);  // copied whole, not truncated
    EXPECT_THAT(world.Output(1), ElementsAre(-9, -9));
    EXPECT_THAT(world.Output(2), ElementsAre(30, 31));
}

TEST(Loop, FirstConditionIsTruncated)
{
    for (const float condition : {0.0f, 0.5f, -0.5f, -0.0f}) {
        World world(OneCarried(3, condition, 1));
        Clear(world);
        EXPECT_EQ(Pass(world), kReset) << condition;
        EXPECT_EQ(world.Output(0)[0], -9.0f);
        EXPECT_THAT(world.Output(1), ElementsAre(-9, -9));
        EXPECT_THAT(world.Output(2), ElementsAre(10, 11));
    }
    World world(OneCarried(3, 1.9f, 1));
    EXPECT_EQ(Pass(world), (State{1, 1, 2, kNoJump}));
}

// Any condition but 0 and 1 leaves the loop without a reset; the next pass goes on.
TEST(Loop, OtherConditionsLeaveAndCount)
{
    struct Row {
        float condition;
        int32_t kept;
    };
    const Row rows[] = {
        {2, 2}, {-3, -3}, {std::numeric_limits<float>::quiet_NaN(), INT32_MIN}, {3e9f, INT32_MIN}, {-1.5f, -1}};
    for (const Row& row : rows) {
        World world(OneCarried(3, 1, row.condition));
        Pass(world);
        EXPECT_EQ(Pass(world), (State{2, row.kept, 2, kExit})) << row.condition;
        EXPECT_THAT(world.Output(1), ElementsAre(30, 31));
        EXPECT_EQ(Pass(world), (State{3, row.kept, 2, kExit}));
        EXPECT_EQ(Pass(world), kReset);
    }
}

TEST(Loop, TripCountZeroRunsOnce)
{
    World world(OneCarried(0, 1, 1));
    EXPECT_EQ(Pass(world), (State{1, 1, 2, kNoJump}));
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_THAT(world.Output(2), ElementsAre(30, 31));
}

TEST(Loop, WithoutTripCountAnInputStandsFirstAndTheSecondPassLeaves)
{
    LayerCase layer("LoopOpkitForward");
    layer.Online({1}, {99}).Online({1}, {1}).Online({2}, {10, 11}).Online({1}, {1}).Online({2}, {30, 31});
    layer.Output({1}).Output({2}).Output({2});
    Ready(layer.Attr<LoopAttr>(), -1, 1);
    World world(layer);
    Clear(world);
    EXPECT_EQ(Pass(world), (State{1, 1, 3, kNoJump}));
    EXPECT_THAT(world.Output(1), ElementsAre(10, 11));
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_THAT(world.Output(2), ElementsAre(30, 31));
}

TEST(Loop, TripCountIsComparedIn64Bits)
{
    LayerCase layer = OneCarried(0x100000002LL, 1, 1);
    layer.Attr<LoopAttr>().iteration = 2;
    layer.Attr<LoopAttr>().inputCursor = 2;
    World world(layer);
    EXPECT_EQ(Pass(world), (State{3, 1, 2, kNoJump}));

    LayerCase negative = OneCarried(3, 1, 1);
    negative.Attr<LoopAttr>().iteration = -1;
    negative.Attr<LoopAttr>().inputCursor = 2;
    World left(negative);
    EXPECT_EQ(Pass(left), kReset);
}

TEST(Loop, KnownConditionIsWritten)
{
    struct Row {
        int32_t condition;
        State state;
    };
    const Row rows[] = {{1, {1, 1, 1, kNoJump}}, {0, kReset}, {5, {1, 5, 1, kExit}}, {-7, {1, -7, 1, kExit}}};
    for (const Row& row : rows) {
        LayerCase layer("LoopOpkitForward");
        layer.Online({2}, {10, 11}).Online({1}, {1}).Online({2}, {30, 31});
        layer.Output({1}).Output({2}).Output({2});
        Ready(layer.Attr<LoopAttr>(), 4, 1, row.condition);
        World world(layer);
        Clear(world);
        EXPECT_EQ(Pass(world), row.state);
        EXPECT_EQ(world.Output(0)[0], static_cast<float>(row.condition));
        EXPECT_THAT(world.Output(row.condition == 0 ? 2 : 1), ElementsAre(10, 11));
        EXPECT_THAT(world.Output(row.condition == 0 ? 1 : 2), ElementsAre(-9, -9));
        ExpectSameAsReference(layer, LoopOpkitForward, RefLoop);
    }
}

TEST(Loop, OfflineFirstValuesTakeNoOnlinePlace)
{
    LayerCase layer("LoopOpkitForward");
    layer.Offline({1}, {1}).Offline({2}, {10, 11}).Online({2}, {20, 21});  // condition and first value: constants
    layer.Online({1}, {1}).Online({2}, {30, 31}).Online({2}, {40, 41});
    layer.Output({1}).Output({2}).Output({2}).Output({2}).Output({2});
    Ready(layer.Attr<LoopAttr>(), 2, 2);
    World world(layer);
    EXPECT_EQ(Pass(world), (State{1, 1, 1, kNoJump}));
    EXPECT_THAT(world.Output(1), ElementsAre(10, 11));
    EXPECT_THAT(world.Output(2), ElementsAre(20, 21));
    EXPECT_EQ(Pass(world), (State{2, 1, 1, kNoJump}));
    EXPECT_THAT(world.Output(1), ElementsAre(30, 31));
    EXPECT_THAT(world.Output(2), ElementsAre(40, 41));
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_THAT(world.Output(3), ElementsAre(30, 31));
    EXPECT_THAT(world.Output(4), ElementsAre(40, 41));
}

TEST(Loop, NothingCarried)
{
    LayerCase layer("LoopOpkitForward");
    layer.Online({1}, {1}).Output({1}).SegId(5);
    Ready(layer.Attr<LoopAttr>(), 1, 0);
    World world(layer);
    EXPECT_EQ(Pass(world), (State{1, 1, 1, kNoJump}));
    EXPECT_EQ(Pass(world), kReset);
    layer.Attr<LoopAttr>().carriedNum = 0x80000000u;  // negative as a signed number: nothing on the way out
    layer.Attr<LoopAttr>().iteration = 1;
    World negative(layer);
    EXPECT_EQ(Pass(negative), kReset);
}

// A first pass that fails is no failure of the layer, keeps the segment and leaves the cursor where it got to.
TEST(Loop, FailedFirstPassIsSwallowed)
{
    LayerCase layer("LoopOpkitForward");
    layer.Output({1}).SegId(5);
    Ready(layer.Attr<LoopAttr>(), 3, 0);
    World world(layer);
    EXPECT_EQ(Pass(world), (State{0, -1, 0, 5}));
    EXPECT_EQ(Pass(world), (State{0, -1, 0xFFFFFFFFu, 5}));
    const RunResult run = RunCaptured(world, LoopFirstTime);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages, "");
}

// Online inputs that are not there: the last one read is copied again; without any, nothing is.
TEST(Loop, MissingInputsOnAMiddlePass)
{
    LayerCase layer("LoopOpkitForward");
    layer.Online({1}, {1}).Online({1}, {20}).Online({1}, {30});
    for (int i = 0; i < 7; ++i) {
        layer.Output({1});
    }
    Ready(layer.Attr<LoopAttr>(), 5, 3);
    layer.Attr<LoopAttr>().iteration = 1;
    layer.Attr<LoopAttr>().inputCursor = 0;
    World world(layer);
    EXPECT_EQ(Pass(world), (State{2, 1, 0, kNoJump}));
    EXPECT_EQ(world.Output(1)[0], 20.0f);
    EXPECT_EQ(world.Output(2)[0], 30.0f);
    EXPECT_EQ(world.Output(3)[0], 30.0f);
    ExpectSameAsReference(layer, LoopOpkitForward, RefLoop);

    layer.Attr<LoopAttr>().inputCursor = 3;
    layer.Attr<LoopAttr>().condition = 1;
    World none(layer);
    const World before = none.Clone();
    EXPECT_EQ(Pass(none), (State{2, 1, 3, kNoJump}));
    for (size_t k = 0; k < 7; ++k) {
        EXPECT_EQ(std::memcmp(none.OutputRows(k).data(), World(before.Clone()).OutputRows(k).data(), 4), 0);
    }
}

TEST(Loop, EveryBatchItemIsAPass)
{
    LayerCase layer = OneCarried(2, 1, 1);
    layer.Batch(3);
    World world(layer);
    EXPECT_EQ(Pass(world), kReset);  // first, middle, out of bound
    EXPECT_THAT(world.Output(1, 0), ElementsAre(10, 11));
    EXPECT_THAT(world.Output(1, 1), ElementsAre(30, 31));
    EXPECT_THAT(world.Output(2, 2), ElementsAre(30, 31));
}

// Items go on from each other also across requests.
TEST(Loop, BatchesAdvanceOneState)
{
    LayerCase layer = OneCarried(3, 1, 1);
    layer.Batch(2);
    World world(layer);
    EXPECT_EQ(Pass(world), (State{2, 1, 2, kNoJump}));  // first, middle
    EXPECT_THAT(world.Output(1, 0), ElementsAre(10, 11));
    EXPECT_THAT(world.Output(1, 1), ElementsAre(30, 31));
    EXPECT_EQ(Pass(world), kReset);  // middle, out of bound: the last item decides
    EXPECT_THAT(world.Output(1, 0), ElementsAre(30, 31));
    EXPECT_THAT(world.Output(2, 1), ElementsAre(30, 31));
    EXPECT_EQ(Pass(world), (State{2, 1, 2, kNoJump}));
}

// A preset condition serves one run of the loop; the next reads its condition from the first input.
TEST(Loop, APresetServesOneRun)
{
    LayerCase layer("LoopOpkitForward");
    layer.Online({1}, {1}).Online({1}, {20}).Online({1}, {1}).Online({1}, {40});
    layer.Output({1}).Output({1}).Output({1});
    Ready(layer.Attr<LoopAttr>(), 3, 1, 0);
    World world(layer);
    Clear(world);
    EXPECT_EQ(Pass(world), kReset);
    EXPECT_EQ(world.Output(0)[0], 0.0f);
    EXPECT_EQ(world.Output(2)[0], 1.0f);  // the carried value came from the first place
    Clear(world);
    EXPECT_EQ(Pass(world), (State{1, 1, 2, kNoJump}));
    EXPECT_EQ(world.Output(0)[0], -9.0f);
    EXPECT_EQ(world.Output(1)[0], 20.0f);
}

// A layer behind the head fails the request: the pass has happened, and the next request goes on with the one after it.
TEST(Loop, AFailedRequestKeepsThePass)
{
    modelkit::ModelBuilder builder;
    const modelkit::TensorRef one = builder.AddInput({"one", {1}});
    const modelkit::TensorRef x = builder.AddInput({"x", {1}});
    const modelkit::TensorRef value = builder.AddOutput({"value", {1}});
    const modelkit::TensorRef final = builder.AddOutput({"final", {1}});
    const modelkit::TensorRef condition = builder.AddScratch({"condition", {1}});
    LoopAttr loop = {};
    Ready(loop, 2, 1);
    builder.AddLayer("LoopOpkitForward")
        .Online(one)
        .Online(x)
        .Online(one)
        .Online(x)
        .Output(condition)
        .Output(value)
        .Output(final)
        .Attr(loop);
    IfAttr compare = {};
    compare.cmpType = 9;  // refused
    compare.hasSecondOperand = 1;
    builder.AddLayer("IfOpkitForward").Online(one).Online(one).Output(condition).Attr(compare);
    World world(builder.Build());
    const auto output = [&](size_t k) { return *static_cast<const float*>(world.Param().outputs[k].data); };
    world.SetInput(0, std::vector<float>{1});
    world.SetInput(1, std::vector<float>{7});
    world.Param().segId = 5;
    EXPECT_NE(RunRequestCaptured(world).result, 0u);
    EXPECT_EQ(world.Param().segId, kNoJump);  // what the head left; the layer that failed left nothing
    LoopAttr state = world.Attr<LoopAttr>();
    EXPECT_EQ(state.iteration, 1);
    EXPECT_EQ(state.inputCursor, 2u);
    EXPECT_EQ(output(0), 7.0f);

    world.SetInput(1, std::vector<float>{8});
    EXPECT_NE(RunRequestCaptured(world).result, 0u);
    EXPECT_NE(RunRequestCaptured(world).result, 0u);
    EXPECT_EQ(world.Param().segId, kExit);
    state = world.Attr<LoopAttr>();
    EXPECT_EQ(state.iteration, 0);
    EXPECT_EQ(state.inputCursor, 1u);
    EXPECT_EQ(output(1), 8.0f);
}

TEST(Loop, HelpersAlone)
{
    LayerCase layer = OneCarried(3, 1, 1);
    World world(layer);
    LoopAttr& attr = world.Attr<LoopAttr>();
    LayerParam param = {};
    param.attr = &attr;
    param.outputNum = 9;
    attr.iteration = 4;
    attr.inputCursor = 8;
    attr.condition = 3;
    Prepare(&param);
    EXPECT_EQ(attr.iteration, 0);
    EXPECT_EQ(attr.condition, -1);
    const LoopAttr copy = attr;
    EXPECT_EQ(copy.inputCursor, 1u);
    EXPECT_EQ(copy.outputTotal, 9u);
    EXPECT_EQ(copy.tripCount, 3);

    attr.condition = 1;
    SetConditionSegId(&param, &attr.head);
    EXPECT_EQ(attr.iteration, 1);
    EXPECT_EQ(param.segId, kNoJump);
    attr.condition = -1;
    SetConditionSegId(&param, &attr.head);
    EXPECT_EQ(attr.iteration, 2);
    EXPECT_EQ(param.segId, kExit);
    attr.condition = 0;
    param.segId = 0;
    SetConditionSegId(&param, &attr.head);
    EXPECT_EQ(attr.iteration, 0);
    EXPECT_EQ(attr.condition, -1);
    EXPECT_EQ(param.segId, kExit);
}

TEST(Loop, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const uint32_t carried = static_cast<uint32_t>(random.Int(0, 3));
        const Shape shape = random.Shape(1, 4, 300);
        LayerCase layer("LoopOpkitForward");
        // One shape for all, conditions too: where the head is entered anew, the places of the inputs shift.
        const auto add = [&](bool isCondition, bool mayBeOffline) {
            std::vector<float> data = random.Floats(ElementCount(shape), Values::kBits);
            if (isCondition) {
                data[0] = random.OneOf({0.0f, 1.0f, 1.0f, 1.0f, 2.0f, -0.5f, -1.0f, 1e20f});
            }
            if (mayBeOffline && random.Chance(0.4)) {
                layer.Offline(shape, data);
            } else {
                layer.Online(shape, data, random.Stride(shape.back()));
            }
        };
        const bool noTrip = random.Chance(0.25);
        if (noTrip) {
            add(false, false);
        }
        add(true, true);
        for (uint32_t i = 0; i < carried; ++i) {
            add(false, !noTrip);
        }
        add(true, false);
        for (uint32_t i = 0; i < carried; ++i) {
            add(false, false);
        }
        for (uint32_t i = 0; i < 1 + 2 * carried; ++i) {
            layer.Output(shape, random.Stride(shape.back()));
        }
        Ready(layer.Attr<LoopAttr>(), noTrip ? -1 : random.Int(0, 4), carried,
              random.Chance(0.8) ? -1 : random.Int(0, 2));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 5)));  // as many passes
        ExpectSameAsReference(layer, LoopOpkitForward, RefLoop);
    });
}

}  // namespace
}  // namespace opkit
