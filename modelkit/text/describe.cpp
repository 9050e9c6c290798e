// A model as ordered JSON.

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include "modelkit/json_fields.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_reader.h"
#include "modelkit/model_text.h"
#include "modelkit/text/values.h"

namespace opkit::modelkit {
namespace {

using namespace opkit::modelkit::text;
using nlohmann::ordered_json;

class Describer {
public:
    Describer(const Model& model, const DescribeOptions& options) : model_(model), options_(options)
    {
        std::unordered_map<std::string_view, uint32_t> first;  // of several constants of one name the first counts
        for (const ModelConstant& constant : model.constants) {
            if (first.try_emplace(constant.name, constant.offset).first->second == constant.offset) {
                named_.try_emplace(constant.offset, &constant);
            }
        }
    }

    ordered_json Run()
    {
        ordered_json root = {{"format", kModelTextFormat}, {"formatVersion", kModelTextVersion}};
        if (options_.positions) {
            root["bufferSize"] = model_.bytes.size();
        }
        root["scratchSize"] = model_.scratchSize;
        root["maxBatch"] = model_.maxBatch;
        root["inputs"] = TensorsToJson(model_.inputs);
        root["outputs"] = TensorsToJson(model_.outputs);
        root["constants"] = ordered_json::array();
        for (const ModelConstant& constant : model_.constants) {
            root["constants"].push_back(Constant(constant));
        }
        root["tables"] = ordered_json::array();
        for (size_t t = 0; t < model_.tables.size(); ++t) {
            root["tables"].push_back(Table(t));
        }
        return root;
    }

private:
    ordered_json Constant(const ModelConstant& constant) const
    {
        ordered_json entry = {{"name", constant.name}};
        if (options_.positions) {
            entry["offset"] = constant.offset;
        }
        entry["shape"] = constant.shape;
        AddData(&entry, constant.offset, constant.shape);
        return entry;
    }

    void AddData(ordered_json* entry, uint32_t offset, const Shape& shape) const
    {
        if (options_.data) {
            (*entry)["data"] = FloatsToJson(model_.bytes.Span().subspan(offset), ElementCount(shape));
        }
    }

    ordered_json Table(size_t index)
    {
        const ModelTable& table = model_.tables[index];
        ordered_json entry = {{"segmentId", table.segmentId}, {"name", table.name}};
        if (table.next) {
            entry["next"] = *table.next;
        }
        if (options_.positions) {
            entry["layerTableOffset"] = table.layerTableOffset;
            entry["layerTableSize"] = table.layerTableSize;
        }
        entry["layers"] = ordered_json::array();
        for (const ReadLayer& layer : ReadLayerTable(model_, index).layers) {
            entry["layers"].push_back(Layer(layer, table.layerTableOffset));
        }
        return entry;
    }

    ordered_json Layer(const ReadLayer& layer, uint32_t base)
    {
        const LayerRecord& record = layer.record;
        ordered_json entry = {{"operator", AsciiOf(layer.name)}, {"layerId", record.layerId}};
        if (record.bufOffset != 0 || record.bufSize != 0) {
            entry["bufOffset"] = record.bufOffset;
            entry["bufSize"] = record.bufSize;
        }
        if (options_.positions) {
            entry["layerOffset"] = layer.recordOffset - base;
            entry["nameOffset"] = record.nameOffset;
            entry["nameSize"] = record.nameSize;
            entry["inputTableOffset"] = record.inputTableOffset;
            entry["outputTableOffset"] = record.outputTableOffset;
            entry["attrOffset"] = record.attrOffset;
        }
        if (options_.positions || record.attrSize != kAttrBlockBytes) {
            entry["attrSize"] = record.attrSize;
        }
        entry["inputs"] = Tensors(layer.inputs);
        entry["outputs"] = Tensors(layer.outputs);
        const std::span<const std::byte> block = model_.bytes.Span().subspan(layer.attrOffset, record.attrSize);
        AddOfflineInputs(&entry, layer, block);
        AddAttributes(&entry, layer, block);
        return entry;
    }

    ordered_json Tensors(const std::vector<ReadTensor>& tensors) const
    {
        ordered_json list = ordered_json::array();
        for (const ReadTensor& tensor : tensors) {
            const TensorRecord& record = tensor.record;
            ordered_json entry = {{"memKind", record.memKind},
                                  {"memIndex", record.memIndex},
                                  {"size", record.size},
                                  {"strideIndex", record.strideIndex},
                                  {"shape", tensor.shape}};
            if (options_.positions) {
                entry["shapeOffset"] = record.shapeOffset;
                entry["shapeSize"] = record.shapeSize;
            }
            list.push_back(std::move(entry));
        }
        return list;
    }

    void AddOfflineInputs(ordered_json* entry, const ReadLayer& layer, std::span<const std::byte> block)
    {
        (*entry)["flags"] = AsciiOf(layer.flags);
        uint32_t count = 0;
        std::memcpy(&count, &block[offsetof(LayerAttrHead, offlineInputNum)], sizeof(count));
        if (count != layer.offline.size()) {
            (*entry)["offlineInputNum"] = count;
        }
        if (layer.offline.empty()) {
            return;
        }
        (*entry)["offline"] = ordered_json::array();
        for (const ReadOffline& offline : layer.offline) {
            (*entry)["offline"].push_back(Offline(offline));
        }
    }

    // By name where the name leads there; otherwise with its place, and with its data where nothing else has it.
    ordered_json Offline(const ReadOffline& offline)
    {
        if (const auto named = named_.find(offline.dataOffset); named != named_.end()) {
            ordered_json entry = {{"constant", named->second->name}};
            if (named->second->shape != offline.shape) {
                entry["shape"] = offline.shape;
            }
            return entry;
        }
        ordered_json entry = {{"offset", offline.dataOffset}, {"shape", offline.shape}};
        // Data that lies over other data is described as often as that takes no more room than a few buffers.
        const uint64_t count = ElementCount(offline.shape);
        if (described_.insert({offline.dataOffset, count}).second &&
            (bytesDescribed_ += count * sizeof(float)) <= MostBytesRead(model_.bytes.size())) {
            AddData(&entry, offline.dataOffset, offline.shape);
        }
        return entry;
    }

    static void AddAttributes(ordered_json* entry, const ReadLayer& layer, std::span<const std::byte> block)
    {
        const AttributeRecord* const record = FindAttributeRecord(layer.name);
        if (record == nullptr || record->fields.empty()) {
            return;
        }
        ordered_json& attributes = (*entry)["attributes"] = ordered_json::object();
        for (const AttributeField& field : record->fields) {
            ordered_json value = FieldToJson(field, block);
            if (!value.is_null() && !(field.type == FieldType::kStrides && value.empty())) {
                attributes[std::string(field.name)] = std::move(value);
            }
        }
    }

    const Model& model_;
    DescribeOptions options_;
    std::map<uint32_t, const ModelConstant*> named_;  // by offset
    std::set<std::pair<uint32_t, uint64_t>> described_;
    uint64_t bytesDescribed_ = 0;
};

}  // namespace

ordered_json DescribeModel(const Model& model, const DescribeOptions& options)
{
    return Describer(model, options).Run();
}

}  // namespace opkit::modelkit
