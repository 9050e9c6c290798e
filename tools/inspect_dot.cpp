#include "tools/inspect_dot.h"

#include <fmt/core.h>
#include <cstring>
#include <optional>

#include "modelkit/attribute_fields.h"
#include "modelkit/model_reader.h"
#include "modelkit/segment_runner.h"
#include "tools/layer_names.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' || c == '\\' ? "\\" : "";
        quoted += c;
    }
    return quoted + "\"";
}

class Graph {
public:
    explicit Graph(const Model& model) : model_(model)
    {
        for (size_t t = 0; t < model.tables.size(); ++t) {
            tables_.push_back(ReadLayerTable(model, t));
        }
    }

    std::string Write()
    {
        text_ =
            "digraph model {\n  node [shape=box, fontname=\"sans-serif\"];\n"
            "  edge [fontname=\"sans-serif\", fontsize=10];\n";
        Ends("in", model_.inputs);
        Ends("out", model_.outputs);
        for (size_t t = 0; t < tables_.size(); ++t) {
            Cluster(t);
        }
        for (size_t t = 0; t < tables_.size(); ++t) {
            for (size_t i = 0; i < tables_[t].layers.size(); ++i) {
                Tensors(t, i);
                Jumps(t, i);
            }
            if (model_.tables[t].next && !tables_[t].layers.empty()) {
                Jump(Node(t, tables_[t].layers.size() - 1), *model_.tables[t].next, "next");
            }
        }
        return text_ + "}\n";
    }

private:
    static std::string Node(size_t table, size_t layer) { return fmt::format("t{}l{}", table, layer); }

    void Edge(const std::string& from, const std::string& to, const std::string& label)
    {
        text_ += fmt::format("  {} -> {} [label={}];\n", from, to, Quoted(label));
    }

    void Ends(const char* side, const std::vector<TensorSpec>& tensors)
    {
        for (size_t i = 0; i < tensors.size(); ++i) {
            text_ += fmt::format("  {}{} [shape=ellipse, label={}];\n", side, i, Quoted(tensors[i].name));
        }
    }

    void Cluster(size_t t)
    {
        const ModelTable& table = model_.tables[t];
        text_ += fmt::format("  subgraph cluster{} {{\n    label={};\n", t,
                             Quoted(fmt::format("segment {} ({})", table.segmentId, table.name)));
        for (size_t i = 0; i < tables_[t].layers.size(); ++i) {
            text_ += fmt::format("    {} [label={}];\n", Node(t, i),
                                 Quoted(fmt::format("{} {}", i, ShortName(tables_[t].layers[i].name))));
        }
        text_ += "  }\n";
    }

    void Tensors(size_t t, size_t i)
    {
        const ReadLayer& layer = tables_[t].layers[i];
        for (const ReadTensor& input : layer.inputs) {
            if (const std::optional<std::string> source = SourceOf(t, i, input.record)) {
                Edge(*source, Node(t, i), ShapeText(input.shape));
            }
        }
        for (const ReadOffline& offline : layer.offline) {
            const std::string name = fmt::format("c{}", constants_++);
            text_ += fmt::format("  {} [shape=note, fontsize=10, label={}];\n", name,
                                 Quoted(ConstantAt(offline.dataOffset)));
            Edge(name, Node(t, i), ShapeText(offline.shape));
        }
        for (const ReadTensor& output : layer.outputs) {
            if (output.record.memKind <= OPKIT_MEM_REQUEST_1) {
                Edge(Node(t, i), fmt::format("out{}", output.record.memIndex), ShapeText(output.shape));
            }
        }
    }

    std::string ConstantAt(uint32_t offset) const
    {
        for (const ModelConstant& constant : model_.constants) {
            if (constant.offset == offset) {
                return constant.name;
            }
        }
        return fmt::format("byte {}", offset);
    }

    // The layer that wrote what layer i reads: the latest one before it in its table, else the last one anywhere.
    std::optional<std::string> SourceOf(size_t t, size_t i, const TensorRecord& record) const
    {
        if (record.memKind <= OPKIT_MEM_REQUEST_1) {
            return fmt::format("in{}", record.memIndex);
        }
        for (size_t before = i; before-- > 0;) {
            if (Writes(tables_[t].layers[before], record.memIndex)) {
                return Node(t, before);
            }
        }
        for (size_t table = tables_.size(); table-- > 0;) {
            for (size_t layer = tables_[table].layers.size(); layer-- > 0;) {
                if (Writes(tables_[table].layers[layer], record.memIndex)) {
                    return Node(table, layer);
                }
            }
        }
        return std::nullopt;
    }

    static bool Writes(const ReadLayer& layer, uint32_t scratchOffset)
    {
        for (const ReadTensor& output : layer.outputs) {
            const TensorRecord& record = output.record;
            if (record.memKind > OPKIT_MEM_REQUEST_1 && record.memIndex <= scratchOffset &&
                scratchOffset - record.memIndex < std::max(record.size, 1U)) {
                return true;
            }
        }
        return false;
    }

    // Attributes that hold segment ids say so by their names.
    void Jumps(size_t t, size_t i)
    {
        const ReadLayer& layer = tables_[t].layers[i];
        const AttributeRecord* const record = FindAttributeRecord(layer.name);
        if (record == nullptr) {
            return;
        }
        for (const AttributeField& field : record->fields) {
            if (field.name.ends_with("SegId") && field.offset + field.size <= layer.record.attrSize) {
                uint32_t segment = 0;
                std::memcpy(&segment, model_.bytes.data() + layer.attrOffset + field.offset, sizeof(segment));
                Jump(Node(t, i), segment, field.name);
            }
        }
    }

    void Jump(const std::string& from, uint32_t segment, std::string_view label)
    {
        for (size_t t = 0; t < tables_.size(); ++t) {
            if (model_.tables[t].segmentId == segment && !tables_[t].layers.empty()) {
                text_ += fmt::format("  {} -> {} [style=dashed, label=\"{}\"];\n", from, Node(t, 0), label);
                return;
            }
        }
    }

    const Model& model_;
    std::vector<ReadTable> tables_;
    std::string text_;
    size_t constants_ = 0;
};

}  // namespace

std::string DotOf(const Model& model)
{
    return Graph(model).Write();
}

}  // namespace opkit::tools
