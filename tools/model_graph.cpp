#include "tools/model_graph.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

#include "modelkit/attribute_fields.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using Kind = GraphNode::Kind;

// Who wrote the bytes of the scratch last.
class Writers {
public:
    void Add(const ReadLayer& layer, const GraphNode& node)
    {
        for (const ReadTensor& output : layer.outputs) {
            const TensorRecord& record = output.record;
            if (record.memKind > OPKIT_MEM_REQUEST_1) {
                Paint(record.memIndex, uint64_t{record.memIndex} + std::max(record.size, 1U), node);
            }
        }
    }
    // Null where nobody wrote.
    const GraphNode* At(uint32_t offset) const
    {
        auto next = pieces_.upper_bound(offset);
        return next == pieces_.begin() || (--next)->second.end <= offset ? nullptr : &next->second.node;
    }

private:
    struct Piece {
        uint64_t end;
        GraphNode node;
    };

    void Paint(uint64_t begin, uint64_t end, const GraphNode& node)
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

class EdgeFinder {
public:
    EdgeFinder(const Model& model, const std::vector<ReadTable>& tables) : model_(model), tables_(tables)
    {
        for (uint32_t t = 0; t < tables.size(); ++t) {
            for (uint32_t i = 0; i < tables[t].layers.size(); ++i) {
                anywhere_.Add(tables[t].layers[i], {Kind::kLayer, t, i});
            }
            if (!tables[t].layers.empty()) {
                tableOf_.try_emplace(model.tables[t].segmentId, t);
            }
        }
    }

    std::vector<GraphEdge> Find()
    {
        for (uint32_t t = 0; t < tables_.size(); ++t) {
            const auto layerCount = static_cast<uint32_t>(tables_[t].layers.size());
            inTable_ = {};
            for (uint32_t i = 0; i < layerCount; ++i) {
                Tensors(t, i);
                Jumps(t, i);
                inTable_.Add(tables_[t].layers[i], {Kind::kLayer, t, i});
            }
            if (model_.tables[t].next && layerCount != 0) {
                Jump({Kind::kLayer, t, layerCount - 1}, *model_.tables[t].next, "next");
            }
        }
        return std::move(edges_);
    }

private:
    void Tensors(uint32_t t, uint32_t i)
    {
        const ReadLayer& layer = tables_[t].layers[i];
        const GraphNode here = {Kind::kLayer, t, i};
        for (const ReadTensor& input : layer.inputs) {
            if (const std::optional<GraphNode> source = SourceOf(input.record)) {
                edges_.push_back({*source, here, ShapeText(input.shape)});
            }
        }
        for (const ReadOffline& offline : layer.offline) {
            edges_.push_back({{Kind::kConstant, 0, offline.dataOffset}, here, ShapeText(offline.shape)});
        }
        for (const ReadTensor& output : layer.outputs) {
            if (output.record.memKind <= OPKIT_MEM_REQUEST_1) {
                edges_.push_back({here, {Kind::kOutput, 0, output.record.memIndex}, ShapeText(output.shape)});
            }
        }
    }

    // The layer that wrote what a layer reads: the latest one before it in its table, else the last one anywhere.
    std::optional<GraphNode> SourceOf(const TensorRecord& record) const
    {
        if (record.memKind <= OPKIT_MEM_REQUEST_1) {
            return GraphNode{Kind::kInput, 0, record.memIndex};
        }
        const GraphNode* const before = inTable_.At(record.memIndex);
        const GraphNode* const anywhere = before == nullptr ? anywhere_.At(record.memIndex) : before;
        return anywhere == nullptr ? std::nullopt : std::optional(*anywhere);
    }

    // Attributes that hold segment ids say so by their names.
    void Jumps(uint32_t t, uint32_t i)
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
                Jump({Kind::kLayer, t, i}, segment, field.name);
            }
        }
    }

    void Jump(const GraphNode& from, uint32_t segment, std::string_view label)
    {
        if (const auto found = tableOf_.find(segment); found != tableOf_.end()) {
            edges_.push_back({from, {Kind::kLayer, found->second, 0}, std::string(label), true});
        }
    }

    const Model& model_;
    const std::vector<ReadTable>& tables_;
    std::vector<GraphEdge> edges_;
    std::map<uint32_t, uint32_t> tableOf_;  // the first one of a segment that has layers
    Writers anywhere_;
    Writers inTable_;  // of the layers before the one in hand
};

}  // namespace

std::vector<ReadTable> ReadTables(const Model& model)
{
    std::vector<ReadTable> tables;
    for (size_t t = 0; t < model.tables.size(); ++t) {
        tables.push_back(ReadLayerTable(model, t));
    }
    return tables;
}

std::vector<GraphEdge> EdgesOf(const Model& model, const std::vector<ReadTable>& tables)
{
    return EdgeFinder(model, tables).Find();
}

}  // namespace opkit::tools
