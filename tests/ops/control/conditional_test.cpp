// If, ThenEnd, ElseBegin, CondEnd, and the resolvers they share.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

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

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr const char* kUnknown = "Unrecong cmp type for if opkit propagation.\n";
constexpr const char* kWrongCount = "cond end for loop input size is not equal to output size.\n";

std::string Message(const char* function, const char* text)
{
    return std::string("[") + function + ":#]" + text;
}

// A LayerParam over tensors of its own, for direct calls of helpers.
struct Bench {
    std::unique_ptr<LayerAttrHead> head = std::make_unique<LayerAttrHead>();
    std::vector<TensorInfo> inputs;
    std::vector<TensorInfo> outputs;
    std::vector<float> model;
    LayerParam param = {};

    LayerParam* Param()
    {
        param.attr = head.get();
        param.model = model.data();
        param.inputs = inputs.data();
        param.inputNum = static_cast<uint32_t>(inputs.size());
        param.outputs = outputs.data();
        param.outputNum = static_cast<uint32_t>(outputs.size());
        return &param;
    }
};

TensorInfo Info(float* data, std::vector<uint32_t>& shape, uint32_t stride)
{
    return {0, stride, 1, static_cast<uint32_t>(shape.size()), shape.data(), data, 0};
}

TEST(ParseInputInfo2, CountsTheFlagsBefore)
{
    Bench bench;
    std::vector<uint32_t> first = {2, 3};
    std::vector<uint32_t> second = {5};
    float a[8] = {};
    float b[8] = {};
    bench.inputs = {Info(a, first, 16), Info(b, second, 32)};
    bench.model.resize(32);
    const char flags[] = {'0', '1', 'x', '1', '\0'};  // any value but '1' is online
    std::copy(flags, flags + 5, bench.head->inputFlags);
    bench.head->offlineOffset[0] = 8;
    bench.head->offlineOffset[1] = 64;
    bench.head->offlineShape[0] = {{4, 7}, 2};
    bench.head->offlineShape[1] = {{6}, 1};

    struct Row {
        uint32_t k;
        float* data;
        int32_t dimNum;
        uint32_t stride;
        int32_t count;
        uint32_t isOffline;
    };
    const Row rows[] = {{0, a, 2, 16, 6, 0},
                        {1, bench.model.data() + 2, 2, 28, 28, 1},
                        {2, b, 1, 32, 5, 0},
                        {3, bench.model.data() + 16, 1, 24, 6, 1}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.k);
        TensorDesc desc = {-7, 7, -7, 7};
        float* data = nullptr;
        uint32_t* shape = nullptr;
        EXPECT_TRUE(ParseInputInfo2(&desc, &data, &shape, row.k, bench.Param()));
        EXPECT_EQ(data, row.data);
        EXPECT_EQ(desc.dimNum, row.dimNum);
        EXPECT_EQ(desc.stride, row.stride);
        EXPECT_EQ(desc.count, row.count);
        EXPECT_EQ(desc.isOffline, row.isOffline);
        ASSERT_NE(shape, nullptr);
        EXPECT_EQ(ElementCount({shape, shape + desc.dimNum}), static_cast<uint64_t>(row.count));
    }
    TensorDesc desc = {};
    float* data = nullptr;
    uint32_t* shape = nullptr;
    EXPECT_FALSE(ParseInputInfo2(&desc, &data, &shape, 4, bench.Param()));   // a third online input
    EXPECT_FALSE(ParseInputInfo2(&desc, &data, &shape, 80, bench.Param()));  // behind the last flag
    EXPECT_FALSE(ParseInputInfo2(&desc, &data, &shape, 0xFFFFFFFFu, bench.Param()));
}

// A constant without dimensions resolves; its stride comes from the word before its record.
TEST(ParseInputInfo2, OfflineWithoutDimensions)
{
    Bench bench;
    bench.head->inputFlags[0] = '1';
    bench.head->inputFlags[1] = '1';
    bench.head->offlineShape[0] = {{4, 7}, 2};
    bench.head->offlineShape[1].dimNum = 0;
    bench.head->offlineOffset[79] = 11;
    TensorDesc desc = {};
    float* data = nullptr;
    uint32_t* shape = nullptr;
    EXPECT_TRUE(ParseInputInfo2(&desc, &data, &shape, 1, bench.Param()));
    EXPECT_EQ(desc.dimNum, 0);
    EXPECT_EQ(desc.count, 1);
    EXPECT_EQ(desc.stride, 2u * 4);  // the count of record 0
    bench.head->offlineShape[0].dimNum = 0;
    EXPECT_TRUE(ParseInputInfo2(&desc, &data, &shape, 0, bench.Param()));
    EXPECT_EQ(desc.stride, 11u * 4);  // the last offset
}

TEST(ParseInputInfo2, NegativeOffsetsPointBeforeTheModel)
{
    Bench bench;
    bench.head->inputFlags[0] = '1';
    bench.head->offlineShape[0] = {{1}, 1};
    bench.head->offlineOffset[0] = -8;
    bench.model.resize(8);
    LayerParam* param = bench.Param();
    param->model = bench.model.data() + 4;
    TensorDesc desc = {};
    float* data = nullptr;
    uint32_t* shape = nullptr;
    EXPECT_TRUE(ParseInputInfo2(&desc, &data, &shape, 0, param));
    EXPECT_EQ(data, bench.model.data() + 2);
}

TEST(ParseOutputInfo, LeavesIsOffline)
{
    Bench bench;
    std::vector<uint32_t> shape = {2, 0x80000000u, 3};
    float value = 0;
    bench.outputs = {TensorInfo{}, Info(&value, shape, 48)};
    TensorDesc desc = {0, 0, 0, 5};
    float* data = nullptr;
    uint32_t* dims = nullptr;
    ParseOutputInfo(&bench.Param()->outputs, &data, &dims, &desc, 1);
    EXPECT_EQ(data, &value);
    EXPECT_EQ(dims, shape.data());
    EXPECT_EQ(desc.dimNum, 3);
    EXPECT_EQ(desc.stride, 48u);
    EXPECT_EQ(desc.count, 0);  // wraps
    EXPECT_EQ(desc.isOffline, 5u);
}

TEST(ParseOnlineInputInfoLoop, MultipliesIntoTheCount)
{
    Bench bench;
    std::vector<uint32_t> shape = {2, 3};
    float value = 0;
    bench.inputs = {Info(&value, shape, 16)};
    bench.head->inputFlags[0] = '1';  // flags do not count
    TensorDesc desc = {0, 0, 7, 9};
    float* data = nullptr;
    uint32_t* dims = nullptr;
    EXPECT_TRUE(ParseOnlineInputInfoLoop(&desc, &data, &dims, 0, bench.Param()));
    EXPECT_EQ(data, &value);
    EXPECT_EQ(dims, shape.data());
    EXPECT_EQ(desc.count, 42);
    EXPECT_EQ(desc.stride, 16u);
    EXPECT_EQ(desc.isOffline, 9u);
    EXPECT_FALSE(ParseOnlineInputInfoLoop(&desc, &data, &dims, 1, bench.Param()));
    EXPECT_EQ(data, &value);
    EXPECT_EQ(desc.count, 42);
}

TEST(InputToOutput, MovesRowsToAnotherPitch)
{
    uint32_t in[] = {2, 3};
    uint32_t out[] = {2, 3};
    TensorDesc inDesc = {2, 16, 6, 0};
    TensorDesc outDesc = {2, 32, 6, 0};
    float source[8] = {1, 2, 3, -1, 4, 5, 6, -1};
    std::vector<float> target(16, 9);
    InputToOutput(&inDesc, &outDesc, source, target.data(), {in, out});
    EXPECT_THAT(target, ElementsAre(1, 2, 3, 9, 9, 9, 9, 9, 4, 5, 6, 9, 9, 9, 9, 9));
    outDesc.count = 0;
    target.assign(16, 9);
    InputToOutput(&inDesc, &outDesc, source, target.data(), {in, out});
    outDesc.count = -1;
    InputToOutput(&inDesc, &outDesc, source, target.data(), {in, out});
    EXPECT_THAT(target, ::testing::Each(9));
    outDesc.count = 4;  // the output's count decides
    InputToOutput(&inDesc, &outDesc, source, target.data(), {in, out});
    EXPECT_THAT(target, ElementsAre(1, 2, 3, 9, 9, 9, 9, 9, 4, 9, 9, 9, 9, 9, 9, 9));
}

TEST(InputToOutput, GoesElementByElement)
{
    uint32_t shape[] = {5};
    TensorDesc desc = {1, 20, 5, 0};
    std::vector<float> memory = {1, 2, 3, 4, 5, 6, 7, 8};
    InputToOutput(&desc, &desc, memory.data(), memory.data() + 2, {shape, shape});
    EXPECT_THAT(memory, ElementsAre(1, 2, 1, 2, 1, 2, 1, 8));
    memory = {1, 2, 3, 4, 5, 6, 7, 8};
    InputToOutput(&desc, &desc, memory.data() + 2, memory.data(), {shape, shape});
    EXPECT_THAT(memory, ElementsAre(3, 4, 5, 6, 7, 6, 7, 8));
}

TEST(ParseInputToOutput, SmallerOutputTakesAPrefixAcrossWidths)
{
    Bench bench;
    std::vector<uint32_t> outShape = {2, 2};
    std::vector<float> target(8, 9);
    bench.outputs = {Info(target.data(), outShape, 16)};
    uint32_t in[] = {2, 3};
    TensorDesc inDesc = {2, 16, 6, 0};
    float source[8] = {1, 2, 3, -1, 4, 5, 6, -1};
    ParseInputToOutput(&bench.Param()->outputs, 0, in, &inDesc, source);
    EXPECT_THAT(target, ElementsAre(1, 2, 9, 9, 3, 4, 9, 9));
}

struct IfRow {
    float a;
    float b;
    uint32_t cmpType;
    uint8_t hasSecondOperand;
    bool holds;
};

const IfRow kIfRows[] = {
    {0.0f, 9, 0, 0, false},    {-0.0f, 9, 0, 0, false},        {1e-7f, 9, 0, 0, false},
    {1e-6f, 9, 0, 0, false},   {2e-6f, 9, 0, 0, true},         {-2e-6f, 9, 0, 0, true},
    {kNan, 9, 0, 0, true},     {-kInf, 9, 0, 0, true},         {1.0f, 9, 2, 0, true},
    {0.0f, 9, 2, 0, false},  // cmpType is not looked at
    {1.0f, 1.0f, 0, 1, false}, {1.0000001f, 1.0f, 0, 1, true}, {0.5f, 1.0f, 0, 1, false},
    {kInf, 1.0f, 0, 1, true},  {kNan, 1.0f, 0, 1, false},      {1.0f, kNan, 0, 1, false},
    {1.0f, 1.0f, 1, 1, true},  {1.0f, 1.0000005f, 1, 1, true}, {1.0f, 1.000002f, 1, 1, false},
    {kNan, kNan, 1, 1, false}, {kInf, kInf, 1, 1, false},      {2.0f, 1.0f, 0, 0x80, true},
};

TEST(If, WritesTheConditionAndTheSegment)
{
    for (const IfRow& row : kIfRows) {
        for (int kinds = 0; kinds < 4; ++kinds) {  // each operand online or offline
            LayerCase layer("IfOpkitForward");
            const auto add = [&](bool offline, float first) {
                const std::vector<float> data = {first, 77, -77};  // the others do not count
                offline ? layer.Offline({3}, data) : layer.Online({3}, data, 16);
            };
            add((kinds & 1) != 0, row.a);
            add((kinds & 2) != 0, row.b);
            layer.Output({2}, 16).SegId(5);
            IfAttr& attr = layer.Attr<IfAttr>();
            attr.cmpType = row.cmpType;
            attr.hasSecondOperand = row.hasSecondOperand;
            std::fill(attr.reserved3933, attr.reserved3933 + 3, uint8_t{1});  // only one byte is the flag
            attr.thenSegId = 111;
            attr.elseSegId = 222;
            World world(layer);
            const float second = world.OutputRows()[1];
            EXPECT_EQ(world.RunDirect(IfOpkitForward), 0u);
            EXPECT_EQ(world.Output()[0], row.holds ? 1.0f : 0.0f) << row.a << " " << row.b << " " << kinds;
            EXPECT_EQ(world.Param().segId, row.holds ? 111u : 222u);
            EXPECT_EQ(std::memcmp(&world.OutputRows()[1], &second, 4), 0);
            ExpectSameAsReference(layer, IfOpkitForward, RefIf);
        }
    }
}

TEST(If, RefusesAnUnknownComparison)
{
    LayerCase layer("IfOpkitForward");
    layer.Online({1}, {1}).Online({1}, {2}).Output({1}).SegId(5);
    layer.Attr<IfAttr>().hasSecondOperand = 1;
    layer.Attr<IfAttr>().cmpType = 2;
    World world(layer);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, IfOpkitForward);
    EXPECT_EQ(run.result, 1u);
    EXPECT_EQ(run.messages, Message("IfOpkitForward", kUnknown));
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    ExpectSameAsReference(layer, IfOpkitForward, RefIf);
}

TEST(ThenEnd, PassesTensorsAndLeavesTheSegment)
{
    LayerCase layer("ThenEndOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Offline({2}, {7, 8}).Output({2, 3}, 32).Output({2}, 16).SegId(5);
    layer.Attr<ThenEndAttr>().tensorNum = 2;
    layer.Attr<ThenEndAttr>().nextSegId = 42;
    World world(layer);
    EXPECT_EQ(world.RunDirect(ThenEndOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(world.Output(1), ElementsAre(7, 8));
    EXPECT_EQ(world.Param().segId, 42u);
    ExpectSameAsReference(layer, ThenEndOpkitForward, RefThenEnd);
}

TEST(ThenEnd, WithoutTensorsOnlyTheSegment)
{
    for (const int32_t tensorNum : {0, -3}) {
        LayerCase layer("ThenEndOpkitForward");
        layer.Online({1}, {1}).Output({1}).SegId(5);
        layer.Attr<ThenEndAttr>().tensorNum = tensorNum;
        layer.Attr<ThenEndAttr>().nextSegId = 42;
        World world(layer);
        EXPECT_EQ(world.RunDirect(ThenEndOpkitForward), 0u);
        EXPECT_EQ(world.Param().segId, 42u);
        ExpectSameAsReference(layer, ThenEndOpkitForward, RefThenEnd);
    }
}

TEST(ThenEnd, MissingInputKeepsTheSegmentAndWhatWasCopied)
{
    LayerCase layer("ThenEndOpkitForward");
    layer.Online({2}, {1, 2}).Output({2}).Output({2}).SegId(5);
    layer.Attr<ThenEndAttr>().tensorNum = 2;
    layer.Attr<ThenEndAttr>().nextSegId = 42;
    World world(layer);
    const RunResult run = RunCaptured(world, ThenEndOpkitForward);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages, "");
    EXPECT_THAT(world.Output(0), ElementsAre(1, 2));
    EXPECT_EQ(world.Param().segId, 5u);
    ExpectSameAsReference(layer, ThenEndOpkitForward, RefThenEnd);
}

TEST(ElseBegin, LeavesTheSegmentAlone)
{
    LayerCase layer("ElseBeginOpkitForward");
    layer.Online({2}, {1, 2}).Output({2}).SegId(5);
    layer.Attr<ElseBeginAttr>().tensorNum = 1;
    World world(layer);
    EXPECT_EQ(world.RunDirect(ElseBeginOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(1, 2));
    EXPECT_EQ(world.Param().segId, 5u);
    ExpectSameAsReference(layer, ElseBeginOpkitForward, RefElseBegin);

    layer.Attr<ElseBeginAttr>().tensorNum = 0;
    World idle(layer);
    const World before = idle.Clone();
    EXPECT_EQ(idle.RunDirect(ElseBeginOpkitForward), 0u);
    EXPECT_EQ(World::Difference(idle, before, NanPolicy::kExactBits), "");

    layer.Attr<ElseBeginAttr>().tensorNum = 2;
    layer.Output({2});
    World missing(layer);
    const RunResult run = RunCaptured(missing, ElseBeginOpkitForward);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages, "");
    ExpectSameAsReference(layer, ElseBeginOpkitForward, RefElseBegin);
}

LayerCase FourInputs()
{
    LayerCase layer("CondEndOpkitForward");
    layer.Online({2}, {10, 11}).Offline({2}, {20, 21}).Online({2}, {30, 31}).Offline({2}, {40, 41});
    layer.Output({2}).Output({2}).SegId(5);
    CondEndAttr& attr = layer.Attr<CondEndAttr>();
    attr.tensorNum = 2;
    attr.nextSegId = 42;
    return layer;
}

TEST(CondEnd, IfBranchTakesTheHalfThatItsCodeNames)
{
    for (const uint32_t code : {1u, 2u, 0xFFFFFFFFu}) {
        LayerCase layer = FourInputs();
        layer.Attr<CondEndAttr>().ifBranch = code;
        layer.Attr<CondEndAttr>().loopBranch = 1;  // comes second
        World world(layer);
        EXPECT_EQ(world.RunDirect(CondEndOpkitForward), 0u);
        EXPECT_THAT(world.Output(0), code == 1 ? ElementsAre(10, 11) : ElementsAre(30, 31));
        EXPECT_THAT(world.Output(1), code == 1 ? ElementsAre(20, 21) : ElementsAre(40, 41));
        EXPECT_EQ(world.Param().segId, 0xFFFFFFFFu);
        ExpectSameAsReference(layer, CondEndOpkitForward, RefCondEnd);
    }
}

TEST(CondEnd, IfBranchSetsTheSegmentFirst)
{
    Bench none;
    auto attr = std::make_unique<CondEndAttr>();
    attr->ifBranch = 1;
    none.param.segId = 5;
    LayerParam* param = none.Param();
    param->attr = attr.get();
    EXPECT_EQ(IfBranch(param), 0u);  // no outputs
    EXPECT_EQ(param->segId, 0xFFFFFFFFu);

    std::vector<uint32_t> shape = {1};
    float value = 3;
    none.outputs = {Info(&value, shape, 4)};
    none.param.segId = 5;
    param = none.Param();
    param->attr = attr.get();
    EXPECT_EQ(IfBranch(param), 0xFFFFFFFFu);  // no input
    EXPECT_EQ(param->segId, 0xFFFFFFFFu);
    EXPECT_EQ(value, 3);

    LayerCase layer("CondEndOpkitForward");  // the driver does not take over the segment of a failed layer
    layer.Online({1}, {1}).Output({1}).Output({1}).SegId(5);
    layer.Attr<CondEndAttr>().ifBranch = 1;
    World world(layer);
    EXPECT_EQ(RunRequestCaptured(world).result, 0xFFFFFFFFu);
    EXPECT_EQ(world.Param().segId, 5u);
    EXPECT_THAT(world.Output(0), ElementsAre(1));
}

TEST(CondEnd, LoopBranchTakesTheConditionFromAnInput)
{
    LayerCase layer = FourInputs();
    layer.Attr<CondEndAttr>().loopBranch = 7;
    layer.Attr<CondEndAttr>().scanBranch = 1;  // comes third
    layer.Attr<CondEndAttr>().condValue = 0xFFFFFFFFu;
    World world(layer);
    const float second = world.OutputRows()[1];
    EXPECT_EQ(world.RunDirect(CondEndOpkitForward), 0u);
    EXPECT_EQ(world.Output(0)[0], 10.0f);
    EXPECT_EQ(std::memcmp(&world.OutputRows()[1], &second, 4), 0);  // the rest of output 0 is not written
    EXPECT_THAT(world.Output(1), ElementsAre(20, 21));
    EXPECT_EQ(world.Param().segId, 42u);
    ExpectSameAsReference(layer, CondEndOpkitForward, RefCondEnd);
}

TEST(CondEnd, LoopBranchWithAConstantCondition)
{
    for (const uint32_t value : {0u, 1u, 0xFFFFFFFEu}) {
        LayerCase layer = FourInputs();
        layer.Attr<CondEndAttr>().loopBranch = 1;
        layer.Attr<CondEndAttr>().condValue = value;
        layer.Attr<CondEndAttr>().tensorNum = 9;  // not compared
        World world(layer);
        EXPECT_EQ(world.RunDirect(CondEndOpkitForward), 0u);
        EXPECT_EQ(world.Output(0)[0], value == 0xFFFFFFFEu ? -2.0f : static_cast<float>(value));
        EXPECT_THAT(world.Output(1), ElementsAre(10, 11));  // logical input 0
        EXPECT_EQ(world.Param().segId, 42u);
        ExpectSameAsReference(layer, CondEndOpkitForward, RefCondEnd);
    }
}

TEST(CondEnd, Failures)
{
    struct Row {
        uint32_t loopBranch;
        uint32_t scanBranch;
        uint32_t condValue;
        uint32_t tensorNum;
        size_t inputs;
        uint32_t result;
        std::string message;
    };
    const Row rows[] = {
        {0, 0, 0, 2, 2, 1, Message("CondEndOpkitForward", kUnknown)},
        {1, 0, 0xFFFFFFFFu, 3, 2, 1, Message("LoopBranch", kWrongCount)},
        {0, 1, 0, 3, 2, 1, Message("ScanBranch", kWrongCount)},
        {1, 0, 0xFFFFFFFFu, 2, 0, 0xFFFFFFFFu, ""},
        {1, 0, 1, 2, 0, 0xFFFFFFFFu, ""},  // input 0 is needed though it is not read
        {1, 0, 0xFFFFFFFFu, 2, 1, 0xFFFFFFFFu, ""},
        {0, 1, 0, 2, 1, 0xFFFFFFFFu, ""},
    };
    for (const Row& row : rows) {
        LayerCase layer("CondEndOpkitForward");
        for (size_t i = 0; i < row.inputs; ++i) {
            layer.Online({1}, {static_cast<float>(i) + 1});
        }
        layer.Output({1}).Output({1}).SegId(5);
        CondEndAttr& attr = layer.Attr<CondEndAttr>();
        attr.loopBranch = row.loopBranch;
        attr.scanBranch = row.scanBranch;
        attr.condValue = row.condValue;
        attr.tensorNum = row.tensorNum;
        attr.nextSegId = 42;
        World world(layer);
        const RunResult run = RunCaptured(world, CondEndOpkitForward);
        EXPECT_EQ(run.result, row.result);
        EXPECT_EQ(run.messages, row.message);
        EXPECT_EQ(world.Param().segId, 5u);
        ExpectSameAsReference(layer, CondEndOpkitForward, RefCondEnd);
    }
}

TEST(CondEnd, ScanBranchKeepsTheSegment)
{
    LayerCase layer = FourInputs();
    layer.Attr<CondEndAttr>().scanBranch = 3;
    World world(layer);
    EXPECT_EQ(world.RunDirect(CondEndOpkitForward), 0u);
    EXPECT_THAT(world.Output(0), ElementsAre(10, 11));
    EXPECT_THAT(world.Output(1), ElementsAre(20, 21));
    EXPECT_EQ(world.Param().segId, 5u);
    ExpectSameAsReference(layer, CondEndOpkitForward, RefCondEnd);

    Bench none;
    auto attr = std::make_unique<CondEndAttr>();
    LayerParam* param = none.Param();
    param->attr = attr.get();
    EXPECT_EQ(ScanBranch(param), 0u);  // no outputs, no tensors
}

// Six layers of one conditional in one table: all run, in order, whatever the condition says.
TEST(Conditional, OneTableRunsBothPaths)
{
    for (const float condition : {0.0f, 1.0f}) {
        modelkit::ModelBuilder builder;
        const auto cond = builder.AddInput({"cond", {1}});
        const auto x = builder.AddInput({"x", {2}});
        const auto y = builder.AddOutput({"y", {2}});
        const auto flag = builder.AddScratch({"flag", {1}});
        const auto thenIn = builder.AddScratch({"thenIn", {2}});
        const auto thenOut = builder.AddScratch({"thenOut", {2}});
        const auto elseIn = builder.AddScratch({"elseIn", {2}});
        const auto elseOut = builder.AddScratch({"elseOut", {2}});
        IfAttr ifAttr = {};
        ifAttr.thenSegId = 1;
        ifAttr.elseSegId = 2;
        builder.AddLayer("IfOpkitForward").Online(cond).Output(flag).Attr(ifAttr);
        builder.AddLayer("NegOpkitForward").Online(x).Output(thenIn);
        ThenEndAttr thenEnd = {};
        thenEnd.tensorNum = 1;
        thenEnd.nextSegId = 3;
        builder.AddLayer("ThenEndOpkitForward").Online(thenIn).Output(thenOut).Attr(thenEnd);
        ElseBeginAttr elseBegin = {};
        elseBegin.tensorNum = 1;
        builder.AddLayer("ElseBeginOpkitForward").Online(x).Output(elseIn).Attr(elseBegin);
        builder.AddLayer("SignOpkitForward").Online(elseIn).Output(elseOut);
        CondEndAttr condEnd = {};
        condEnd.ifBranch = 2;
        builder.AddLayer("CondEndOpkitForward").Online(thenOut).Online(elseOut).Output(y).Attr(condEnd);
        World world(builder.Build());
        world.SetInput(0, std::vector<float>{condition});
        world.SetInput(1, std::vector<float>{5, -5});
        EXPECT_EQ(world.RunRequest(), 0u);
        EXPECT_EQ(world.Param().segId, 0xFFFFFFFFu);
        const float* out = static_cast<const float*>(world.Param().outputs[0].data);
        EXPECT_EQ(out[0], 1.0f);  // the else half, also when the condition holds
        EXPECT_EQ(out[1], -1.0f);
    }
}

// The segment of the last batch item is the one that stays.
TEST(Conditional, LastBatchItemDecides)
{
    LayerCase layer("IfOpkitForward");
    layer.Online({1}, {1, 0}).Output({1}).Batch(2);
    layer.Attr<IfAttr>().thenSegId = 1;
    layer.Attr<IfAttr>().elseSegId = 2;
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    EXPECT_EQ(world.Param().segId, 2u);
    EXPECT_EQ(world.Output(0, 0)[0], 1.0f);
    EXPECT_EQ(world.Output(0, 1)[0], 0.0f);
}

TEST(Conditional, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        struct Row {
            const char* name;
            ForwardFunc forward;
            ForwardFunc reference;
        };
        const Row rows[] = {{"ThenEndOpkitForward", ThenEndOpkitForward, RefThenEnd},
                            {"ElseBeginOpkitForward", ElseBeginOpkitForward, RefElseBegin},
                            {"CondEndOpkitForward", CondEndOpkitForward, RefCondEnd}};
        const Row& row = rows[random.Int(0, 2)];
        const int outputs = random.Int(1, 4);
        const bool isCondEnd = row.forward == CondEndOpkitForward;
        const uint32_t ifBranch = isCondEnd ? static_cast<uint32_t>(random.Int(0, 2)) : 0;
        const int inputs = ifBranch != 0 ? 2 * outputs : outputs;
        LayerCase layer(row.name);
        std::vector<Shape> shapes;
        for (int i = 0; i < inputs; ++i) {
            const Shape shape = random.Shape(1, 5, 500);
            shapes.push_back(shape);
            const std::vector<float> data = random.Floats(ElementCount(shape), Values::kBits);
            if (random.Chance(0.4)) {
                layer.Offline(shape, data);
            } else {
                layer.Online(shape, data, random.Stride(shape.back()));
            }
        }
        for (int i = 0; i < outputs; ++i) {
            // As large as the smallest input that may come here, or one row of that size.
            const uint64_t count = std::min(ElementCount(shapes[static_cast<size_t>(i)]),
                                            ElementCount(shapes[static_cast<size_t>(inputs - outputs + i)]));
            const uint64_t moved = i > 0 ? ElementCount(shapes[static_cast<size_t>(i - 1)]) : count;
            const bool same = random.Chance(0.6) && inputs == outputs && moved >= count;
            Shape shape = same ? shapes[static_cast<size_t>(i)] : Shape{static_cast<uint32_t>(std::min(count, moved))};
            layer.Output(shape, random.Stride(shape.back()));
        }
        if (isCondEnd) {
            CondEndAttr& attr = layer.Attr<CondEndAttr>();
            attr.ifBranch = ifBranch;
            attr.loopBranch = static_cast<uint32_t>(random.Int(0, 1));
            attr.scanBranch = static_cast<uint32_t>(random.Int(0, 1));
            attr.tensorNum = static_cast<uint32_t>(random.Chance(0.9) ? outputs : outputs + 1);
            attr.condValue = random.Chance(0.5) ? 0xFFFFFFFFu : random.Word();
            attr.nextSegId = random.Word();
        } else {
            layer.Attr<ThenEndAttr>().tensorNum = random.Int(-1, outputs);
            layer.Attr<ThenEndAttr>().nextSegId = random.Word();
        }
        layer.Batch(static_cast<uint32_t>(random.Int(1, 3))).SegId(random.Word());
        ExpectSameAsReference(layer, row.forward, row.reference);
    });
}

}  // namespace
}  // namespace opkit
