// Who reads what from whom in a model, and which segment leads to which.
#ifndef OPKIT_TOOLS_MODEL_GRAPH_H
#define OPKIT_TOOLS_MODEL_GRAPH_H

#include <string>
#include <vector>

#include "modelkit/model_reader.h"

namespace opkit::tools {

struct GraphNode {
    enum class Kind { kInput, kLayer, kConstant, kOutput };
    Kind kind = Kind::kLayer;
    uint32_t table = 0;  // of a layer
    uint32_t index = 0;  // layer in its table, request tensor, or a constant's place in the model buffer
};

struct GraphEdge {
    GraphNode from;
    GraphNode to;
    std::string label;  // the tensor's shape, or what makes the jump
    bool jump = false;  // leads to another segment
};

std::vector<modelkit::ReadTable> ReadTables(const modelkit::Model& model);

// Layer by layer in the order of the tables: what each reads, what it writes for the request, where it jumps to.
std::vector<GraphEdge> EdgesOf(const modelkit::Model& model, const std::vector<modelkit::ReadTable>& tables);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_MODEL_GRAPH_H
