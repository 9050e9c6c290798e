// What a layer's tensors become: memory kinds, slices per batch item, strides, and the refusals.

#include <gtest/gtest.h>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;

ModelOffsets& OffsetsOf(ForwardParam& param)
{
    return *static_cast<ModelOffsets*>(param.attr);
}

uint8_t* Base(World& world)
{
    return static_cast<uint8_t*>(world.Param().model) + OffsetsOf(world.Param()).layerTableOffset;
}

uint32_t FirstLayer(World& world)
{
    return reinterpret_cast<uint32_t*>(Base(world))[1];
}

TensorRecord& InputRecord(World& world)
{
    return *reinterpret_cast<TensorRecord*>(Base(world) + world.Layer().inputTableOffset);
}

TensorRecord& OutputRecord(World& world)
{
    return *reinterpret_cast<TensorRecord*>(Base(world) + world.Layer().outputTableOffset);
}

// Three items of two padded rows of three floats.
LayerCase ThreeItems()
{
    LayerCase layer("NegOpkitForward");
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 32).Workspace(256).Batch(3).SegId(77);
    return layer;
}

struct Parsed {
    explicit Parsed(World& world, uint32_t batch = 0)
        : result(ParseLayerParam(&world.Param(), FirstLayer(world), &layer, batch))
    {
    }
    ~Parsed() { ReleaseLayerParam(&layer); }
    LayerParam layer = {};
    uint32_t result;
};

TEST(LayerParser, FillsTheLayer)
{
    World world(ThreeItems());
    const Parsed parsed(world, 2);
    const LayerParam& layer = parsed.layer;
    const ForwardParam& request = world.Param();
    ASSERT_EQ(parsed.result, 0u);
    EXPECT_STREQ(layer.name, "NegOpkitForward");
    EXPECT_EQ(layer.segId, 77u);
    EXPECT_EQ(layer.inputNum, 1u);
    EXPECT_EQ(layer.outputNum, 1u);
    EXPECT_EQ(layer.model, request.model);
    EXPECT_EQ(layer.modelSize, request.modelSize);
    EXPECT_EQ(layer.attr, Base(world) + world.Layer().attrOffset);
    EXPECT_EQ(layer.attrSize, world.Layer().attrSize);
    EXPECT_EQ(layer.opkitBuf, static_cast<uint8_t*>(request.opkitBuf) + world.Layer().bufOffset);
    EXPECT_EQ(layer.opkitBufSize, 256u);
    const TensorInfo& input = layer.inputs[0];
    EXPECT_EQ(input.reserved, 0u);
    EXPECT_EQ(input.batch, 1u);
    EXPECT_EQ(input.dimNum, 2u);
    EXPECT_EQ(input.shape[1], 3u);
    EXPECT_EQ(input.stride, 16u);
    EXPECT_EQ(input.size, request.inputs[0].size / 3);
    EXPECT_EQ(input.data, static_cast<uint8_t*>(request.inputs[0].data) + 2 * (request.inputs[0].size / 3));
    EXPECT_EQ(layer.outputs[0].stride, 32u);
    EXPECT_EQ(layer.stopFlag, nullptr);
    EXPECT_EQ(layer.profiling.slots, nullptr);
}

TEST(LayerParser, MemoryKinds)
{
    for (uint32_t kind = 0; kind <= 7; ++kind) {
        SCOPED_TRACE(kind);
        World world(ThreeItems());
        InputRecord(world).memKind = kind;
        InputRecord(world).size = 24;
        if (kind > 1) {
            InputRecord(world).memIndex = 8;
            InputRecord(world).strideIndex = 12;
        }
        const Parsed parsed(world, 2);
        ASSERT_EQ(parsed.result, 0u);
        const TensorInfo& input = parsed.layer.inputs[0];
        const uint8_t* request = static_cast<uint8_t*>(world.Param().inputs[0].data);
        const uint8_t* scratch = static_cast<uint8_t*>(world.Param().opkitBuf);
        const uint8_t* expected = kind < 2 ? request + 2 * 32 : kind == 3 ? scratch + 8 + 2 * 24 : scratch + 8;
        EXPECT_EQ(input.data, expected);
        EXPECT_EQ(input.size, kind < 2 ? 32u : 24u);
        EXPECT_EQ(input.stride, kind < 2 ? 16u : 12u);
    }
}

TEST(LayerParser, ScratchTensorBeyondTheScratchIsNotRefused)
{
    World world(ThreeItems());
    OutputRecord(world) = {2, 0x7FFFFF00u, 0xFFFFFFFFu, 4, OutputRecord(world).shapeOffset, 8};
    const Parsed parsed(world);
    EXPECT_EQ(parsed.result, 0u);
    EXPECT_EQ(parsed.layer.outputs[0].data, static_cast<uint8_t*>(world.Param().opkitBuf) + 0x7FFFFF00u);
}

TEST(LayerParser, BatchProductWrapsIn32Bits)
{
    World world(ThreeItems());
    InputRecord(world) = {3, 4, 0x80000001u, 4, InputRecord(world).shapeOffset, 8};
    const Parsed parsed(world, 2);
    ASSERT_EQ(parsed.result, 0u);
    EXPECT_EQ(parsed.layer.inputs[0].data, static_cast<uint8_t*>(world.Param().opkitBuf) + 4 + 2);
}

TEST(LayerParser, DivisorIsTheFirstInputsBatchForOutputsToo)
{
    World world(ThreeItems());
    world.Param().outputs[0].batch = 1;
    const Parsed parsed(world, 1);
    ASSERT_EQ(parsed.result, 0u);
    EXPECT_EQ(parsed.layer.outputs[0].size, world.Param().outputs[0].size / 3);
}

struct RefusalRow {
    const char* what;
    std::function<void(World&)> change;
    const char* messages;
};

const RefusalRow kRefusals[] = {
    {"input shape outside", [](World& w) { InputRecord(w).shapeOffset = 0xFFFFFF00u; },
     "[ParseLayerInputInfo:#]Check buffer size failed.\n\n[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n"},
    {"input shape too long", [](World& w) { InputRecord(w).shapeSize = w.Param().modelSize; },
     "[ParseLayerInputInfo:#]Check buffer size failed.\n\n[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n"},
    {"output shape outside", [](World& w) { OutputRecord(w).shapeOffset = 0xFFFFFF00u; },
     "[ParseLayerOutputInfo:#]Check buffer size failed.\n\n[ParseLayerParam:#]ParseLayeroutputInfo failed!\n\n"},
    {"input index", [](World& w) { InputRecord(w).memIndex = 5; },
     "[ParseLayerInputInfo:#]In stride idx[0] or mem idx[5] larger than 1!\n\n"
     "[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n"},
    {"input stride index", [](World& w) { InputRecord(w).strideIndex = 6; },
     "[ParseLayerInputInfo:#]In stride idx[6] or mem idx[0] larger than 1!\n\n"
     "[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n"},
    {"output index", [](World& w) { OutputRecord(w).memIndex = 1; },
     "[ParseLayerOutputInfo:#]Out stride idx[0] or mem idx[1] larger than 1!\n\n"
     "[ParseLayerParam:#]ParseLayeroutputInfo failed!\n\n"},
    {"output stride index", [](World& w) { OutputRecord(w).strideIndex = 9; },
     "[ParseLayerOutputInfo:#]Out stride idx[9] or mem idx[0] larger than 1!\n\n"
     "[ParseLayerParam:#]ParseLayeroutputInfo failed!\n\n"},
    {"input size", [](World& w) { w.Param().inputs[0].size = 97; },
     "[ParseLayerInputInfo:#]Invalid input[0] size[97], batch[3]!\n\n"
     "[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n"},
    {"output size", [](World& w) { w.Param().outputs[0].size = 98; },
     "[ParseLayerOutputInfo:#]Invalid output[0] size[98], batch[3]!\n\n"
     "[ParseLayerParam:#]ParseLayeroutputInfo failed!\n\n"},
};

TEST(LayerParser, Refusals)
{
    for (const RefusalRow& row : kRefusals) {
        SCOPED_TRACE(row.what);
        World world(ThreeItems());
        row.change(world);
        CaptureStdout capture;
        const Parsed parsed(world);
        EXPECT_EQ(NormalizeMessages(capture.Stop()), row.messages);
        EXPECT_EQ(parsed.result, OPKIT_FAILURE);
        EXPECT_EQ(parsed.layer.inputs, nullptr);
        EXPECT_EQ(parsed.layer.outputs, nullptr);
    }
}

// The limit that the input message shows is the number of outputs.
TEST(LayerParser, InputMessageShowsTheOutputCount)
{
    World world(ThreeItems());
    TensorInfo outputs[4] = {};
    world.Param().outputs = outputs;
    world.Param().outputNum = 4;
    InputRecord(world).memIndex = 2;
    CaptureStdout capture;
    const Parsed parsed(world);
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[ParseLayerInputInfo:#]In stride idx[0] or mem idx[2] larger than 4!\n\n"
              "[ParseLayerParam:#]ParseLayerInputInfo failed!\n\n");
}

}  // namespace
}  // namespace opkit
