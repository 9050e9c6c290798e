#include "modelkit/model_builder.h"

#include <gmock/gmock.h>

#include <cstring>

#include "modelkit/model_reader.h"
#include "opkit/attributes/selection.h"

namespace {

using namespace opkit::modelkit;
using testing::ElementsAre;
using testing::HasSubstr;

float FloatAt(const Model& model, size_t offset)
{
    float value = 0;
    std::memcpy(&value, model.bytes.data() + offset, sizeof(value));
    return value;
}

TEST(Layout, PitchAndSizes)
{
    EXPECT_EQ(RowPitch(3, 4), 4u);
    EXPECT_EQ(RowPitch(8, 4), 8u);
    EXPECT_EQ(RowPitch(9, 4), 12u);
    EXPECT_EQ(RowPitch(0, 4), 0u);
    EXPECT_THROW(RowPitch(3, 0), BuildError);
    EXPECT_THROW(RowPitch(UINT32_MAX, 16), BuildError);
    EXPECT_EQ(PaddedFloats({2, 3, 5}, 32), 2u * 3 * 8);
    EXPECT_EQ(PaddedBytes({2, 3, 5}, 0), 120u);
    EXPECT_EQ(PaddedBytes({}, 0), 4u);
    EXPECT_EQ(PaddedBytes({4, 0}, 16), 0u);
    EXPECT_EQ(StrideOf({2, 5}, 0), 20u);
    EXPECT_THROW(PaddedBytes({65536, 65536}, 0), BuildError);
}

TEST(Layout, PadRowsLeavesGaps)
{
    std::vector<float> padded(8, 9.0f);
    PadRows(std::vector<float>{1, 2, 3, 4, 5, 6}, {2, 3}, 16, padded);
    EXPECT_THAT(padded, ElementsAre(1, 2, 3, 9, 4, 5, 6, 9));
    EXPECT_THAT(CompactRows(padded, {2, 3}, 16), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THROW(PadRows(std::vector<float>{1, 2}, {2, 3}, 16, padded), BuildError);
    EXPECT_THROW(CompactRows(padded, {3, 3}, 16), BuildError);
}

TEST(ModelBuilder, RoundTripOfSeveralLayersAndTables)
{
    ModelBuilder builder(4);
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef z = builder.AddInput({"z", {5}});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 16});
    const TensorRef shared = builder.AddScratch({"shared", {2, 3}, 32});
    const TensorRef batched = builder.AddScratch({"batched", {7}}, true);
    const TensorRef overlaid = builder.AddScratch({"overlaid", {2}}, false, 8);
    const ConstantRef weights = builder.AddConstant("weights", {2, 2}, {1, 2, 3, 4});
    TopKAttr attr = {};
    attr.k = 17;
    attr.axis = -1;
    attr.head.offlineInputNum = 99;  // the head is the builder's

    builder.BeginTable(3, "first");
    builder.AddLayer("A").Online(x).Offline(weights).Online(z.As({1, 5})).Output(shared).Attr(attr).Workspace(1000);
    builder.AddLayer("B").Offline({}, {7}).Offline(weights).Online(shared.WithStride(64)).Output(batched);
    builder.BeginTable(8);
    builder.AddLayer("C")
        .Online(batched)
        .Online(overlaid)
        .Output(y.WithKind(1))
        .Flag(1, 'x')
        .LayerId(500)
        .Workspace(10);
    const Model model = builder.Build();

    ASSERT_EQ(model.tables.size(), 2u);
    EXPECT_EQ(model.Table(3).name, "first");
    EXPECT_EQ(model.Table(8).name, "segment8");
    EXPECT_THROW(model.Table(4), BuildError);
    EXPECT_EQ(model.InputIndex("z"), 1u);
    EXPECT_THROW(model.OutputIndex("z"), BuildError);
    EXPECT_EQ(model.inputs[1].strideBytes, 20u);
    EXPECT_EQ(model.maxBatch, 4u);

    // Two rows of 32 bytes at 0; the batched one at 64, four slices of 28 bytes; the work space behind, at 192.
    EXPECT_EQ(shared.memIndex, 0u);
    EXPECT_EQ(batched.memIndex, 64u);
    EXPECT_EQ(overlaid.memIndex, 8u);
    EXPECT_EQ(model.scratchSize, 192u + 1000u);

    ASSERT_EQ(model.constants.size(), 2u);
    EXPECT_EQ(model.constants[0].name, "weights");
    for (const ModelConstant& constant : model.constants) {
        EXPECT_EQ(constant.offset % 64, 0u);
    }
    EXPECT_EQ(FloatAt(model, model.constants[0].offset + 12), 4.0f);
    EXPECT_EQ(FloatAt(model, model.constants[1].offset), 7.0f);

    const ReadTable first = ReadLayerTable(model, 0);
    ASSERT_EQ(first.layers.size(), 2u);
    const ReadLayer& a = first.layers[0];
    EXPECT_EQ(a.name, "A");
    EXPECT_EQ(a.record.layerId, 0u);
    EXPECT_EQ(a.record.bufOffset, 192u);
    EXPECT_EQ(a.record.bufSize, 1000u);
    EXPECT_EQ(a.record.attrSize, kAttrBlockBytes);
    EXPECT_EQ(a.attrOffset % 8, 0u);
    EXPECT_EQ(a.flags, "010");
    ASSERT_EQ(a.inputs.size(), 2u);
    EXPECT_EQ(a.inputs[1].record.memIndex, 1u);
    EXPECT_EQ(a.inputs[1].record.strideIndex, 1u);
    EXPECT_THAT(a.inputs[1].shape, ElementsAre(1, 5));
    ASSERT_EQ(a.offline.size(), 1u);
    EXPECT_EQ(a.offline[0].logicalIndex, 1u);
    EXPECT_EQ(a.offline[0].dataOffset, model.constants[0].offset);
    EXPECT_EQ(a.AttrOf<TopKAttr>(model.bytes).k, 17u);
    EXPECT_EQ(a.AttrOf<TopKAttr>(model.bytes).axis, -1);
    EXPECT_EQ(a.AttrOf<TopKAttr>(model.bytes).head.offlineInputNum, 1u);

    const ReadLayer& b = first.layers[1];
    EXPECT_EQ(b.record.layerId, 1u);
    EXPECT_EQ(b.record.bufSize, 0u);
    EXPECT_EQ(b.flags, "110");
    EXPECT_TRUE(b.offline[0].shape.empty());
    EXPECT_EQ(b.offline[1].dataOffset, model.constants[0].offset);
    EXPECT_EQ(b.inputs[0].record.memKind, 2u);
    EXPECT_EQ(b.inputs[0].record.strideIndex, 64u);
    EXPECT_EQ(b.inputs[0].record.size, 64u);
    EXPECT_EQ(b.outputs[0].record.memKind, 3u);
    EXPECT_EQ(b.outputs[0].record.size, 28u);

    const ReadTable second = ReadLayerTable(model, 1);
    EXPECT_EQ(second.offset, model.tables[1].layerTableOffset);
    ASSERT_EQ(second.layers.size(), 1u);
    EXPECT_EQ(second.layers[0].record.layerId, 500u);
    EXPECT_EQ(second.layers[0].flags, "0x");
    EXPECT_EQ(second.layers[0].outputs[0].record.memKind, 1u);
}

TEST(ModelBuilder, RefusesWhatTheFormatCannotHold)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2}});
    const TensorRef y = builder.AddOutput({"y", {2}});
    EXPECT_THROW(builder.AddInput({"odd", {2}, 10}), BuildError);
    EXPECT_THROW(builder.AddConstant("c", {3}, {1, 2}), BuildError);
    EXPECT_THROW(builder.AddConstant("c", Shape(11, 1), {1}), BuildError);
    EXPECT_THROW(x.WithStride(16), BuildError);
    EXPECT_THROW(x.WithKind(2), BuildError);
    EXPECT_THROW(builder.AddLayer("A").Online(y), BuildError);
    EXPECT_THROW(builder.AddLayer("A").Output(x), BuildError);
    EXPECT_THROW(builder.AddLayer("A").Flag(80, '1'), BuildError);
    EXPECT_THROW(builder.AddLayer("A").Offline(ConstantRef{5}), BuildError);

    ModelBuilder manyOutputs;
    auto& layer = manyOutputs.AddLayer("A");
    const TensorRef out = manyOutputs.AddOutput({"y", {1}});
    for (int i = 0; i < 30; ++i) {
        layer.Output(out);
    }
    EXPECT_NO_THROW(manyOutputs.Build());
    layer.Output(out);
    EXPECT_THROW(manyOutputs.Build(), BuildError);

    ModelBuilder manyLayers;
    for (int i = 0; i < 128; ++i) {
        manyLayers.AddLayer("A");
    }
    EXPECT_NO_THROW(manyLayers.Build());
    manyLayers.AddLayer("A");
    EXPECT_THROW(manyLayers.Build(), BuildError);
}

class ModelReaderDamage : public testing::Test {
protected:
    ModelReaderDamage()
    {
        ModelBuilder builder;
        const TensorRef x = builder.AddInput({"x", {2, 3}});
        const TensorRef y = builder.AddOutput({"y", {2, 3}});
        builder.AddLayer("First").Online(x).Output(builder.AddScratch({"t", {2, 3}}));
        builder.AddLayer("Second").Online(x).Offline({3}, {1, 2, 3}).Output(y);
        model_ = builder.Build();
        layer_ = ReadLayerTable(model_).layers[1];
    }

    // Reads the model with one word changed; expects a refusal that names the field and where it lies.
    void ExpectRefusal(size_t at, uint32_t value, int layer, const std::string& field, uint64_t shown, uint64_t limit)
    {
        SCOPED_TRACE(field);
        Model damaged = model_;
        std::memcpy(damaged.bytes.data() + at, &value, sizeof(value));
        try {
            ReadLayerTable(damaged);
            ADD_FAILURE() << "read without complaint";
        } catch (const ModelError& error) {
            EXPECT_EQ(error.layer, layer);
            EXPECT_EQ(error.field, field);
            EXPECT_EQ(error.byteOffset, at);
            EXPECT_EQ(error.value, shown);
            EXPECT_EQ(error.limit, limit);
            EXPECT_THAT(error.what(), HasSubstr(field + " at byte " + std::to_string(at)));
        }
    }

    Model model_;
    ReadLayer layer_;
};

TEST_F(ModelReaderDamage, NamesLayerFieldAndPlace)
{
    const uint32_t base = model_.tables[0].layerTableOffset;
    const uint64_t remaining = model_.bytes.size() - base;
    const uint32_t record = layer_.recordOffset;
    const uint32_t input = layer_.inputs[0].recordOffset;
    const uint32_t attr = layer_.attrOffset;
    constexpr uint32_t kFar = 0x7fffffff;
    ExpectRefusal(base, 129, -1, "layerCount", 129, 128);
    ExpectRefusal(base + 8, kFar, 1, "layerOffset", kFar + uint64_t{44}, remaining);
    ExpectRefusal(record + 4, kFar, 1, "nameOffset", kFar + uint64_t{7}, remaining);
    ExpectRefusal(record + 8, 3, 1, "name without an end within nameSize", 3, 3);
    ExpectRefusal(record + 20, UINT32_MAX, 1, "attrOffset", UINT32_MAX + uint64_t{kAttrBlockBytes}, remaining);
    ExpectRefusal(record + 24, 3923, 1, "attrSize", 3923, 3924);
    ExpectRefusal(record + 28, 81, 1, "inputNum", 81, 80);
    ExpectRefusal(record + 32, kFar, 1, "inputTableOffset", kFar + uint64_t{24}, remaining);
    ExpectRefusal(record + 36, 31, 1, "outputNum", 31, 30);
    ExpectRefusal(record + 40, kFar, 1, "outputTableOffset", kFar + uint64_t{24}, remaining);
    ExpectRefusal(input + 16, kFar, 1, "inputs[0].shapeOffset", kFar + uint64_t{8}, remaining);
    ExpectRefusal(input + 20, 44, 1, "inputs[0].shapeSize", 44, 40);
    ExpectRefusal(attr, kFar, 1, "offline[0].offlineOffset", kFar + uint64_t{12}, model_.bytes.size());
    ExpectRefusal(attr + 360, 11, 1, "offline[0].dimNum", 11, 10);
    ExpectRefusal(attr + 320, kFar, 1, "offline[0].dims", kFar, model_.bytes.size() / 4);
}

// A name goes into every report about its layer.
TEST(ModelReader, NamesHaveALimit)
{
    const auto named = [](size_t size) {
        ModelBuilder builder;
        builder.AddLayer(std::string(size, 'a'));
        return builder.Build();
    };
    EXPECT_EQ(ReadLayerTable(named(1023)).layers[0].name.size(), 1023u);
    EXPECT_THROW(ReadLayerTable(named(1024)), ModelError);
}

TEST_F(ModelReaderDamage, TableOutsideTheBuffer)
{
    const auto size = static_cast<uint32_t>(model_.bytes.size());
    EXPECT_THROW(ReadLayerTable(model_.bytes.Span(), size - 3, 0), ModelError);
    EXPECT_THROW(ReadLayerTable(model_.bytes.Span(), 64, size - 63), ModelError);
    EXPECT_THROW(ReadLayerTable(std::span<const std::byte>(), 0, 0), ModelError);
}

}  // namespace
