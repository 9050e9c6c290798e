#include "modelkit/model_writer.h"

#include <algorithm>

namespace opkit::modelkit {

uint32_t ModelWriter::Reserve(uint64_t size, uint64_t alignment, std::optional<uint64_t> place)
{
    const uint64_t begin = place ? *place : (bytes_.size() + alignment - 1) / alignment * alignment;
    if (begin + size > OPKIT_MAX_MODEL_SIZE) {
        throw BuildError("the model takes more than 1 GiB");
    }
    bytes_.resize(std::max<size_t>(bytes_.size(), begin + size));
    return static_cast<uint32_t>(begin);
}

void ModelWriter::PutBytes(size_t offset, std::span<const std::byte> bytes)
{
    std::copy(bytes.begin(), bytes.end(), bytes_.begin() + static_cast<ptrdiff_t>(offset));
}

uint32_t ModelWriter::BeginTable(uint32_t layerCount, Place place)
{
    base_ = Reserve(4 + uint64_t{layerCount} * 4, 8, place);
    Put(base_, layerCount);
    entry_ = base_ + 4;
    return base_;
}

uint32_t ModelWriter::ReserveInTable(uint64_t size, Place place)
{
    return Reserve(size, 8, place ? std::optional(uint64_t{base_} + *place) : std::nullopt) - base_;
}

uint32_t ModelWriter::WriteTensors(const std::vector<TensorPlan>& tensors, Place place)
{
    const uint32_t table = ReserveInTable(tensors.size() * sizeof(TensorRecord), place);
    size_t at = base_ + table;
    for (const TensorPlan& tensor : tensors) {
        TensorRecord record = tensor.record;
        const auto shapeSize = static_cast<uint32_t>(tensor.shape.size() * sizeof(uint32_t));
        record.shapeOffset = ReserveInTable(shapeSize, tensor.shapeOffset);
        record.shapeSize = tensor.shapeSize.value_or(shapeSize);
        PutBytes(base_ + record.shapeOffset, std::as_bytes(std::span(tensor.shape)));
        Put(at, record);
        at += sizeof(TensorRecord);
    }
    return table;
}

// What is written later wins where places overlap: the order is part of the text form.
void ModelWriter::WriteLayer(const LayerPlan& layer)
{
    LayerRecord record = layer.record;
    const uint32_t at = ReserveInTable(sizeof(LayerRecord), layer.layerOffset);
    record.nameSize = layer.nameSize.value_or(static_cast<uint32_t>(layer.name.size() + 1));
    record.nameOffset = ReserveInTable(record.nameSize, layer.nameOffset);
    PutBytes(base_ + record.nameOffset, std::as_bytes(std::span(layer.name.c_str(), layer.name.size() + 1)));
    record.inputNum = static_cast<uint32_t>(layer.inputs.size());
    record.inputTableOffset = WriteTensors(layer.inputs, layer.inputTableOffset);
    record.outputNum = static_cast<uint32_t>(layer.outputs.size());
    record.outputTableOffset = WriteTensors(layer.outputs, layer.outputTableOffset);
    record.attrOffset = ReserveInTable(record.attrSize, layer.attrOffset);
    for (const Patch& constant : layer.constants) {
        PutBytes(Reserve(constant.bytes.size(), sizeof(float), constant.offset), constant.bytes);
    }
    Put(base_ + record.attrOffset, layer.head);
    for (const Patch& attribute : layer.attributes) {
        PutBytes(base_ + record.attrOffset + attribute.offset, attribute.bytes);
    }
    Put(base_ + at, record);
    Put(entry_, at);
    entry_ += 4;
}

}  // namespace opkit::modelkit
