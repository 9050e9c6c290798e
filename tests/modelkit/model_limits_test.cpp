// Work and memory that a model makes follow the size of its files, whatever the files say.

#include <gmock/gmock.h>

#include <algorithm>
#include <ctime>

#include "modelkit/check.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/model_text.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;
using testing::HasSubstr;

// Segments that all run one table of 128 layers, which all are one record with 80 tensors. The buffer is longer than
// that takes.
Model RecordsUsedOverAndOver(uint32_t segments, size_t bufferSize)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {1}});
    const TensorRef y = builder.AddOutput({"y", {1}});
    LayerBuilder& layer = builder.AddLayer("BinaryMathOpkitForward").Output(y).Attr(BinaryMathAttr{});
    for (int i = 0; i < 79; ++i) {
        layer.Online(x);
    }
    for (int i = 1; i < 128; ++i) {
        builder.AddLayer("unused");
    }
    Model model = builder.Build();
    Buffer longer(bufferSize);
    std::copy_n(model.bytes.data(), std::min(bufferSize, model.bytes.size()), longer.data());
    for (uint32_t i = 1; i < 128; ++i) {
        longer.Words()[1 + i] = longer.Words()[1];
    }
    model.bytes = std::move(longer);
    model.tables[0].layerTableSize = 4;
    model.tables.resize(segments, model.tables[0]);
    for (uint32_t t = 0; t < segments; ++t) {
        model.tables[t].segmentId = t;
    }
    return model;
}

Model Parsed(const Model& model)
{
    const std::string bytes(reinterpret_cast<const char*>(model.bytes.data()), model.bytes.size());
    return ParseModel({"m.json", "m.bin"}, ManifestText(model), bytes);
}

TEST(ModelLimits, ManySegmentsOnOneTable)
{
    EXPECT_EQ(Parsed(RecordsUsedOverAndOver(2, 20000)).tables.size(), 2u);
    EXPECT_TRUE(CheckModel(RecordsUsedOverAndOver(2, 20000), 1).Accepted());
    // Of a layer count record, name, 80 tensors of one dimension and the head of the attributes: 44 + 23 + 80 * 28 +
    // 3924. 128 of them and the table's 516 bytes take 798084, six times that is above 4 * 20000 + 4 MiB.
    const Model model = RecordsUsedOverAndOver(1000, 20000);
    try {
        Parsed(model);
        ADD_FAILURE() << "read without complaint";
    } catch (const ModelFileError& error) {
        EXPECT_THAT(error.what(), HasSubstr("m.json: field tables[5].layerTableOffset: the layers up to here read "));
    }
    const CheckReport report = CheckModel(model, 1);
    ASSERT_EQ(report.refusals.size(), 1u);
    EXPECT_THAT(report.refusals[0].Text(),
                HasSubstr("segment 5: layerTableOffset at byte 0 is 4788504, limit 4274304"));
    EXPECT_THAT(report.refusals[0].Text(), HasSubstr("read more than four times the buffer and 4 MiB"));
}

// A name that reaches to the end of the buffer lies under what the layers write, among hundreds of thousands of ranges.
TEST(ModelLimits, WritesUnderALongName)
{
    Model model = RecordsUsedOverAndOver(50, 16 << 20);
    const ReadLayer layer = ReadLayerTable(model).layers[0];
    model.bytes.At<LayerRecord>(layer.recordOffset).nameSize =
        static_cast<uint32_t>(model.bytes.size() - layer.nameOffset);
    const clock_t begin = clock();
    const CheckReport report = CheckModel(model, 1);
    EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 10);
    EXPECT_EQ(report.refusals.size(), 50u * 128u);
    EXPECT_THAT(report.refusals[0].Text(), HasSubstr("the operator writes here, over a name"));
}

// Half of the constants share a name with one elsewhere, so that their names do not lead to them.
TEST(ModelLimits, ManyConstantsAndManyReferences)
{
    constexpr uint32_t kConstants = 4000;
    ModelBuilder builder;
    const TensorRef y = builder.AddOutput({"y", {1}});
    builder.AddInput({"x", {1}});
    const ConstantRef one = builder.AddConstant("one", {1}, {1});
    for (int i = 0; i < 128; ++i) {
        LayerBuilder& layer = builder.AddLayer("ConcatOpkitForward").Output(y);
        for (int k = 0; k < 80; ++k) {
            layer.Offline(one);
        }
    }
    Model model = builder.Build();
    model.constants.clear();
    for (uint32_t i = 0; i < kConstants; ++i) {
        model.constants.push_back({"n" + std::to_string(i % (kConstants / 2)), i < kConstants / 2 ? 4U : 0U, {1}});
    }
    const clock_t begin = clock();
    const std::string text = DisassembleModel(model, ManifestText(model));
    EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 10);
    EXPECT_TRUE(std::ranges::equal(AssembleModel("m.txt", text).model.bytes.Span(), model.bytes.Span()));
}

// Constants that each hold the whole buffer.
TEST(ModelLimits, ConstantsOverOneAnother)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {1}});
    const TensorRef y = builder.AddOutput({"y", {1}});
    builder.AddConstant("c", {1U << 18}, std::vector<float>(1 << 18));
    builder.AddLayer("NegOpkitForward").Online(x).Output(y);
    Model model = builder.Build();
    model.constants.resize(8, model.constants[0]);
    EXPECT_EQ(Parsed(model).constants.size(), 8u);
    model.constants.resize(2000, model.constants[0]);
    try {
        Parsed(model);
        ADD_FAILURE() << "read without complaint";
    } catch (const ModelFileError& error) {
        EXPECT_THAT(error.what(), HasSubstr("constants[8].shape: the constants up to here hold 9437184 bytes"));
    }
}

// References of one layer to a quarter of a megabyte each, 4 bytes apart.
TEST(ModelLimits, ReferencesOverOneAnother)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {1}});
    const TensorRef y = builder.AddOutput({"y", {1}});
    const ConstantRef c = builder.AddConstant("c", {1U << 16}, std::vector<float>(1 << 16, 1.5f));
    LayerBuilder& layer = builder.AddLayer("ConcatOpkitForward").Online(x).Output(y);
    for (int k = 0; k < 79; ++k) {
        layer.Offline(c);
    }
    Model model = builder.Build();
    model.constants.clear();
    LayerAttrHead& head = model.bytes.At<LayerAttrHead>(ReadLayerTable(model).layers[0].attrOffset);
    for (uint32_t j = 0; j < 79; ++j) {
        head.offlineOffset[j] = static_cast<int32_t>(j * 4);
        head.offlineShape[j].dims[0] -= j;
    }
    const std::string text = DisassembleModel(model, ManifestText(model));
    EXPECT_LT(text.size(), 12u << 20);
    EXPECT_TRUE(std::ranges::equal(AssembleModel("m.txt", text).model.bytes.Span(), model.bytes.Span()));
}

}  // namespace
