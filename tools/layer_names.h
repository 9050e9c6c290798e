// How reports name layers.
#ifndef OPKIT_TOOLS_LAYER_NAMES_H
#define OPKIT_TOOLS_LAYER_NAMES_H

#include <string>

namespace opkit::tools {

// "Gemm" for "GemmOpkitForward"; bytes that are no printable ASCII show as '?'.
inline std::string ShortName(const std::string& operatorName)
{
    std::string name = operatorName.substr(0, operatorName.find("OpkitForward"));
    for (char& c : name) {
        c = c >= ' ' && c <= '~' ? c : '?';
    }
    return name;
}

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_LAYER_NAMES_H
