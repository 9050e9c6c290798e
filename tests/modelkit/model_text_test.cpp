#include "modelkit/model_text.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "modelkit/json_fields.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "opkit/opkit.h"
#include "tests/support/random.h"

namespace {

using namespace opkit::modelkit;
using opkit::test::ForRandomCases;
using opkit::test::Random;
using opkit::test::Values;
using testing::HasSubstr;

std::string BytesOf(const Model& model)
{
    return {reinterpret_cast<const char*>(model.bytes.data()), model.bytes.size()};
}

// Both directions, to the last byte.
void ExpectRoundTrip(const Model& model, const std::string& manifest)
{
    const std::string text = DisassembleModel(model, manifest);
    const AssembledModel back = AssembleModel("text.json", text);
    ASSERT_TRUE(BytesOf(back.model) == BytesOf(model)) << text.substr(0, 4000);
    ASSERT_EQ(back.manifest, manifest);
    ASSERT_TRUE(DisassembleModel(back.model, back.manifest) == text) << text.substr(0, 4000);
}

void ExpectRoundTrip(const Model& model)
{
    ExpectRoundTrip(model, ManifestText(model));
}

Model Load(const std::string& manifest, const std::string& bytes)
{
    return ParseModel({"m.json", "m.bin"}, manifest, bytes);
}

// The bytes as a model, or nothing when LoadModel would not take them.
std::optional<Model> Accepted(const Model& like, const std::string& bytes)
{
    Model model = like;
    model.bytes = Buffer(std::as_bytes(std::span(bytes)));
    try {
        return Load(ManifestText(model), bytes);
    } catch (const FileError&) {
        return std::nullopt;
    }
}

TensorRef RandomScratch(ModelBuilder& builder, Random& random)
{
    const Shape shape = random.Shape(0, 5, 64);
    return builder.AddScratch({"t", shape, shape.empty() ? 4 : random.Stride(shape.back())}, random.Chance(0.3));
}

void AddRandomLayer(ModelBuilder& builder, Random& random, const AttributeRecord& record, const TensorRef& x,
                    const TensorRef& y, const ConstantRef& shared)
{
    LayerBuilder& layer = builder.AddLayer(std::string(record.operatorName));
    for (int i = random.Int(0, 4); i > 0; --i) {
        if (random.Chance(0.4)) {
            const Shape shape = random.Shape(0, 4, 100);
            layer.Offline(shape,
                          random.Floats(ElementCount(shape), random.Chance(0.5) ? Values::kBits : Values::kPlain));
        } else if (random.Chance(0.3)) {
            layer.Offline(shared);
        } else {
            layer.Online(random.Chance(0.3) ? x : RandomScratch(builder, random));
        }
    }
    for (int i = random.Int(0, 3); i > 0; --i) {
        layer.Output(random.Chance(0.3) ? y : RandomScratch(builder, random));
    }
    std::vector<std::byte> attributes(record.size - sizeof(LayerAttrHead));
    for (const AttributeField& field : record.fields) {
        for (uint32_t i = 0; i < field.size; ++i) {
            const bool small = i > 0 && random.Chance(0.7);
            attributes[field.offset - sizeof(LayerAttrHead) + i] = static_cast<std::byte>(small ? 0 : random.Word());
        }
    }
    layer.AttrBytes(attributes);
    if (random.Chance(0.3)) {
        layer.Workspace(random.Word() % 1000).LayerId(random.Word());
    }
    if (random.Chance(0.1)) {
        layer.Flag(random.Word() % 80, static_cast<char>(random.Word()));
    }
}

// Every operator in turn, in up to three tables.
Model RandomModel(Random& random, size_t first, size_t count)
{
    ModelBuilder builder(static_cast<uint32_t>(random.Int(1, 4)));
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}});
    const ConstantRef shared = builder.AddConstant("shared", {2, 2}, random.Floats(4, Values::kMixed));
    builder.BeginTable(random.Word() % 5, "first");
    for (size_t i = 0; i < count; ++i) {
        if (random.Chance(0.1)) {
            builder.BeginTable(static_cast<uint32_t>(10 + i));
            builder.NextSegment(static_cast<uint32_t>(10 + i));
        }
        AddRandomLayer(builder, random, AttributeRecords()[(first + i) % AttributeRecords().size()], x, y, shared);
    }
    return builder.Build();
}

TEST(ModelText, RoundTripOfEveryOperator)
{
    ForRandomCases(20, [](Random& random) {
        for (size_t first = 0; first < AttributeRecords().size(); first += 10) {
            ExpectRoundTrip(RandomModel(random, first, 10));
        }
    });
}

TEST(ModelText, RoundTripOfTheDigitsExample)
{
    const std::string path = std::string(OPKIT_SOURCE_DIR) + "/examples/digits/data/digits";
    const Model model = LoadModel(path);
    const std::string manifest = ReadFile(path + ".json");
    ExpectRoundTrip(model, manifest);
    // The builder's layout needs no positions and leaves nothing over.
    const std::string text = DisassembleModel(model, manifest);
    EXPECT_EQ(text.find("layerOffset"), std::string::npos);
    EXPECT_EQ(text.find("raw"), std::string::npos);
    EXPECT_NE(text.find("\"mathType\": \"OPKIT_BINARY_ADD\""), std::string::npos);
}

TEST(ModelText, RoundTripOfEveryDamageThatTheReaderAccepts)
{
    int accepted = 0;
    ForRandomCases(60, [&](Random& random) {
        const Model model = RandomModel(random, random.Word() % 73, 3);
        const std::string good = BytesOf(model);
        for (int i = 0; i < 12; ++i) {
            std::string bytes = good;
            for (int change = random.Int(1, 4); change > 0; --change) {
                const size_t at = random.Word() % bytes.size() / 4 * 4;
                const uint32_t values[] = {random.Word(), random.Word() % static_cast<uint32_t>(bytes.size()), 0,
                                           random.Word() % 64};
                std::memcpy(&bytes[at], &values[random.Word() % 4], 4);
            }
            bytes.resize(bytes.size() + (random.Chance(0.2) ? random.Word() % 70 : 0), 'x');
            if (const std::optional<Model> damaged = Accepted(model, bytes)) {
                ExpectRoundTrip(*damaged);
                ++accepted;
            }
        }
    });
    EXPECT_GT(accepted, 300);
}

// Fields of records, where random words seldom lead to anything that is accepted.
TEST(ModelText, RoundTripOfMovedRecords)
{
    int accepted = 0;
    ForRandomCases(200, [&](Random& random) {
        const Model model = RandomModel(random, random.Word() % 73, 2);
        std::string bytes = BytesOf(model);
        const ReadTable table = ReadLayerTable(model, 0);
        if (table.layers.empty()) {
            return;
        }
        const ReadLayer& layer = table.layers[random.Word() % table.layers.size()];
        const auto move = [&](size_t at) {
            uint32_t value;
            std::memcpy(&value, &bytes[at], 4);
            value += static_cast<uint32_t>(random.Int(-24, 24));
            std::memcpy(&bytes[at], &value, 4);
        };
        for (const size_t field : {4u, 8u, 20u, 24u, 32u, 40u}) {
            if (random.Chance(0.4)) {
                move(layer.recordOffset + field);
            }
        }
        for (const auto* tensors : {&layer.inputs, &layer.outputs}) {
            for (const ReadTensor& tensor : *tensors) {
                move(tensor.recordOffset + (random.Chance(0.5) ? 16 : 20));
            }
        }
        if (const std::optional<Model> moved = Accepted(model, bytes)) {
            ExpectRoundTrip(*moved);
            ++accepted;
        }
    });
    EXPECT_GT(accepted, 30);
}

Model SmallModel()
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}});
    const TensorRef t = builder.AddScratch({"t", {2, 3}, 16});
    BinaryMathAttr add = {};
    add.mathType = OPKIT_BINARY_MUL;
    builder.BeginTable(4, "main");
    builder.AddLayer("BinaryMathOpkitForward")
        .Online(x)
        .Offline(builder.AddConstant("c", {3}, {0.1f, -0.0f, std::numeric_limits<float>::infinity()}))
        .Output(t)
        .Attr(add)
        .Workspace(12);
    builder.NextSegment(5);
    CustomAttr custom = {};
    custom.totalInputNum = 1;
    std::strcpy(custom.funcName, "Twice");
    custom.params.fixed[1] = 0xAB;
    builder.BeginTable(5, "then");
    builder.AddLayer("CustomOpkitForward").Online(t).Output(y).Attr(custom);
    return builder.Build();
}

TEST(ModelText, ReadsAsWritten)
{
    const Model model = SmallModel();
    EXPECT_EQ(DisassembleModel(model, ManifestText(model)), R"({
  "format": "opkit-model-text",
  "formatVersion": 1,
  "scratchSize": 76,
  "maxBatch": 1,
  "inputs": [{"name": "x", "shape": [2, 3], "strideBytes": 16}],
  "outputs": [{"name": "y", "shape": [2, 3], "strideBytes": 12}],
  "constants": [{"name": "c", "shape": [3], "data": [0.1, -0.0, "0x7f800000"]}],
  "tables": [
    {
      "segmentId": 4,
      "name": "main",
      "next": 5,
      "layers": [
        {
          "operator": "BinaryMathOpkitForward",
          "layerId": 0,
          "bufOffset": 64,
          "bufSize": 12,
          "inputs": [{"memKind": 0, "memIndex": 0, "size": 32, "strideIndex": 0, "shape": [2, 3]}],
          "outputs": [{"memKind": 2, "memIndex": 0, "size": 32, "strideIndex": 16, "shape": [2, 3]}],
          "flags": "01",
          "offline": [{"constant": "c"}],
          "attributes": {"mathType": "OPKIT_BINARY_MUL"}
        }
      ]
    },
    {
      "segmentId": 5,
      "name": "then",
      "layers": [
        {
          "operator": "CustomOpkitForward",
          "layerId": 1,
          "inputs": [{"memKind": 2, "memIndex": 0, "size": 32, "strideIndex": 16, "shape": [2, 3]}],
          "outputs": [{"memKind": 0, "memIndex": 0, "size": 24, "strideIndex": 0, "shape": [2, 3]}],
          "flags": "0",
          "attributes": {"totalInputNum": 1, "funcName": "Twice", "params.fixed": "00ab", "fixedSize": 0}
        }
      ]
    }
  ]
}
)");
    ExpectRoundTrip(model);
}

TEST(ModelText, KeepsBytesThatNoRecordDescribes)
{
    Model model = SmallModel();
    const ReadLayer layer = ReadLayerTable(model, 1).layers[0];
    model.bytes.data()[layer.attrOffset + offsetof(CustomAttr, fixedSize) + 10] = std::byte{0x5C};
    model.bytes.data()[layer.attrOffset + offsetof(CustomAttr, fixedSize) + 12] = std::byte{0x5D};
    const std::string text = DisassembleModel(model, ManifestText(model));
    const std::string offset = std::to_string(layer.attrOffset + offsetof(CustomAttr, fixedSize) + 10);
    EXPECT_THAT(text, HasSubstr("\"raw\": [{\"offset\": " + offset + ", \"hex\": \"5c005d\"}]"));
    ExpectRoundTrip(model);
}

TEST(ModelText, KeepsAnUnusualManifest)
{
    const Model model = SmallModel();
    std::string manifest = ManifestText(model);
    manifest.insert(1, "\n\n   \"author\": \"somebody\",");
    ExpectRoundTrip(model, manifest);

    // It goes when the text was changed.
    std::string text = DisassembleModel(model, manifest);
    text.replace(text.find("\"scratchSize\": 76"), 17, "\"scratchSize\": 99");
    const AssembledModel changed = AssembleModel("text.json", text);
    EXPECT_EQ(changed.manifest, ManifestText(changed.model));
    EXPECT_EQ(changed.model.scratchSize, 99u);
}

TEST(ModelText, ChangesAreAssembled)
{
    const Model model = SmallModel();
    std::string text = DisassembleModel(model, ManifestText(model));
    const auto replace = [&](const std::string& from, const std::string& to) {
        ASSERT_NE(text.find(from), std::string::npos);
        text.replace(text.find(from), from.size(), to);
    };
    replace("\"OPKIT_BINARY_MUL\"", "3");
    replace("[0.1, -0.0, \"0x7f800000\"]", "[1, 2.5, 1e2, 4]");
    replace("\"shape\": [3], \"data\"", "\"shape\": [4], \"data\"");
    replace("\"flags\": \"0\"", "\"flags\": \"7\"");
    const Model changed = AssembleModel("text.json", text).model;
    const ReadLayer layer = ReadLayerTable(changed, 0).layers[0];
    EXPECT_EQ(layer.AttrOf<BinaryMathAttr>(changed.bytes).mathType, 3u);
    EXPECT_THAT(layer.offline[0].shape, testing::ElementsAre(4));
    float data[4];
    std::memcpy(data, changed.bytes.data() + changed.constants[0].offset, sizeof(data));
    EXPECT_THAT(data, testing::ElementsAre(1.0f, 2.5f, 100.0f, 4.0f));
    EXPECT_EQ(ReadLayerTable(changed, 1).layers[0].flags, "7");
}

std::string Quoted(const std::string& text)
{
    return nlohmann::json(text).dump();
}

class ModelTextErrors : public testing::Test {
protected:
    void Expect(const std::string& from, const std::string& to, const std::string& message) const
    {
        SCOPED_TRACE(from + " -> " + to);
        std::string text = DisassembleModel(model_, ManifestText(model_));
        ASSERT_NE(text.find(from), std::string::npos);
        text.replace(text.find(from), from.size(), to);
        try {
            AssembleModel("text.json", text);
            ADD_FAILURE() << "assembled without complaint";
        } catch (const FileError& error) {
            EXPECT_THAT(error.what(), testing::StartsWith("text.json: "));
            EXPECT_THAT(error.what(), HasSubstr(message));
        }
    }
    const Model model_ = SmallModel();
};

TEST_F(ModelTextErrors, NameTheField)
{
    Expect("opkit-model-text", "opkit-model", "field format is not \"opkit-model-text\"");
    Expect("\"formatVersion\": 1", "\"formatVersion\": 7", "field formatVersion is 7, this program reads 1");
    Expect("{", "{,", "no JSON at byte");
    Expect("\"maxBatch\": 1", "\"maxBatch\" 1", "no JSON at byte 91, line 5, column 14");
    Expect("\"maxBatch\": 1", "\"maxBatch\": 1e999", "a number does not fit");
    Expect("\"maxBatch\": 1", "\"maxBatch\": 1e999", ", line 5, column ");
    Expect("\"maxBatch\": 1", "\"maxBatch\": 1, \"maxBatch\": 2",
           "field \"maxBatch\" stands twice in one object, the second time before line 5, column 28");
    Expect("\"name\": \"x\", \"shape\": [2, 3]", "\"shape\": [2, 3], \"name\": \"x\", \"name\": \"z\"",
           "field \"name\" stands twice");
    Expect("\"maxBatch\": 1", "\"maxBatch\": -1", "field maxBatch is not a 32-bit unsigned number");
    Expect("\"data\": [0.1,", "\"data\": [", "field constants[0].data has 2 elements, the shape [3] has 3");
    Expect("[0.1,", "[\"0.1\",", "field constants[0].data[0] is neither");
    Expect("[0.1,", "[1e39,", "field constants[0].data[0] is neither");
    Expect("\"next\": 5", "\"next\": 6", "field tables[0].next is 6");
    Expect("\"layerId\": 1,", "", "field tables[1].layers[0].layerId is missing");
    Expect("\"memIndex\": 0", "\"memIndex\": []", "field tables[0].layers[0].inputs[0].memIndex is not");
    Expect("\"shape\": [2, 3]}],\n          \"flags\"", "\"shape\": 2}],\n          \"flags\"",
           "field tables[0].layers[0].outputs[0].shape is not a list");
    Expect("{\"constant\": \"c\"}", "{\"constant\": \"d\"}",
           "field tables[0].layers[0].offline[0].constant: there is no constant \"d\"");
    Expect("\"mathType\"", "\"mathtype\"", "field tables[0].layers[0].attributes.mathtype is no attribute");
    Expect("\"mathType\"", "\"mathtype\"",
           "no attribute of the layer's operator, which has inputStrides, outputStrides, mathType");
    Expect("BinaryMathOpkitForward", "BinaryMathsOpkitForward",
           "field tables[0].layers[0].operator: the library has no operator \"BinaryMathsOpkitForward\"");
    Expect("OPKIT_BINARY_MUL", "OPKIT_BINARY_POW", "attributes.mathType has no code \"OPKIT_BINARY_POW\"");
    Expect("OPKIT_BINARY_MUL", "OPKIT_BINARY_POW",
           "it takes OPKIT_BINARY_ADD, OPKIT_BINARY_SUB, OPKIT_BINARY_MUL, OPKIT_BINARY_DIV");
    Expect("\"Twice\"", "\"\\u001b[31m\\u009b\", \"\\u001b[2J\": 1", "attributes.?[2J is no attribute");
    Expect("\"OPKIT_BINARY_MUL\"", "-1", "attributes.mathType is no whole number of its range");
    Expect("\"OPKIT_BINARY_MUL\"", "1.5", "attributes.mathType is no whole number of its range");
    Expect("00ab", "00a", "attributes.params.fixed is not made of");
    Expect("00ab", std::string(162, '0'), "attributes.params.fixed is not made of");
    Expect("\"Twice\"", Quoted(std::string(65, 'a')), "attributes.funcName is not a text of at most 64");
    Expect("\"Twice\"", "5", "attributes.funcName is not a text of at most 64");
    Expect("\"flags\": \"01\"", "\"flags\": " + Quoted(std::string(81, '0')), "flags has more than 80 characters");
    Expect("\"bufSize\": 12,", "\"bufSize\": 12, \"attrSize\": 8000,", "attributes.mathType lies beyond attrSize");
    Expect("\"bufSize\": 12,", "\"bufSize\": 12, \"attrSize\": 100,", "attrSize is below 3924");
    Expect("\"bufSize\": 12,", "\"bufSize\": 12, \"nameSize\": 5,", "nameSize leaves no room");
    Expect("\"bufSize\": 12,", "\"bufSize\": 12, \"nameOffset\": 2000000000,", "the model ends beyond 1 GiB");
    Expect("\"scratchSize\"", "\"bufferSize\": 100, \"scratchSize\"", "field bufferSize is 100");
    Expect("\"scratchSize\"", "\"raw\": [{\"offset\": 1, \"hex\": \"zz\"}], \"scratchSize\"",
           "field raw[0].hex is not");
    Expect("\"scratchSize\"", "\"raw\": [{\"hex\": \"00\"}], \"scratchSize\"", "field raw[0].offset is missing");
}

TEST(ModelTextMissing, AllMissingFieldsAreNamedAtOnce)
{
    const auto error = [](const std::string& text) {
        try {
            AssembleModel("text.json", text);
        } catch (const FileError& refusal) {
            return std::string(refusal.what());
        }
        return std::string();
    };
    const std::string head = R"({"format": "opkit-model-text", "formatVersion": 1)";
    EXPECT_EQ(error(head + "}"),
              "text.json: field scratchSize is missing, and so are maxBatch, inputs, outputs, constants, tables");
    EXPECT_EQ(
        error(head + R"(, "scratchSize": 0, "inputs": [{}], "outputs": [], "constants": [{"name": "c",
                             "shape": [1]}], "tables": [{"segmentId": 0, "name": "", "layers":
                             [{"operator": "NegOpkitForward", "layerId": 0, "inputs": [{"memKind": 0, "size": 4,
                             "strideIndex": 0, "shape": [1]}], "outputs": []}]}]})"),
        "text.json: field maxBatch is missing, and so are inputs[0].name, inputs[0].shape, inputs[0].strideBytes, "
        "constants[0].data, tables[0].layers[0].flags, tables[0].layers[0].inputs[0].memIndex");
    EXPECT_EQ(error(head + R"(, "scratchSize": 0, "maxBatch": 1, "inputs": [], "constants": [], "tables": []})"),
              "text.json: field outputs is missing");
}

// The largest floats, whose shortest digits lie beyond them.
TEST(ModelText, RoundTripOfTheLargestFloats)
{
    constexpr float kLargest = std::numeric_limits<float>::max();
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2}});
    const TensorRef y = builder.AddOutput({"y", {2}});
    CeluAttr attr = {};
    attr.alpha = -kLargest;
    builder.AddLayer("CeluOpkitForward").Offline({2}, {kLargest, -kLargest}).Online(x).Output(y).Attr(attr);
    const Model model = builder.Build();
    ExpectRoundTrip(model);
    std::string text = DisassembleModel(model, ManifestText(model));
    const std::string digits = FloatToJson(kLargest).dump();
    ASSERT_NE(text.find(digits), std::string::npos);
    EXPECT_THROW(AssembleModel("text.json", text.replace(text.find(digits), digits.size(), "3.4028236e+38")),
                 FileError);
}

TEST(FloatText, ComesBackBitForBit)
{
    const auto check = [](uint32_t bits) {
        float value;
        std::memcpy(&value, &bits, sizeof(value));
        const nlohmann::json json = nlohmann::json::parse(FloatToJson(value).dump());
        if (json.is_number()) {
            const float back = static_cast<float>(json.get<double>());
            ASSERT_EQ(std::memcmp(&back, &value, sizeof(value)), 0) << std::hex << bits;
        } else {
            ASSERT_FALSE(std::isfinite(value)) << std::hex << bits;
            ASSERT_EQ(std::stoul(json.get<std::string>(), nullptr, 16), bits);
        }
    };
    for (const uint32_t bits : {0u, 0x80000000u, 1u, 0x007fffffu, 0x00800000u, 0x7f7fffffu, 0x7f800000u, 0xff800000u,
                                0x7fc00000u, 0x7f800001u, 0xffffffffu}) {
        check(bits);
    }
    ForRandomCases(1, [&](Random& random) {
        for (int i = 0; i < 200000; ++i) {
            check(random.Word());
        }
    });
    EXPECT_EQ(FloatToJson(0.1f).dump(), "0.1");
    EXPECT_EQ(FloatToJson(16777216.0f).dump(), "16777216.0");
}

TEST(JsonTextTest, FillsLines)
{
    nlohmann::ordered_json value = {{"short", {1, 2}}, {"long", nlohmann::ordered_json::array()}};
    for (int i = 0; i < 60; ++i) {
        value["long"].push_back(i);
    }
    const std::string text = JsonText(value);
    EXPECT_THAT(text, HasSubstr("\"short\": [1, 2],\n"));
    EXPECT_THAT(text, HasSubstr("\"long\": [\n    0, 1, 2,"));
    EXPECT_EQ(nlohmann::ordered_json::parse(text), value);
    for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        EXPECT_LE(end - begin, 120u);
    }
    EXPECT_EQ(JsonText(nlohmann::ordered_json::object()), "{}\n");
}

}  // namespace
