#include "tools/inspect_dot.h"

#include <fmt/core.h>
#include <map>

#include "tools/layer_names.h"
#include "tools/model_graph.h"

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

class Graph {
public:
    explicit Graph(const Model& model) : model_(model), tables_(ReadTables(model))
    {
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
        for (uint32_t t = 0; t < tables_.size(); ++t) {
            Cluster(t);
        }
        for (const GraphEdge& edge : EdgesOf(model_, tables_)) {
            Edge(edge);
        }
        return text_ + "}\n";
    }

private:
    static std::string Layer(uint32_t table, uint32_t layer) { return fmt::format("t{}l{}", table, layer); }

    void Ends(const char* side, const std::vector<TensorSpec>& tensors)
    {
        for (size_t i = 0; i < tensors.size(); ++i) {
            text_ += fmt::format("  {}{} [shape=ellipse, label={}];\n", side, i, Quoted(tensors[i].name));
        }
    }

    void Cluster(uint32_t t)
    {
        const ModelTable& table = model_.tables[t];
        text_ += fmt::format("  subgraph cluster{} {{\n    label={};\n", t,
                             Quoted(fmt::format("segment {} ({})", table.segmentId, table.name)));
        for (uint32_t i = 0; i < tables_[t].layers.size(); ++i) {
            text_ += fmt::format("    {} [label={}];\n", Layer(t, i),
                                 Quoted(fmt::format("{} {}", i, ShortName(tables_[t].layers[i].name))));
        }
        text_ += "  }\n";
    }

    // A constant is drawn anew for each layer that uses it.
    std::string Node(const GraphNode& node)
    {
        switch (node.kind) {
            case GraphNode::Kind::kInput:
                return fmt::format("in{}", node.index);
            case GraphNode::Kind::kOutput:
                return fmt::format("out{}", node.index);
            case GraphNode::Kind::kLayer:
                return Layer(node.table, node.index);
            case GraphNode::Kind::kConstant:
                break;
        }
        const std::string name = fmt::format("c{}", constants_++);
        text_ += fmt::format("  {} [shape=note, fontsize=10, label={}];\n", name, Quoted(ConstantAt(node.index)));
        return name;
    }

    std::string ConstantAt(uint32_t offset) const
    {
        const auto found = constantAt_.find(offset);
        return found != constantAt_.end() ? found->second->name : fmt::format("byte {}", offset);
    }

    void Edge(const GraphEdge& edge)
    {
        const std::string from = Node(edge.from);
        text_ += fmt::format("  {} -> {} [{}label={}];\n", from, Node(edge.to), edge.jump ? "style=dashed, " : "",
                             Quoted(edge.label));
    }

    const Model& model_;
    std::vector<ReadTable> tables_;
    std::string text_;
    size_t constants_ = 0;
    std::map<uint32_t, const ModelConstant*> constantAt_;  // the first one at an offset
};

}  // namespace

std::string DotOf(const Model& model)
{
    return Graph(model).Write();
}

}  // namespace opkit::tools
