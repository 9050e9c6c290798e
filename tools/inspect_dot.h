// A model as a graph for dot.
#ifndef OPKIT_TOOLS_INSPECT_DOT_H
#define OPKIT_TOOLS_INSPECT_DOT_H

#include <string>

#include "modelkit/model.h"

namespace opkit::tools {

// Layers are boxes, a cluster per segment; tensors are the edges. Dashed edges are jumps between segments.
std::string DotOf(const modelkit::Model& model);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_INSPECT_DOT_H
