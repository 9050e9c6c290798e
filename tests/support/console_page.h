// Pages that show commands and what they print: lines of a fenced "console" block that begin with "$ " are commands,
// the lines below are their output, in which "..." stands for any number of lines. In "console times" blocks every
// number may be another one.
#ifndef OPKIT_TESTS_SUPPORT_CONSOLE_PAGE_H
#define OPKIT_TESTS_SUPPORT_CONSOLE_PAGE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace opkit::test {

inline std::string TextOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The compiler and the processor are other ones elsewhere; with `times`, so is every number, and columns move.
inline std::string Comparable(const std::string& line, bool times)
{
    if (line.starts_with("opkit   ")) {
        return line.substr(0, line.find(','));
    }
    if (!times) {
        return line;
    }
    return std::regex_replace(std::regex_replace(line, std::regex("[0-9]+(\\.[0-9]+)?"), "#"), std::regex(" +"), " ");
}

inline bool ShowsOutput(const std::vector<std::string>& shown, size_t i, const std::vector<std::string>& actual,
                        size_t j, bool times)
{
    if (i == shown.size()) {
        return j == actual.size();
    }
    if (shown[i] == "...") {
        return ShowsOutput(shown, i + 1, actual, j, times) ||
               (j < actual.size() && ShowsOutput(shown, i, actual, j + 1, times));
    }
    return j < actual.size() && Comparable(shown[i], times) == Comparable(actual[j], times) &&
           ShowsOutput(shown, i + 1, actual, j + 1, times);
}

inline bool ShowsOutput(const std::vector<std::string>& shown, const std::string& actual, bool times)
{
    return ShowsOutput(shown, 0, LinesOf(actual), 0, times);
}

// A fenced block, with the text between back-ticks in a paragraph before it that ends with a colon: a file's name.
struct PageBlock {
    std::string kind;  // what follows the fence: "sh", "console times"
    std::string file;
    std::vector<std::string> lines;
};

inline std::vector<PageBlock> BlocksOf(const std::string& page)
{
    std::vector<PageBlock> blocks;
    bool inside = false;
    std::string file;
    for (const std::string& line : LinesOf(page)) {
        if (line.starts_with("```")) {
            if (!inside) {
                blocks.push_back({line.substr(3), file, {}});
            }
            inside = !inside;
        } else if (inside) {
            blocks.back().lines.push_back(line);
        } else if (!line.empty()) {
            std::smatch match;
            file = std::regex_search(line, match, std::regex("`([^`]+)`:$")) ? match[1].str() : "";
        }
    }
    return blocks;
}

struct PageCommand {
    std::string command;
    std::vector<std::string> shown;
};

inline std::vector<PageCommand> CommandsOf(const PageBlock& block)
{
    std::vector<PageCommand> commands;
    for (const std::string& line : block.lines) {
        if (line.starts_with("$ ")) {
            commands.push_back({line.substr(2), {}});
        } else if (!commands.empty()) {
            commands.back().shown.push_back(line);
        }
    }
    return commands;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_CONSOLE_PAGE_H
