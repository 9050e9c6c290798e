#include "modelkit/check/structure.h"

#include <algorithm>

#include "modelkit/attribute_fields.h"

namespace opkit::modelkit::check {
namespace {

// Offsets that count from a layer table.
class TableReader {
public:
    TableReader(const ModelView& view, uint64_t base, int owner, std::vector<StructureRange>* ranges)
        : model(view), base_(base), owner_(owner), ranges_(ranges)
    {
    }

    uint64_t Remaining() const { return model.bytes.size() - base_; }

    // The place of `size` bytes at `offset`, which `field` holds, at a multiple of `alignment`.
    uint64_t Locate(const Field& field, uint64_t offset, uint64_t size, uint64_t alignment, const char* what) const
    {
        if ((base_ + offset) % alignment != 0) {
            Refuse(field, offset, offset / alignment * alignment, "not at a multiple of 4");
        }
        if (Add(offset, size) > Remaining()) {
            const uint64_t last = size > Remaining() ? 0 : Remaining() - size;
            Refuse(field, offset, last, std::string(what) + " ends behind the model buffer");
        }
        if (size != 0) {
            ranges_->push_back({base_ + offset, base_ + offset + size, owner_, false, what});
        }
        return base_ + offset;
    }

    [[noreturn]] void Refuse(const Field& field, uint64_t value, uint64_t limit, std::string reason) const
    {
        model.Refuse(place, field, static_cast<int64_t>(value), static_cast<int64_t>(limit), std::move(reason));
    }

    const ModelView& model;
    CheckPlace place;

private:
    uint64_t base_;
    int owner_;
    std::vector<StructureRange>* ranges_;
};

Field RecordField(const Layer& layer, const char* name, size_t offset)
{
    return {name, layer.recordAt + offset};
}

#define RECORD_FIELD(layer, name) RecordField(layer, #name, offsetof(LayerRecord, name))

void ReadName(const TableReader& reader, Layer* layer)
{
    const LayerRecord& record = layer->record;
    const Field sizeField = RECORD_FIELD(*layer, nameSize);
    const uint64_t at =
        reader.Locate(RECORD_FIELD(*layer, nameOffset), record.nameOffset, record.nameSize, 1, "a name");
    const auto name = reader.model.bytes.subspan(at, record.nameSize);
    const auto end = std::find(name.begin(), name.end(), std::byte{0});
    if (end == name.end()) {
        reader.Refuse(sizeField, record.nameSize, uint64_t{record.nameSize} + 1, "the name does not end in nameSize");
    }
    layer->place.operatorName.assign(reinterpret_cast<const char*>(name.data()),
                                     static_cast<size_t>(end - name.begin()));
}

void CheckRecord(const TableReader& reader, const Layer& layer)
{
    const LayerRecord& record = layer.record;
    const uint64_t scratch = reader.model.request.scratchSize;
    if (record.inputNum > OPKIT_MAX_LAYER_INPUTS) {
        reader.Refuse(RECORD_FIELD(layer, inputNum), record.inputNum, OPKIT_MAX_LAYER_INPUTS, "too many inputs");
    }
    if (record.outputNum > OPKIT_MAX_LAYER_OUTPUTS) {
        reader.Refuse(RECORD_FIELD(layer, outputNum), record.outputNum, OPKIT_MAX_LAYER_OUTPUTS, "too many outputs");
    }
    if (uint64_t{record.bufOffset} + record.bufSize > scratch) {
        const uint64_t last = record.bufSize > scratch ? 0 : scratch - record.bufSize;
        reader.Refuse(RECORD_FIELD(layer, bufOffset), record.bufOffset, last,
                      "the work space of " + std::to_string(record.bufSize) + " bytes ends behind the scratch");
    }
}

// The attribute block, as far as the operator uses it.
void ReadAttributes(const TableReader& reader, Layer* layer)
{
    const LayerRecord& record = layer->record;
    const AttributeRecord* const attributes = FindAttributeRecord(layer->place.operatorName);
    if (attributes == nullptr) {
        reader.Refuse(RECORD_FIELD(*layer, nameOffset), record.nameOffset, 0, "the library has no such operator");
    }
    if (record.attrSize < attributes->size) {
        reader.Refuse(RECORD_FIELD(*layer, attrSize), record.attrSize, attributes->size,
                      "the operator uses more of its attribute block");
    }
    layer->attrAt =
        reader.Locate(RECORD_FIELD(*layer, attrOffset), record.attrOffset, record.attrSize, 4, "an attribute block");
}

void PlaceInRequest(const TableReader& reader, const TensorRecord& record, bool output, const Field& strideField,
                    Tensor* tensor)
{
    const CheckRequest& request = reader.model.request;
    const std::vector<CheckTensor>& tensors = output ? request.outputs : request.inputs;
    if (record.memIndex >= tensors.size()) {
        reader.Refuse(tensor->placeField, record.memIndex, tensors.size() - 1, "the request has no such tensor");
    }
    if (record.strideIndex >= tensors.size()) {
        reader.Refuse(strideField, record.strideIndex, tensors.size() - 1, "the request has no such tensor");
    }
    const uint64_t slice = tensors[record.memIndex].size / request.batch;
    tensor->stride = tensors[record.strideIndex].stride;
    tensor->memory = {output ? Memory::Block::kOutput : Memory::Block::kInput, record.memIndex, 0, slice, slice};
}

void PlaceInScratch(const TableReader& reader, const TensorRecord& record, Tensor* tensor)
{
    const CheckRequest& request = reader.model.request;
    const uint64_t items = record.memKind == OPKIT_MEM_SCRATCH_BATCHED ? request.batch : 1;
    const uint64_t bytes = record.size * items;
    if (record.memIndex % 4 != 0) {
        reader.Refuse(tensor->placeField, record.memIndex, record.memIndex / 4 * 4, "not at a multiple of 4");
    }
    if (items > 1 && record.size % 4 != 0) {
        reader.Refuse(tensor->sizeField, record.size, record.size / 4 * 4,
                      "the next batch item is not at a multiple of 4");
    }
    if (record.memIndex + bytes > request.scratchSize) {
        const uint64_t last = bytes > request.scratchSize ? 0 : request.scratchSize - bytes;
        reader.Refuse(tensor->placeField, record.memIndex, last,
                      std::to_string(bytes) + " bytes end behind the scratch");
    }
    tensor->stride = record.strideIndex;
    tensor->memory = {Memory::Block::kScratch, 0, record.memIndex, record.size, items > 1 ? record.size : 0};
}

std::vector<Tensor> ReadTensors(const TableReader& reader, const Field& tableField, uint32_t table, uint32_t count,
                                bool output)
{
    const uint64_t at = reader.Locate(tableField, table, uint64_t{count} * sizeof(TensorRecord), 4, "a tensor table");
    std::vector<Tensor> tensors(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t recordAt = at + i * sizeof(TensorRecord);
        const TensorRecord record = reader.model.Get<TensorRecord>(recordAt);
        Tensor& tensor = tensors[i];
        tensor.name = (output ? "outputs[" : "inputs[") + std::to_string(i) + "]";
        tensor.output = output;
        const auto field = [&](const char* name, size_t offset) {
            return Field{tensor.name + name, recordAt + offset};
        };
        tensor.placeField = field(".memIndex", offsetof(TensorRecord, memIndex));
        tensor.strideField = field(".strideIndex", offsetof(TensorRecord, strideIndex));
        const bool inRequest = record.memKind <= OPKIT_MEM_REQUEST_1;
        // A request tensor's size and stride are the request's: what the record can do about them is to name another.
        tensor.sizeField = inRequest ? field(".memIndex", offsetof(TensorRecord, memIndex))
                                     : field(".size", offsetof(TensorRecord, size));
        const Field sizeField = field(".shapeSize", offsetof(TensorRecord, shapeSize));
        const uint32_t rank = record.shapeSize / 4;
        if (rank > OPKIT_MAX_DIMS) {
            reader.Refuse(sizeField, record.shapeSize, OPKIT_MAX_DIMS * 4, "more than 10 dimensions");
        }
        const uint64_t shapeAt = reader.Locate(field(".shapeOffset", offsetof(TensorRecord, shapeOffset)),
                                               record.shapeOffset, record.shapeSize, 4, "a shape");
        tensor.shapeField = {tensor.name + ".shape", shapeAt};
        for (uint32_t d = 0; d < rank; ++d) {
            tensor.dims.push_back(reader.model.Get<uint32_t>(shapeAt + uint64_t{d} * 4));
        }
        if (inRequest) {
            PlaceInRequest(reader, record, output, tensor.strideField, &tensor);
        } else {
            PlaceInScratch(reader, record, &tensor);
        }
    }
    return tensors;
}

}  // namespace

uint32_t CheckTableHeader(const ModelView& model, const ModelTable& table, std::vector<StructureRange>* ranges)
{
    const CheckPlace place = {table.segmentId};
    const uint64_t at = table.layerTableOffset;
    const uint64_t size = model.bytes.size();
    const auto refuse = [&](const char* name, uint64_t value, uint64_t limit, const char* reason) {
        model.Refuse(place, {name, at}, static_cast<int64_t>(value), static_cast<int64_t>(limit), reason);
    };
    if (at % 4 != 0) {
        refuse("layerTableOffset", at, at / 4 * 4, "not at a multiple of 4");
    }
    if (at + 4 > size) {
        refuse("layerTableOffset", at, size < 4 ? 0 : size - 4, "the layer table lies behind the model buffer");
    }
    if (at + table.layerTableSize > size) {
        refuse("layerTableSize", table.layerTableSize, size - at, "the layer table ends behind the model buffer");
    }
    const uint32_t count = model.Get<uint32_t>(at);
    const uint64_t most = std::min<uint64_t>(OPKIT_MAX_LAYERS, (size - at - 4) / 4);
    if (count > most) {
        refuse("layerCount", count, most, "more layers than the table holds");
    }
    ranges->push_back({at, at + 4 + uint64_t{count} * 4, -1, false, "a layer table"});
    return count;
}

Layer ReadLayer(const ModelView& model, const ModelTable& table, uint32_t index, int owner,
                std::vector<StructureRange>* ranges)
{
    TableReader reader(model, table.layerTableOffset, owner, ranges);
    Layer layer;
    layer.place = reader.place = {table.segmentId, static_cast<int>(index)};
    const uint64_t entryAt = uint64_t{table.layerTableOffset} + 4 + uint64_t{index} * 4;
    layer.recordAt =
        reader.Locate({"layerOffset", entryAt}, model.Get<uint32_t>(entryAt), sizeof(LayerRecord), 4, "a layer record");
    layer.record = model.Get<LayerRecord>(layer.recordAt);
    const LayerRecord& record = layer.record;
    ReadName(reader, &layer);
    reader.place = layer.place;
    CheckRecord(reader, layer);
    ReadAttributes(reader, &layer);
    ranges->pop_back();  // of the attribute block, some fields are not read but written
    layer.inputs =
        ReadTensors(reader, RECORD_FIELD(layer, inputTableOffset), record.inputTableOffset, record.inputNum, false);
    layer.outputs =
        ReadTensors(reader, RECORD_FIELD(layer, outputTableOffset), record.outputTableOffset, record.outputNum, true);
    return layer;
}

WriteMap::WriteMap(std::vector<StructureRange> ranges) : ranges_(std::move(ranges))
{
    std::sort(ranges_.begin(), ranges_.end(),
              [](const StructureRange& a, const StructureRange& b) { return a.begin < b.begin; });
    uint64_t reach = 0;
    for (const StructureRange& range : ranges_) {
        reach = std::max(reach, range.end);
        reach_.push_back(reach);
    }
}

const StructureRange* WriteMap::Hit(const ModelWrite& write, int owner) const
{
    const auto behind = std::lower_bound(ranges_.begin(), ranges_.end(), write.end,
                                         [](const StructureRange& range, uint64_t end) { return range.begin < end; });
    for (size_t i = static_cast<size_t>(behind - ranges_.begin()); i-- > 0 && reach_[i] > write.begin;) {
        const StructureRange& range = ranges_[i];
        const bool ownState = write.what == ModelWrite::What::kState && range.isState && range.owner == owner;
        if (range.end > write.begin && !ownState) {
            return &range;
        }
    }
    return nullptr;
}

}  // namespace opkit::modelkit::check
