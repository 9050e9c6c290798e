// The model check: every kind of refusal and condition by an example, with its text.

#include "modelkit/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "modelkit/attribute_fields.h"
#include "modelkit/model_reader.h"
#include "tests/modelkit/check_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::modelkit;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

CheckReport Check(const LayerCase& layer)
{
    World world(layer);
    return CheckBuffer(world.ModelBytes(), world.ModelInfo().tables, RequestOf(world.Param()));
}

// The refusals and conditions, with # in the place of byte offsets.
std::vector<std::string> TextsOf(const CheckReport& report)
{
    std::vector<std::string> texts;
    for (const CheckRefusal& refusal : report.refusals) {
        texts.push_back(std::regex_replace(refusal.Text(), std::regex("at byte [0-9]+"), "at byte #"));
    }
    for (const CheckCondition& condition : report.conditions) {
        texts.push_back(condition.Text());
    }
    return texts;
}

template <class Record, class Change>
LayerCase With(LayerCase layer, Change change)
{
    change(layer.Attr<Record>());
    return layer;
}

LayerCase Op(const char* name)
{
    return LayerCase(std::string(name) + "OpkitForward");
}

CaseTensor Scratch(Shape shape, uint32_t strideBytes = 0)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.strideBytes = strideBytes;
    tensor.memKind = OPKIT_MEM_SCRATCH;
    return tensor;
}

LayerCase Neg()
{
    return Op("Neg").Online({2, 3}, {}, 16).Output({2, 3}, 16);
}

TensorRecord& Record(World& world, bool output, uint32_t index)
{
    const uint32_t table = output ? world.Layer().outputTableOffset : world.Layer().inputTableOffset;
    const uint32_t base = world.ModelInfo().tables[0].layerTableOffset;
    return reinterpret_cast<TensorRecord*>(world.ModelBytes().data() + base + table)[index];
}

uint32_t& Dim(World& world, bool output, uint32_t index, uint32_t d)
{
    const uint32_t base = world.ModelInfo().tables[0].layerTableOffset;
    return reinterpret_cast<uint32_t*>(world.ModelBytes().data() + base + Record(world, output, index).shapeOffset)[d];
}

template <class Change>
LayerCase Changed(LayerCase layer, Change change)
{
    layer.Tamper(change);
    return layer;
}

struct Row {
    LayerCase layer;
    const char* text;  // behind "segment 0, layer 0 (...): "
};

void ExpectTexts(const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        const std::string prefix = "segment 0, layer 0 (" + row.layer.OperatorName() + "): ";
        EXPECT_THAT(TextsOf(Check(row.layer)), ElementsAre(prefix + row.text)) << row.layer.Describe();
    }
}

TEST(Check, LayerRecord)
{
    ExpectTexts({
        {Changed(Neg(), [](World& w) { w.Layer().bufOffset = 1; }),
         "bufOffset at byte # is 1, limit 0: the work space of 0 bytes ends behind the scratch"},
        {Changed(Neg(), [](World& w) { w.Layer().attrOffset += 2; }),
         "attrOffset at byte # is 138, limit 136: not at a multiple of 4"},
        {Changed(Neg(), [](World& w) { w.Layer().attrOffset = 0x7ffffffc; }),
         "attrOffset at byte # is 2147483644, limit 136: an attribute block ends behind the model buffer"},
        {Changed(Neg(), [](World& w) { w.Layer().attrOffset = 0xfffffffc; }),
         "attrOffset at byte # is 4294967292, limit 136: an attribute block ends behind the model buffer"},
        {Changed(Neg(), [](World& w) { w.Layer().attrSize = 3920; }),
         "attrSize at byte # is 3920, limit 3924: the operator uses more of its attribute block"},
        {Changed(Neg(), [](World& w) { w.Layer().inputNum = 81; }),
         "inputNum at byte # is 81, limit 80: too many inputs"},
        {Changed(Neg(), [](World& w) { w.Layer().outputNum = 31; }),
         "outputNum at byte # is 31, limit 30: too many outputs"},
        {Changed(Neg(), [](World& w) { w.Layer().inputNum = 0; }),
         "inputNum at byte # is 0, limit 1: logical input 0 is missing"},
        {Changed(Neg(), [](World& w) { w.Layer().outputNum = 0; }),
         "outputNum at byte # is 0, limit 1: output 0 is missing"},
        {Changed(Neg(), [](World& w) { w.Layer().inputTableOffset = 9000; }),
         "inputTableOffset at byte # is 9000, limit 8944: a tensor table ends behind the model buffer"},
        {Changed(Neg(), [](World& w) { w.Layer().outputTableOffset += 1; }),
         "outputTableOffset at byte # is 105, limit 104: not at a multiple of 4"},
    });
    const auto named = [](auto change) {
        World world(Changed(Neg(), change));
        return TextsOf(CheckBuffer(world.ModelBytes(), world.ModelInfo().tables, RequestOf(world.Param())));
    };
    EXPECT_THAT(named([](World& w) { w.Layer().nameSize = 5; }),
                ElementsAre("segment 0, layer 0: nameSize at byte # is 5, limit 6: the name does not end in nameSize"));
    EXPECT_THAT(
        named([](World& w) { w.Layer().nameSize = 0xffffffff; }),
        ElementsAre("segment 0, layer 0: nameOffset at byte # is 56, limit 0: a name ends behind the model buffer"));
    EXPECT_THAT(named([](World& w) { w.Layer().nameOffset += 1; }),
                ElementsAre("segment 0, layer 0 (egOpkitForward): nameOffset at byte # is 57, limit 0: the library has "
                            "no such operator"));
}

TEST(Check, TensorRecord)
{
    LayerCase scratch = Op("Neg").Online(Scratch({2, 3}, 16)).Output({2, 3}, 16);
    CaseTensor batched = Scratch({2, 3}, 16);
    batched.memKind = OPKIT_MEM_SCRATCH_BATCHED;
    LayerCase slices = Op("Neg").Online(batched).Output({2, 3}, 16).Batch(3);
    ExpectTexts({
        {Changed(Neg(), [](World& w) { Record(w, false, 0).memIndex = 1; }),
         "inputs[0].memIndex at byte # is 1, limit 0: the request has no such tensor"},
        {Changed(Neg(), [](World& w) { Record(w, true, 0).strideIndex = 16; }),
         "outputs[0].strideIndex at byte # is 16, limit 0: the request has no such tensor"},
        {Changed(Neg(), [](World& w) { Record(w, true, 0).shapeSize = 44; }),
         "outputs[0].shapeSize at byte # is 44, limit 40: more than 10 dimensions"},
        {Changed(Neg(), [](World& w) { Record(w, true, 0).shapeOffset = 0xfffffff8; }),
         "outputs[0].shapeOffset at byte # is 4294967288, limit 8960: a shape ends behind the model buffer"},
        {Changed(Neg(), [](World& w) { Record(w, true, 0).shapeOffset += 2; }),
         "outputs[0].shapeOffset at byte # is 130, limit 128: not at a multiple of 4"},
        {Changed(Neg(), [](World& w) { Record(w, true, 0).shapeSize = 3; }),
         "outputs[0].shape at byte # is 0, limit 1: the operator takes 1 to 10 dimensions"},
        {Changed(Neg(), [](World& w) { Dim(w, false, 0, 0) = 0; }),
         "inputs[0].shape[0] at byte # is 0, limit 1: a dimension of 0 is a zero divisor"},
        {Changed(Neg(), [](World& w) { Dim(w, false, 0, 0) = 0xffffffff; }),
         "inputs[0].shape at byte # is 12884901885, limit 2147483647: elements beyond 31 bits"},
        {Changed(Neg(), [](World& w) { Dim(w, false, 0, 0) = 3; }),
         "inputs[0].size of the request tensor at byte # is 32, limit 48: the rows of the shape and stride do not fit"},
        {Changed(scratch, [](World& w) { Record(w, false, 0).size = 28; }),
         "inputs[0].size at byte # is 28, limit 32: the rows of the shape and stride do not fit"},
        {Changed(scratch, [](World& w) { Record(w, false, 0).strideIndex = 3; }),
         "inputs[0].strideIndex at byte # is 3, limit 4: an alignment of 0 is a zero divisor"},
        {Changed(scratch, [](World& w) { Record(w, false, 0).memIndex = 2; }),
         "inputs[0].memIndex at byte # is 2, limit 0: not at a multiple of 4"},
        {Changed(scratch, [](World& w) { Record(w, false, 0).memIndex = 4; }),
         "inputs[0].memIndex at byte # is 4, limit 0: 32 bytes end behind the scratch"},
        {Changed(slices, [](World& w) { Record(w, false, 0).size = 33; }),
         "inputs[0].size at byte # is 33, limit 32: the next batch item is not at a multiple of 4"},
        {Changed(slices, [](World& w) { Record(w, false, 0).size = 36; }),
         "inputs[0].memIndex at byte # is 0, limit 0: 108 bytes end behind the scratch"},
    });
}

TEST(Check, Constants)
{
    const LayerCase layer = Op("Neg").Offline({2, 3}, {1, 2, 3, 4, 5, 6}).Output({2, 3});
    const auto head = [&layer](auto change) {
        return Changed(layer, [change](World& w) { change(w.Attr<LayerAttrHead>()); });
    };
    ExpectTexts({
        {head([](LayerAttrHead& h) { h.offlineOffset[0] = -4; }),
         "offlineOffset[0] at byte # is -4, limit 0: data at a multiple of 4 inside the buffer"},
        {head([](LayerAttrHead& h) { h.offlineOffset[0] = 6; }),
         "offlineOffset[0] at byte # is 6, limit 4: data at a multiple of 4 inside the buffer"},
        {head([](LayerAttrHead& h) { h.offlineOffset[0] = 0x40000000; }),
         "offlineOffset[0] at byte # is 1073741848, limit 8960: the data ends behind the model buffer"},
        {head([](LayerAttrHead& h) { h.offlineShape[0].dims[0] = 0x10000000; }),
         "offlineOffset[0] at byte # is 3221225472, limit 8960: the data ends behind the model buffer"},
        {head([](LayerAttrHead& h) { h.offlineShape[0].dimNum = 0; }),
         "offlineShape[0].dimNum at byte # is 0, limit 1: a constant has 1 to 10 dimensions"},
        {head([](LayerAttrHead& h) { h.offlineShape[0].dimNum = 11; }),
         "offlineShape[0].dimNum at byte # is 11, limit 10: a constant has 1 to 10 dimensions"},
        {head([](LayerAttrHead& h) { h.offlineShape[0].dims[1] = 0; }),
         "offlineShape[0][1] at byte # is 0, limit 1: a dimension of 0 is a zero divisor"},
        {head([](LayerAttrHead& h) { h.inputFlags[0] = '2'; }),
         "inputNum at byte # is 0, limit 1: logical input 0 is missing"},
    });
}

TEST(Check, TableAndRequest)
{
    World world(Neg());
    const Model& model = world.ModelInfo();
    const CheckRequest request = RequestOf(world.Param());
    const auto check = [&](auto change) {
        Buffer bytes = model.bytes;
        std::vector<ModelTable> tables = model.tables;
        CheckRequest altered = request;
        change(bytes, tables, altered);
        return TextsOf(CheckBuffer(bytes.Span(), tables, altered));
    };
    using Tables = std::vector<ModelTable>;
    EXPECT_THAT(check([](Buffer&, Tables&, CheckRequest&) {}), IsEmpty());
    const auto table = [&](auto change) {
        return check([change](Buffer&, Tables& tables, CheckRequest&) { change(tables[0]); });
    };
    EXPECT_THAT(table([](ModelTable& t) { t.layerTableOffset = 2; }),
                ElementsAre("segment 0: layerTableOffset at byte # is 2, limit 0: not at a multiple of 4"));
    EXPECT_THAT(
        table([](ModelTable& t) { t.layerTableOffset = 9000; }),
        ElementsAre("segment 0: layerTableOffset at byte # is 9000, limit 8964: the layer table lies behind the "
                    "model buffer"));
    EXPECT_THAT(
        table([](ModelTable& t) { t.layerTableSize = 0xffffffff; }),
        ElementsAre("segment 0: layerTableSize at byte # is 4294967295, limit 8968: the layer table ends behind "
                    "the model buffer"));
    EXPECT_THAT(
        table([](ModelTable& t) { t.segmentId = 0xffffffff; }),
        ElementsAre("segment 4294967295: segment id at byte # is 4294967295, limit 4294967294: this id asks for "
                    "no jump"));
    EXPECT_THAT(table([](ModelTable& t) { t.next = 7; }),
                ElementsAre("segment 0: successor at byte # is 7, limit 4294967295: no table has this segment id"));
    EXPECT_THAT(check([](Buffer&, Tables& tables, CheckRequest&) { tables.push_back(tables[0]); }),
                ElementsAre("segment 0: segment id at byte # is 0, limit 0: two tables have this id"));
    EXPECT_THAT(check([](Buffer&, Tables& tables, CheckRequest&) { tables.clear(); }),
                ElementsAre("model: layer tables at byte # is 0, limit 1: a model has at least one"));
    EXPECT_THAT(check([](Buffer& bytes, Tables&, CheckRequest&) { bytes.Words()[0] = 129; }),
                ElementsAre("segment 0: layerCount at byte # is 129, limit 128: more layers than the table holds"));
    EXPECT_THAT(check([](Buffer& bytes, Tables&, CheckRequest&) { bytes.Words()[1] = 9000; }),
                ElementsAre("segment 0, layer 0: layerOffset at byte # is 9000, limit 8924: a layer record ends "
                            "behind the model buffer"));
    EXPECT_THAT(check([](Buffer& bytes, Tables&, CheckRequest&) { bytes = Buffer(0); }),
                ElementsAre("model: modelSize at byte # is 0, limit 1: a model buffer takes up to 1 GiB"));
    const auto asked = [&](auto change) { return check([change](Buffer&, Tables&, CheckRequest& r) { change(r); }); };
    EXPECT_THAT(asked([](CheckRequest& r) { r.batch = 257; }),
                ElementsAre("model: batch of the request at byte # is 257, limit 256: a request has 1 to 256 batch "
                            "items"));
    EXPECT_THAT(asked([](CheckRequest& r) { r.batch = 0; }),
                ElementsAre("model: batch of the request at byte # is 0, limit 1: a request has 1 to 256 batch items"));
    EXPECT_THAT(asked([](CheckRequest& r) { r.inputs.clear(); }),
                ElementsAre("model: inputs of the request at byte # is 0, limit 1: a request needs at least one"));
    EXPECT_THAT(
        asked([](CheckRequest& r) { r.outputs[0].size = uint64_t{1} << 33; }),
        ElementsAre("model: outputs[0].size of the request at byte # is 8589934592, limit 4294967295: more than "
                    "4 GiB"));
    EXPECT_THAT(asked([](CheckRequest& r) { r.batch = 3; }),
                ElementsAre("model: inputs[0].size of the request at byte # is 32, limit 30: not a multiple of the "
                            "batch count"));
    EXPECT_THAT(asked([](CheckRequest& r) { r.batch = 16; }),
                ElementsAre("model: inputs[0].size of the request at byte # is 32, limit 0: the next batch item is not "
                            "at a multiple of 4"));
    EXPECT_THAT(asked([](CheckRequest& r) { r.scratchSize = uint64_t{1} << 32; }),
                ElementsAre("model: opkitBufSize of the request at byte # is 4294967296, limit 4294967295: more than 4 "
                            "GiB"));
}

TEST(Check, SharedMemory)
{
    const auto overlapping = [](const char* name, int64_t distance, uint32_t stride) {
        ModelBuilder builder;
        builder.AddInput({"x", {2, 3}});
        const TensorRef a = builder.AddScratch({"a", {2, 3}, 16}, false, 64);
        const TensorRef b = builder.AddScratch({"b", {2, 3}, stride}, false, static_cast<uint32_t>(64 + distance));
        builder.AddOutput({"y", {1}});
        builder.AddLayer(name).Online(a).Output(b).Workspace(64);
        return TextsOf(CheckModel(builder.Build(), 1));
    };
    EXPECT_THAT(overlapping("NegOpkitForward", 0, 16), IsEmpty());
    EXPECT_THAT(overlapping("NegOpkitForward", 32, 16), IsEmpty());
    EXPECT_THAT(overlapping("NegOpkitForward", 16, 16),
                ElementsAre("segment 0, layer 0 (NegOpkitForward): outputs[0].memIndex at byte # is 80, limit 96: "
                            "outputs[0] overlaps inputs[0], and one of the two is written"));
    EXPECT_THAT(overlapping("NegOpkitForward", 0, 32),
                ElementsAre("segment 0, layer 0 (NegOpkitForward): outputs[0].memIndex at byte # is 64, limit 96: "
                            "outputs[0] overlaps inputs[0], and one of the two is written"));
    EXPECT_THAT(overlapping("NonZeroOpkitForward", 0, 16),
                ElementsAre("segment 0, layer 0 (NonZeroOpkitForward): outputs[0].memIndex at byte # is 64, limit 96: "
                            "outputs[0] overlaps inputs[0], and one of the two is written"));

    // Of request tensors the index counts, not bytes.
    ModelBuilder twice;
    const TensorRef x = twice.AddInput({"x", {4}});
    const TensorRef y = twice.AddOutput({"y", {2}});
    TopKAttr topK = {};
    topK.k = 2;
    topK.hasValues = topK.hasIndices = 1;
    twice.AddLayer("TopKOpkitForward").Online(x).Output(y).Output(y).Attr(topK).Workspace(256);
    EXPECT_THAT(TextsOf(CheckModel(twice.Build(), 1)),
                ElementsAre("segment 0, layer 0 (TopKOpkitForward): outputs[1].memIndex at byte # is 0, limit 1: "
                            "outputs[1] overlaps outputs[0], and one of the two is written"));

    // The batched tensor's second item falls on the shared one.
    ModelBuilder batches(2);
    batches.AddInput({"x", {4}});
    batches.AddOutput({"y", {4}});
    const TensorRef first = batches.AddScratch({"a", {4}}, true, 0);
    const TensorRef second = batches.AddScratch({"b", {4}}, false, 16);
    batches.AddLayer("NegOpkitForward").Online(first).Output(second);
    EXPECT_THAT(TextsOf(CheckModel(batches.Build(), 2)),
                ElementsAre("segment 0, layer 0 (NegOpkitForward): outputs[0].memIndex at byte # is 16, limit 16: "
                            "outputs[0] overlaps inputs[0], and one of the two is written"));
    EXPECT_TRUE(CheckModel(batches.Build(), 1).Accepted());

    LayerCase argmin = Op("Argmin").Online(Scratch({4})).Output(Scratch({1})).Workspace(32);
    ExpectTexts({
        {Changed(argmin, [](World& w) { w.Layer().bufOffset = 0; }),
         "bufOffset at byte # is 0, limit 16: the work space overlaps inputs[0]"},
        {Changed(argmin, [](World& w) { w.Layer().bufOffset -= 2; }),
         "bufOffset at byte # is 126, limit 124: work space at a multiple of 4"},
        {Changed(argmin, [](World& w) { w.Layer().bufSize = 28; }),
         "bufSize at byte # is 28, limit 32: the work space holds one lane of sort entries"},
    });
}

// What an operator writes into the model buffer must not be structure, of its own layer or of another.
TEST(Check, WritesIntoTheModelBuffer)
{
    const LayerCase det = Op("Det").Offline({1, 2, 2}, {1, 2, 3, 4}).Output({1});
    ExpectTexts({{Changed(det,
                          [](World& w) {
                              const uint32_t base = w.ModelInfo().tables[0].layerTableOffset;
                              w.Attr<LayerAttrHead>().offlineOffset[0] = static_cast<int32_t>(base);
                          }),
                  "offlineOffset[0] at byte # is 16, limit 68: the operator writes here, over a layer record"}});
    // Nothing is written to the constant of an operator that only reads it.
    LayerCase neg = Op("Neg").Offline({1, 2, 2}, {1, 2, 3, 4}).Output({1, 2, 2});
    neg.Tamper([](World& w) { w.Attr<LayerAttrHead>().offlineOffset[0] = 16; });
    EXPECT_THAT(TextsOf(Check(neg)), IsEmpty());

    // The stride records of one layer on the attributes of another: the two blocks are 4 bytes apart.
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2}});
    const TensorRef y = builder.AddOutput({"y", {2}});
    builder.AddLayer("SqrtOpkitForward").Online(x).Output(y).Attr(SqrtAttr{});
    builder.AddLayer("SqrtOpkitForward").Online(x).Output(y).Attr(SqrtAttr{});
    Model model = builder.Build();
    EXPECT_THAT(TextsOf(CheckModel(model, 1)), IsEmpty());
    const ReadTable table = ReadLayerTable(model);
    model.bytes.At<LayerRecord>(table.layers[1].recordOffset).attrOffset = table.layers[0].record.attrOffset;
    EXPECT_THAT(TextsOf(CheckModel(model, 1)), IsEmpty());  // one block for both
    model.bytes.At<LayerRecord>(table.layers[1].recordOffset).attrOffset -= 44;
    EXPECT_THAT(TextsOf(CheckModel(model, 1)),
                testing::Contains(testing::HasSubstr("the operator writes here, over an attribute block")));
}

TEST(Check, Elementwise)
{
    const auto binary = [](const char* name) { return Op(name).Online({3}, {}).Online({3}, {}).Output({3}); };
    ExpectTexts({
        {Op("Neg").Online({4}, {}).Output({3}),
         "outputs[0].shape at byte # is 3, limit 4: the output has fewer elements than the input"},
        {Op("Selu").Online({2, 5}, {}).Output({2, 5}, 16),
         "outputs[0].stride of the request tensor at byte # is 16, limit 20: rows as far apart as the stride would "
         "overlap"},
        {With<BinaryMathAttr>(binary("BinaryMath"), [](auto& a) { a.mathType = 5; }),
         "mathType at byte # is 5, limit 4: the operator fails on this code"},
        {With<WhereAttr>(binary("Where"), [](auto& a) { a.inputCount = 2; }),
         "inputCount at byte # is 2, limit 3: the operator takes three inputs"},
        {With<WhereAttr>(binary("Where"), [](auto& a) { a.inputCount = 3; }),
         "inputNum at byte # is 2, limit 3: logical input 2 is missing"},
        {With<CeluAttr>(Op("Celu").Online({3}, {}).Output({3}), [](auto& a) { a.alpha = 1e-40f; }),
         "alpha at byte # is 0, limit 1: alpha is zero or subnormal"},
        {Op("ThresholdedRelu").Online({3}, {}).Output({1, 3}),
         "outputs[0].shape at byte # is 2, limit 1: input and output differ in rank"},
        {Op("ThresholdedRelu").Online({2, 3}, {}).Output({3, 3}),
         "outputs[0].shape[0] at byte # is 3, limit 2: input and output differ in shape"},
        {Op("ThresholdedRelu").Online({2, 5}, {}, 16).Output({2, 5}),
         "inputs[0].stride of the request tensor at byte # is 16, limit 20: rows as far apart as the stride would "
         "overlap"},
        {Op("Round").Online({3}, {}).Output({4}),
         "inputs[0].shape at byte # is 3, limit 4: the output has more elements than the input"},
        {With<ModAttr>(binary("Mod"), [](auto& a) { a.fmod = 0; }),
         "safe if no element of input 0 that truncates to -2147483648, as NaN and all beyond 31 bits do, meets one of "
         "input 1 that truncates to -1: the remainder faults"},
    });
    EXPECT_THAT(TextsOf(Check(With<ModAttr>(binary("Mod"), [](auto& a) { a.fmod = 1; }))), IsEmpty());
}

LayerCase Conv()
{
    LayerCase layer = Op("Convolution").Online({1, 1, 3, 3}, {}).Online({1, 1, 2, 2}, {}).Output({1, 1, 2, 2});
    layer.Attr<ConvolutionAttr>() = {.head = {},
                                     .reserved3924 = 0,
                                     .inputCount = 2,
                                     .channels = 1,
                                     .height = 3,
                                     .width = 3,
                                     .kernelH = 2,
                                     .kernelW = 2,
                                     .padTop = 0,
                                     .padBottom = 0,
                                     .padLeft = 0,
                                     .padRight = 0,
                                     .strideH = 1,
                                     .strideW = 1,
                                     .dilationH = 1,
                                     .dilationW = 1,
                                     .outHeight = 2,
                                     .outWidth = 2,
                                     .colChannels = 4,
                                     .groupNum = 1,
                                     .hasBias = 0,
                                     .outChannels = 1,
                                     .outGroupOffset = 4,
                                     .weightGroupOffset = 4,
                                     .colGroupOffset = 16,
                                     .gemmM = 1,
                                     .gemmN = 4,
                                     .gemmK = 4};
    return layer.Workspace(68);
}

TEST(Check, Matrices)
{
    EXPECT_THAT(TextsOf(Check(Conv())), IsEmpty());
    const auto conv = [](auto change) { return With<ConvolutionAttr>(Conv(), change); };
    const auto gemm = [](Shape a, Shape b, Shape y) {
        return With<GemmAttr>(Op("Gemm").Online(a, {}).Online(b, {}).Output(y), [](auto& g) { g.inputCount = 2; });
    };
    LayerCase withC = Op("Gemm").Online({2, 3}, {}).Online({3, 4}, {}).Online({4}, {}).Output({2, 4}).Workspace(28);
    withC.Attr<GemmAttr>().inputCount = 3;
    LayerCase biased = Conv();
    for (int k = 2; k < 9; ++k) {
        biased.Online({1}, {});
    }
    LayerCase images = Op("Convolution").Online({2, 1, 3, 3}, {}).Online({1, 1, 2, 2}, {}).Output({2, 1, 2, 2});
    images.Workspace(68).Attr<ConvolutionAttr>() = Conv().Attr<ConvolutionAttr>();
    EXPECT_THAT(TextsOf(Check(images)), IsEmpty());
    EXPECT_EQ(Check(images).work, 18u + 4 + 8 + 17 + 2 * (16 + 16 + 4));
    ExpectTexts({
        {withC, "bufSize at byte # is 28, limit 32: the work space holds the output's elements"},
        {gemm({3}, {3, 4}, {4}), "inputs[0].shape at byte # is 1, limit 2: A is a matrix or a stack of them"},
        {gemm({1, 2, 3}, {3, 4}, {2, 4}), "inputs[1].shape at byte # is 2, limit 3: B's sizes stand where A's do"},
        {gemm({2, 3}, {2, 3, 4}, {2, 2, 4}),
         "inputs[0].shape at byte # is 6, limit 12: A has no matrix for each of the output"},
        {gemm({2, 3}, {2, 4}, {2, 4}),
         "inputs[1].shape at byte # is 8, limit 12: B has no matrix of A's inner size for each of the output"},
        {gemm({2, 3}, {3, 4}, {2, 3}), "outputs[0].shape at byte # is 6, limit 8: the products do not fit the output"},
        {Op("MatMul").Online({2, 3}, {}).Online({3, 4}, {}).Output({2, 5}),
         "inputs[1].shape at byte # is 12, limit 15: B's matrices are smaller than A's width by the output's"},
        {Op("MatMul").Online({2, 3}, {}).Online({3, 4}, {}).Output({1, 4}),
         "outputs[0].shape at byte # is 4, limit 8: the products do not fit the output"},
        {With<QLinearMatMulAttr>(Op("QLinearMatMul"), [](auto& a) { a.inputCount = 1; }).Output({2, 2}),
         "inputCount at byte # is 1, limit 2: the operator fails"},
        {With<QLinearMatMulAttr>(Op("QLinearMatMul"), [](auto& a) { a.inputCount = 2; })
             .Online({2, 2}, {})
             .Online({2, 2}, {})
             .Output({4}),
         "outputs[0].shape at byte # is 1, limit 2: the output is a matrix or a stack of them"},
        {With<QLinearMatMulAttr>(Op("QLinearMatMul"), [](auto& a) { a.inputCount = 2; })
             .Online({2, 2}, {})
             .Online({2, 2}, {})
             .Output({3, 2}),
         "inputs[0].shape at byte # is 4, limit 6: A has fewer rows than the output"},
        {Op("Det").Online({2, 3}, {}).Output({1}),
         "inputs[0].shape at byte # is 6, limit 9: the input has no square matrix for each element"},
        {With<ConvolutionAttr>(images, [](auto& a) { a.outChannels = 0; }),
         "outChannels at byte # is 0, limit 4: outHeight * outWidth * outChannels is less than the images' results, "
         "which overlap"},
        {conv([](auto& a) { a.outWidth = 0; }), "outHeight at byte # is 0, limit 1: an empty output plane"},
        {conv([](auto& a) { a.channels = 0; }), "channels at byte # is 0, limit 1: an empty image"},
        {conv([](auto& a) { a.height = 4; }),
         "inputs[0].shape at byte # is 9, limit 12: the images of the attributes end behind X"},
        {conv([](auto& a) { a.outHeight = 3; }),
         "bufSize at byte # is 68, limit 102: the work space holds the column matrix and the ones area"},
        {conv([](auto& a) { a.padTop = 0x80000000; }),
         "padTop at byte # is 2147483651, limit 2147483647: a padded height beyond 31 bits"},
        {conv([](auto& a) { a.padRight = 0xffffffff; }),
         "padLeft at byte # is 4294967298, limit 2147483647: a padded width beyond 31 bits"},
        {conv([](auto& a) { a.kernelW = 0; }), "kernelW at byte # is 0, limit 1: the kernel is empty"},
        {conv([](auto& a) { a.kernelW = 0x80000000; }),
         "kernelW at byte # is 2147483648, limit 2147483647: the kernel is beyond 31 bits"},
        {conv([](auto& a) { a.strideH = 0; }),
         "strideH at byte # is 0, limit 1: with a stride of 0 no columns are written"},
        {conv([](auto& a) { a.strideH = 0x80000000; }),
         "strideH at byte # is 2147483648, limit 2147483647: the stride is beyond 31 bits"},
        {conv([](auto& a) { a.dilationH = 3; }),
         "kernelH at byte # is 4, limit 3: the kernel exceeds the padded image"},
        {conv([](auto& a) { a.padTop = 1; }),
         "colChannels at byte # is 16, limit 24: outHeight * outWidth * colChannels is less than the column matrix"},
        {conv([](auto& a) { a.gemmM = 0; }), "gemmM at byte # is 0, limit 1: an empty product"},
        {conv([](auto& a) { a.gemmN = 0; }), "gemmN at byte # is 0, limit 1: an empty product"},
        {conv([](auto& a) { a.gemmK = 0; }), "gemmK at byte # is 0, limit 1: an empty product"},
        {conv([](auto& a) {
             a.groupNum = 2;
             a.outGroupOffset = 3;
         }),
         "outGroupOffset at byte # is 3, limit 4: the groups' results overlap"},
        {conv([](auto& a) { a.groupNum = 2; }),
         "weightGroupOffset at byte # is 8, limit 4: the last group's weights end behind W"},
        {conv([](auto& a) { a.gemmN = 5; }),
         "colGroupOffset at byte # is 20, limit 16: the last group's columns end behind the column matrix"},
        {conv([](auto& a) { a.gemmM = 2; }),
         "weightGroupOffset at byte # is 8, limit 4: the last group's weights end behind W"},
        {conv([](auto& a) {
             a.gemmM = 2;
             a.gemmK = 2;
         }),
         "outputs[0].shape at byte # is 4, limit 8: the results end behind the output"},
        {With<ConvolutionAttr>(biased,
                               [](auto& a) {
                                   a.inputCount = 8;
                                   a.hasBias = 1;
                               }),
         "bufSize at byte # is 68, limit 80: the work space holds the column matrix and the ones area"},
        {With<ConvolutionAttr>(biased,
                               [](auto& a) {
                                   a.inputCount = 8;
                                   a.gemmK = 1;
                                   a.hasBias = 1;
                               })
             .Workspace(80),
         "inputs[3].shape at byte # is 1, limit 4: the bias step takes gemmN and outChannels weights"},
    });
}

TEST(Check, Pooling)
{
    LayerCase two = Op("PoolingMax").Online({1, 2, 4, 4}, {}).Output({1, 2, 2, 2}).Output({1, 1, 2, 2});
    const auto norm = [](Shape scale, Shape bias, Shape y) {
        return Op("InstanceNormalization").Online({1, 2, 4}, {}).Online(scale, {}).Online(bias, {}).Output(y);
    };
    ExpectTexts({
        {Op("PoolingAve").Online({1, 2, 4, 4}, {}).Output({1, 1, 2, 2}),
         "outputs[0].shape at byte # is 4, limit 8: the input's planes do not fit the output"},
        {With<PoolingMaxAttr>(Op("PoolingMax").Online({1, 1, 4, 4}, {}).Output({1, 1, 2, 1}),
                              [](auto& a) { a.kernelH = a.kernelW = 2; }),
         "strideH at byte # is 0, limit 1: windows that do not move"},
        {With<PoolingLpAttr>(Op("PoolingLp").Online({1, 1, 4, 4}, {}).Output({1, 1, 1, 2}),
                             [](auto& a) { a.kernelH = a.kernelW = 2; }),
         "strideW at byte # is 0, limit 1: windows that do not move"},
        {two, "outputs[1].shape at byte # is 4, limit 8: fewer positions than results"},
        {Op("MaxUnpool").Online({1, 1, 2, 3}, {}).Online({1, 1, 3, 2}, {}).Output({1, 1, 4, 6}),
         "inputs[1].shape[3] at byte # is 2, limit 3: rows shorter than the input's"},
        {Op("MaxUnpool").Online({1, 1, 2, 3}, {}).Online({1, 1, 1, 6}, {}).Output({1, 1, 4, 6}),
         "inputs[1].shape at byte # is 1, limit 2: fewer rows than the input"},
        {norm({2}, {2}, {1, 2, 4}).Workspace(12), "bufSize at byte # is 12, limit 16: the work space holds one plane"},
        {norm({1}, {2}, {1, 2, 4}).Workspace(16),
         "inputs[1].shape at byte # is 1, limit 2: fewer scales than channels"},
        {norm({2}, {1}, {1, 2, 4}).Workspace(16),
         "inputs[2].shape at byte # is 1, limit 2: fewer biases than channels"},
        {norm({2}, {2}, {1, 1, 4}).Workspace(16),
         "outputs[0].shape at byte # is 4, limit 8: the output has fewer elements than the input's planes"},
        {With<LpNormAttr>(Op("LpNorm").Online({2, 3}, {}).Output({2, 3}), [](auto& a) { a.axis = -3; }),
         "axis at byte # is -1, limit 0: not an axis of the tensor"},
        {With<LpNormAttr>(Op("LpNorm").Online({2, 3}, {}).Output({2, 3}), [](auto& a) { a.axis = 2; }),
         "axis at byte # is 2, limit 1: not an axis of the tensor"},
    });
}

TEST(Check, Selection)
{
    const auto reduction = [](Shape out, auto change) {
        return With<ReductionAttr>(Op("Reduction").Online({2, 3}, {}).Output(out).Workspace(16), change);
    };
    const auto topK = [](auto change) {
        LayerCase layer = Op("TopK").Online({2, 5}, {}).Online({1}, {}).Output({2, 3}).Workspace(40);
        return With<TopKAttr>(layer, [change](TopKAttr& a) {
            a.axis = 1;
            a.k = 3;
            a.hasValues = 1;
            change(a);
        });
    };
    LayerCase unique = Op("Unique").Online({6}, {}).Output({4}).Output({6}).Output({6}).Output({6});
    unique.Attr<UniqueAttr>().axis = OPKIT_UNIQUE_FLAT;
    ExpectTexts({
        {reduction({1, 3}, [](auto& a) { a.axesNum = 11; }), "axesNum at byte # is 11, limit 10: axes has 10 entries"},
        {reduction({1, 3}, [](auto&) {}),
         "outputs[0].shape at byte # is 3, limit 6: the axes leave more elements than the output has"},
        {reduction({1, 1}, [](auto& a) { a.axesNum = 1; }),
         "outputs[0].shape at byte # is 1, limit 3: the axes leave more elements than the output has"},
        {reduction({1, 3}, [](auto& a) { a.axesNum = 1; }).Workspace(12),
         "bufSize at byte # is 12, limit 16: the work space holds two distances per dimension"},
        {With<CumSumAttr>(Op("CumSum").Online({2, 3}, {}).Output({2, 3}), [](auto& a) { a.axis = -1; }),
         "axis at byte # is -1, limit 0: not an axis of the tensor"},
        {Op("Argmin").Online({2, 3}, {}).Output({2}).Workspace(16),
         "outputs[0].shape at byte # is 2, limit 3: the output has no element for each lane"},
        {topK([](auto& a) { a.k = 4; }), "k at byte # is 4, limit 3: k is beyond the lane or the outputs"},
        {topK([](auto& a) { a.hasIndices = 1; }), "outputNum at byte # is 1, limit 2: output 1 is missing"},
        {topK([](auto& a) { a.axis = 2; }), "axis at byte # is 2, limit 1: not an axis of the tensor"},
        {topK([](auto& a) { a.k = OPKIT_TOPK_K_FROM_INPUT; }),
         "safe if the first element of inputs[1], k, lies from 0 to 3"},
        {With<TopKAttr>(Op("TopK").Online({5}, {}).Online(Scratch({1})).Output({3}).Workspace(40),
                        [](auto& a) { a.k = OPKIT_TOPK_K_FROM_INPUT; }),
         "inputs[1].memIndex at byte # is 0, limit 0: k lies in scratch, where no caller can hold it to a limit: it "
         "takes an input of the request"},
        {unique, "safe if input 0 has at most 4 distinct elements, each NaN being one of its own"},
        {With<UniqueAttr>(unique, [](auto& a) { a.axis = 1; }),
         "axis at byte # is 1, limit 0: not an axis of the tensor"},
        {With<UniqueAttr>(Op("Unique").Online({6}, {}).Output({6}).Output({6}).Output({5}).Output({6}),
                          [](auto& a) { a.axis = OPKIT_UNIQUE_FLAT; }),
         "outputs[2].size of the request tensor at byte # is 20, limit 24: the mapping has an element for each "
         "position"},
    });
    LayerCase noK = Op("TopK").Online({2, 5}, {}).Output({2, 3}).Workspace(40);
    noK.Attr<TopKAttr>().k = OPKIT_TOPK_K_FROM_INPUT;
    ExpectTexts({{noK, "inputNum at byte # is 1, limit 2: k comes from the second online input"}});
}

// An operation for each element of the tensors, gaps included, and of the work space, and what the operator does more.
TEST(Check, Work)
{
    const auto workOf = [](const LayerCase& layer) {
        const CheckReport report = Check(layer);
        EXPECT_THAT(TextsOf(report), IsEmpty()) << layer.Describe();
        EXPECT_EQ(report.mostWork.operations, report.work);
        EXPECT_EQ(report.mostWork.place.Text(), "segment 0, layer 0 (" + layer.OperatorName() + ")");
        return report.work;
    };
    const auto pool = [&](uint32_t kernel, uint32_t stride, uint32_t padTop) {
        return workOf(
            With<PoolingMaxAttr>(Op("PoolingMax").Online({1, 1, 5, 5}, {}).Output({1, 1, 3, 3}), [&](auto& a) {
                a.kernelH = a.kernelW = kernel;
                a.strideH = a.strideW = stride;
                a.padTop = padTop;
            }));
    };
    EXPECT_EQ(workOf(Neg()), 8u + 8);
    EXPECT_EQ(workOf(Neg().Batch(3)), 3u * (8 + 8));
    const LayerCase product = Op("MatMul").Online({2, 3}, {}).Online({3, 4}, {}).Output({5, 2, 4});
    EXPECT_EQ(workOf(product), 6u + 12 + 40 + 5 * 2 * 3 * 4);
    EXPECT_EQ(workOf(Op("Det").Online({2, 3, 3}, {}).Output({2})), 18u + 2 + 2 * 3 * 3 * 3);
    EXPECT_EQ(pool(3, 1, 0), 25u + 9 + 9 * 3 * 3);
    EXPECT_EQ(pool(3, 1, 4), 25u + 9 + 9 * 5 * 3) << "a window that ends before the input counts as one without end";
    EXPECT_EQ(pool(0x7fffffff, 1, 0), 25u + 9 + 9 * 5 * 5);
    EXPECT_EQ(pool(3, 0x40000000, 0), 25u + 9 + 9 * 5 * 5) << "places beyond 31 bits count as before the input";
    EXPECT_EQ(workOf(Op("NonMaxSuppression").Online({1, 3, 4}, {}).Online({1, 2, 3}, {}).Output({6, 3}).Workspace(32)),
              12u + 6 + 18 + 8 + 2 * 3 * 3);
    EXPECT_EQ(workOf(With<ArgminAttr>(Op("Argmin").Online({2, 5}, {}).Output({2}).Workspace(40),
                                      [](auto& a) { a.axis = 1; })),
              10u + 2 + 10 + 10 * 3);
    EXPECT_EQ(Check(With<CumSumAttr>(Op("CumSum").Online({2, 3}, {}).Output({2, 3}), [](auto& a) { a.axis = 2; })).work,
              0u)
        << "a refused layer does not run";
}

TEST(Check, WorkOfAModel)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}, 0});
    const TensorRef between = builder.AddScratch({"between", {2, 3}, 0});
    const TensorRef y = builder.AddOutput({"y", {2, 2}, 0});
    builder.AddLayer("NegOpkitForward").Online(x).Output(between);
    builder.AddLayer("MatMulOpkitForward").Online(between).Offline({3, 2}, {1, 2, 3, 4, 5, 6}).Output(y);
    const CheckReport report = CheckModel(builder.Build(), 4);
    EXPECT_EQ(report.work, 4u * (6 + 6 + (6 + 6 + 4 + 12)));
    EXPECT_EQ(report.mostWork.operations, 4u * (6 + 6 + 4 + 12));
    EXPECT_EQ(report.mostWork.place.Text(), "segment 0, layer 1 (MatMulOpkitForward)");
}

TEST(Check, Movement)
{
    const auto concat = [](uint32_t count, int32_t axis, Shape second, Shape out) {
        LayerCase layer = Op("Concat").Online({2, 3}, {}).Online(second, {}).Output(out);
        layer.Attr<ConcatAttr>().concatInputCount = count;
        layer.Attr<ConcatAttr>().concatAxis = axis;
        return layer;
    };
    const auto reshape = [](uint32_t width, uint32_t rank, Shape out) {
        LayerCase layer = Op("Reshape").Online({2, 3}, {}).Output(out);
        layer.Attr<ReshapeAttr>().reshapeDims[1] = width;
        layer.Attr<ReshapeAttr>().reshapeDimCount = rank;
        return layer;
    };
    LayerCase constant = Op("Reshape").Offline({2, 3}, {1, 2, 3, 4, 5, 6}).Online(Scratch({2, 3}, 1 << 16)).Output({6});
    constant.Attr<ReshapeAttr>().reshapeDims[0] = 6;
    constant.Attr<ReshapeAttr>().reshapeDimCount = 1;
    LayerCase alone = Op("Reshape").Offline({2, 3}, {1, 2, 3, 4, 5, 6}).Output({6});
    alone.Attr<ReshapeAttr>() = constant.Attr<ReshapeAttr>();
    const auto permute = [](auto change) {
        LayerCase layer = Op("Permute").Online({2, 3}, {}).Output({3, 2}).Workspace(16);
        PermuteAttr& attr = layer.Attr<PermuteAttr>();
        attr.permDimCount = attr.permOutDimCount = attr.permLength = 2;
        attr.perm[0] = 1;
        change(attr);
        return layer;
    };
    const auto blocks = [](uint32_t size, Shape out) {
        LayerCase layer = Op("DepthToSpace").Online({1, 4, 2, 3}, {}).Output(out);
        layer.Attr<DepthToSpaceAttr>().blockSize = size;
        return layer;
    };
    const auto oneHot = [](Shape indices, Shape values, int32_t axis) {
        LayerCase layer = Op("OneHot").Online(indices, {}).Online(values, {}).Output({2, 3});
        layer.Attr<OneHotAttr>().oneHotAxis = axis;
        return layer;
    };
    ExpectTexts({
        {concat(81, 0, {2, 3}, {4, 3}), "concatInputCount at byte # is 81, limit 80: a layer has at most 80 inputs"},
        {concat(3, 0, {2, 3}, {4, 3}), "inputNum at byte # is 2, limit 3: logical input 2 is missing"},
        {concat(2, 2, {2, 3}, {4, 3}), "concatAxis at byte # is 2, limit 1: not an axis of the tensor"},
        {concat(2, 1, {3}, {2, 6}), "concatAxis at byte # is 1, limit 0: not an axis of the tensor"},
        {concat(2, 1, {1, 3}, {2, 6}),
         "inputs[1].shape at byte # is 3, limit 6: an input smaller than the first one's other dimensions"},
        {concat(2, 0, {2, 3}, {3, 3}), "outputs[0].shape at byte # is 9, limit 12: the inputs end behind the output"},
        {alone, "inputNum at byte # is 0, limit 1: the stride comes from the first online input, also for a constant"},
        {constant,
         "offlineOffset[0] at byte # is 65548, limit 9000: with the stride of inputs[0] the data ends behind the model "
         "buffer"},
        {reshape(6, 0, {6}), "reshapeDimCount at byte # is 0, limit 1: the target has 1 to 10 dimensions"},
        {reshape(6, 11, {6}), "reshapeDimCount at byte # is 11, limit 10: the target has 1 to 10 dimensions"},
        {reshape(0, 2, {6}), "reshapeDims[1] at byte # is 0, limit 1: a width of 0 is a zero divisor"},
        {reshape(0x80000000, 2, {6}),
         "reshapeDims[1] at byte # is 2147483648, limit 2147483647: a width beyond 31 bits"},
        {reshape(6, 2, {5}),
         "outputs[0].size of the request tensor at byte # is 20, limit 24: the input's elements do not fit the output"},
        {permute([](auto& a) { a.permDimCount = 3; }), "permDimCount at byte # is 3, limit 2: not the input's rank"},
        {permute([](auto& a) { a.permOutDimCount = 1; }),
         "permOutDimCount at byte # is 1, limit 2: not the input's rank"},
        {permute([](auto& a) { a.permLength = 3; }), "permLength at byte # is 3, limit 2: above the input's rank"},
        {permute([](auto& a) { a.perm[1] = 2; }), "perm[1] at byte # is 2, limit 1: not an axis of the tensor"},
        {permute([](auto&) {}).Workspace(12),
         "bufSize at byte # is 12, limit 16: the work space holds two pitches per dimension"},
        {blocks(0, {1, 1, 4, 6}), "blockSize at byte # is 0, limit 1: a block size of 0 is a zero divisor"},
        {blocks(65536, {1, 1, 4, 6}), "blockSize at byte # is 65536, limit 65535: its square is beyond 32 bits"},
        {blocks(2, {1, 1, 4, 5}),
         "outputs[0].size of the request tensor at byte # is 80, limit 160: the blocks do not fit the output"},
        {Op("Eyelike").Online({6}, {}).Output({6}),
         "inputs[0].shape at byte # is 1, limit 2: the operator takes a matrix"},
        {Op("Eyelike").Online({2, 3}, {}).Output({5}),
         "outputs[0].size of the request tensor at byte # is 20, limit 24: the input's elements do not fit the output"},
        {oneHot({1}, {2}, 1), "inputs[0].shape at byte # is 1, limit 2: fewer indices than the output takes"},
        {oneHot({2}, {1}, 1), "inputs[1].shape at byte # is 1, limit 2: an off-value and an on-value"},
        {oneHot({2}, {2}, 2), "oneHotAxis at byte # is 2, limit 1: not an axis of the tensor"},
    });
}

TEST(Check, GatherAndScatter)
{
    const auto gather = [](uint32_t axis, Shape out) {
        return With<GatherAttr>(Op("Gather").Online({4, 3}, {}).Online({2}, {}).Output(out),
                                [axis](auto& a) { a.gatherAxis = axis; });
    };
    const auto gatherND = [](int32_t batchDims, Shape indices, Shape out) {
        return With<GatherNDAttr>(Op("GatherND").Online({4, 3}, {}).Online(indices, {}).Output(out),
                                  [batchDims](auto& a) { a.gatherAxis = batchDims; });
    };
    const auto scatter = [](Shape indices, Shape updates, Shape out) {
        return Op("Scatter").Online({4, 3}, {}).Online(indices, {}).Online(updates, {}).Output(out).Workspace(40);
    };
    const auto scatterND = [](Shape indices, Shape updates, Shape out) {
        return Op("ScatterND").Online({4, 3}, {}).Online(indices, {}).Online(updates, {}).Output(out).Workspace(16);
    };
    constexpr const char* kUpdates = "the updates have the indices' outer and the data's inner dimensions";
    const std::string rankText = std::string("inputs[2].shape at byte # is 1, limit 2: ") + kUpdates;
    const std::string dimText = std::string("inputs[2].shape[1] at byte # is 2, limit 3: ") + kUpdates;
    ExpectTexts({
        {gather(2, {2, 3}), "gatherAxis at byte # is 2, limit 1: not an axis of the tensor"},
        {gather(0, {4, 2}),
         "outputs[0].stride of the request tensor at byte # is 8, limit 12: rows as far apart as the stride would "
         "overlap"},
        {gather(1, {4, 1}),
         "outputs[0].stride of the request tensor at byte # is 4, limit 8: rows as far apart as the stride would "
         "overlap"},
        {gather(0, {5}),
         "outputs[0].size of the request tensor at byte # is 20, limit 32: the slices do not fit the output"},
        {gather(1, {7}),
         "outputs[0].size of the request tensor at byte # is 28, limit 92: the slices do not fit the output"},
        {With<GatherElementsAttr>(Op("GatherElements").Online({4, 3}, {}).Online({2, 3}, {}).Output({5}), [](auto&) {}),
         "outputs[0].shape at byte # is 5, limit 6: the output has fewer elements than there are indices"},
        {gatherND(-1, {2, 1}, {2, 3}), "gatherAxis at byte # is -1, limit 0: not an axis of the tensor"},
        {gatherND(1, {2, 2}, {2}),
         "gatherAxis at byte # is 3, limit 2: batch dimensions and index tuples go beyond the data's rank"},
        {gatherND(0, {2, 1}, {5}),
         "outputs[0].size of the request tensor at byte # is 20, limit 24: the slices do not fit the output"},
        {scatter({2, 3}, {6}, {4, 3}), "inputs[2].shape at byte # is 1, limit 2: the updates have the data's rank"},
        {scatter({2, 3}, {2, 4}, {4, 3}), "inputs[2].shape[1] at byte # is 4, limit 3: updates reach beyond the data"},
        {scatter({2, 3}, {1, 3}, {4, 3}), "inputs[2].shape at byte # is 3, limit 6: fewer updates than indices"},
        {scatter({2, 3}, {2, 3}, {3, 3}),
         "outputs[0].size of the request tensor at byte # is 36, limit 48: the data does not fit the output"},
        {scatter({2, 3}, {2, 3}, {4, 3}).Workspace(36),
         "bufSize at byte # is 36, limit 40: the work space holds the indices and two words per dimension"},
        {scatterND({2, 3}, {2}, {4, 3}),
         "inputs[1].shape[1] at byte # is 3, limit 2: tuples longer than the data's rank"},
        {scatterND({2, 1}, {6}, {4, 3}), rankText.c_str()},
        {scatterND({2, 1}, {2, 2}, {4, 3}), dimText.c_str()},
        {scatterND({2, 1}, {2, 3}, {3, 3}),
         "outputs[0].size of the request tensor at byte # is 36, limit 48: the data does not fit the output"},
        {scatterND({2, 1}, {2, 3}, {4, 3}).Workspace(12),
         "bufSize at byte # is 12, limit 16: the work space holds an offset per tuple and the pitches"},
    });
}

TEST(Check, PadAndResize)
{
    const auto pad = [](Shape out, auto change) {
        LayerCase layer = Op("Pad").Online({2, 3}, {}, 16).Output(out).Workspace(136);
        PadAttr& attr = layer.Attr<PadAttr>();
        attr.padCount = attr.padCountCheck = 4;
        attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = 2;
        attr.reshapedPadsSize = attr.reshapedSlicesSize = 4;
        attr.inputStartsSize = attr.inputExtentsSize = 2;
        change(attr);
        return layer;
    };
    EXPECT_THAT(TextsOf(Check(pad({2, 3}, [](auto&) {}))), IsEmpty());
    const auto resize = [](Shape in, Shape out, auto change) {
        LayerCase layer = Op("Resize").Online(in, {}).Online({7}, {}).Output(out);
        ResizeAttr& attr = layer.Attr<ResizeAttr>();
        std::fill(attr.scales, attr.scales + 4, 2.0f);
        change(attr);
        return layer;
    };
    const auto keep = [](auto&) {};
    ExpectTexts({
        {pad({2, 3}, [](auto& a) { a.padCount = 6; }), "padCount at byte # is 6, limit 4: not twice the input's rank"},
        {pad({2, 3}, [](auto& a) { a.padCountCheck = 3; }),
         "padCountCheck at byte # is 3, limit 4: not twice the input's rank"},
        {pad({2, 3}, [](auto& a) { a.reshapedPadsSize = 3; }),
         "reshapedPadsSize at byte # is 3, limit 4: the array is too short"},
        {pad({1, 3},
             [](auto& a) {
                 a.padsAttr[0] = -1;
                 a.reshapedSlicesSize = 3;
             }),
         "reshapedSlicesSize at byte # is 3, limit 4: the array is too short"},
        {pad({2, 3}, [](auto& a) { a.outputDimsSize = 3; }),
         "outputDimsSize at byte # is 3, limit 2: not the input's rank"},
        {pad({2, 3}, [](auto& a) { a.inputStartsSize = 3; }),
         "bufSize at byte # is 136, limit 140: the work space holds the arrays that the attributes size"},
        {pad({2, 3}, [](auto& a) { a.padsAttr[1] = -3; }),
         "padsAttr[1] at byte # is 0, limit 1: nothing is left of the axis"},
        {pad({2, 3}, [](auto& a) { a.padsAttr[3] = -4; }),
         "padsAttr[3] at byte # is -1, limit 1: nothing is left of the axis"},
        {pad({2, 3}, [](auto& a) { a.padsAttr[0] = 1; }),
         "outputs[0].size of the request tensor at byte # is 24, limit 36: the padded tensor does not fit the output"},
        {resize({1, 1, 3}, {1, 1, 3}, keep),
         "inputs[0].shape at byte # is 3, limit 4: the operator takes four dimensions"},
        {resize({1, 1, 2, 3}, {1, 1, 6}, keep),
         "outputs[0].shape at byte # is 3, limit 4: the operator takes four dimensions"},
        {resize({1, 1, 2, 3}, {1, 1, 4, 6}, [](auto& a) { a.scales[3] = 1; }),
         "scales[3] at byte # is 6, limit 3: a scale of 1 keeps positions, and the output is longer"},
        {resize({1, 1, 2, 3}, {1, 1, 2, 6}, [](auto& a) { a.scales[0] = -1; }),
         "safe if the scale of axis 3, which comes from an input, differs from 1 by 1e-6 or more"},
        {resize({1, 1, 2, 3}, {1, 1, 2, 6},
                [](auto& a) {
                    a.hasRoi = 1;
                    a.roiCount = 11;
                }),
         "inputs[1].size of the request tensor at byte # is 28, limit 32: the region has a start and an end per axis"},
        {resize({1, 2, 2, 3}, {1, 1, 4, 6}, [](auto& a) { a.resizeMode = OPKIT_RESIZE_LINEAR; }),
         "outputs[0].shape at byte # is 1, limit 2: the output has fewer planes than the input"},
    });
    LayerCase large = Op("Resize").Online({1, 1, 1, (1 << 24) + 1}, {}).Output({1, 1, 1, 1});
    std::fill_n(large.Attr<ResizeAttr>().scales, 4, 0.5f);
    ExpectTexts(
        {{large, "inputs[0].shape[3] at byte # is 16777217, limit 16777216: positions beyond 24 bits round outside"}});
    LayerCase few = Op("Resize").Online({1, 1, 2, 3}, {}).Online({3}, {}).Output({1, 1, 2, 3});
    few.Attr<ResizeAttr>().scales[0] = -1;
    ExpectTexts({{few, "inputs[1].size of the request tensor at byte # is 12, limit 16: one scale or size per axis"}});
    // Merged rows, of which the first read takes the row distance of the stride.
    LayerCase merged = Op("Pad").Online({3, 2, 4}, {}, 48).Output({2, 2, 4}).Workspace(400);
    PadAttr& attr = merged.Attr<PadAttr>();
    attr.padCount = attr.padCountCheck = 6;
    attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = 3;
    attr.reshapedPadsSize = attr.reshapedSlicesSize = 6;
    attr.inputStartsSize = attr.inputExtentsSize = 3;
    attr.padsAttr[1] = -1;
    attr.padsAttr[4] = 1;
    ExpectTexts({
        {merged,
         "outputs[0].size of the request tensor at byte # is 64, limit 96: the padded tensor does not fit the output"},
    });
    // Two rows of one merged axis, the first of them cut off: its offset is that of a padded row.
    LayerCase cut = Op("Pad").Online({2, 1, 4}, {}, 64).Output({1, 1, 4}).Workspace(400);
    cut.Attr<PadAttr>() = attr;
    PadAttr& cutAttr = cut.Attr<PadAttr>();
    std::fill_n(cutAttr.padsAttr, 6, 0);
    cutAttr.padsAttr[0] = -1;
    EXPECT_THAT(TextsOf(Check(cut)), IsEmpty());
    cut.Tamper([](World& w) { Dim(w, false, 0, 0) = 3; }).Tamper([](World& w) { Dim(w, true, 0, 0) = 1; });
    cut.Attr<PadAttr>().padsAttr[3] = -1;
    ExpectTexts({{cut,
                  "inputs[0].size of the request tensor at byte # is 128, limit 192: the rows of the shape and stride "
                  "do not fit"}});
}

TEST(Check, Detection)
{
    const auto decode = [](Shape deltas, Shape scores, Shape thresholds, Shape proposals, Shape out, auto change) {
        LayerCase layer = Op("DecBbox").Online(deltas, {}).Online(scores, {}).Online(thresholds, {}).Online({1}, {});
        layer.Online(proposals, {}).Output(out);
        layer.Attr<DecBboxAttr>().classNum = 2;
        change(layer.Attr<DecBboxAttr>());
        return layer;
    };
    const auto keep = [](auto&) {};
    const auto stage = [](Shape in, Shape out, auto change) {
        LayerCase layer = Op("Sort").Online(in, {}).Output(out);
        layer.Attr<DetectionOutputAttr>().classNum = 2;
        layer.Attr<DetectionOutputAttr>().classCapacity = 3;
        change(layer.Attr<DetectionOutputAttr>());
        return layer;
    };
    const auto nms = [](Shape boxes, Shape scores, Shape out) {
        return Op("NonMaxSuppression").Online(boxes, {}).Online(scores, {}).Output(out).Workspace(32);
    };
    ExpectTexts({
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 3"},
        {decode({24}, {6}, {3}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "inputs[2].shape at byte # is 3, limit 4: overlap, score, height and width"},
        {decode({24}, {6}, {4}, {4, 3}, {1, 2, 5, 3}, keep),
         "inputs[4].shape at byte # is 2, limit 4: the fourth dimension is the number of proposals"},
        {decode({24}, {6}, {4}, {1, 1, 3, 3}, {1, 2, 5, 3}, keep),
         "inputs[4].shape at byte # is 9, limit 12: four edges per proposal"},
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, [](auto& a) { a.classNum = 0; }),
         "classNum at byte # is 0, limit 1: no class"},
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, [](auto& a) { a.classNum = 257; }),
         "classNum at byte # is 257, limit 256: the operator fails"},
        {decode({7}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "inputs[0].size of the request tensor at byte # is 28, limit 32: eight deltas per proposal"},
        {decode({24}, {1}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "inputs[1].size of the request tensor at byte # is 4, limit 8: a score per proposal and class, of two at "
         "least"},
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {1, 1, 5, 3}, keep),
         "outputs[0].size of the request tensor at byte # is 60, limit 112: the boxes of all classes, of two at least, "
         "do not fit the "
         "output"},
        // What is there for fewer proposals bounds their number.
        {decode({23}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {decode({24}, {5}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {decode({24}, {3}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, [](auto& a) { a.classNum = 1; }),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {29}, keep),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {decode({24}, {4}, {4}, {1, 1, 4, 3}, {15}, [](auto& a) { a.classNum = a.mergeClasses = 1; }),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 1"},
        {decode({24}, {9}, {4}, {1, 1, 4, 3}, {44}, [](auto& a) { a.classNum = 3, a.mergeClasses = 1; }),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {decode({24}, {6}, {4}, {1, 1, 4, 3}, {35}, [](auto& a) { a.hasClassId = 1; }),
         "safe if the first element of input 3, the number of proposals, lies from 0 to 2"},
        {stage({2, 15}, {1, 2, 5, 3}, keep), "safe if the layers before leave at most 3 boxes in each list"},
        {stage({2, 15}, {1, 2, 5, 2}, keep), "safe if the layers before leave at most 3 boxes in each list"},
        {stage({2, 15}, {1, 2, 5, 5}, [](auto& a) { a.packOutput = 1, a.maxBoxNum = 3; }),
         "safe if the layers before leave at most 3 boxes in each list and at most 5 in all"},
        // A list is cut before it is written by suppression, to one box at least, and by the filter; not by a sort.
        {stage({2, 15}, {1, 2, 5, 5}, [](auto& a) { a.packOutput = 1, a.stage = OPKIT_STAGE_FILTER, a.maxBoxNum = 2; }),
         "safe if the layers before leave at most 3 boxes in each list"},
        {stage({2, 15}, {1, 2, 5, 2}, [](auto& a) { a.stage = OPKIT_STAGE_FILTER, a.maxBoxNum = 2; }),
         "safe if the layers before leave at most 3 boxes in each list"},
        {stage({2, 15}, {1, 2, 5, 2}, [](auto& a) { a.stage = OPKIT_STAGE_SORT, a.maxBoxNum = 2; }),
         "safe if the layers before leave at most 2 boxes in each list"},
        {stage({2, 15}, {1, 2, 5, 5}, [](auto& a) { a.packOutput = 1, a.stage = OPKIT_STAGE_SORT, a.maxBoxNum = 2; }),
         "safe if the layers before leave at most 3 boxes in each list and at most 5 in all"},
        {stage({2, 14}, {1, 2, 5, 3}, keep),
         "inputs[0].shape at byte # is 28, limit 30: the lists do not fit the input"},
        {stage({2, 15}, {30}, keep),
         "outputs[0].shape at byte # is 1, limit 4: the fourth dimension is the row length"},
        {stage({2, 15}, {1, 2, 4, 3}, keep),
         "outputs[0].size of the request tensor at byte # is 96, limit 120: the lists' rows do not fit the output"},
        {stage({2, 15}, {1, 2, 5, 3}, [](auto& a) { a.classNum = 0; }), "classNum at byte # is 0, limit 1: no class"},
        {stage({2, 15}, {1, 2, 5, 3}, [](auto& a) { a.classNum = 257; }),
         "classNum at byte # is 257, limit 256: a thread keeps the counts of 256 lists"},
        {stage({2, 15}, {1, 2, 5, 6}, [](auto& a) { a.writeCount = 1; }).Output({1}),
         "outputs[1].size of the request tensor at byte # is 4, limit 8: a count per class"},
        {nms({1, 3, 4}, {1, 2, 3}, {5, 3}), "safe if at most 5 boxes are selected in all"},
        {nms({12}, {1, 2, 3}, {6, 3}), "inputs[0].shape at byte # is 1, limit 2: batches, boxes"},
        {nms({1, 3, 4}, {6}, {6, 3}), "inputs[1].shape at byte # is 1, limit 2: batches, classes"},
        {nms({1, 3, 3}, {1, 2, 3}, {6, 3}), "inputs[0].shape at byte # is 9, limit 12: four values per box"},
        {nms({1, 3, 4}, {1, 2, 2}, {6, 3}), "inputs[1].shape at byte # is 4, limit 6: a score per box and class"},
        {nms({1, 3, 4}, {1, 2, 3}, {6, 3}).Workspace(28),
         "bufSize at byte # is 28, limit 32: the work space holds the heap"},
    });
    EXPECT_THAT(TextsOf(Check(nms({1, 3, 4}, {1, 2, 3}, {6, 3}))), IsEmpty());
    // The shares of a constant lie one behind the other, up to the buffer's end.
    LayerCase constant = Op("DecBbox").Offline({8}, {1, 2, 3, 4, 5, 6, 7, 8}).Online({6}, {}).Online({4}, {});
    constant.Online({1}, {}).Online({1, 1, 4, 3}, {}).Output({1, 2, 5, 3}).Attr<DecBboxAttr>().classNum = 2;
    ExpectTexts({{constant, "safe if the first element of input 3, the number of proposals, lies from 0 to 3"}});
    constant.Tamper(
        [](World& w) { w.Attr<LayerAttrHead>().offlineOffset[0] = static_cast<int32_t>(w.ModelBytes().size()) - 92; });
    ExpectTexts({{constant, "safe if the first element of input 3, the number of proposals, lies from 0 to 2"}});
    // Padded shares are compacted for all proposals.
    LayerCase padded = decode({3, 8}, {6}, {4}, {1, 1, 4, 3}, {1, 2, 5, 3}, keep);
    padded.Tamper([](World& w) { Dim(w, false, 0, 1) = 7; });
    ExpectTexts(
        {{padded,
          "inputs[0].size of the request tensor at byte # is 96, limit 284: rows for all proposals do not fit"}});
}

TEST(Check, ControlAndCustom)
{
    const auto passed = [](const char* name, Shape in, Shape out) { return Op(name).Online(in, {}).Output(out); };
    const auto condEnd = [](auto change) {
        return With<CondEndAttr>(Op("CondEnd").Online({3}, {}).Online({3}, {}).Output({3}).Output({3}), change);
    };
    const auto loop = [](uint32_t inputs, auto change) {
        LayerCase layer = Op("Loop");
        for (uint32_t i = 0; i < inputs; ++i) {
            layer.Online({2}, {});
        }
        layer.Output({1}).Output({2}).Output({2});
        LoopAttr& attr = layer.Attr<LoopAttr>();
        attr.condition = -1;
        attr.inputCursor = 1;
        attr.tripCount = 3;
        attr.carriedNum = 1;
        change(attr);
        return layer;
    };
    const auto keep = [](auto&) {};
    EXPECT_THAT(TextsOf(Check(loop(4, keep))), IsEmpty());
    const auto custom = [](auto change) {
        LayerCase layer = Op("Custom").Online({2}, {}).Output({2});
        layer.Attr<CustomAttr>().totalInputNum = 1;
        std::copy_n("Blend", 6, layer.Attr<CustomAttr>().funcName);
        change(layer.Attr<CustomAttr>());
        return layer;
    };
    ExpectTexts({
        {With<IfAttr>(passed("If", {1}, {1}), [](auto& a) { a.thenSegId = 4; }),
         "thenSegId at byte # is 4, limit 4294967295: no table has this segment id"},
        {With<IfAttr>(passed("If", {1}, {1}), [](auto& a) { a.elseSegId = 1; }),
         "elseSegId at byte # is 1, limit 4294967295: no table has this segment id"},
        {With<IfAttr>(passed("If", {1}, {1}),
                      [](auto& a) {
                          a.hasSecondOperand = 1;
                          a.cmpType = 2;
                      }),
         "cmpType at byte # is 2, limit 1: the operator fails on this code"},
        {With<ThenEndAttr>(passed("ThenEnd", {3}, {3}), [](auto& a) { a.tensorNum = 2; }),
         "outputNum at byte # is 1, limit 2: output 1 is missing"},
        {With<ThenEndAttr>(passed("ThenEnd", {3}, {4}), [](auto& a) { a.tensorNum = 1; }),
         "inputs[0].shape at byte # is 3, limit 4: fewer elements than outputs[0] takes"},
        {With<ThenEndAttr>(passed("ThenEnd", {3}, {3}), [](auto& a) { a.nextSegId = 9; }),
         "nextSegId at byte # is 9, limit 4294967295: no table has this segment id"},
        {Changed(
             With<ElseBeginAttr>(passed("ElseBegin", {1}, {1}), [](auto& a) { a.tensorNum = 1; }),
             [](World& w) { Record(w, false, 0) = {OPKIT_MEM_SCRATCH, 0, 0, 4, Record(w, false, 0).shapeOffset, 4}; }),
         "inputs[0].size at byte # is 0, limit 4: its first element is used"},
        {condEnd(keep), "scanBranch at byte # is 0, limit 1: no branch is selected"},
        {condEnd([](auto& a) { a.scanBranch = 1; }), "tensorNum at byte # is 0, limit 2: not the number of outputs"},
        {condEnd([](auto& a) { a.ifBranch = 2; }), "inputNum at byte # is 2, limit 3: logical input 2 is missing"},
        {condEnd([](auto& a) {
             a.loopBranch = 1;
             a.nextSegId = 3;
         }),
         "nextSegId at byte # is 3, limit 4294967295: no table has this segment id"},
        {loop(4, [](auto& a) { a.iteration = 1; }),
         "iteration at byte # is 1, limit 0: the state of a loop that has not begun"},
        {loop(4, [](auto& a) { a.inputCursor = 2; }),
         "inputCursor at byte # is 2, limit 1: the state of a loop that has not begun"},
        {loop(4, [](auto& a) { a.carriedNum = 15; }),
         "carriedNum at byte # is 15, limit 14: two outputs for each carried value"},
        {loop(4, [](auto& a) { a.carriedNum = 2; }), "outputNum at byte # is 3, limit 4: output 3 is missing"},
        {loop(3, keep), "inputNum at byte # is 3, limit 4: an input of a pass is missing"},
        {loop(4, [](auto& a) { a.tripCount = -1; }), "inputNum at byte # is 4, limit 5: an input of a pass is missing"},
        {loop(4, [](auto& a) { a.exitSegId = 5; }),
         "exitSegId at byte # is 5, limit 4294967295: no table has this segment id"},
        {custom(keep),
         "safe if the function \"Blend\" of libtvr_opkit_custom_x86.so keeps to the tensors and parameters that it is "
         "given"},
        {custom([](auto& a) { a.totalInputNum = 2; }),
         "totalInputNum at byte # is 2, limit 1: not the sum of online and offline inputs"},
        {custom([](auto& a) { a.totalInputNum = 81; }),
         "totalInputNum at byte # is 81, limit 80: a layer has at most 80 inputs"},
        {custom([](auto& a) { std::fill_n(a.funcName, sizeof(a.funcName), 'x'); }),
         "funcName at byte # is 64, limit 63: the name does not end"},
        {custom([](auto& a) { a.fixedSize = 5000; }),
         "fixedSize at byte # is 5000, limit 4840: the parameters end behind the attribute block"},
        {custom([](auto& a) {
             a.params.sized.marker = OPKIT_CUSTOM_SIZED_MARKER;
             a.params.sized.sizedSize = 3;
         }),
         "params.sized.sizedSize at byte # is 3, limit 4: the size counts the marker"},
        {custom([](auto& a) {
             a.params.sized.marker = OPKIT_CUSTOM_SIZED_MARKER;
             a.params.sized.sizedSize = 4837;
         }),
         "params.sized.sizedSize at byte # is 4837, limit 4836: the parameters end behind the attribute block"},
        {Changed(custom(keep).Flag(0, '2'), [](World& w) { w.Attr<CustomAttr>().head.offlineShape[0].dimNum = 11; }),
         "offlineShape[0].dimNum at byte # is 11, limit 10: a constant has 1 to 10 dimensions"},
        {custom([](auto& a) { std::copy_n("two\nlines", 10, a.funcName); }),
         "safe if the function \"two?lines\" of libtvr_opkit_custom_x86.so keeps to the tensors and parameters that it "
         "is given"},
        // A preset condition leaves its place among the inputs to the first value, once.
        {loop(3, [](auto& a) { a.condition = 1; }),
         "safe if the model buffer is restored before the loop begins anew: its preset condition is gone then, and no "
         "input takes its place"},
        {loop(3, [](auto& a) { a.condition = 1; }).Batch(2),
         "inputNum at byte # is 3, limit 4: an input of a pass is missing"},
        {loop(2, [](auto& a) { a.condition = 1; }), "inputNum at byte # is 2, limit 3: an input of a pass is missing"},
    });
    EXPECT_THAT(TextsOf(Check(loop(4, [](auto& a) { a.condition = 1; }))), IsEmpty());
    const auto lost = Check(With<IfAttr>(passed("If", {1}, {1}), [](auto& a) { a.thenSegId = a.elseSegId = 7; }));
    ASSERT_EQ(lost.refusals.size(), 1u);
    EXPECT_TRUE(lost.refusals[0].leadsNowhere);
    EXPECT_FALSE(Check(loop(3, keep)).refusals.at(0).leadsNowhere);
}

// Of a constant without dimensions there is one element, which control flow takes and no other operator.
TEST(Check, ConstantsWithoutDimensions)
{
    const auto scalar = [](const char* name) {
        LayerCase layer = Op(name).Offline({1}, {3});
        layer.Tamper([](World& w) { w.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0; });
        return layer;
    };
    const auto passes = [](auto& a) { a.tensorNum = 1; };
    EXPECT_THAT(TextsOf(Check(scalar("If").Output({1}))), IsEmpty());
    EXPECT_THAT(TextsOf(Check(With<ThenEndAttr>(scalar("ThenEnd").Output({1}), passes))), IsEmpty());
    ExpectTexts({
        {With<ThenEndAttr>(scalar("ThenEnd").Output({2}), passes),
         "offlineShape[0] at byte # is 0, limit 1: the operator takes 1 to 10 dimensions"},
        {scalar("Neg").Output({1}),
         "offlineShape[0].dimNum at byte # is 0, limit 1: a constant has 1 to 10 dimensions"},
    });
    World world(With<ThenEndAttr>(scalar("ThenEnd").Output({1}), passes));
    ASSERT_EQ(OpkitForward(&world.Param()), 0u);
    EXPECT_EQ(*static_cast<const float*>(world.Param().outputs[0].data), 3.0f);
}

// Many logical inputs.
TEST(Check, LogicalInputs)
{
    LayerCase layer = Op("CondEnd");
    for (int i = 0; i < 30; ++i) {
        layer.Output({1});
    }
    layer.Attr<CondEndAttr>().ifBranch = 2;
    ExpectTexts({{layer, "inputNum at byte # is 0, limit 31: logical input 30 is missing"}});
    LayerCase concat = Op("Concat").Output({1});
    concat.Attr<ConcatAttr>().concatInputCount = 80;
    for (int i = 0; i < 80; ++i) {
        concat.Offline({1}, {1});
    }
    EXPECT_THAT(TextsOf(Check(concat)), ElementsAre(testing::HasSubstr("the inputs end behind the output")));
}

// A refused attribute is named with the place where it lies.
TEST(Check, OffsetsLeadToTheFields)
{
    size_t named = 0;
    for (const CheckCase& entry : CheckCases()) {
        Random random(TestSeed());
        CaseMaker maker(entry.name, random);
        entry.fill(maker);
        World world(maker.layer);
        const ReadLayer layer = ReadLayerTable(world.ModelInfo()).layers[0];
        for (const AttributeField& field : FindAttributeRecord(entry.name)->fields) {
            Buffer bytes = world.ModelInfo().bytes;
            const uint64_t at = layer.attrOffset + field.offset;
            std::memset(bytes.data() + at, 0x7f, field.size);
            const CheckReport report = CheckBuffer(bytes.Span(), world.ModelInfo().tables, RequestOf(world.Param()));
            if (report.Accepted() || report.refusals[0].field != field.name) {
                continue;
            }
            EXPECT_EQ(report.refusals[0].byteOffset, at) << entry.name << " " << field.name;
            ++named;
        }
    }
    EXPECT_GT(named, 40u);
}

TEST(Check, ConditionsOfARefusedLayerDoNotCount)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {3}});
    const TensorRef y = builder.AddOutput({"y", {3}});
    builder.AddLayer("ModOpkitForward").Online(x).Online(x).Output(y).Attr(ModAttr{});
    builder.AddLayer("NegOpkitForward").Online(x).Output(y.As({2}));
    const CheckReport report = CheckModel(builder.Build());
    EXPECT_THAT(TextsOf(report), ElementsAre(StartsWith("segment 0, layer 1 (NegOpkitForward): outputs[0].shape"),
                                             StartsWith("segment 0, layer 0 (ModOpkitForward): safe if")));
    EXPECT_FALSE(report.Accepted());
    EXPECT_FALSE(report.Unconditional());
}

TEST(Check, TakesAsManyBatchItemsAsFit)
{
    ModelBuilder builder(5);
    const TensorRef x = builder.AddInput({"x", {3}});
    const TensorRef y = builder.AddOutput({"y", {3}});
    const TensorRef t = builder.AddScratch({"t", {3}}, true);
    builder.AddLayer("NegOpkitForward").Online(x).Output(t);
    builder.AddLayer("NegOpkitForward").Online(t).Output(y);
    const Model model = builder.Build();
    EXPECT_EQ(CheckModel(model).batch, 5u);
    EXPECT_TRUE(CheckModel(model).Unconditional());
    EXPECT_THAT(
        TextsOf(CheckModel(model, 6)),
        ElementsAre(StartsWith("segment 0, layer 0 (NegOpkitForward): outputs[0].memIndex at byte # is 0, limit 0"),
                    StartsWith("segment 0, layer 1 (NegOpkitForward): inputs[0].memIndex at byte # is 0, limit 0")));
}

}  // namespace
}  // namespace opkit
