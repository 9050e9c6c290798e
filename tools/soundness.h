// What opkit check says about a run before it begins.
#ifndef OPKIT_TOOLS_SOUNDNESS_H
#define OPKIT_TOOLS_SOUNDNESS_H

#include <filesystem>
#include <vector>

#include "modelkit/model.h"

namespace opkit::tools {

// Throws ToolError for a model that could take the program with it: one that is refused for that batch, or accepted
// under a condition that a run cannot keep to by itself. Returns the LoopAttr records, by their place in the model
// buffer, whose preset condition the run must put back before the loop begins anew.
std::vector<uint32_t> RequireSound(const std::filesystem::path& path, const modelkit::Model& model, uint32_t batch);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_SOUNDNESS_H
