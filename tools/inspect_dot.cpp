#include "tools/inspect_dot.h"

#include <fmt/core.h>
#include <algorithm>
#include <cstring>
#include <map>
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
    for (const char c : modelkit::Printable(text)) {
        quoted += c == '"' || c == '\\' ? "\\" : "";
        quoted += c;
    }
    return quoted + "\"";
}

// Who wrote the bytes of the scratch last.
class Writers {
public:
    void Add(const ReadLayer& layer, const std::string& node)
    {
        for (const ReadTensor& output : layer.outputs) {
            const TensorRecord& record = output.record;
            if (record.memKind > OPKIT_MEM_REQUEST_1) {
                Paint(record.memIndex, uint64_t{record.memIndex} + std::max(record.size, 1U), node);
            }
        }
    }
    // Null where nobody wrote.
    const std::string* At(uint32_t offset) const
    {
        auto next = pieces_.upper_bound(offset);
        return next == pieces_.begin() || (--next)->second.end <= offset ? nullptr : &next->second.node;
    }

private:
    struct Piece {
        uint64_t end;
        std::string node;
    };

    void Paint(uint64_t begin, uint64_t end, const std::string& node)
    {
        Split(begin);
        Split(end);
        pieces_.erase(pieces_.lower_bound(begin), pieces_.lower_bound(end));
        pieces_[begin] = {end, node};
    }
    void Split(uint64_t at)
    {
        auto piece = pieces_.lower_bound(at);
        if (piece != pieces_.begin() && (--piece)->second.end > at) {
            pieces_[at] = piece->second;
            piece->second.end = at;
        }
    }

    std::map<uint64_t, Piece> pieces_;  // by begin; no two share bytes
};

class Graph {
public:
    explicit Graph(const Model& model) : model_(model)
    {
        for (size_t t = 0; t < model.tables.size(); ++t) {
            tables_.push_back(ReadLayerTable(model, t));
            for (size_t i = 0; i < tables_[t].layers.size(); ++i) {
                anywhere_.Add(tables_[t].layers[i], Node(t, i));
            }
            if (!tables_[t].layers.empty()) {
                tableOf_.try_emplace(model.tables[t].segmentId, t);
            }
        }
        for (const ModelConstant& constant : model.constants) {
            constantAt_.try_emplace(constant.offset, &constant);
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
            inTable_ = {};
            for (size_t i = 0; i < tables_[t].layers.size(); ++i) {
                Tensors(t, i);
                Jumps(t, i);
                inTable_.Add(tables_[t].layers[i], Node(t, i));
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
            if (const std::optional<std::string> source = SourceOf(input.record)) {
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
        const auto found = constantAt_.find(offset);
        return found != constantAt_.end() ? found->second->name : fmt::format("byte {}", offset);
    }

    // The layer that wrote what a layer reads: the latest one before it in its table, else the last one anywhere.
    std::optional<std::string> SourceOf(const TensorRecord& record) const
    {
        if (record.memKind <= OPKIT_MEM_REQUEST_1) {
            return fmt::format("in{}", record.memIndex);
        }
        const std::string* const before = inTable_.At(record.memIndex);
        const std::string* const anywhere = before == nullptr ? anywhere_.At(record.memIndex) : before;
        return anywhere == nullptr ? std::nullopt : std::optional(*anywhere);
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
        if (const auto found = tableOf_.find(segment); found != tableOf_.end()) {
            text_ += fmt::format("  {} -> {} [style=dashed, label=\"{}\"];\n", from, Node(found->second, 0), label);
        }
    }

    const Model& model_;
    std::vector<ReadTable> tables_;
    std::string text_;
    size_t constants_ = 0;
    std::map<uint32_t, const ModelConstant*> constantAt_;  // the first one at an offset
    std::map<uint32_t, size_t> tableOf_;                   // the first one of a segment that has layers
    Writers anywhere_;
    Writers inTable_;  // of the layers before the one in hand
};

}  // namespace

std::string DotOf(const Model& model)
{
    return Graph(model).Write();
}

}  // namespace opkit::tools
