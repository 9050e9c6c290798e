// docs/tools.md, the man page and --help keep up with the program: every command shown is run, and what it prints is
// what the page shows.

#include <cctype>
#include <regex>
#include <sstream>

#include "tests/support/console_page.h"
#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::test;
namespace fs = std::filesystem;

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
};

TEST_F(ToolsPage, ShowsWhatTheProgramPrints)
{
    int count = 0;
    for (const PageBlock& block : BlocksOf(TextOf(fs::path(OPKIT_SOURCE_DIR) / "docs/tools.md"))) {
        if (!block.kind.starts_with("console")) {
            continue;
        }
        for (const PageCommand& command : CommandsOf(block)) {
            const ToolResult result = Shell(command.command);
            EXPECT_TRUE(ShowsOutput(command.shown, result.out + result.err, block.kind == "console times"))
                << "$ " << command.command << "\n"
                << result.out << result.err;
            ++count;
        }
    }
    EXPECT_GT(count, 14);
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
