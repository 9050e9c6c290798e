#include "modelkit/check/structure.h"

#include <algorithm>

#include "modelkit/attribute_fields.h"

namespace opkit::modelkit::check {
namespace {

// What the reader refuses is a refusal like any other.
[[noreturn]] void Refuse(const ModelView& model, const CheckPlace& place, const ModelError& error)
{
    const ReadFault& fault = error.fault;
    model.Refuse(place, {fault.field, fault.byteOffset}, static_cast<int64_t>(fault.value),
                 static_cast<int64_t>(fault.NearestValue()), fault.reason);
}

#define RECORD_FIELD(layer, name)                             \
    Field                                                     \
    {                                                         \
#name, (layer).recordAt + offsetof(LayerRecord, name) \
    }

void CheckRecord(const ModelView& model, const Layer& layer)
{
    const LayerRecord& record = layer.record;
    const uint64_t scratch = model.request.scratchSize;
    if (uint64_t{record.bufOffset} + record.bufSize > scratch) {
        const uint64_t last = record.bufSize > scratch ? 0 : scratch - record.bufSize;
        model.Refuse(layer.place, RECORD_FIELD(layer, bufOffset), record.bufOffset, static_cast<int64_t>(last),
                     "the work space of " + std::to_string(record.bufSize) + " bytes ends behind the scratch");
    }
    const AttributeRecord* const attributes = FindAttributeRecord(layer.place.operatorName);
    if (attributes == nullptr) {
        model.Refuse(layer.place, RECORD_FIELD(layer, nameOffset), record.nameOffset, 0,
                     "the library has no such operator");
    }
    if (record.attrSize < attributes->size) {
        model.Refuse(layer.place, RECORD_FIELD(layer, attrSize), record.attrSize, attributes->size,
                     "the operator uses more of its attribute block");
    }
}

// Where the operator finds a tensor.
class TensorPlacer {
public:
    TensorPlacer(const ModelView& model, const CheckPlace& place, bool output)
        : model_(model), place_(place), output_(output)
    {
    }

    Tensor Place(const ReadTensor& read, size_t index) const
    {
        Tensor tensor;
        tensor.name = (output_ ? "outputs[" : "inputs[") + std::to_string(index) + "]";
        tensor.output = output_;
        tensor.dims = read.shape;
        tensor.shapeField = {tensor.name + ".shape", read.shapeOffset};
        const auto field = [&](const char* name, size_t offset) {
            return Field{tensor.name + name, read.recordOffset + offset};
        };
        tensor.placeField = field(".memIndex", offsetof(TensorRecord, memIndex));
        const bool inRequest = read.record.memKind <= OPKIT_MEM_REQUEST_1;
        // Size and stride are the request's: what the record can do about them is to name another tensor.
        tensor.sizeField = inRequest ? field(".size of the request tensor", offsetof(TensorRecord, memIndex))
                                     : field(".size", offsetof(TensorRecord, size));
        tensor.strideField =
            field(inRequest ? ".stride of the request tensor" : ".strideIndex", offsetof(TensorRecord, strideIndex));
        if (inRequest) {
            PlaceInRequest(read.record, field(".strideIndex", offsetof(TensorRecord, strideIndex)), &tensor);
        } else {
            PlaceInScratch(read.record, &tensor);
        }
        return tensor;
    }

private:
    [[noreturn]] void Refuse(const Field& field, uint64_t value, uint64_t limit, std::string reason) const
    {
        model_.Refuse(place_, field, static_cast<int64_t>(value), static_cast<int64_t>(limit), std::move(reason));
    }

    void PlaceInRequest(const TensorRecord& record, const Field& strideIndex, Tensor* tensor) const
    {
        const CheckRequest& request = model_.request;
        const std::vector<CheckTensor>& tensors = output_ ? request.outputs : request.inputs;
        if (record.memIndex >= tensors.size()) {
            Refuse(tensor->placeField, record.memIndex, tensors.size() - 1, "the request has no such tensor");
        }
        if (record.strideIndex >= tensors.size()) {
            Refuse(strideIndex, record.strideIndex, tensors.size() - 1, "the request has no such tensor");
        }
        const uint64_t slice = tensors[record.memIndex].size / request.batch;
        tensor->stride = tensors[record.strideIndex].stride;
        tensor->memory = {output_ ? Memory::Block::kOutput : Memory::Block::kInput, record.memIndex, 0, slice, slice};
    }

    void PlaceInScratch(const TensorRecord& record, Tensor* tensor) const
    {
        const CheckRequest& request = model_.request;
        const uint64_t items = record.memKind == OPKIT_MEM_SCRATCH_BATCHED ? request.batch : 1;
        const uint64_t bytes = record.size * items;
        if (record.memIndex % 4 != 0) {
            Refuse(tensor->placeField, record.memIndex, record.memIndex / 4 * 4, "not at a multiple of 4");
        }
        if (items > 1 && record.size % 4 != 0) {
            Refuse(tensor->sizeField, record.size, record.size / 4 * 4,
                   "the next batch item is not at a multiple of 4");
        }
        if (record.memIndex + bytes > request.scratchSize) {
            const uint64_t last = bytes > request.scratchSize ? 0 : request.scratchSize - bytes;
            Refuse(tensor->placeField, record.memIndex, last, std::to_string(bytes) + " bytes end behind the scratch");
        }
        tensor->stride = record.strideIndex;
        tensor->memory = {Memory::Block::kScratch, 0, record.memIndex, record.size, items > 1 ? record.size : 0};
    }

    const ModelView& model_;
    const CheckPlace& place_;
    bool output_;
};

std::vector<Tensor> Placed(const TensorPlacer& placer, const std::vector<ReadTensor>& read)
{
    std::vector<Tensor> tensors;
    for (const ReadTensor& tensor : read) {
        tensors.push_back(placer.Place(tensor, tensors.size()));
    }
    return tensors;
}

// What the library reads of a layer, but for its attributes: of those some are written.
void AddRanges(const ReadLayer& read, int owner, std::vector<StructureRange>* ranges)
{
    const auto add = [&](uint64_t begin, uint64_t size, const char* what) {
        if (size != 0) {
            ranges->push_back({begin, begin + size, owner, false, what});
        }
    };
    add(read.recordOffset, sizeof(LayerRecord), "a layer record");
    add(read.nameOffset, read.record.nameSize, "a name");
    add(read.inputTableOffset, read.inputs.size() * sizeof(TensorRecord), "a tensor table");
    add(read.outputTableOffset, read.outputs.size() * sizeof(TensorRecord), "a tensor table");
    for (const std::vector<ReadTensor>* tensors : {&read.inputs, &read.outputs}) {
        for (const ReadTensor& tensor : *tensors) {
            add(tensor.shapeOffset, tensor.record.shapeSize, "a shape");
        }
    }
}

}  // namespace

uint32_t CheckTableHeader(const ModelView& model, const ModelTable& table, LayerReader* reader,
                          std::vector<StructureRange>* ranges)
{
    try {
        const uint32_t count = reader->ReadCount(table.layerTableSize);
        const uint64_t at = table.layerTableOffset;
        ranges->push_back({at, at + 4 + uint64_t{count} * 4, -1, false, "a layer table"});
        return count;
    } catch (const ModelError& error) {
        Refuse(model, {table.segmentId}, error);
    }
}

Layer CheckStructure(const ModelView& model, const ModelTable& table, uint32_t index, int owner, LayerReader* reader,
                     std::vector<StructureRange>* ranges)
{
    Layer layer;
    ReadLayer read;
    layer.place = {table.segmentId, static_cast<int>(index)};
    try {
        reader->ReadRecord(index, &read);
        layer.place.operatorName = read.name;
        layer.record = read.record;
        layer.recordAt = read.recordOffset;
        CheckRecord(model, layer);
        reader->ReadTensors(&read);
        layer.attrAt = read.attrOffset;
        layer.inputs = Placed(TensorPlacer(model, layer.place, false), read.inputs);
        layer.outputs = Placed(TensorPlacer(model, layer.place, true), read.outputs);
        AddRanges(read, owner, ranges);
    } catch (const ModelError& error) {
        layer.place.operatorName = read.name;  // as far as it came
        Refuse(model, layer.place, error);
    }
    return layer;
}

WriteMap::WriteMap(std::vector<StructureRange> ranges) : ranges_(std::move(ranges))
{
    std::sort(ranges_.begin(), ranges_.end(),
              [](const StructureRange& a, const StructureRange& b) { return a.begin < b.begin; });
    while (leaves_ <= ranges_.size()) {
        leaves_ *= 2;
    }
    reach_.resize(2 * leaves_);
    for (size_t i = 0; i < ranges_.size(); ++i) {
        reach_[leaves_ + i] = ranges_[i].end;
    }
    for (size_t node = leaves_; --node > 0;) {
        reach_[node] = std::max(reach_[2 * node], reach_[2 * node + 1]);
    }
}

// The last of the first `end` ranges that ends behind `at`, counted from 1; 0 where there is none.
size_t WriteMap::LastReaching(size_t end, uint64_t at) const
{
    size_t node = leaves_ + end;  // the first node that is out of the question; those of interest lie left of it
    while (node > 1 && (node % 2 == 0 || reach_[node - 1] <= at)) {
        node /= 2;
    }
    if (node <= 1) {
        return 0;
    }
    --node;
    while (node < leaves_) {
        node = reach_[2 * node + 1] > at ? 2 * node + 1 : 2 * node;
    }
    return node - leaves_ + 1;
}

const StructureRange* WriteMap::Hit(const ModelWrite& write, int owner) const
{
    const auto behind = std::lower_bound(ranges_.begin(), ranges_.end(), write.end,
                                         [](const StructureRange& range, uint64_t end) { return range.begin < end; });
    size_t i = static_cast<size_t>(behind - ranges_.begin());
    while ((i = LastReaching(i, write.begin)) > 0) {
        const StructureRange& range = ranges_[--i];
        const bool ownState = write.what == ModelWrite::What::kState && range.isState && range.owner == owner;
        if (!ownState) {
            return &range;
        }
    }
    return nullptr;
}

}  // namespace opkit::modelkit::check
