// The request check and the layer checks: every refusal with its message, and the sums that wrap and so pass.

#include <gtest/gtest.h>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;

LayerCase NegLayer()
{
    LayerCase layer("NegOpkitForward");
    layer.Online({2, 2}, {1, 2, 3, 4}).Output({2, 2}).Workspace(64);
    return layer;
}

struct RequestRow {
    const char* what;
    std::function<void(ForwardParam&)> change;
    const char* message;  // null: accepted
};

ModelOffsets& OffsetsOf(ForwardParam& param)
{
    return *static_cast<ModelOffsets*>(param.attr);
}

const RequestRow kRequestRows[] = {
    {"unchanged", [](ForwardParam&) {}, nullptr},
    {"no inputs", [](ForwardParam& p) { p.inputNum = 0; }, "Input error!\n\n"},
    {"null inputs", [](ForwardParam& p) { p.inputs = nullptr; }, "Input error!\n\n"},
    {"no outputs", [](ForwardParam& p) { p.outputNum = 0; }, "Output error!\n\n"},
    {"null outputs", [](ForwardParam& p) { p.outputs = nullptr; }, "Output error!\n\n"},
    {"null scratch", [](ForwardParam& p) { p.opkitBuf = nullptr; }, "Null ptr!\n\n"},
    {"null scratch of size 0",
     [](ForwardParam& p) {
         p.opkitBuf = nullptr;
         p.opkitBufSize = 0;
     },
     nullptr},
    {"offsets of 16 bytes", [](ForwardParam& p) { p.attrSize = 16; }, "Null ptr!\n\n"},
    {"null offsets", [](ForwardParam& p) { p.attr = nullptr; }, "Null ptr!\n\n"},
    {"no model", [](ForwardParam& p) { p.modelSize = 0; }, "Null ptr!\n\n"},
    {"null model", [](ForwardParam& p) { p.model = nullptr; }, "Null ptr!\n\n"},
    {"batch 256", [](ForwardParam& p) { p.inputs[0].batch = 256; }, nullptr},
    {"batch 257", [](ForwardParam& p) { p.inputs[0].batch = 257; }, "Batch num should less than 256!\n\n"},
    {"largest model", [](ForwardParam& p) { p.modelSize = 0x40000000; }, nullptr},
    {"model too large", [](ForwardParam& p) { p.modelSize = 0x40000001; }, "Check buffer size failed.\n\n"},
    {"table behind the model",
     [](ForwardParam& p) {
         OffsetsOf(p) = {p.modelSize + 1, 0};
     },
     "Check buffer size failed.\n\n"},
    {"no room for the count",
     [](ForwardParam& p) {
         OffsetsOf(p) = {p.modelSize - 3, 0};
     },
     "Check buffer size failed.\n\n"},
    {"just room for the count",
     [](ForwardParam& p) {
         OffsetsOf(p) = {p.modelSize - 4, 0};
     },
     nullptr},
    {"table longer than the model",
     [](ForwardParam& p) {
         OffsetsOf(p) = {0, p.modelSize + 1};
     },
     "Check buffer size failed.\n\n"},
    {"table past the model's end",
     [](ForwardParam& p) {
         OffsetsOf(p) = {8, p.modelSize - 7};
     },
     "Check buffer size failed.\n\n"},
    {"table to the model's end",
     [](ForwardParam& p) {
         OffsetsOf(p) = {8, p.modelSize - 8};
     },
     nullptr},
};

TEST(RequestCheck, EveryRefusalInItsOrder)
{
    for (const RequestRow& row : kRequestRows) {
        SCOPED_TRACE(row.what);
        World world(NegLayer());
        row.change(world.Param());
        CaptureStdout capture;
        const uint32_t result = CheckForwardParam(&world.Param());
        const std::string messages = NormalizeMessages(capture.Stop());
        EXPECT_EQ(result, row.message == nullptr ? 0u : OPKIT_FAILURE);
        EXPECT_EQ(messages, row.message == nullptr ? "" : std::string("[CheckForwardParam:#]") + row.message);
    }
}

TEST(RequestCheck, NullRequest)
{
    CaptureStdout capture;
    EXPECT_EQ(CheckForwardParam(nullptr), OPKIT_FAILURE);
    EXPECT_EQ(NormalizeMessages(capture.Stop()), "[CheckForwardParam:#]Null ptr.\n\n");
}

TEST(RequestCheck, FirstFaultIsTheOneReported)
{
    World world(NegLayer());
    world.Param().inputNum = 0;
    world.Param().outputNum = 0;
    world.Param().modelSize = 0;
    CaptureStdout capture;
    EXPECT_EQ(OpkitForward(&world.Param()), OPKIT_FAILURE);
    EXPECT_EQ(NormalizeMessages(capture.Stop()), "[CheckForwardParam:#]Input error!\n\n");
}

struct LayerRow {
    const char* what;
    std::function<void(LayerRecord&, uint32_t extent)> change;
    const char* message;  // null: accepted
};

constexpr const char* kSizeMessage = "Check buffer size failed.\n\n";

const LayerRow kLayerRows[] = {
    {"unchanged", [](LayerRecord&, uint32_t) {}, nullptr},
    {"name behind the table",
     [](LayerRecord& r, uint32_t n) {
         r.nameOffset = n + 1;
         r.nameSize = 0;
     },
     kSizeMessage},
    {"name too long", [](LayerRecord& r, uint32_t n) { r.nameSize = n + 1; }, kSizeMessage},
    {"name past the end", [](LayerRecord& r, uint32_t n) { r.nameSize = n - r.nameOffset + 1; }, kSizeMessage},
    {"name to the end", [](LayerRecord& r, uint32_t n) { r.nameSize = n - r.nameOffset; }, nullptr},
    {"81 inputs", [](LayerRecord& r, uint32_t) { r.inputNum = 81; }, "Input num 81 larger than 80!\n"},
    {"inputs behind the table", [](LayerRecord& r, uint32_t n) { r.inputTableOffset = n + 1; }, kSizeMessage},
    {"inputs past the end", [](LayerRecord& r, uint32_t n) { r.inputTableOffset = n - 23; }, kSizeMessage},
    {"second input past the end",
     [](LayerRecord& r, uint32_t n) {
         r.inputNum = 2;
         r.inputTableOffset = n - 47;
     },
     kSizeMessage},
    {"31 outputs", [](LayerRecord& r, uint32_t) { r.outputNum = 31; }, "Output num 31 larger than 30!\n"},
    {"outputs behind the table", [](LayerRecord& r, uint32_t n) { r.outputTableOffset = n + 1; }, kSizeMessage},
    {"outputs past the end", [](LayerRecord& r, uint32_t n) { r.outputTableOffset = n - 23; }, kSizeMessage},
    {"second output past the end",
     [](LayerRecord& r, uint32_t n) {
         r.outputNum = 2;
         r.outputTableOffset = n - 47;
     },
     kSizeMessage},
    {"work space behind the scratch",
     [](LayerRecord& r, uint32_t) {
         r.bufOffset = 65;
         r.bufSize = 0;
     },
     kSizeMessage},
    {"work space too large",
     [](LayerRecord& r, uint32_t) {
         r.bufOffset = 0;
         r.bufSize = 65;
     },
     kSizeMessage},
    {"work space past the end",
     [](LayerRecord& r, uint32_t) {
         r.bufOffset = 1;
         r.bufSize = 64;
     },
     kSizeMessage},
    {"attributes behind the table",
     [](LayerRecord& r, uint32_t n) {
         r.attrOffset = n + 1;
         r.attrSize = 0;
     },
     kSizeMessage},
    {"attributes too long", [](LayerRecord& r, uint32_t n) { r.attrSize = n + 1; }, kSizeMessage},
    {"attributes past the end", [](LayerRecord& r, uint32_t n) { r.attrSize = n - r.attrOffset + 1; }, kSizeMessage},
    {"attributes of no size", [](LayerRecord& r, uint32_t) { r.attrSize = 0; }, nullptr},
};

TEST(LayerCheck, EveryRefusal)
{
    for (const LayerRow& row : kLayerRows) {
        SCOPED_TRACE(row.what);
        World world(NegLayer());
        ForwardParam& request = world.Param();
        const uint32_t extent = request.modelSize - OffsetsOf(request).layerTableOffset;
        row.change(world.Layer(), extent);
        const uint8_t* base = static_cast<uint8_t*>(request.model) + OffsetsOf(request).layerTableOffset;
        const uint32_t layerOffset = reinterpret_cast<const uint32_t*>(base)[1];
        LayerParam layer = {};
        CaptureStdout capture;
        const uint32_t result = ParseLayerParam(&request, layerOffset, &layer, 0);
        const std::string messages = NormalizeMessages(capture.Stop());
        if (row.message == nullptr) {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(messages, "");
        } else {
            EXPECT_EQ(result, OPKIT_FAILURE);
            EXPECT_EQ(messages, std::string("[CheckLayerParam:#]") + row.message +
                                    "[ParseLayerParam:#]Layer Param is illegal!\n");
            EXPECT_EQ(layer.inputs, nullptr);
        }
        ReleaseLayerParam(&layer);
        ReleaseLayerParam(&layer);
        EXPECT_EQ(layer.inputs, nullptr);
        EXPECT_EQ(layer.outputs, nullptr);
    }
}

TEST(LayerCheck, RecordOutsideTheTable)
{
    World world(NegLayer());
    ForwardParam& request = world.Param();
    const uint32_t extent = request.modelSize - OffsetsOf(request).layerTableOffset;
    for (const uint32_t offset : {extent + 1, extent - 43, 0xFFFFFFFFu}) {
        CaptureStdout capture;
        EXPECT_EQ(CheckLayerParam(&request, offset), OPKIT_FAILURE);
        EXPECT_EQ(NormalizeMessages(capture.Stop()), "[CheckLayerParam:#]Check buffer size failed.\n\n");
    }
}

TEST(LayerCheck, TablesMayEndWithTheModel)
{
    World world(NegLayer());
    ForwardParam& request = world.Param();
    const uint32_t extent = request.modelSize - OffsetsOf(request).layerTableOffset;
    const uint8_t* base = static_cast<uint8_t*>(request.model) + OffsetsOf(request).layerTableOffset;
    const uint32_t layerOffset = reinterpret_cast<const uint32_t*>(base)[1];
    world.Layer().inputTableOffset = world.Layer().outputTableOffset = extent - sizeof(TensorRecord);
    EXPECT_EQ(CheckLayerParam(&request, layerOffset), 0u);
    world.Layer().inputNum = world.Layer().outputNum = 0;
    world.Layer().inputTableOffset = world.Layer().outputTableOffset = extent;
    EXPECT_EQ(CheckLayerParam(&request, layerOffset), 0u);
}

// Offset plus size is summed in 32 bits for names, attributes and work spaces. Each part is checked by itself first, so
// that only a scratch or model of 2^31 bytes and more could wrap; the scratch size is the caller's word.
TEST(LayerCheck, WorkSpaceSumWraps)
{
    World world(NegLayer());
    ForwardParam& request = world.Param();
    request.opkitBufSize = 0xFFFFFFFFu;
    world.Layer().bufOffset = 0x80000000u;
    world.Layer().bufSize = 0x80000010u;
    const uint8_t* base = static_cast<uint8_t*>(request.model) + OffsetsOf(request).layerTableOffset;
    EXPECT_EQ(CheckLayerParam(&request, reinterpret_cast<const uint32_t*>(base)[1]), 0u);
}

}  // namespace
}  // namespace opkit
