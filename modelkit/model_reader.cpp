#include "modelkit/model_reader.h"

#include <algorithm>
#include <cstring>

namespace opkit::modelkit {
namespace {

std::string ErrorText(int layer, const std::string& field, uint64_t byteOffset, uint64_t value, uint64_t limit)
{
    const std::string where = layer < 0 ? "layer table" : "layer " + std::to_string(layer);
    return where + ": " + field + " at byte " + std::to_string(byteOffset) + " is " + std::to_string(value) +
           ", limit " + std::to_string(limit);
}

// Reads words by their place from the buffer's start; `layer` and `prefix` name what is being read.
class Cursor {
public:
    Cursor(std::span<const std::byte> model, uint32_t base) : model_(model), base_(base) {}

    [[noreturn]] void Fail(const std::string& field, uint64_t at, uint64_t value, uint64_t limit) const
    {
        throw ModelError(layer, prefix + field, at, value, limit);
    }

    // A range [value, value + size) from the table's start that lies in the buffer; returns its place.
    uint32_t Located(const std::string& field, uint64_t at, uint64_t value, uint64_t size) const
    {
        const uint64_t remaining = model_.size() - base_;
        if (value > remaining || size > remaining - value) {
            Fail(field, at, value + size, remaining);
        }
        return static_cast<uint32_t>(base_ + value);
    }

    template <class T>
    T Get(uint64_t offset) const
    {
        T value;
        std::memcpy(&value, model_.data() + offset, sizeof(T));
        return value;
    }

    std::span<const std::byte> Model() const { return model_; }
    uint32_t Base() const { return base_; }

    int layer = -1;
    std::string prefix;

private:
    std::span<const std::byte> model_;
    uint32_t base_;
};

Shape ReadShape(const Cursor& cursor, uint64_t offset, uint32_t dimNum)
{
    Shape shape(dimNum);
    for (uint32_t i = 0; i < dimNum; ++i) {
        shape[i] = cursor.Get<uint32_t>(offset + uint64_t{i} * 4);
    }
    return shape;
}

std::vector<ReadTensor> ReadTensors(Cursor& cursor, const char* side, uint32_t table, uint32_t count)
{
    std::vector<ReadTensor> tensors(count);
    for (uint32_t i = 0; i < count; ++i) {
        cursor.prefix = std::string(side) + "[" + std::to_string(i) + "].";
        ReadTensor& tensor = tensors[i];
        tensor.recordOffset = table + i * static_cast<uint32_t>(sizeof(TensorRecord));
        tensor.record = cursor.Get<TensorRecord>(tensor.recordOffset);
        tensor.shapeOffset = cursor.Located("shapeOffset", tensor.recordOffset + offsetof(TensorRecord, shapeOffset),
                                            tensor.record.shapeOffset, tensor.record.shapeSize);
        tensor.shape = ReadShape(cursor, tensor.shapeOffset, tensor.record.shapeSize / 4);
    }
    cursor.prefix.clear();
    return tensors;
}

void ReadOfflineInputs(const Cursor& cursor, ReadLayer* layer)
{
    const uint64_t head = layer->attrOffset;
    if (layer->record.attrSize < sizeof(LayerAttrHead)) {
        cursor.Fail("attrSize", layer->recordOffset + offsetof(LayerRecord, attrSize), layer->record.attrSize,
                    sizeof(LayerAttrHead));
    }
    uint32_t online = 0;
    size_t used = 0;
    for (uint32_t k = 0; k < OPKIT_MAX_LAYER_INPUTS; ++k) {
        const char flag = cursor.Get<char>(head + offsetof(LayerAttrHead, inputFlags) + k);
        layer->flags.push_back(flag);
        if (flag != '1') {
            used = online < layer->record.inputNum ? k + 1 : used;
            ++online;
            continue;
        }
        used = k + 1;
        const size_t j = layer->offline.size();
        const std::string name = "offline[" + std::to_string(j) + "].";
        const uint64_t offsetAt = head + j * 4;
        const uint64_t shapeAt = head + offsetof(LayerAttrHead, offlineShape) + j * sizeof(OfflineShape);
        const uint32_t dimNum = cursor.Get<uint32_t>(shapeAt + offsetof(OfflineShape, dimNum));
        if (dimNum > OPKIT_MAX_DIMS) {
            cursor.Fail(name + "dimNum", shapeAt + offsetof(OfflineShape, dimNum), dimNum, OPKIT_MAX_DIMS);
        }
        ReadOffline offline = {k, cursor.Get<uint32_t>(offsetAt), ReadShape(cursor, shapeAt, dimNum)};
        const uint64_t modelSize = cursor.Model().size();
        uint64_t bytes = 4;
        for (const uint32_t dim : offline.shape) {
            if (dim != 0 && bytes > modelSize / dim) {
                cursor.Fail(name + "dims", shapeAt, dim, modelSize / bytes);
            }
            bytes *= dim;
        }
        if (offline.dataOffset + bytes > modelSize) {
            cursor.Fail(name + "offlineOffset", offsetAt, offline.dataOffset + bytes, modelSize);
        }
        layer->offline.push_back(std::move(offline));
    }
    layer->flags.resize(used);
}

ReadLayer ReadOneLayer(Cursor& cursor, uint32_t entryOffset)
{
    ReadLayer layer;
    layer.recordOffset =
        cursor.Located("layerOffset", entryOffset, cursor.Get<uint32_t>(entryOffset), sizeof(LayerRecord));
    const LayerRecord record = layer.record = cursor.Get<LayerRecord>(layer.recordOffset);
    const uint64_t at = layer.recordOffset;
    layer.nameOffset =
        cursor.Located("nameOffset", at + offsetof(LayerRecord, nameOffset), record.nameOffset, record.nameSize);
    const auto name = cursor.Model().subspan(layer.nameOffset, record.nameSize);
    const auto end = std::find(name.begin(), name.end(), std::byte{0});
    if (end == name.end()) {
        cursor.Fail("name without an end within nameSize", at + offsetof(LayerRecord, nameSize), record.nameSize,
                    record.nameSize);
    }
    layer.name.assign(reinterpret_cast<const char*>(name.data()), static_cast<size_t>(end - name.begin()));
    if (record.inputNum > OPKIT_MAX_LAYER_INPUTS) {
        cursor.Fail("inputNum", at + offsetof(LayerRecord, inputNum), record.inputNum, OPKIT_MAX_LAYER_INPUTS);
    }
    if (record.outputNum > OPKIT_MAX_LAYER_OUTPUTS) {
        cursor.Fail("outputNum", at + offsetof(LayerRecord, outputNum), record.outputNum, OPKIT_MAX_LAYER_OUTPUTS);
    }
    const uint32_t inputs = cursor.Located("inputTableOffset", at + offsetof(LayerRecord, inputTableOffset),
                                           record.inputTableOffset, record.inputNum * sizeof(TensorRecord));
    const uint32_t outputs = cursor.Located("outputTableOffset", at + offsetof(LayerRecord, outputTableOffset),
                                            record.outputTableOffset, record.outputNum * sizeof(TensorRecord));
    layer.attrOffset =
        cursor.Located("attrOffset", at + offsetof(LayerRecord, attrOffset), record.attrOffset, record.attrSize);
    layer.inputs = ReadTensors(cursor, "inputs", inputs, record.inputNum);
    layer.outputs = ReadTensors(cursor, "outputs", outputs, record.outputNum);
    ReadOfflineInputs(cursor, &layer);
    return layer;
}

}  // namespace

ModelError::ModelError(int errorLayer, std::string errorField, uint64_t errorOffset, uint64_t errorValue,
                       uint64_t errorLimit)
    : std::runtime_error(ErrorText(errorLayer, errorField, errorOffset, errorValue, errorLimit)),
      layer(errorLayer),
      field(std::move(errorField)),
      byteOffset(errorOffset),
      value(errorValue),
      limit(errorLimit)
{
}

ReadTable ReadLayerTable(std::span<const std::byte> model, uint32_t layerTableOffset, uint32_t layerTableSize)
{
    if (model.size() > OPKIT_MAX_MODEL_SIZE) {
        throw ModelError(-1, "modelSize", 0, model.size(), OPKIT_MAX_MODEL_SIZE);
    }
    if (uint64_t{layerTableOffset} + std::max<uint64_t>(layerTableSize, 4) > model.size()) {
        throw ModelError(-1, "layerTableOffset + layerTableSize", layerTableOffset,
                         uint64_t{layerTableOffset} + std::max<uint64_t>(layerTableSize, 4), model.size());
    }
    Cursor cursor(model, layerTableOffset);
    const uint32_t count = cursor.Get<uint32_t>(layerTableOffset);
    if (count > OPKIT_MAX_LAYERS) {
        cursor.Fail("layerCount", layerTableOffset, count, OPKIT_MAX_LAYERS);
    }
    cursor.Located("layerCount", layerTableOffset, 4, uint64_t{count} * 4);
    ReadTable table;
    table.offset = layerTableOffset;
    for (uint32_t i = 0; i < count; ++i) {
        cursor.layer = static_cast<int>(i);
        table.layers.push_back(ReadOneLayer(cursor, layerTableOffset + 4 + i * 4));
    }
    return table;
}

ReadTable ReadLayerTable(const Model& model, size_t tableIndex)
{
    const ModelTable& table = model.tables.at(tableIndex);
    return ReadLayerTable(model.bytes.Span(), table.layerTableOffset, table.layerTableSize);
}

}  // namespace opkit::modelkit
