// The one buffer written by hand, byte by byte: what the builder must produce, and what the library must run.

#include <gmock/gmock.h>

#include <cstring>

#include "modelkit/model_builder.h"
#include "modelkit/model_reader.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;
using testing::ElementsAre;

constexpr uint32_t kTable = 16;
constexpr uint32_t kAttr = 152;
constexpr uint32_t kSize = 8984;

void Word(std::vector<uint8_t>* bytes, uint32_t at, uint32_t value)
{
    (*bytes)[at] = static_cast<uint8_t>(value);
    (*bytes)[at + 1] = static_cast<uint8_t>(value >> 8);
    (*bytes)[at + 2] = static_cast<uint8_t>(value >> 16);
    (*bytes)[at + 3] = static_cast<uint8_t>(value >> 24);
}

// One layer: x [2, 3] in rows of 16 bytes and a constant [3] go in, y [2, 3] in compact rows comes out.
std::vector<uint8_t> HandWritten()
{
    std::vector<uint8_t> b(kSize);
    Word(&b, 0, 0x3f800000);  // the constant: 1.0, 2.0, 3.0
    Word(&b, 4, 0x40000000);
    Word(&b, 8, 0x40400000);

    Word(&b, 16, 1);  // layer count; from here on offsets count from byte 16
    Word(&b, 20, 8);  // the layer's record

    Word(&b, 24, 7);   // layer id
    Word(&b, 28, 56);  // name
    Word(&b, 32, 16);
    Word(&b, 36, 0);  // work space
    Word(&b, 40, 100);
    Word(&b, 44, 136);  // attribute block
    Word(&b, 48, 8832);
    Word(&b, 52, 1);  // inputs
    Word(&b, 56, 72);
    Word(&b, 60, 1);  // outputs
    Word(&b, 64, 104);

    const char name[] = "NegOpkitForward";
    for (uint32_t i = 0; i < 16; ++i) {
        b[72 + i] = static_cast<uint8_t>(name[i]);
    }

    Word(&b, 88, 0);  // x: request tensor 0, 32 bytes, stride of request tensor 0
    Word(&b, 92, 0);
    Word(&b, 96, 32);
    Word(&b, 100, 0);
    Word(&b, 104, 96);  // dimensions
    Word(&b, 108, 8);
    Word(&b, 112, 2);
    Word(&b, 116, 3);

    Word(&b, 120, 0);  // y
    Word(&b, 124, 0);
    Word(&b, 128, 24);
    Word(&b, 132, 0);
    Word(&b, 136, 128);
    Word(&b, 140, 8);
    Word(&b, 144, 2);
    Word(&b, 148, 3);

    Word(&b, kAttr, 0);         // offline input 0 lies at byte 0 of the buffer
    Word(&b, kAttr + 320, 3);   // its dimensions
    Word(&b, kAttr + 360, 1);   // and their number
    Word(&b, kAttr + 3840, 1);  // one offline input
    b[kAttr + 3844] = '0';      // logical input 0 is online
    b[kAttr + 3845] = '1';      // logical input 1 is offline
    b[kAttr + 3924] = 0xAA;     // the operator's own bytes
    b[kAttr + 3925] = 0xBB;
    return b;
}

TEST(WireFormat, BuilderWritesExactlyTheseBytes)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}});
    const std::byte own[] = {std::byte{0xAA}, std::byte{0xBB}};
    builder.AddLayer("NegOpkitForward")
        .Online(x)
        .Offline({3}, {1, 2, 3})
        .Output(y)
        .AttrBytes(own)
        .Workspace(100)
        .LayerId(7);
    const Model model = builder.Build();

    const std::vector<uint8_t> expected = HandWritten();
    ASSERT_EQ(model.bytes.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(static_cast<unsigned>(model.bytes.data()[i]), expected[i]) << "byte " << i;
    }
    EXPECT_EQ(model.tables.at(0).layerTableOffset, kTable);
    EXPECT_EQ(model.tables.at(0).layerTableSize, kSize - kTable);
    EXPECT_EQ(model.scratchSize, 100u);
}

TEST(WireFormat, LibraryRunsTheseBytes)
{
    const std::vector<uint8_t> bytes = HandWritten();
    Buffer model{std::as_bytes(std::span(bytes))};
    float x[8] = {1, 2, 3, 99, 4, 5, 6, 99};
    float y[6] = {};
    uint32_t scratch[25] = {};
    TensorInfo input = {};
    input.stride = 16;
    input.batch = 1;
    input.data = x;
    input.size = sizeof(x);
    TensorInfo output = {};
    output.stride = 12;
    output.data = y;
    output.size = sizeof(y);
    ModelOffsets offsets = {kTable, kSize - kTable};
    ForwardParam param = {};
    param.inputs = &input;
    param.inputNum = 1;
    param.outputs = &output;
    param.outputNum = 1;
    param.opkitBuf = scratch;
    param.opkitBufSize = sizeof(scratch);
    param.attr = &offsets;
    param.attrSize = sizeof(offsets);
    param.model = model.data();
    param.modelSize = kSize;
    EXPECT_EQ(OpkitForward(&param), 0u);
    EXPECT_THAT(y, ElementsAre(-1, -2, -3, -4, -5, -6));
}

TEST(WireFormat, ReaderReadsTheseBytes)
{
    const std::vector<uint8_t> bytes = HandWritten();
    const ReadTable table = ReadLayerTable(std::as_bytes(std::span(bytes)), kTable, kSize - kTable);
    ASSERT_EQ(table.layers.size(), 1u);
    const ReadLayer& layer = table.layers[0];
    EXPECT_EQ(layer.name, "NegOpkitForward");
    EXPECT_EQ(layer.record.layerId, 7u);
    EXPECT_EQ(layer.record.bufSize, 100u);
    EXPECT_EQ(layer.recordOffset, 24u);
    EXPECT_EQ(layer.nameOffset, 72u);
    EXPECT_EQ(layer.attrOffset, kAttr);
    ASSERT_EQ(layer.inputs.size(), 1u);
    EXPECT_THAT(layer.inputs[0].shape, ElementsAre(2, 3));
    EXPECT_EQ(layer.inputs[0].recordOffset, 88u);
    EXPECT_EQ(layer.inputs[0].shapeOffset, 112u);
    ASSERT_EQ(layer.outputs.size(), 1u);
    EXPECT_EQ(layer.outputs[0].record.size, 24u);
    ASSERT_EQ(layer.offline.size(), 1u);
    EXPECT_EQ(layer.offline[0].logicalIndex, 1u);
    EXPECT_EQ(layer.offline[0].dataOffset, 0u);
    EXPECT_THAT(layer.offline[0].shape, ElementsAre(3));
    EXPECT_EQ(layer.flags, "01");
}

}  // namespace
