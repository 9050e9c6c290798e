// One HTML page that needs nothing besides itself.
#ifndef OPKIT_TOOLS_REPORT_PAGE_H
#define OPKIT_TOOLS_REPORT_PAGE_H

#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

namespace opkit::tools {

// A file of tools/page, put into the program by the build.
struct PageFile {
    std::string_view name;
    std::string_view content;
};
std::span<const PageFile> PageFiles();

// The template with its styles, scripts and the data in their places.
std::string ReportPage(const nlohmann::ordered_json& data);

// JSON that can stand in a script element whatever its texts hold. What is no UTF-8 shows as the replacement character.
std::string ScriptJson(const nlohmann::ordered_json& data);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_REPORT_PAGE_H
