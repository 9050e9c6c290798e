#include "tools/level_library.h"

#include <fmt/core.h>

#include "tools/command.h"

namespace opkit::tools {

std::optional<Level> ChooseLevel(const std::string& name, Level highest)
{
    constexpr const char* kNames[] = {"baseline", "avx2", "avx512"};
    for (int level = 0; level < 3; ++level) {
        if (name != kNames[level]) {
            continue;
        }
        if (level > static_cast<int>(highest)) {
            throw ToolError(
                fmt::format("--level {}: this machine has no more than {}", name, kNames[static_cast<int>(highest)]));
        }
        return static_cast<Level>(level);
    }
    return std::nullopt;
}

}  // namespace opkit::tools
