// Custom operators, with a library of the tests' own on this program's search path.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using ::testing::ElementsAre;

constexpr const char* kLibrary = "libtvr_opkit_custom_x86.so";

// The attribute record's own fields; the head's counts as the flags say.
LayerCase CustomCase(const char* function, uint32_t total)
{
    LayerCase layer("CustomOpkitForward");
    CustomAttr& attr = layer.Attr<CustomAttr>();
    attr.totalInputNum = total;
    std::strcpy(attr.funcName, function);
    return layer;
}

bool IsLoaded()
{
    void* const handle = dlopen(kLibrary, RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

RunResult ExpectRefused(const LayerCase& layer)
{
    World world(layer);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, CustomOpkitForward);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    return run;
}

TEST(Custom, CallsTheFunctionOncePerRun)
{
    LayerCase layer = CustomCase("Describe", 3);
    layer.Online({2}, {1, 100}).Offline({2}, {20, 100}).Online({1}, {300}).Output({5});
    layer.Attr<CustomAttr>().fixedSize = 12;
    layer.Attr<CustomAttr>().params.fixed[0] = 77;
    World world(layer);
    for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(world.RunRequest(), 0u);
        EXPECT_THAT(world.Output(), ElementsAre(321, 3, 12, 77, 1));  // 1: its statics do not outlive the call
        EXPECT_FALSE(IsLoaded());
    }
}

TEST(Custom, EveryBatchItemIsACall)
{
    LayerCase layer = CustomCase("Describe", 1);
    layer.Online({1}, {1, 2}).Output({5}).Batch(2);
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(0, 0), ElementsAre(1, 1, 0, -1, 1));
    EXPECT_THAT(world.Output(0, 1), ElementsAre(2, 1, 0, -1, 1));
}

TEST(Custom, ParameterForms)
{
    struct Row {
        uint32_t size;
        uint32_t marker;
        uint32_t fixedSize;
        float paramSize;
        float firstByte;
    };
    const Row rows[] = {
        {20, 0x504E5944u, 12, 16, 44},  // sized: from byte 4000
        {20, 0x504E5945u, 12, 12, 20},  // fixed: from byte 3992, the size word itself
        {4, 0x504E5944u, 12, 0, -1},
        {3, 0x504E5944u, 12, 4294967295.0f, 44},  // wraps
        {0, 0, 80, 80, 0},
    };
    for (const Row& row : rows) {
        LayerCase layer = CustomCase("Describe", 0);
        layer.Output({5});
        CustomAttr& attr = layer.Attr<CustomAttr>();
        attr.params.sized.sizedSize = row.size;
        attr.params.sized.marker = row.marker;
        attr.params.sized.params[0] = 44;
        attr.fixedSize = row.fixedSize;
        World world(layer);
        EXPECT_EQ(world.RunDirect(CustomOpkitForward), 0u);
        EXPECT_THAT(world.Output(), ElementsAre(0, 0, row.paramSize, row.firstByte, 1));
    }
}

TEST(Custom, TensorRecords)
{
    LayerCase layer = CustomCase("DescribeTensors", 4);
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Offline({3, 5}, std::vector<float>(15, 1)).Online({4}, {1, 2, 3, 4});
    layer.Offline({1}, {1});
    for (int i = 0; i < 4; ++i) {
        layer.Output({6});
    }
    layer.Flag(3, 'x');  // any value but '0' is offline
    layer.Tamper([](World& world) { world.Attr<CustomAttr>().head.offlineShape[1].dimNum = 0; });
    World world(layer);
    EXPECT_EQ(world.RunDirect(CustomOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(0, 16, 2, 32, 2, 3));
    EXPECT_THAT(world.Output(1), ElementsAre(0, 20, 2, 60, 3, 5));
    EXPECT_THAT(std::vector<float>(world.OutputRows(2).begin(), world.OutputRows(2).begin() + 5),
                ElementsAre(0, 16, 1, 16, 4));
    EXPECT_THAT(std::vector<float>(world.OutputRows(3).begin(), world.OutputRows(3).begin() + 4),
                ElementsAre(0, ::testing::_, 0, 4));  // without dimensions: one element
}

TEST(Custom, TensorsGoAsTheyLie)
{
    LayerCase layer = CustomCase("CopyRaw", 1);
    CaseTensor input;
    input.shape = {2, 3};
    input.strideBytes = 16;
    input.raw = {1, 2, 3, 0x7fa00004, 5, 6, 7, 8};
    layer.Online(input).Output({13, 1}, 4);
    World world(layer);
    EXPECT_EQ(world.RunDirect(CustomOpkitForward), 0u);
    EXPECT_EQ(std::memcmp(world.OutputRows().data(), input.raw.data(), 32), 0);
    EXPECT_EQ(std::memcmp(world.InputRows().data(), input.raw.data(), 32), 0);
    const std::vector<float> record(world.OutputRows().begin() + 8, world.OutputRows().end());
    EXPECT_THAT(record, ElementsAre(0, 4, 2, 13, 52));
}

TEST(Custom, WithoutOutputs)
{
    LayerCase layer = CustomCase("CountOutputs", 1);
    layer.Online({1}, {9});
    World world(layer);
    EXPECT_EQ(world.RunDirect(CustomOpkitForward), 0u);
    EXPECT_EQ(world.Input()[0], 0.0f);
}

TEST(Custom, CountsThatDisagree)
{
    LayerCase layer = CustomCase("Describe", 3);
    layer.Online({1}, {1}).Offline({1}, {2}).Output({5});
    EXPECT_EQ(ExpectRefused(layer).messages,
              "[CustomOpkitForward:#]error: onlineinputNum(1) plus offlineinputNum(1) must equal to total input "
              "num(3)\n\n");
    layer.Attr<CustomAttr>().totalInputNum = 0xFFFFFFFFu;  // shown as signed
    EXPECT_EQ(ExpectRefused(layer).messages,
              "[CustomOpkitForward:#]error: onlineinputNum(1) plus offlineinputNum(1) must equal to total input "
              "num(-1)\n\n");
    layer.Attr<CustomAttr>().totalInputNum = 0;  // the sum wraps, so this is no disagreement
    layer.Tamper([](World& world) { world.Attr<CustomAttr>().head.offlineInputNum = 0xFFFFFFFFu; });
    World world(layer);
    EXPECT_EQ(world.RunDirect(CustomOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 0, -1, 1));
}

TEST(Custom, MoreInputsThanThereAreFlags)
{
    LayerCase layer = CustomCase("Describe", 81);
    layer.Online({1}, {1}).Output({5});
    layer.Tamper([](World& world) { world.Attr<CustomAttr>().head.offlineInputNum = 80; });
    EXPECT_EQ(ExpectRefused(layer).messages,
              "[CustomOpkitForward:#]Custom input num 81 or output num 1 larger than 80 and 30!\n\n");
}

TEST(Custom, MoreOutputsThanALayerHas)
{
    LayerCase layer = CustomCase("Describe", 1);
    layer.Online({1}, {1}).Output({5});
    World world(layer);
    CaptureStdout capture;
    const auto manyOutputs = [](LayerParam* param) {
        param->outputNum = 31;
        const uint32_t result = CustomOpkitForward(param);
        param->outputNum = 1;
        return result;
    };
    EXPECT_EQ(world.RunDirect(manyOutputs), 0xFFFFFFFFu);
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[CustomOpkitForward:#]Custom input num 1 or output num 31 larger than 80 and 30!\n\n");
}

// Threads open, call and close side by side, each with tensors of its own.
TEST(Custom, SeveralThreads)
{
    std::vector<std::vector<float>> results(4);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([t, &results] {
            LayerCase layer = CustomCase("DescribeTensors", 1);
            layer.Online({t + 1, 2}, std::vector<float>(2 * t + 2, 1.0f)).Output({6});
            World world(layer);
            uint32_t failures = 0;
            for (int round = 0; round < 200; ++round) {
                failures += world.RunDirect(CustomOpkitForward) != 0 ? 1 : 0;
            }
            results[t] = world.Output();
            results[t].push_back(static_cast<float>(failures));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (uint32_t t = 0; t < 4; ++t) {
        const auto rows = static_cast<float>(t + 1);
        EXPECT_THAT(results[t], ElementsAre(0, 8, 2, rows * 8, rows, 2, 0));
    }
    EXPECT_FALSE(IsLoaded());
}

TEST(Custom, UnknownFunction)
{
    LayerCase layer = CustomCase("NoSuchFunction", 1);
    layer.Online({1}, {1}).Output({5});
    EXPECT_EQ(ExpectRefused(layer).messages,
              "[CustomOpkitForward:#]error: Not found function(NoSuchFunction) in libtvr_opkit_custom_x86.so.\n\n");
    EXPECT_FALSE(IsLoaded());
}

}  // namespace
}  // namespace opkit
