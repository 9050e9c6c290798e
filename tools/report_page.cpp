#include "tools/report_page.h"

#include <algorithm>
#include <stdexcept>

namespace opkit::tools {
namespace {

constexpr std::string_view kTemplate = "template.html";
constexpr std::string_view kData = "data";

std::string_view ContentOf(std::string_view name)
{
    const std::span<const PageFile> files = PageFiles();
    const auto found =
        std::find_if(files.begin(), files.end(), [&](const PageFile& file) { return file.name == name; });
    if (found == files.end()) {
        throw std::logic_error("the page has no file " + std::string(name));
    }
    return found->content;
}

}  // namespace

std::string ScriptJson(const nlohmann::ordered_json& data)
{
    using nlohmann::ordered_json;
    const std::string text = data.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    std::string escaped;
    for (const char c : text) {  // in JSON, '<' only stands in texts
        escaped += c == '<' ? "\\u003c" : std::string(1, c);
    }
    return escaped;
}

// In the template, {{name}} stands for the file of that name, and {{data}} for the data.
std::string ReportPage(const nlohmann::ordered_json& data)
{
    std::string page;
    std::string_view rest = ContentOf(kTemplate);
    for (size_t at = 0; (at = rest.find("{{")) != std::string_view::npos;) {
        const size_t end = rest.find("}}", at);
        const std::string_view name = rest.substr(at + 2, end - at - 2);
        page += rest.substr(0, at);
        if (name == kData) {
            page += ScriptJson(data);
        } else {
            page += ContentOf(name);
        }
        rest.remove_prefix(end + 2);
    }
    return page.append(rest);
}

}  // namespace opkit::tools
