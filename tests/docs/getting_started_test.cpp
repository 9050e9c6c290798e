// docs/getting-started.md from its first command to its last, in one shell: files are written as the page gives them,
// and commands print what it shows. Once with this build in place of the page's own, and once from a fresh copy of the
// sources, which builds everything.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/console_page.h"

namespace {

using namespace opkit::test;
namespace fs = std::filesystem;

const fs::path kRoot = OPKIT_SOURCE_DIR;

// What each command was, what it has to print, and where its output goes.
struct Expectation {
    std::string command;
    std::vector<std::string> shown;
    bool times = false;
    std::string output;
};

class GettingStarted : public testing::Test {
protected:
    GettingStarted()
    {
        std::string pattern = (fs::temp_directory_path() / "opkit-start-XXXXXX").string();
        home_ = mkdtemp(pattern.data());
        // The commands' python3 is one with numpy, whatever comes first on the path.
        fs::create_directory(home_ / ".bin");
        fs::create_symlink(OPKIT_PYTHON, home_ / ".bin/python3");
        script_ = "set -e\nunset LD_LIBRARY_PATH OPKIT_LIBRARY PYTHONPATH\nexport HOME='" + home_.string() +
                  "' PYTHONDONTWRITEBYTECODE=1 PATH='" + (home_ / ".bin").string() + "':$PATH\n";
    }
    ~GettingStarted() override { fs::remove_all(home_); }

    void Append(const std::string& command, const std::vector<std::string>& shown, bool times)
    {
        const std::string output = (home_ / (".output-" + std::to_string(expected_.size()))).string();
        expected_.push_back({command, shown, times, output});
        script_ += "{\n" + command + "\n} >'" + output + "' 2>&1 </dev/null\n";
    }

    // `sourceCommand` goes to the clone; commands that begin with a key of `instead` are replaced.
    void AppendPage(const std::string& sourceCommand,
                    const std::vector<std::pair<std::string, std::string>>& instead = {})
    {
        script_ += sourceCommand + "\n";
        for (const PageBlock& block : BlocksOf(TextOf(kRoot / "docs/getting-started.md"))) {
            if (block.kind.starts_with("console")) {
                for (const PageCommand& command : CommandsOf(block)) {
                    Append(command.command, command.shown, block.kind == "console times");
                }
            } else if (block.kind == "sh") {
                for (std::string line : block.lines) {
                    for (const auto& [begin, replacement] : instead) {
                        line = line.starts_with(begin) ? replacement + line.substr(begin.size()) : line;
                    }
                    Append(line, {"..."}, false);
                }
            } else {
                ASSERT_NE(block.file, "") << "a block of " << block.kind << " is of no file";
                script_ += "cat > '" + block.file + "' <<'END OF FILE'\n";
                for (const std::string& line : block.lines) {
                    script_ += line + "\n";
                }
                script_ += "END OF FILE\n";
            }
        }
    }

    void RunPage()
    {
        std::ofstream(home_ / ".script") << script_;
        const int status = std::system(("bash '" + (home_ / ".script").string() + "'").c_str());
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
        for (const Expectation& expectation : expected_) {
            ASSERT_TRUE(fs::exists(expectation.output)) << "did not get as far as\n$ " << expectation.command;
            const std::string output = TextOf(expectation.output);
            EXPECT_TRUE(ShowsOutput(expectation.shown, output, expectation.times))
                << "$ " << expectation.command << "\n"
                << output;
        }
        EXPECT_GT(expected_.size(), 25u);
    }

    fs::path home_;
    std::string script_;
    std::vector<Expectation> expected_;
};

TEST_F(GettingStarted, WorksWithThisBuild)
{
    AppendPage("cd '" + kRoot.string() + "'", {{"script/bootstrap", ":"},
                                               {"cmake -B build ", ": "},
                                               {"cmake --build build", ":"},
                                               {"cmake --install build ", "cmake --install '" OPKIT_BUILD_DIR "' "}});
    RunPage();
}

TEST_F(GettingStarted, WorksFromAFreshCopy)
{
    const fs::path copy = home_ / "clone";
    fs::create_directory(copy);
    for (const fs::directory_entry& entry : fs::directory_iterator(kRoot)) {
        const std::string name = entry.path().filename().string();
        if (name != ".git" && !name.starts_with("build")) {
            fs::copy(entry.path(), copy / name, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
    }
    AppendPage("cd '" + copy.string() + "'");
    RunPage();
}

}  // namespace
