// opkit inspect

#include <fmt/core.h>
#include <map>
#include <memory>

#include "modelkit/json_fields.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/model_text.h"
#include "tools/command.h"
#include "tools/inspect_dot.h"
#include "tools/inspect_json.h"
#include "tools/layer_names.h"
#include "tools/report_header.h"
#include "tools/scratch_map.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::ordered_json;

constexpr size_t kLineWidth = 110;

struct Options {
    std::string model;
    bool json = false;
    bool dot = false;
};

// "a, b, c", broken into lines of which the later ones are indented.
std::string Wrapped(const std::vector<std::string>& words, size_t indent)
{
    std::string text;
    size_t column = indent;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i] + (i + 1 < words.size() ? "," : "");
        if (i != 0 && column + 1 + word.size() > kLineWidth) {
            text += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (i != 0) {
            text += ' ';
            ++column;
        }
        text += word;
        column += word.size();
    }
    return text;
}

class TextReport {
public:
    explicit TextReport(const Model& model) : model_(model)
    {
        for (const ModelConstant& constant : model.constants) {
            constantAt_.try_emplace(constant.offset, &constant);
        }
    }

    void Print() const
    {
        fmt::print("scratch {} bytes; batched tensors have room for {} item{}\n", model_.scratchSize, model_.maxBatch,
                   model_.maxBatch == 1 ? "" : "s");
        PrintSpecs("inputs", model_.inputs);
        PrintSpecs("outputs", model_.outputs);
        PrintConstants();
        for (size_t t = 0; t < model_.tables.size(); ++t) {
            PrintTable(t);
        }
    }

private:
    static void PrintSpecs(const char* title, const std::vector<TensorSpec>& specs)
    {
        fmt::print("\n{}\n", title);
        for (size_t i = 0; i < specs.size(); ++i) {
            fmt::print("  {:>3}  {:<16} {:<18} stride {}\n", i, Printable(specs[i].name), ShapeText(specs[i].shape),
                       specs[i].strideBytes);
        }
    }

    void PrintConstants() const
    {
        fmt::print("\nconstants\n");
        for (const ModelConstant& constant : model_.constants) {
            fmt::print("  {:<20} {:<18} {} bytes at byte {}\n", Printable(constant.name), ShapeText(constant.shape),
                       ElementCount(constant.shape) * sizeof(float), constant.offset);
        }
    }

    void PrintTable(size_t index) const
    {
        const ModelTable& table = model_.tables[index];
        const ReadTable read = ReadLayerTable(model_, index);
        fmt::print("\nsegment {} ({}): {} layers, table of {} bytes at byte {}{}\n", table.segmentId,
                   Printable(table.name), read.layers.size(), table.layerTableSize, table.layerTableOffset,
                   table.next ? fmt::format(", then segment {}", *table.next) : "");
        for (size_t i = 0; i < read.layers.size(); ++i) {
            PrintLayer(i, read.layers[i]);
        }
        PrintScratch(MapScratch(read, model_.maxBatch));
    }

    void PrintLayer(size_t index, const ReadLayer& layer) const
    {
        fmt::print("  layer {}  {}  id {}\n", index, ShortName(layer.name), layer.record.layerId);
        size_t online = 0;
        size_t offline = 0;
        for (size_t k = 0; k < layer.flags.size(); ++k) {
            if (layer.flags[k] == '1') {
                PrintOffline(k, layer.offline[offline++]);
            } else if (online < layer.inputs.size()) {
                PrintTensor("in", k, layer.inputs[online++], model_.inputs);
            }
        }
        for (size_t i = 0; i < layer.outputs.size(); ++i) {
            PrintTensor("out", i, layer.outputs[i], model_.outputs);
        }
        if (layer.record.bufSize != 0) {
            fmt::print("    {:<6} scratch {} to {}\n", "work", layer.record.bufOffset,
                       uint64_t{layer.record.bufOffset} + layer.record.bufSize);
        }
        PrintAttributes(layer);
    }

    static void PrintTensor(const char* side, size_t index, const ReadTensor& tensor,
                            const std::vector<TensorSpec>& specs)
    {
        const TensorRecord& record = tensor.record;
        const bool request = record.memKind <= OPKIT_MEM_REQUEST_1;
        std::string place;
        std::string stride = fmt::format("stride {}", record.strideIndex);
        if (request) {
            place = record.memIndex < specs.size() ? Printable(specs[record.memIndex].name)
                                                   : fmt::format("request tensor {}", record.memIndex);
            stride = record.strideIndex < specs.size() ? fmt::format("stride {}", specs[record.strideIndex].strideBytes)
                                                       : fmt::format("stride of tensor {}", record.strideIndex);
        } else {
            place = fmt::format("scratch {} to {}{}", record.memIndex, uint64_t{record.memIndex} + record.size,
                                record.memKind == OPKIT_MEM_SCRATCH_BATCHED ? " per item" : "");
        }
        fmt::print("    {:<6} {:<28} {:<18} {}\n", fmt::format("{} {}", side, index), place, ShapeText(tensor.shape),
                   stride);
    }

    void PrintOffline(size_t k, const ReadOffline& offline) const
    {
        const auto found = constantAt_.find(offline.dataOffset);
        const std::string name = found == constantAt_.end() ? "" : " " + Printable(found->second->name);
        fmt::print("    {:<6} {:<28} {:<18} at byte {}\n", fmt::format("in {}", k), "constant" + name,
                   ShapeText(offline.shape), offline.dataOffset);
    }

    void PrintAttributes(const ReadLayer& layer) const
    {
        const AttributeRecord* const record = FindAttributeRecord(layer.name);
        if (record == nullptr) {
            fmt::print("    not in the operator table\n");
            return;
        }
        const auto block = model_.bytes.Span().subspan(layer.attrOffset, layer.record.attrSize);
        std::vector<std::string> words;
        for (const AttributeField& field : record->fields) {
            const ordered_json value = FieldToJson(field, block);
            if (value.is_null()) {
                words.push_back(fmt::format("{} beyond the block", field.name));
            } else if (field.type != FieldType::kStrides) {
                words.push_back(fmt::format("{} {}", field.name, ValueText(value)));
            }
        }
        if (!words.empty()) {
            fmt::print("    {:<6} {}\n", "attr", Wrapped(words, 11));
        }
    }

    static std::string ValueText(const ordered_json& value)
    {
        if (value.is_string()) {
            return Printable(value.get<std::string>());
        }
        std::string text = value.dump();
        for (size_t at = 0; (at = text.find(',', at)) != std::string::npos; at += 2) {
            text.insert(at + 1, 1, ' ');
        }
        return text;
    }

    void PrintScratch(const ScratchMap& map) const
    {
        if (map.uses.empty()) {
            return;
        }
        fmt::print("\n  {:>10} {:>10} {:>10}  {:<9} scratch\n", "begin", "end", "bytes", "layers");
        for (const ScratchUse& use : map.uses) {
            fmt::print("  {:>10} {:>10} {:>10}  {:<9} {}\n", use.begin, use.end, use.end - use.begin,
                       fmt::format("{}-{}", use.firstLayer, use.lastLayer), use.what);
        }
        fmt::print("  peak {} bytes at layer {}; {} of {} bytes reached{}\n", map.peakBytes, map.peakLayer, map.reach,
                   model_.scratchSize, map.reach > model_.scratchSize ? ", which is TOO MANY" : "");
        for (const ScratchOverlap& overlap : map.overlaps) {
            fmt::print("  {} and {} share bytes {} to {}{}\n", map.uses[overlap.first].what,
                       map.uses[overlap.second].what, overlap.begin, overlap.end,
                       overlap.inPlace ? ": in place" : " while both are in use");
        }
        if (map.moreOverlaps) {
            fmt::print("  and more share bytes; {} are shown\n", map.overlaps.size());
        }
    }

    const Model& model_;
    std::map<uint32_t, const ModelConstant*> constantAt_;  // the first one at an offset
};

int Inspect(const Options& options)
{
    const Model model = LoadModel(options.model);
    if (options.json) {
        fmt::print("{}", JsonText(InspectionJson(model)));
    } else if (options.dot) {
        fmt::print("{}", DotOf(model));
    } else {
        PrintEnvironment();
        PrintModelLine(options.model, model);
        TextReport(model).Print();
    }
    return kSuccess;
}

}  // namespace

Action SetUpInspect(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->required()->type_name("");
    auto* const json = app.add_flag("--json", options->json, "for programs");
    app.add_flag("--dot", options->dot, "as a graph for dot")->excludes(json);
    app.footer("Example:\n  opkit inspect digits");
    return [options] { return Inspect(*options); };
}

}  // namespace opkit::tools
