#include "modelkit/model_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <set>
#include <type_traits>

#include "modelkit/json_fields.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"

namespace opkit::modelkit {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr const char* kFormatName = "opkit-model-text";
constexpr const char* kHexDigits = "0123456789abcdef";

template <class T>
T Load(std::span<const std::byte> bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

std::string HexOf(std::span<const std::byte> bytes)
{
    std::string hex;
    for (const std::byte byte : bytes) {
        hex += kHexDigits[std::to_integer<unsigned>(byte) >> 4];
        hex += kHexDigits[std::to_integer<unsigned>(byte) & 15];
    }
    return hex;
}

// What JSON can hold of a piece of text; "raw" makes up for the rest.
std::string AsciiOf(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    return text;
}

ordered_json FloatsToJson(std::span<const std::byte> bytes, size_t count)
{
    ordered_json list = ordered_json::array();
    for (size_t i = 0; i < count; ++i) {
        list.push_back(FloatToJson(Load<float>(bytes, i * sizeof(float))));
    }
    return list;
}

ordered_json WithCode(const AttributeField& field, int64_t value)
{
    const auto code = std::find_if(field.codes.begin(), field.codes.end(),
                                   [&](const FieldCode& candidate) { return candidate.value == value; });
    return code == field.codes.end() ? ordered_json(value) : ordered_json(code->name);
}

ordered_json EntryToJson(const AttributeField& field, std::span<const std::byte> bytes)
{
    switch (field.type) {
        case FieldType::kU8:
            return WithCode(field, Load<uint8_t>(bytes, 0));
        case FieldType::kI32:
            return WithCode(field, Load<int32_t>(bytes, 0));
        case FieldType::kI64:
            return WithCode(field, Load<int64_t>(bytes, 0));
        case FieldType::kU64:
            return Load<uint64_t>(bytes, 0);
        case FieldType::kF32:
            return FloatToJson(Load<float>(bytes, 0));
        default:
            return WithCode(field, Load<uint32_t>(bytes, 0));
    }
}

// Stride records count as words here.
size_t EntrySize(const AttributeField& field)
{
    return field.type == FieldType::kStrides ? sizeof(uint32_t) : field.size / field.count;
}

size_t SizeWithoutZeros(std::span<const std::byte> bytes)
{
    while (!bytes.empty() && bytes.back() == std::byte{0}) {
        bytes = bytes.first(bytes.size() - 1);
    }
    return bytes.size();
}

// Describes a model as ordered JSON.
class Describer {
public:
    Describer(const Model& model, const DescribeOptions& options) : model_(model), options_(options) {}

    ordered_json Run()
    {
        ordered_json root = {{"format", kFormatName}, {"formatVersion", kModelTextVersion}};
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
        const auto count = Load<uint32_t>(block, offsetof(LayerAttrHead, offlineInputNum));
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
        for (const ModelConstant& constant : model_.constants) {
            if (constant.offset != offline.dataOffset || FirstOffset(constant.name) != constant.offset) {
                continue;
            }
            ordered_json entry = {{"constant", constant.name}};
            if (constant.shape != offline.shape) {
                entry["shape"] = offline.shape;
            }
            return entry;
        }
        ordered_json entry = {{"offset", offline.dataOffset}, {"shape", offline.shape}};
        if (described_.insert({offline.dataOffset, ElementCount(offline.shape)}).second) {
            AddData(&entry, offline.dataOffset, offline.shape);
        }
        return entry;
    }

    uint32_t FirstOffset(const std::string& name) const
    {
        return std::find_if(model_.constants.begin(), model_.constants.end(),
                            [&](const ModelConstant& constant) { return constant.name == name; })
            ->offset;
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
    std::set<std::pair<uint32_t, uint64_t>> described_;
};

// Writes what a text describes. A piece lies where its field says, or else behind everything written so far, as the
// model builder would have it.
class Assembler {
public:
    explicit Assembler(const JsonFields& fields) : fields_(fields) {}

    Model Run()
    {
        const json& root = fields_.Root();
        fields_.CheckFormat(kFormatName, kModelTextVersion);
        model_.scratchSize = fields_.Number(root, "", "scratchSize");
        model_.maxBatch = fields_.Number(root, "", "maxBatch");
        model_.inputs = fields_.Tensors("inputs");
        model_.outputs = fields_.Tensors("outputs");
        ForEach(root, "", "constants", [this](const json& entry, const std::string& path) { Constant(entry, path); });
        ForEach(root, "", "tables", [this](const json& entry, const std::string& path) { Table(entry, path); });
        if (fields_.Optional(root, "raw") != nullptr) {
            ForEach(root, "", "raw", [this](const json& entry, const std::string& path) { Raw(entry, path); });
        }
        if (fields_.Optional(root, "bufferSize") != nullptr) {
            const uint32_t size = fields_.Number(root, "", "bufferSize");
            if (size < bytes_.size() || size > OPKIT_MAX_MODEL_SIZE) {
                fields_.Fail("field bufferSize is " + std::to_string(size) + ", but the model takes " +
                             std::to_string(bytes_.size()) + " bytes, at most 1 GiB");
            }
            bytes_.resize(size);
        }
        model_.bytes = Buffer(std::span<const std::byte>(bytes_));
        return std::move(model_);
    }

private:
    template <class Visit>
    void ForEach(const json& object, const std::string& path, const char* name, Visit visit) const
    {
        size_t index = 0;
        for (const json& entry : fields_.List(object, path, name)) {
            visit(entry, path + name + "[" + std::to_string(index++) + "].");
        }
    }

    uint32_t NumberOr(const json& object, const std::string& path, const char* name, size_t otherwise) const
    {
        return fields_.Optional(object, name) != nullptr ? fields_.Number(object, path, name)
                                                         : static_cast<uint32_t>(otherwise);
    }

    // Room for `size` bytes; the offset that the field gives counts from `base`.
    uint32_t Place(const json& entry, const std::string& path, const char* name, uint64_t size, uint64_t alignment,
                   uint32_t base = 0)
    {
        const uint64_t begin = fields_.Optional(entry, name) != nullptr
                                   ? uint64_t{base} + fields_.Number(entry, path, name)
                                   : (bytes_.size() + alignment - 1) / alignment * alignment;
        if (begin + size > OPKIT_MAX_MODEL_SIZE) {
            fields_.Fail("field " + path + name + ": the model ends beyond 1 GiB");
        }
        bytes_.resize(std::max<size_t>(bytes_.size(), begin + size));
        return static_cast<uint32_t>(begin);
    }

    template <class T>
    void Put(size_t offset, const T& value)
    {
        std::memcpy(&bytes_[offset], &value, sizeof(T));
    }

    float Float(const json& value, const std::string& path) const
    {
        if (value.is_number() && std::fabs(value.get<double>()) <= std::numeric_limits<float>::max()) {
            return static_cast<float>(value.get<double>());
        }
        const std::string text = value.is_string() ? value.get<std::string>() : "";
        uint32_t bits = 0;
        const char* const end = text.data() + text.size();
        if (text.size() != 10 || text.compare(0, 2, "0x") != 0 ||
            std::from_chars(text.data() + 2, end, bits, 16).ptr != end) {
            fields_.Fail("field " + path + " is neither an f32 number nor the bits of one, such as \"0x7fc00000\"");
        }
        float result;
        std::memcpy(&result, &bits, sizeof(result));
        return result;
    }

    void PutFloats(uint32_t offset, const json& list, const std::string& path)
    {
        for (size_t i = 0; i < list.size(); ++i) {
            Put(offset + i * sizeof(float), Float(list[i], path + "data[" + std::to_string(i) + "]"));
        }
    }

    const json& DataOf(const json& entry, const std::string& path, const Shape& shape) const
    {
        const json& data = fields_.List(entry, path, "data");
        if (data.size() != ElementCount(shape)) {
            fields_.Fail("field " + path + "data has " + std::to_string(data.size()) + " elements, the shape " +
                         ShapeText(shape) + " has " + std::to_string(ElementCount(shape)));
        }
        return data;
    }

    void Constant(const json& entry, const std::string& path)
    {
        const Shape shape = fields_.Dimensions(entry, path);
        const json& data = DataOf(entry, path, shape);
        const uint32_t offset = Place(entry, path, "offset", data.size() * sizeof(float), Buffer::kAlignment);
        PutFloats(offset, data, path);
        model_.constants.push_back({fields_.Text(entry, path, "name"), offset, shape});
    }

    void Table(const json& entry, const std::string& path)
    {
        const json& layers = fields_.List(entry, path, "layers");
        if (layers.size() > OPKIT_MAX_LAYERS) {
            fields_.Fail("field " + path + "layers has " + std::to_string(layers.size()) + " entries, at most 128");
        }
        base_ = Place(entry, path, "layerTableOffset", 4 + layers.size() * 4, 8);
        Put(base_, static_cast<uint32_t>(layers.size()));
        uint32_t at = base_;
        ForEach(entry, path, "layers", [&](const json& layer, const std::string& layerPath) {
            at += 4;
            const uint32_t offset = Layer(layer, layerPath);
            Put(at, offset);
        });
        ModelTable table = {fields_.Number(entry, path, "segmentId"), fields_.Text(entry, path, "name"), base_,
                            NumberOr(entry, path, "layerTableSize", bytes_.size() - base_)};
        if (fields_.Optional(entry, "next") != nullptr) {
            table.next = fields_.Number(entry, path, "next");
        }
        model_.tables.push_back(std::move(table));
    }

    // Returns the record's offset from the table.
    uint32_t Layer(const json& entry, const std::string& path)
    {
        const std::string name = fields_.Text(entry, path, "operator");
        LayerRecord record = {};
        record.layerId = fields_.Number(entry, path, "layerId");
        record.bufOffset = NumberOr(entry, path, "bufOffset", 0);
        record.bufSize = NumberOr(entry, path, "bufSize", 0);
        const uint32_t at = Place(entry, path, "layerOffset", sizeof(LayerRecord), 8, base_);
        record.nameSize = NumberOr(entry, path, "nameSize", name.size() + 1);
        if (record.nameSize <= name.size()) {
            fields_.Fail("field " + path + "nameSize leaves no room for the name and its end");
        }
        const uint32_t nameAt = Place(entry, path, "nameOffset", record.nameSize, 8, base_);
        std::memcpy(&bytes_[nameAt], name.c_str(), name.size() + 1);
        record.nameOffset = nameAt - base_;
        record.inputTableOffset = Tensors(entry, path, "inputs", "inputTableOffset", &record.inputNum);
        record.outputTableOffset = Tensors(entry, path, "outputs", "outputTableOffset", &record.outputNum);
        record.attrSize = NumberOr(entry, path, "attrSize", kAttrBlockBytes);
        if (record.attrSize < sizeof(LayerAttrHead)) {
            fields_.Fail("field " + path + "attrSize is below " + std::to_string(sizeof(LayerAttrHead)));
        }
        const uint32_t attrAt = Place(entry, path, "attrOffset", record.attrSize, 8, base_);
        record.attrOffset = attrAt - base_;
        Put(attrAt, Head(entry, path));
        Attributes(entry, path, FindAttributeRecord(name), attrAt, record.attrSize);
        Put(at, record);
        return at - base_;
    }

    // Returns the tensor table's offset from the layer table.
    uint32_t Tensors(const json& layer, const std::string& layerPath, const char* side, const char* offsetName,
                     uint32_t* count)
    {
        *count = static_cast<uint32_t>(fields_.List(layer, layerPath, side).size());
        const uint32_t table = Place(layer, layerPath, offsetName, *count * sizeof(TensorRecord), 8, base_);
        uint32_t at = table;
        ForEach(layer, layerPath, side, [&](const json& entry, const std::string& path) {
            const Shape shape = fields_.Dimensions(entry, path);
            TensorRecord record = {};
            record.memKind = fields_.Number(entry, path, "memKind");
            record.memIndex = fields_.Number(entry, path, "memIndex");
            record.size = fields_.Number(entry, path, "size");
            record.strideIndex = fields_.Number(entry, path, "strideIndex");
            record.shapeSize = NumberOr(entry, path, "shapeSize", shape.size() * sizeof(uint32_t));
            const uint32_t shapeAt = Place(entry, path, "shapeOffset", shape.size() * sizeof(uint32_t), 8, base_);
            for (size_t i = 0; i < shape.size(); ++i) {
                Put(shapeAt + i * sizeof(uint32_t), shape[i]);
            }
            record.shapeOffset = shapeAt - base_;
            Put(at, record);
            at += sizeof(TensorRecord);
        });
        return table - base_;
    }

    LayerAttrHead Head(const json& layer, const std::string& layerPath)
    {
        LayerAttrHead head = {};
        const std::string flags = fields_.Text(layer, layerPath, "flags");
        if (flags.size() > OPKIT_MAX_LAYER_INPUTS) {
            fields_.Fail("field " + layerPath + "flags has more than 80 characters");
        }
        std::copy(flags.begin(), flags.end(), head.inputFlags);
        uint32_t count = 0;
        if (fields_.Optional(layer, "offline") != nullptr) {
            ForEach(layer, layerPath, "offline", [&](const json& entry, const std::string& path) {
                if (count == OPKIT_MAX_LAYER_INPUTS) {
                    fields_.Fail("field " + layerPath + "offline has more than 80 entries");
                }
                Offline(entry, path, &head, count++);
            });
        }
        head.offlineInputNum = NumberOr(layer, layerPath, "offlineInputNum", count);
        return head;
    }

    void Offline(const json& entry, const std::string& path, LayerAttrHead* head, uint32_t j)
    {
        Shape shape;
        uint32_t offset = 0;
        if (fields_.Optional(entry, "constant") != nullptr) {
            const ModelConstant& constant = NamedConstant(fields_.Text(entry, path, "constant"), path);
            offset = constant.offset;
            shape = fields_.Optional(entry, "shape") != nullptr ? fields_.Dimensions(entry, path) : constant.shape;
        } else {
            shape = fields_.Dimensions(entry, path);
            offset = fields_.Number(entry, path, "offset");
        }
        if (shape.size() > OPKIT_MAX_DIMS) {
            fields_.Fail("field " + path + "shape has more than 10 dimensions");
        }
        if (fields_.Optional(entry, "data") != nullptr) {
            const json& data = DataOf(entry, path, shape);
            PutFloats(Place(entry, path, "offset", data.size() * sizeof(float), sizeof(float)), data, path);
        }
        head->offlineOffset[j] = static_cast<int32_t>(offset);
        std::copy(shape.begin(), shape.end(), head->offlineShape[j].dims);
        head->offlineShape[j].dimNum = static_cast<uint32_t>(shape.size());
    }

    const ModelConstant& NamedConstant(const std::string& name, const std::string& path) const
    {
        const auto found = std::find_if(model_.constants.begin(), model_.constants.end(),
                                        [&](const ModelConstant& constant) { return constant.name == name; });
        if (found == model_.constants.end()) {
            fields_.Fail("field " + path + "constant: there is no constant \"" + name + "\"");
        }
        return *found;
    }

    void Attributes(const json& layer, const std::string& layerPath, const AttributeRecord* record, uint32_t block,
                    uint32_t blockSize)
    {
        const json* const attributes = fields_.Optional(layer, "attributes");
        if (attributes == nullptr) {
            return;
        }
        if (!attributes->is_object()) {
            fields_.Fail("field " + layerPath + "attributes is not an object");
        }
        for (const auto& [name, value] : attributes->items()) {
            const std::string path = layerPath + "attributes." + name;
            const AttributeField* const field = FieldNamed(record, name);
            if (field == nullptr) {
                fields_.Fail("field " + path + " is no attribute of the layer's operator");
            }
            if (field->offset + field->size > blockSize) {
                fields_.Fail("field " + path + " lies beyond attrSize");
            }
            Attribute(*field, value, path, block + field->offset);
        }
    }

    static const AttributeField* FieldNamed(const AttributeRecord* record, std::string_view name)
    {
        if (record == nullptr) {
            return nullptr;
        }
        const auto found = std::find_if(record->fields.begin(), record->fields.end(),
                                        [&](const AttributeField& field) { return field.name == name; });
        return found == record->fields.end() ? nullptr : &*found;
    }

    void Attribute(const AttributeField& field, const json& value, const std::string& path, uint32_t at)
    {
        if (field.type == FieldType::kText || field.type == FieldType::kBytes) {
            PutText(field, value, path, at);
        } else if (!field.isArray) {
            Entry(field, value, path, at);
        } else {
            const size_t size = EntrySize(field);
            if (!value.is_array() || value.size() * size > field.size) {
                fields_.Fail("field " + path + " is no list of at most " + std::to_string(field.size / size) +
                             " entries");
            }
            for (size_t i = 0; i < value.size(); ++i) {
                Entry(field, value[i], path + "[" + std::to_string(i) + "]", static_cast<uint32_t>(at + i * size));
            }
        }
    }

    void PutText(const AttributeField& field, const json& value, const std::string& path, uint32_t at)
    {
        const std::string text = value.is_string() ? value.get<std::string>() : std::string(field.size * 2 + 2, ' ');
        if (field.type == FieldType::kBytes) {
            PutHex(text, path, at, field.size);
        } else if (text.size() > field.size) {
            fields_.Fail("field " + path + " is not a text of at most " + std::to_string(field.size) + " characters");
        } else {
            std::copy(text.begin(), text.end(), reinterpret_cast<char*>(&bytes_[at]));
        }
    }

    void PutHex(const std::string& hex, const std::string& path, uint32_t at, size_t limit)
    {
        if (hex.size() % 2 != 0 || hex.size() / 2 > limit || hex.find_first_not_of(kHexDigits) != std::string::npos) {
            fields_.Fail("field " + path + " is not made of at most " + std::to_string(limit) +
                         " pairs of the digits 0 to f");
        }
        for (size_t i = 0; i < hex.size(); i += 2) {
            uint8_t byte = 0;
            std::from_chars(&hex[i], &hex[i] + 2, byte, 16);
            bytes_[at + i / 2] = std::byte{byte};
        }
    }

    void Entry(const AttributeField& field, const json& value, const std::string& path, uint32_t at)
    {
        switch (field.type) {
            case FieldType::kU8:
                return Put(at, Integer<uint8_t>(field, value, path));
            case FieldType::kI32:
                return Put(at, Integer<int32_t>(field, value, path));
            case FieldType::kI64:
                return Put(at, Integer<int64_t>(field, value, path));
            case FieldType::kU64:
                return Put(at, Integer<uint64_t>(field, value, path));
            case FieldType::kF32:
                return Put(at, Float(value, path));
            default:
                return Put(at, Integer<uint32_t>(field, value, path));
        }
    }

    template <class T>
    T Integer(const AttributeField& field, const json& value, const std::string& path) const
    {
        if (value.is_string()) {
            for (const FieldCode& code : field.codes) {
                if (code.name == value.get<std::string>()) {
                    return static_cast<T>(code.value);
                }
            }
            fields_.Fail("field " + path + " has no code \"" + value.get<std::string>() + "\"");
        }
        if (!value.is_number_integer() || json(value.get<T>()) != value) {
            fields_.Fail("field " + path + " is no whole number of its range");
        }
        return value.get<T>();
    }

    void Raw(const json& entry, const std::string& path)
    {
        const std::string hex = fields_.Text(entry, path, "hex");
        fields_.Number(entry, path, "offset");
        PutHex(hex, path + "hex", Place(entry, path, "offset", hex.size() / 2, 1), hex.size() / 2);
    }

    const JsonFields& fields_;
    Model model_;
    std::vector<std::byte> bytes_;
    uint32_t base_ = 0;
};

Model Assembled(const ordered_json& description)
{
    return Assembler(JsonFields({}, json(description))).Run();
}

// Where everything lies, as one list of numbers.
std::vector<uint32_t> LayoutOf(const Model& model)
{
    std::vector<uint32_t> layout;
    for (size_t t = 0; t < model.tables.size(); ++t) {
        for (const ReadLayer& layer : ReadLayerTable(model, t).layers) {
            const LayerRecord& r = layer.record;
            layout.insert(layout.end(), {layer.recordOffset, r.nameOffset, r.nameSize, r.attrOffset, r.attrSize,
                                         r.inputTableOffset, r.outputTableOffset});
            for (const auto* tensors : {&layer.inputs, &layer.outputs}) {
                for (const ReadTensor& tensor : *tensors) {
                    layout.insert(layout.end(), {tensor.record.shapeOffset, tensor.record.shapeSize});
                }
            }
        }
    }
    return layout;
}

bool HasBuilderLayout(const Model& model)
{
    try {
        const Model rebuilt = Assembled(DescribeModel(model, {.positions = false}));
        return rebuilt.bytes.size() == model.bytes.size() && rebuilt.tables == model.tables &&
               rebuilt.constants == model.constants && LayoutOf(rebuilt) == LayoutOf(model);
    } catch (const std::runtime_error&) {
        return false;
    }
}

// What `actual` has where the two differ. Differences a few bytes apart become one region.
ordered_json DifferingRegions(std::span<const std::byte> actual, std::span<const std::byte> described)
{
    constexpr size_t kApart = 16;
    ordered_json regions = ordered_json::array();
    for (size_t i = 0; i < actual.size(); ++i) {
        if (actual[i] == described[i]) {
            continue;
        }
        size_t end = i + 1;
        for (size_t next = end; next < std::min(actual.size(), end + kApart); ++next) {
            end = actual[next] != described[next] ? next + 1 : end;
        }
        regions.push_back({{"offset", i}, {"hex", HexOf(actual.subspan(i, end - i))}});
        i = end - 1;
    }
    return regions;
}

bool SameDescription(const Model& a, const Model& b)
{
    return a.inputs == b.inputs && a.outputs == b.outputs && a.scratchSize == b.scratchSize &&
           a.maxBatch == b.maxBatch && a.tables == b.tables && a.constants == b.constants;
}

// The manifest that the text kept, unless the text was changed since.
std::string ManifestFor(const JsonFields& fields, const Model& model, const std::string& buffer)
{
    if (fields.Optional(fields.Root(), "manifest") != nullptr) {
        const std::string kept = fields.Text(fields.Root(), "", "manifest");
        try {
            if (SameDescription(ParseModel({fields.File(), fields.File()}, kept, buffer), model)) {
                return kept;
            }
        } catch (const FileError&) {
        }
    }
    return ManifestText(model);
}

}  // namespace

ordered_json FloatToJson(float value)
{
    if (!std::isfinite(value)) {
        uint32_t bits;
        std::memcpy(&bits, &value, sizeof(bits));
        std::string text = "0x";
        for (int shift = 28; shift >= 0; shift -= 4) {
            text += kHexDigits[bits >> shift & 15];
        }
        return text;
    }
    // The shortest digits, unless rounding them twice, to f64 and then to f32, leads elsewhere.
    char digits[32];
    *std::to_chars(digits, digits + sizeof(digits) - 1, value).ptr = '\0';
    const double shortest = std::strtod(digits, nullptr);
    return static_cast<float>(shortest) == value ? shortest : static_cast<double>(value);
}

ordered_json FieldToJson(const AttributeField& field, std::span<const std::byte> block)
{
    if (field.offset + field.size > block.size()) {
        return nullptr;
    }
    const std::span<const std::byte> bytes = block.subspan(field.offset, field.size);
    if (field.type == FieldType::kText) {
        const std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return AsciiOf(text.substr(0, text.find('\0')));
    }
    if (field.type == FieldType::kBytes) {
        return HexOf(bytes.first(SizeWithoutZeros(bytes)));
    }
    if (!field.isArray) {
        return EntryToJson(field, bytes);
    }
    ordered_json list = ordered_json::array();
    for (size_t at = 0; at < SizeWithoutZeros(bytes); at += EntrySize(field)) {
        list.push_back(EntryToJson(field, bytes.subspan(at)));
    }
    return list;
}

ordered_json DescribeModel(const Model& model, const DescribeOptions& options)
{
    return Describer(model, options).Run();
}

std::string DisassembleModel(const Model& model, const std::string& manifest)
{
    ordered_json text = DescribeModel(model, {.positions = !HasBuilderLayout(model)});
    if (ordered_json raw = DifferingRegions(model.bytes.Span(), Assembled(text).bytes.Span()); !raw.empty()) {
        text["raw"] = std::move(raw);
    }
    if (manifest != ManifestText(model)) {
        text["manifest"] = manifest;
    }
    return JsonText(text);
}

AssembledModel AssembleModel(const std::filesystem::path& file, const std::string& text)
{
    const JsonFields fields(file, text);
    AssembledModel assembled;
    try {
        assembled.model = Assembler(fields).Run();
    } catch (const BuildError& error) {
        fields.Fail(error.what());
    }
    const std::string buffer(reinterpret_cast<const char*>(assembled.model.bytes.data()), assembled.model.bytes.size());
    // What cannot be loaded is not written.
    ParseModel({file, file}, ManifestText(assembled.model), buffer);
    assembled.manifest = ManifestFor(fields, assembled.model, buffer);
    return assembled;
}

}  // namespace opkit::modelkit
