#include "modelkit/model_reader.h"

#include <algorithm>

namespace opkit::modelkit {
namespace {

using Kind = ReadFault::Kind;

std::string ErrorText(int layer, const std::string& field, uint64_t byteOffset, uint64_t value, uint64_t limit)
{
    const std::string where = layer < 0 ? "layer table" : "layer " + std::to_string(layer);
    return where + ": " + field + " at byte " + std::to_string(byteOffset) + " is " + std::to_string(value) +
           ", limit " + std::to_string(limit);
}

std::string ShownField(const ReadFault& fault)
{
    return (fault.kind == Kind::kNoEnd ? "name without an end within " : "") + fault.field;
}

uint64_t ShownLimit(const ReadFault& fault)
{
    return fault.kind == Kind::kNoEnd ? fault.value : fault.limit;
}

}  // namespace

ModelError::ModelError(int errorLayer, ReadFault errorFault)
    : std::runtime_error(ErrorText(errorLayer, ShownField(errorFault), errorFault.byteOffset,
                                   errorFault.value + errorFault.size, ShownLimit(errorFault))),
      layer(errorLayer),
      fault(std::move(errorFault)),
      field(ShownField(fault)),
      byteOffset(fault.byteOffset),
      value(fault.value + fault.size),
      limit(ShownLimit(fault))
{
}

void LayerReader::AtMost(const std::string& field, uint64_t at, uint64_t value, uint64_t limit,
                         const char* reason) const
{
    if (value > limit) {
        Fail({Kind::kAbove, field, at, value, 0, limit, reason});
    }
}

void LayerReader::Aligned(const std::string& field, uint64_t at, uint64_t value, uint64_t place) const
{
    if (aligned_ && place % 4 != 0) {
        Fail({Kind::kOffWords, field, at, value, 0, value / 4 * 4, "not at a multiple of 4"});
    }
}

// The place of `size` bytes at `value` from the table's start.
uint32_t LayerReader::Locate(const std::string& field, uint64_t at, uint64_t value, uint64_t size, const char* what,
                             bool isText)
{
    if (!isText) {
        Aligned(field, at, value, base_ + value);
    }
    const uint64_t remaining = model_.size() - base_;
    if (value > remaining || size > remaining - value) {
        Fail({Kind::kAbove, field, at, value, size, remaining, std::string(what) + " ends behind the model buffer"});
    }
    return static_cast<uint32_t>(base_ + value);
}

uint32_t LayerReader::ReadCount(uint32_t layerTableSize)
{
    const uint64_t size = model_.size();
    AtMost("modelSize", 0, size, OPKIT_MAX_MODEL_SIZE, "a model buffer takes up to 1 GiB");
    Aligned("layerTableOffset", base_, base_, base_);
    if (uint64_t{base_} + 4 > size) {
        Fail({Kind::kAbove, "layerTableOffset", base_, base_, 4, size, "the layer table lies behind the model buffer"});
    }
    AtMost("layerTableSize", base_, layerTableSize, size - base_, "the layer table ends behind the model buffer");
    const uint32_t count = Get<uint32_t>(base_);
    AtMost("layerCount", base_, count, std::min<uint64_t>(OPKIT_MAX_LAYERS, (size - base_ - 4) / 4),
           "more layers than the table holds");
    bytesRead_ += 4 + uint64_t{count} * 4;
    return count;
}

void LayerReader::ReadRecord(uint32_t index, ReadLayer* layer)
{
    layer_ = static_cast<int>(index);
    const uint64_t entry = uint64_t{base_} + 4 + uint64_t{index} * 4;
    layer->recordOffset = Locate("layerOffset", entry, Get<uint32_t>(entry), sizeof(LayerRecord), "a layer record");
    const LayerRecord record = layer->record = Get<LayerRecord>(layer->recordOffset);
    const uint64_t at = layer->recordOffset;
    const uint64_t sizeAt = at + offsetof(LayerRecord, nameSize);
    layer->nameOffset = Locate("nameOffset", at + offsetof(LayerRecord, nameOffset), record.nameOffset, record.nameSize,
                               "a name", true);
    const auto name = model_.subspan(layer->nameOffset, std::min(record.nameSize, kMostNameBytes));
    const auto end = std::find(name.begin(), name.end(), std::byte{0});
    if (end == name.end()) {
        AtMost("nameSize", sizeAt, record.nameSize, kMostNameBytes, "the name does not end within 1024 bytes");
        Fail({Kind::kNoEnd, "nameSize", sizeAt, record.nameSize, 0, uint64_t{record.nameSize} + 1,
              "the name does not end in nameSize"});
    }
    layer->name.assign(reinterpret_cast<const char*>(name.data()), static_cast<size_t>(end - name.begin()));
    bytesRead_ += sizeof(LayerRecord) + layer->name.size() + 1;
    AtMost("inputNum", at + offsetof(LayerRecord, inputNum), record.inputNum, OPKIT_MAX_LAYER_INPUTS,
           "too many inputs");
    AtMost("outputNum", at + offsetof(LayerRecord, outputNum), record.outputNum, OPKIT_MAX_LAYER_OUTPUTS,
           "too many outputs");
}

void LayerReader::ReadTensors(ReadLayer* layer)
{
    const LayerRecord& record = layer->record;
    const uint64_t at = layer->recordOffset;
    layer->attrOffset = Locate("attrOffset", at + offsetof(LayerRecord, attrOffset), record.attrOffset, record.attrSize,
                               "an attribute block");
    bytesRead_ += std::min<uint64_t>(record.attrSize, sizeof(LayerAttrHead));
    layer->inputTableOffset = Locate("inputTableOffset", at + offsetof(LayerRecord, inputTableOffset),
                                     record.inputTableOffset, record.inputNum * sizeof(TensorRecord), "a tensor table");
    layer->inputs = ReadTensorTable("inputs", layer->inputTableOffset, record.inputNum);
    layer->outputTableOffset =
        Locate("outputTableOffset", at + offsetof(LayerRecord, outputTableOffset), record.outputTableOffset,
               record.outputNum * sizeof(TensorRecord), "a tensor table");
    layer->outputs = ReadTensorTable("outputs", layer->outputTableOffset, record.outputNum);
}

std::vector<ReadTensor> LayerReader::ReadTensorTable(const char* side, uint32_t table, uint32_t count)
{
    std::vector<ReadTensor> tensors(count);
    for (uint32_t i = 0; i < count; ++i) {
        ReadTensor& tensor = tensors[i];
        const std::string name = std::string(side) + "[" + std::to_string(i) + "].";
        const uint64_t at = tensor.recordOffset = table + i * static_cast<uint32_t>(sizeof(TensorRecord));
        tensor.record = Get<TensorRecord>(at);
        const uint32_t shapeSize = tensor.record.shapeSize;
        if (shapeSize / 4 > OPKIT_MAX_DIMS) {
            Fail({Kind::kAbove, name + "shapeSize", at + offsetof(TensorRecord, shapeSize), shapeSize, 0,
                  OPKIT_MAX_DIMS * 4, "more than 10 dimensions"});
        }
        tensor.shapeOffset = Locate(name + "shapeOffset", at + offsetof(TensorRecord, shapeOffset),
                                    tensor.record.shapeOffset, shapeSize, "a shape");
        tensor.shape = ReadShape(tensor.shapeOffset, shapeSize / 4);
        bytesRead_ += sizeof(TensorRecord) + shapeSize;
    }
    return tensors;
}

Shape LayerReader::ReadShape(uint64_t offset, uint32_t dimNum) const
{
    Shape shape(dimNum);
    for (uint32_t i = 0; i < dimNum; ++i) {
        shape[i] = Get<uint32_t>(offset + uint64_t{i} * 4);
    }
    return shape;
}

void LayerReader::ReadOfflineInputs(ReadLayer* layer) const
{
    const uint64_t head = layer->attrOffset;
    if (layer->record.attrSize < sizeof(LayerAttrHead)) {
        Fail({Kind::kBelow, "attrSize", layer->recordOffset + offsetof(LayerRecord, attrSize), layer->record.attrSize,
              0, sizeof(LayerAttrHead), "the head of the attribute block is longer"});
    }
    uint32_t online = 0;
    size_t used = 0;
    for (uint32_t k = 0; k < OPKIT_MAX_LAYER_INPUTS; ++k) {
        const char flag = Get<char>(head + offsetof(LayerAttrHead, inputFlags) + k);
        layer->flags.push_back(flag);
        if (flag == '1') {
            layer->offline.push_back(ReadOfflineInput(head, k, layer->offline.size()));
            used = k + 1;
        } else if (online++ < layer->record.inputNum) {
            used = k + 1;
        }
    }
    layer->flags.resize(used);
}

ReadOffline LayerReader::ReadOfflineInput(uint64_t head, uint32_t logicalIndex, size_t j) const
{
    const std::string name = "offline[" + std::to_string(j) + "].";
    const uint64_t offsetAt = head + j * 4;
    const uint64_t shapeAt = head + offsetof(LayerAttrHead, offlineShape) + j * sizeof(OfflineShape);
    const uint64_t rankAt = shapeAt + offsetof(OfflineShape, dimNum);
    const uint32_t dimNum = Get<uint32_t>(rankAt);
    AtMost(name + "dimNum", rankAt, dimNum, OPKIT_MAX_DIMS, "more than 10 dimensions");
    ReadOffline offline = {logicalIndex, Get<uint32_t>(offsetAt), ReadShape(shapeAt, dimNum)};
    uint64_t bytes = 4;
    for (const uint32_t dim : offline.shape) {
        const uint64_t most = bytes == 0 ? UINT32_MAX : model_.size() / bytes;
        AtMost(name + "dims", shapeAt, dim, most, "more data than the model buffer");
        bytes *= dim;
    }
    if (offline.dataOffset + bytes > model_.size()) {
        Fail({Kind::kAbove, name + "offlineOffset", offsetAt, offline.dataOffset, bytes, model_.size(),
              "the data ends behind the model buffer"});
    }
    return offline;
}

ReadTable ReadLayerTable(std::span<const std::byte> model, uint32_t layerTableOffset, uint32_t layerTableSize)
{
    LayerReader reader(model, layerTableOffset);
    ReadTable table;
    table.offset = layerTableOffset;
    const uint32_t count = reader.ReadCount(layerTableSize);
    for (uint32_t i = 0; i < count; ++i) {
        ReadLayer& layer = table.layers.emplace_back();
        reader.ReadRecord(i, &layer);
        reader.ReadTensors(&layer);
        reader.ReadOfflineInputs(&layer);
    }
    table.bytesRead = reader.BytesRead();
    return table;
}

ReadTable ReadLayerTable(const Model& model, size_t tableIndex)
{
    const ModelTable& table = model.tables.at(tableIndex);
    return ReadLayerTable(model.bytes.Span(), table.layerTableOffset, table.layerTableSize);
}

uint64_t MostBytesRead(size_t modelSize)
{
    constexpr uint64_t kInAnyCase = 4 << 20;
    return kInAnyCase + 4 * uint64_t{modelSize};
}

}  // namespace opkit::modelkit
