// docs/tools.md, the man page and --help keep up with the program: every command shown is run, and what it prints is
// what the page shows.

#include <cctype>
#include <regex>
#include <sstream>

#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::test;
namespace fs = std::filesystem;

std::string TextOf(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The compiler and the processor are other ones elsewhere; with `times`, so is every number, and columns move.
std::string Comparable(const std::string& line, bool times)
{
    if (line.starts_with("opkit   ")) {
        return line.substr(0, line.find(','));
    }
    if (!times) {
        return line;
    }
    return std::regex_replace(std::regex_replace(line, std::regex("[0-9]+(\\.[0-9]+)?"), "#"), std::regex(" +"), " ");
}

// "..." on the page stands for any number of lines.
bool Matches(const std::vector<std::string>& shown, size_t i, const std::vector<std::string>& actual, size_t j,
             bool times)
{
    if (i == shown.size()) {
        return j == actual.size();
    }
    if (shown[i] == "...") {
        return Matches(shown, i + 1, actual, j, times) ||
               (j < actual.size() && Matches(shown, i, actual, j + 1, times));
    }
    return j < actual.size() && Comparable(shown[i], times) == Comparable(actual[j], times) &&
           Matches(shown, i + 1, actual, j + 1, times);
}

class ToolsPage : public ToolTest {
protected:
    ToolsPage()
    {
        const fs::path data = fs::path(OPKIT_SOURCE_DIR) / "examples/digits/data";
        fs::copy_file(data / "digits.json", At("digits.json"));
        fs::copy_file(data / "digits.bin", At("digits.bin"));
        const std::string images = TextOf(data / "images.npy");
        const size_t header = 10 + static_cast<unsigned char>(images[8]) + 256U * static_cast<unsigned char>(images[9]);
        std::vector<float> pixels;
        for (size_t i = header; i < images.size(); ++i) {
            pixels.push_back(static_cast<float>(static_cast<unsigned char>(images[i])) / 16);
        }
        WriteNpy("pixels.npy", "(" + std::to_string(pixels.size() / 64) + ", 8, 8)", pixels);
    }

    void Check(const std::string& command, const std::vector<std::string>& shown, bool times)
    {
        const ToolResult result = Shell(command);
        EXPECT_TRUE(Matches(shown, 0, LinesOf(result.out + result.err), 0, times)) << "$ " << command << "\n"
                                                                                   << result.out << result.err;
        ++commands_;
    }

    int commands_ = 0;
};

TEST_F(ToolsPage, ShowsWhatTheProgramPrints)
{
    std::string command;
    std::vector<std::string> shown;
    bool inside = false;
    bool times = false;
    for (const std::string& line : LinesOf(TextOf(fs::path(OPKIT_SOURCE_DIR) / "docs/tools.md"))) {
        const bool ends = inside && line == "```";
        if (inside && (ends || line.starts_with("$ ")) && !command.empty()) {
            Check(command, shown, times);
            command.clear();
        }
        if (inside && line.starts_with("$ ")) {
            command = line.substr(2);
            shown.clear();
        } else if (inside) {
            shown.push_back(line);
        }
        if (line.starts_with("```console")) {
            inside = true;
            times = line == "```console times";
        }
        inside = inside && !ends;
    }
    EXPECT_GT(commands_, 14);
}

// The lines behind "Example:" in a subcommand's help.
std::vector<std::string> ExamplesOf(const std::string& help)
{
    std::vector<std::string> examples;
    const size_t at = help.find("\nExample:\n");
    for (const std::string& line : LinesOf(at == std::string::npos ? "" : help.substr(at + 10))) {
        if (line.starts_with("  opkit ")) {
            examples.push_back(line.substr(2));
        }
    }
    return examples;
}

std::vector<std::string> Subcommands(const std::string& help)
{
    std::vector<std::string> names;
    bool listed = false;
    for (const std::string& line : LinesOf(help)) {
        if (listed && line.starts_with("  ") && std::isalpha(line[2]) != 0) {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        listed = listed || line == "Subcommands:";
    }
    return names;
}

TEST_F(ToolsPage, HelpShowsExamplesThatWork)
{
    std::vector<std::string> names = Subcommands(Good("--help"));
    EXPECT_GE(names.size(), 4u);
    std::sort(names.rbegin(), names.rend());  // disassemble makes what assemble reads
    std::stable_sort(names.begin(), names.end(),
                     [](const auto& a, const auto& b) { return (a == "assemble") < (b == "assemble"); });
    for (const std::string& name : names) {
        const std::vector<std::string> examples = ExamplesOf(Good(name + " --help"));
        EXPECT_FALSE(examples.empty()) << name;
        for (const std::string& example : examples) {
            const ToolResult result = Shell(example);
            EXPECT_EQ(result.code, 0) << example << "\n" << result.err;
        }
    }
}

TEST_F(ToolsPage, ManPageHasEveryCommandAndOption)
{
    std::string manual = TextOf(fs::path(OPKIT_SOURCE_DIR) / "tools/opkit.1");
    manual = std::regex_replace(manual, std::regex("\\\\-"), "-");
    for (const std::string& name : Subcommands(Good("--help"))) {
        EXPECT_NE(manual.find("opkit " + name), std::string::npos) << name;
        const std::string help = Good(name + " --help");
        const std::regex option("--[a-z-]+");
        for (std::sregex_iterator match(help.begin(), help.end(), option), end; match != end; ++match) {
            EXPECT_NE(manual.find(match->str()), std::string::npos) << name << " " << match->str();
        }
    }
}

}  // namespace
