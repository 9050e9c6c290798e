// The driver: the walk over batch items and layers, dumping, timing, the stop flag, segment ids, failures.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "opkit/opkit.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::modelkit;
using ::testing::ElementsAre;

// y = -(-x) through a scratch tensor, layer ids 10 and 20.
Model TwoLayers(bool batchedScratch = false, uint32_t maxBatch = 4)
{
    ModelBuilder builder(maxBatch);
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 16});
    const TensorRef t = builder.AddScratch({"t", {2, 3}, 12}, batchedScratch);
    builder.AddLayer("NegOpkitForward").Online(x).Output(t).LayerId(10);
    builder.AddLayer("SignOpkitForward").Online(t).Output(y).LayerId(20);
    return builder.Build();
}

World TwoLayerWorld(uint32_t batch = 1, bool batchedScratch = false)
{
    World world(TwoLayers(batchedScratch), batch);
    std::vector<float> items;
    for (uint32_t b = 0; b < batch; ++b) {
        for (int i = 0; i < 6; ++i) {
            items.push_back(static_cast<float>(i) - 2.0f - static_cast<float>(b));
        }
    }
    world.SetInput(0, items);
    return world;
}

uint32_t& LayerCountWord(World& world)
{
    const ModelOffsets& offsets = *static_cast<ModelOffsets*>(world.Param().attr);
    return *reinterpret_cast<uint32_t*>(static_cast<uint8_t*>(world.Param().model) + offsets.layerTableOffset);
}

float* RequestRow(World& world, uint32_t item, uint32_t row)
{
    const TensorInfo& y = world.Param().outputs[0];
    return static_cast<float*>(y.data) + item * (y.size / 4 / world.Param().inputs[0].batch) + row * 4;
}

TEST(Forward, RunsEveryLayerForEveryItem)
{
    World world = TwoLayerWorld(3, true);
    ASSERT_EQ(world.RunRequest(), 0u);
    for (uint32_t b = 0; b < 3; ++b) {
        for (uint32_t i = 0; i < 6; ++i) {
            const float x = static_cast<float>(i) - 2.0f - static_cast<float>(b);
            EXPECT_EQ(RequestRow(world, b, i / 3)[i % 3], x < 0 ? 1.0f : x > 0 ? -1.0f : 0.0f);
        }
    }
}

TEST(Forward, SharedScratchServesOneItemAfterTheOther)
{
    World world = TwoLayerWorld(2, false);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(RequestRow(world, 0, 1)[2], -1.0f);
    EXPECT_EQ(RequestRow(world, 1, 0)[0], 1.0f);
}

TEST(Forward, NoItemsAndNoLayers)
{
    World world = TwoLayerWorld();
    const World before = world.Clone();
    world.Param().inputs[0].batch = 0;
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");

    World empty = TwoLayerWorld(3);
    LayerCountWord(empty) = 0;
    const World emptyBefore = empty.Clone();
    const RunResult result = RunRequestCaptured(empty);
    EXPECT_EQ(result.result, 0u);
    EXPECT_EQ(result.messages, "");
    EXPECT_EQ(World::Difference(empty, emptyBefore, NanPolicy::kExactBits), "");
}

TEST(Forward, LayerCountLimits)
{
    World many = TwoLayerWorld();
    LayerCountWord(many) = 129;
    RunResult result = RunRequestCaptured(many);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages, "");

    World overrun = TwoLayerWorld();
    LayerCountWord(overrun) = 3;
    static_cast<ModelOffsets*>(overrun.Param().attr)->layerTableSize = 0;
    overrun.Param().modelSize = static_cast<ModelOffsets*>(overrun.Param().attr)->layerTableOffset + 15;
    CaptureStdout capture;
    EXPECT_EQ(OpkitForward(&overrun.Param()), OPKIT_FAILURE);
    EXPECT_EQ(NormalizeMessages(capture.Stop()), "[OpkitForward:#]Check buffer size failed.\n\n");
}

TEST(Forward, FailuresAreReported)
{
    World parse = TwoLayerWorld();
    parse.Layer(1).inputNum = 81;
    RunResult result = RunRequestCaptured(parse);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages,
              "[CheckLayerParam:#]Input num 81 larger than 80!\n"
              "[ParseLayerParam:#]Layer Param is illegal!\n"
              "[OpkitForward:#]Parse layer 1 failed.\n\n");

    LayerCase unknown("NoSuchOpkitForward");
    unknown.Online({1}, {1}).Output({1});
    World unknownWorld(unknown);
    result = RunRequestCaptured(unknownWorld);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages, "[OpkitForward:#]Get NoSuchOpkitForward func failed.\n\n");

    LayerCase failing("AcosOpkitForward");
    failing.Output({1}).SegId(5);
    World failingWorld(failing);
    result = RunRequestCaptured(failingWorld);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_EQ(result.messages, "[OpkitForward:#]AcosOpkitForward failed.\n\n");
    EXPECT_EQ(failingWorld.Param().segId, 5u);
}

// An operator that answers 1 fails the layer as one that answers all ones; its segment id is not taken over.
TEST(Forward, OneIsFailureToo)
{
    LayerCase layer("CondEndOpkitForward");
    layer.Online({1}, {1}).Output({1}).SegId(9);
    World world(layer);
    const RunResult result = RunRequestCaptured(world);
    EXPECT_EQ(result.result, OPKIT_FAILURE);
    EXPECT_THAT(result.messages, ::testing::EndsWith("[OpkitForward:#]CondEndOpkitForward failed.\n\n"));
    EXPECT_EQ(world.Param().segId, 9u);
}

TEST(Forward, SegmentIdPassesThroughLayersThatDoNotSetIt)
{
    World world = TwoLayerWorld(2);
    world.Param().segId = 1234;
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(world.Param().segId, 1234u);
}

TEST(Forward, SegmentIdOfTheLastLayer)
{
    LayerCase layer("ThenEndOpkitForward");
    layer.Output({1}).SegId(9);
    layer.Attr<ThenEndAttr>().nextSegId = 42;
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(world.Param().segId, 42u);
}

// The stop flag ends the request before the operator runs, silently, and leaves the layer's two arrays allocated.
TEST(Forward, StopFlagLeaksTwoArraysAndSaysNothing)
{
    World world = TwoLayerWorld();
    uint32_t stop = 1;
    world.Param().stopFlag = &stop;
    world.Param().segId = 3;
    const World before = world.Clone();
    CaptureStdout capture;
    const RequiredLeak leak;
    AllocFault watch;
    const uint32_t result = OpkitForward(&world.Param());
    watch.Disarm();
    if (AllocFaultAvailable()) {
        EXPECT_EQ(watch.Live(), 2);
        EXPECT_EQ(watch.LiveBytes(), 2 * sizeof(TensorInfo));
    }
    watch.FreeLive();
    EXPECT_EQ(capture.Stop(), "");
    EXPECT_EQ(result, OPKIT_FAILURE);
    EXPECT_EQ(stop, 1u);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

uint32_t g_stop = 0;

int32_t StopAfterFirst(DumpRecord*)
{
    g_stop = 1;
    return 0;
}

TEST(Forward, StopFlagIsReadBeforeEachLayer)
{
    World world = TwoLayerWorld();
    g_stop = 0;
    world.Param().stopFlag = &g_stop;
    world.Param().dumpHook.dumpFunc = StopAfterFirst;
    world.Param().dumpHook.dumpAll = 1;
    const RequiredLeak leak;
    AllocFault watch;
    EXPECT_EQ(OpkitForward(&world.Param()), OPKIT_FAILURE);
    watch.Disarm();
    watch.FreeLive();
    EXPECT_EQ(g_stop, 1u);
    EXPECT_EQ(world.Param().dumpHook.record.layerId, 10u);  // the first layer finished and was dumped
}

TEST(Forward, UnsetStopFlagRuns)
{
    World world = TwoLayerWorld();
    uint32_t stop = 0;
    world.Param().stopFlag = &stop;
    EXPECT_EQ(world.RunRequest(), 0u);
}

struct Dumped {
    uint32_t layerId;
    uint32_t outputIndex;
    uint32_t size;
    uint32_t stride;
    const void* data;
    float first;
};
std::vector<Dumped> g_dumped;

int32_t RecordDump(DumpRecord* record)
{
    g_dumped.push_back({record->layerId, record->outputIndex, record->size, record->stride, record->data,
                        static_cast<float*>(record->data)[0]});
    return -1;  // ignored
}

std::vector<uint32_t> DumpedIds()
{
    std::vector<uint32_t> ids;
    for (const Dumped& dumped : g_dumped) {
        ids.push_back(dumped.layerId);
    }
    return ids;
}

TEST(Dump, AllLayersInOrder)
{
    g_dumped.clear();
    World world = TwoLayerWorld(2);
    DumpHook& hook = world.Param().dumpHook;
    std::memset(&hook.record, 0xA5, sizeof hook.record);
    hook.dumpFunc = RecordDump;
    hook.dumpAll = 7;
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(DumpedIds(), ElementsAre(10, 20, 10, 20));
    EXPECT_EQ(g_dumped[0].first, 2.0f);
    EXPECT_EQ(g_dumped[0].stride, 12u);
    EXPECT_EQ(g_dumped[3].stride, 16u);
    EXPECT_EQ(g_dumped[3].data, RequestRow(world, 1, 0));
    EXPECT_EQ(hook.record.reserved12, 0xA5A5A5A5u);
    EXPECT_EQ(hook.record.reserved26, 0xA5A5u);
    EXPECT_EQ(hook.record.reserved28, 0xA5A5A5A5u);
    EXPECT_EQ(hook.record.reserved32, 0xA5A5A5A5A5A5A5A5u);
}

TEST(Dump, SelectionById)
{
    uint32_t ids[] = {99, 20};
    struct Row {
        uint32_t* ids;
        uint32_t count;
        std::vector<uint32_t> dumped;
    };
    for (const Row& row : {Row{ids, 2, {20}}, Row{ids, 1, {}}, Row{nullptr, 2, {}}, Row{ids, 0, {}}}) {
        g_dumped.clear();
        World world = TwoLayerWorld();
        DumpHook& hook = world.Param().dumpHook;
        hook.dumpFunc = RecordDump;
        hook.layerIds = row.ids;
        hook.layerIdNum = row.count;
        ASSERT_EQ(world.RunRequest(), 0u);
        EXPECT_EQ(DumpedIds(), row.dumped);
    }
}

TEST(Dump, IsDumpLayer)
{
    uint32_t ids[] = {4, 5};
    DumpHook hook = {};
    hook.layerIds = ids;
    hook.layerIdNum = 2;
    hook.dumpAll = 1;
    EXPECT_EQ(IsDumpLayer(4, &hook), 0u);  // no function
    hook.dumpFunc = RecordDump;
    EXPECT_EQ(IsDumpLayer(9, &hook), 1u);
    hook.dumpAll = 0;
    EXPECT_EQ(IsDumpLayer(5, &hook), 1u);
    EXPECT_EQ(IsDumpLayer(6, &hook), 0u);
}

TEST(Dump, OutputIndexCountsUp)
{
    g_dumped.clear();
    float data[3] = {1, 2, 3};
    TensorInfo outputs[3] = {};
    for (int i = 0; i < 3; ++i) {
        outputs[i].data = &data[i];
        outputs[i].size = 4;
    }
    DumpHook hook = {};
    hook.dumpFunc = RecordDump;
    OutputsView none = {outputs, 0};
    DumpLayer(&none, 1, &hook);
    OutputsView all = {outputs, 3};
    DumpLayer(&all, 1, &hook);
    EXPECT_TRUE(g_dumped.empty());  // neither dumpAll nor an id
    hook.dumpAll = 1;
    DumpLayer(&none, 1, &hook);
    EXPECT_TRUE(g_dumped.empty());
    DumpLayer(&all, 1, &hook);
    ASSERT_EQ(g_dumped.size(), 3u);
    EXPECT_EQ(g_dumped[2].outputIndex, 2u);
    EXPECT_EQ(g_dumped[2].data, &data[2]);
}

TEST(Profiling, SlotsPerLayerAndItem)
{
    World world = TwoLayerWorld(2);
    std::vector<ProfilingSlot> slots(4);
    std::memset(slots.data(), 0xEE, slots.size() * sizeof(ProfilingSlot));
    world.Param().profiling = {slots.data(), static_cast<uint32_t>(slots.size() * sizeof(ProfilingSlot))};
    ASSERT_EQ(world.RunRequest(), 0u);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(slots[i].slotIndex, i);
        EXPECT_GT(slots[i].startTime, 1000000000000000u);  // microseconds since 1970
        EXPECT_GE(slots[i].endTime, slots[i].startTime);
        EXPECT_EQ(slots[i].reserved4, 0xEEEEEEEEu);
        EXPECT_TRUE(std::all_of(std::begin(slots[i].reserved24), std::end(slots[i].reserved24),
                                [](uint8_t byte) { return byte == 0xEE; }));
    }
}

TEST(Profiling, SlotsThatDoNotFitArePassedOver)
{
    World world = TwoLayerWorld();
    std::vector<ProfilingSlot> slots(2);
    std::memset(slots.data(), 0xEE, slots.size() * sizeof(ProfilingSlot));
    world.Param().profiling = {slots.data(), 255};
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(slots[0].slotIndex, 0u);
    EXPECT_EQ(slots[1].slotIndex, 0xEEEEEEEEu);
}

ForwardParam* g_request = nullptr;
ProfilingBuffer g_profiling = {};

int32_t ExchangeProfiling(DumpRecord*)
{
    std::swap(g_request->profiling, g_profiling);
    return 0;
}

// What the dump function of a layer leaves decides whether that layer and the next are timed.
TEST(Profiling, DumpFunctionsMayExchangeTheSlots)
{
    World world = TwoLayerWorld();
    std::vector<ProfilingSlot> slots(2);
    std::memset(slots.data(), 0xEE, slots.size() * sizeof(ProfilingSlot));
    g_profiling = {slots.data(), static_cast<uint32_t>(slots.size() * sizeof(ProfilingSlot))};
    g_request = &world.Param();
    world.Param().dumpHook.dumpFunc = ExchangeProfiling;
    world.Param().dumpHook.dumpAll = 1;
    ASSERT_EQ(OpkitForward(&world.Param()), 0u);
    EXPECT_EQ(slots[0].slotIndex, 0u);
    EXPECT_EQ(slots[0].startTime, 0u);  // was not read
    EXPECT_EQ(slots[1].slotIndex, 0xEEEEEEEEu);
}

TEST(Profiling, TimesAreMicroseconds)
{
    ProfilingSlot slots[2] = {};
    ProfilingBuffer buffer = {slots, sizeof slots};
    ProfilingLayer(&buffer, 1, {3, 4}, {5, 6});
    EXPECT_EQ(slots[1].slotIndex, 1u);
    EXPECT_EQ(slots[1].startTime, 3000004u);
    EXPECT_EQ(slots[1].endTime, 5000006u);
    EXPECT_EQ(slots[0].endTime, 0u);
}

// The n-th allocation fails, for every n: each layer asks for two arrays, and nothing stays behind.
TEST(Forward, AllocationFailures)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    for (uint64_t failAt = 0; failAt < 4; ++failAt) {
        SCOPED_TRACE(failAt);
        World world = TwoLayerWorld();
        CaptureStdout capture;
        AllocFault fault(failAt);
        const uint32_t result = OpkitForward(&world.Param());
        fault.Disarm();
        const std::string messages = NormalizeMessages(capture.Stop());
        EXPECT_EQ(result, OPKIT_FAILURE);
        EXPECT_EQ(fault.Live(), 0);
        EXPECT_EQ(messages, "[ParseLayerParam:#]Malloc 40 failed!\n\n[OpkitForward:#]Parse layer " +
                                std::to_string(failAt / 2) + " failed.\n\n");
    }
}

// A layer without inputs asks for zero bytes all the same.
TEST(Forward, ZeroByteAllocationMayFail)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    LayerCase layer("AcosOpkitForward");
    layer.Output({1});
    World world(layer);
    CaptureStdout capture;
    AllocFault fault(0);
    EXPECT_EQ(OpkitForward(&world.Param()), OPKIT_FAILURE);
    fault.Disarm();
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[ParseLayerParam:#]Malloc 0 failed!\n\n[OpkitForward:#]Parse layer 0 failed.\n\n");
}

TEST(Forward, NothingStaysAllocated)
{
    World world = TwoLayerWorld(4);
    AllocFault watch;
    EXPECT_EQ(OpkitForward(&world.Param()), 0u);
    watch.Disarm();
    EXPECT_EQ(watch.Live(), 0);
    if (AllocFaultAvailable()) {
        EXPECT_EQ(watch.Seen(), 4u * 2 * 2);
    }
}

// Nor after a layer that fails, or whose operator does not exist.
TEST(Forward, NothingStaysAllocatedAfterFailure)
{
    for (const char* name : {"AcosOpkitForward", "NoSuchOpkitForward"}) {
        SCOPED_TRACE(name);
        LayerCase layer(name);
        layer.Output({1});
        World world(layer);
        CaptureStdout capture;
        AllocFault watch;
        EXPECT_EQ(OpkitForward(&world.Param()), OPKIT_FAILURE);
        watch.Disarm();
        EXPECT_EQ(watch.Live(), 0);
        if (AllocFaultAvailable()) {
            EXPECT_EQ(watch.Seen(), 2u);
        }
        watch.FreeLive();
        EXPECT_NE(capture.Stop(), "");
    }
}

TEST(OperatorTable, Lookup)
{
    EXPECT_EQ(GetForwardFunc(nullptr), nullptr);
    EXPECT_EQ(GetForwardFunc(""), nullptr);
    EXPECT_EQ(GetForwardFunc("AcosOpkitForwar"), nullptr);
    EXPECT_EQ(GetForwardFunc("acosOpkitForward"), nullptr);
    EXPECT_EQ(GetForwardFunc("AcosOpkitForward"), AcosOpkitForward);
    EXPECT_EQ(GetForwardFunc("ScatterNDOpkitForward"), ScatterNDOpkitForward);
    EXPECT_EQ(GetForwardFunc("FilterBoxOpkitForward"), DetectionOutputOpkitForward);
    EXPECT_EQ(GetForwardFunc("SortOpkitForward"), DetectionOutputOpkitForward);
    EXPECT_EQ(GetForwardFunc("NMSOpkitForward"), DetectionOutputOpkitForward);
    EXPECT_EQ(GetForwardFunc("DetectionOutputOpkitForward"), nullptr);
}

TEST(Version, IsConstant)
{
    EXPECT_EQ(OpkitGetVersion(), 196608u);
    EXPECT_STREQ(OPKIT_GIT_VERSION, "Version:4ed1745");
}

}  // namespace
}  // namespace opkit
