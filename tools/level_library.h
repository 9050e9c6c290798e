// The library once more, from the same object files, under names of its own: this copy's level can be chosen, which
// libopkit.so keeps to itself.
#ifndef OPKIT_TOOLS_LEVEL_LIBRARY_H
#define OPKIT_TOOLS_LEVEL_LIBRARY_H

#include <optional>
#include <string>

#include "kernels/level.h"
#include "opkit/opkit.h"

OPKIT_BEGIN_C
// OpkitForward at the level that opkit::OverrideLevel chose.
uint32_t OpkitForwardAtLevel(ForwardParam* param);
OPKIT_END_C

namespace opkit::tools {

// The level of that name, nothing for no name. Throws ToolError where the machine, which has `highest`, has it not.
std::optional<Level> ChooseLevel(const std::string& name, Level highest);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_LEVEL_LIBRARY_H
