#include "modelkit/text/assemble.h"

#include <algorithm>
#include <unordered_map>

#include "modelkit/model_builder.h"
#include "modelkit/model_text.h"
#include "modelkit/model_writer.h"
#include "modelkit/text/values.h"

namespace opkit::modelkit::text {
namespace {

using nlohmann::json;

// Turns the text into plans for the model writer. A piece lies where its field says, or else where the writer puts it,
// as the model builder would have it.
class Assembler {
public:
    explicit Assembler(const JsonFields& fields) : fields_(fields) {}

    Model Run()
    {
        const json& root = fields_.Root();
        fields_.CheckFormat(kModelTextFormat, kModelTextVersion);
        RequireFields(fields_);
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
            if (size < writer_.Size() || size > OPKIT_MAX_MODEL_SIZE) {
                fields_.Fail("field bufferSize is " + std::to_string(size) + ", but the model takes " +
                             std::to_string(writer_.Size()) + " bytes, at most 1 GiB");
            }
            writer_.Resize(size);
        }
        model_.bytes = writer_.Finish();
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

    std::optional<uint32_t> MaybeNumber(const json& object, const std::string& path, const char* name) const
    {
        return fields_.Optional(object, name) != nullptr ? std::optional(fields_.Number(object, path, name))
                                                         : std::nullopt;
    }

    // Where `size` bytes are to lie, if the text says so.
    Place PlaceOf(const json& entry, const std::string& path, const char* name, uint64_t size, uint32_t base = 0) const
    {
        const Place place = MaybeNumber(entry, path, name);
        if (place && uint64_t{base} + *place + size > OPKIT_MAX_MODEL_SIZE) {
            fields_.Fail("field " + path + name + ": the model ends beyond 1 GiB");
        }
        return place;
    }

    std::vector<std::byte> DataOf(const json& entry, const std::string& path, const Shape& shape) const
    {
        const json& data = fields_.List(entry, path, "data");
        if (data.size() != ElementCount(shape)) {
            fields_.Fail("field " + path + "data has " + std::to_string(data.size()) + " elements, the shape " +
                         ShapeText(shape) + " has " + std::to_string(ElementCount(shape)));
        }
        return FloatsFromJson(fields_, data, path + "data");
    }

    void Constant(const json& entry, const std::string& path)
    {
        const Shape shape = fields_.Dimensions(entry, path);
        const std::vector<std::byte> data = DataOf(entry, path, shape);
        const uint32_t offset =
            writer_.Reserve(data.size(), Buffer::kAlignment, PlaceOf(entry, path, "offset", data.size()));
        writer_.PutBytes(offset, data);
        const std::string name = fields_.Text(entry, path, "name");
        constants_.try_emplace(name, model_.constants.size());
        model_.constants.push_back({name, offset, shape});
    }

    void Table(const json& entry, const std::string& path)
    {
        const json& layers = fields_.List(entry, path, "layers");
        if (layers.size() > OPKIT_MAX_LAYERS) {
            fields_.Fail("field " + path + "layers has " + std::to_string(layers.size()) + " entries, at most 128");
        }
        base_ = writer_.BeginTable(static_cast<uint32_t>(layers.size()),
                                   PlaceOf(entry, path, "layerTableOffset", 4 + layers.size() * 4));
        ForEach(entry, path, "layers", [this](const json& layer, const std::string& layerPath) {
            writer_.WriteLayer(Layer(layer, layerPath));
        });
        const auto size = static_cast<uint32_t>(writer_.Size()) - base_;
        model_.tables.push_back({fields_.Number(entry, path, "segmentId"), fields_.Text(entry, path, "name"), base_,
                                 MaybeNumber(entry, path, "layerTableSize").value_or(size),
                                 MaybeNumber(entry, path, "next")});
    }

    LayerPlan Layer(const json& entry, const std::string& path) const
    {
        LayerPlan plan;
        plan.name = fields_.Text(entry, path, "operator");
        plan.record.layerId = fields_.Number(entry, path, "layerId");
        plan.record.bufOffset = MaybeNumber(entry, path, "bufOffset").value_or(0);
        plan.record.bufSize = MaybeNumber(entry, path, "bufSize").value_or(0);
        plan.record.attrSize = MaybeNumber(entry, path, "attrSize").value_or(kAttrBlockBytes);
        if (plan.record.attrSize < sizeof(LayerAttrHead)) {
            fields_.Fail("field " + path + "attrSize is below " + std::to_string(sizeof(LayerAttrHead)));
        }
        plan.nameSize = MaybeNumber(entry, path, "nameSize");
        const uint64_t nameSize = plan.nameSize.value_or(plan.name.size() + 1);
        if (nameSize <= plan.name.size()) {
            fields_.Fail("field " + path + "nameSize leaves no room for the name and its end");
        }
        plan.inputs = Tensors(entry, path, "inputs");
        plan.outputs = Tensors(entry, path, "outputs");
        const auto place = [&](const char* name, uint64_t size) { return PlaceOf(entry, path, name, size, base_); };
        plan.layerOffset = place("layerOffset", sizeof(LayerRecord));
        plan.nameOffset = place("nameOffset", nameSize);
        plan.inputTableOffset = place("inputTableOffset", plan.inputs.size() * sizeof(TensorRecord));
        plan.outputTableOffset = place("outputTableOffset", plan.outputs.size() * sizeof(TensorRecord));
        plan.attrOffset = place("attrOffset", plan.record.attrSize);
        AddHead(entry, path, &plan);
        AddAttributes(entry, path, &plan);
        return plan;
    }

    std::vector<TensorPlan> Tensors(const json& layer, const std::string& layerPath, const char* side) const
    {
        std::vector<TensorPlan> tensors;
        ForEach(layer, layerPath, side, [&](const json& entry, const std::string& path) {
            TensorPlan& tensor = tensors.emplace_back();
            tensor.record.memKind = fields_.Number(entry, path, "memKind");
            tensor.record.memIndex = fields_.Number(entry, path, "memIndex");
            tensor.record.size = fields_.Number(entry, path, "size");
            tensor.record.strideIndex = fields_.Number(entry, path, "strideIndex");
            tensor.shape = fields_.Dimensions(entry, path);
            tensor.shapeSize = MaybeNumber(entry, path, "shapeSize");
            tensor.shapeOffset = PlaceOf(entry, path, "shapeOffset", tensor.shape.size() * sizeof(uint32_t), base_);
        });
        return tensors;
    }

    void AddHead(const json& layer, const std::string& layerPath, LayerPlan* plan) const
    {
        const std::string flags = fields_.Text(layer, layerPath, "flags");
        if (flags.size() > OPKIT_MAX_LAYER_INPUTS) {
            fields_.Fail("field " + layerPath + "flags has more than 80 characters");
        }
        std::copy(flags.begin(), flags.end(), plan->head.inputFlags);
        uint32_t count = 0;
        if (fields_.Optional(layer, "offline") != nullptr) {
            ForEach(layer, layerPath, "offline", [&](const json& entry, const std::string& path) {
                if (count == OPKIT_MAX_LAYER_INPUTS) {
                    fields_.Fail("field " + layerPath + "offline has more than 80 entries");
                }
                AddOffline(entry, path, count++, plan);
            });
        }
        plan->head.offlineInputNum = MaybeNumber(layer, layerPath, "offlineInputNum").value_or(count);
    }

    void AddOffline(const json& entry, const std::string& path, uint32_t j, LayerPlan* plan) const
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
            plan->constants.push_back({offset, DataOf(entry, path, shape)});
            PlaceOf(entry, path, "offset", plan->constants.back().bytes.size());
        }
        plan->head.offlineOffset[j] = static_cast<int32_t>(offset);
        std::copy(shape.begin(), shape.end(), plan->head.offlineShape[j].dims);
        plan->head.offlineShape[j].dimNum = static_cast<uint32_t>(shape.size());
    }

    const ModelConstant& NamedConstant(const std::string& name, const std::string& path) const
    {
        const auto found = constants_.find(name);
        if (found == constants_.end()) {
            fields_.Fail("field " + path + "constant: there is no constant \"" + name + "\"");
        }
        return model_.constants[found->second];
    }

    void AddAttributes(const json& layer, const std::string& layerPath, LayerPlan* plan) const
    {
        const json* const attributes = fields_.Optional(layer, "attributes");
        if (attributes == nullptr) {
            return;
        }
        if (!attributes->is_object()) {
            fields_.Fail("field " + layerPath + "attributes is not an object");
        }
        const AttributeRecord* const record = FindAttributeRecord(plan->name);
        if (record == nullptr) {
            fields_.Fail("field " + layerPath + "operator: the library has no operator \"" + plan->name +
                         "\", so its attributes are unknown");
        }
        for (const auto& [name, value] : attributes->items()) {
            const std::string path = layerPath + "attributes." + name;
            const AttributeField& field = FieldNamed(*record, name, path);
            if (field.offset + field.size > plan->record.attrSize) {
                fields_.Fail("field " + path + " lies beyond attrSize");
            }
            plan->attributes.push_back({field.offset, FieldFromJson(fields_, field, value, path)});
        }
    }

    const AttributeField& FieldNamed(const AttributeRecord& record, std::string_view name,
                                     const std::string& path) const
    {
        std::string names;
        for (const AttributeField& field : record.fields) {
            if (field.name == name) {
                return field;
            }
            names += (names.empty() ? "" : ", ") + std::string(field.name);
        }
        fields_.Fail("field " + path + " is no attribute of the layer's operator, which has " +
                     (names.empty() ? "none" : names));
    }

    void Raw(const json& entry, const std::string& path)
    {
        const std::string hex = fields_.Text(entry, path, "hex");
        const std::vector<std::byte> bytes = HexFromJson(fields_, hex, path + "hex", hex.size() / 2);
        writer_.PutBytes(writer_.Reserve(bytes.size(), 1, PlaceOf(entry, path, "offset", bytes.size())), bytes);
    }

    const JsonFields& fields_;
    Model model_;
    std::unordered_map<std::string, size_t> constants_;  // of several of one name the first
    ModelWriter writer_;
    uint32_t base_ = 0;  // of the table
};

}  // namespace

Model Assemble(const JsonFields& fields)
{
    return Assembler(fields).Run();
}

}  // namespace opkit::modelkit::text
