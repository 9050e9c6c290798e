// The floors of the code: an include leads downwards or stays on its floor, and so does a call. docs/overview.md draws
// them. The operator table is the one file that reaches up, by the public declarations of the operators.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = OPKIT_SOURCE_DIR;

// What may be included besides the folder's own files; "opkit" stands for include/opkit.
const std::map<std::string, std::vector<std::string>> kMayInclude = {
    {"include", {"opkit"}},
    {"common", {"opkit"}},
    {"kernels", {"opkit", "common"}},
    {"runtime", {"opkit", "common", "kernels"}},
    {"ops", {"opkit", "common", "kernels", "runtime"}},
    {"modelkit", {"opkit"}},
    {"examples", {"opkit", "modelkit"}},
};

// ops/matrix/gemm.cpp stands in "ops/matrix", kernels/gemm.cpp in "kernels".
std::string FolderOf(const fs::path& file)
{
    auto part = file.begin();
    std::string folder = part->string();
    if (folder == "ops" || folder == "examples") {
        folder += "/" + (++part)->string();
    }
    return folder;
}

std::string FirstPart(const std::string& folder)
{
    return folder.substr(0, folder.find('/'));
}

bool MayInclude(const std::string& folder, const std::string& included)
{
    const std::string target = FolderOf(included);
    if (target == folder || included.find('/') == std::string::npos) {
        return true;  // its own folder
    }
    const std::vector<std::string>& allowed = kMayInclude.at(FirstPart(folder));
    return std::find(allowed.begin(), allowed.end(), FirstPart(target)) != allowed.end();
}

TEST(Floors, IncludesLeadDownwards)
{
    const std::regex include("^ *# *include \"([^\"]+)\"");
    size_t count = 0;
    for (const auto& [top, allowed] : kMayInclude) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kRoot / top)) {
            const std::string extension = entry.path().extension();
            if (extension != ".h" && extension != ".cpp" && extension != ".c") {
                continue;
            }
            const fs::path file = fs::relative(entry.path(), kRoot);
            std::ifstream stream(entry.path());
            for (std::string line; std::getline(stream, line);) {
                std::smatch match;
                if (std::regex_search(line, match, include)) {
                    EXPECT_TRUE(MayInclude(FolderOf(file), match[1])) << file << " includes " << match[1];
                    ++count;
                }
            }
        }
    }
    EXPECT_GT(count, 400u);
}

std::string OutputOf(const std::string& command)
{
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string text;
    std::array<char, 65536> buffer;
    for (size_t length = 0; (length = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;) {
        text.append(buffer.data(), length);
    }
    return text;
}

// Calls visit(source file, symbol type, symbol) for every symbol of the library's objects.
template <class Visit>
void ForEachSymbol(Visit visit)
{
    std::istringstream lines(OutputOf("nm -A -P " OPKIT_LIBRARY_OBJECTS));
    const std::regex entry(R"(^.*\.dir/([^:]+)\.o: (\S+) (\w))");
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_search(line, match, entry)) {
            visit(fs::path(match[1].str()).lexically_normal(), match[3].str()[0], match[2].str());
        }
    }
}

int FloorOf(const std::string& folder)
{
    static const std::map<std::string, int> floors = {{"common", 0}, {"kernels", 1}, {"runtime", 2}, {"ops", 3}};
    return floors.at(FirstPart(folder));
}

TEST(Floors, CallsLeadDownwards)
{
    std::map<std::string, std::string> home;  // of a symbol: the folder that defines it
    ForEachSymbol([&](const fs::path& file, char type, const std::string& symbol) {
        if (std::string("TDBRVW").find(type) != std::string::npos) {
            home.emplace(symbol, FolderOf(file));
        }
    });
    size_t count = 0;
    ForEachSymbol([&](const fs::path& file, char type, const std::string& symbol) {
        const auto found = home.find(symbol);
        if (type != 'U' || found == home.end() || file == "runtime/operator_table.cpp") {
            return;
        }
        const std::string from = FolderOf(file);
        EXPECT_TRUE(FloorOf(found->second) < FloorOf(from) || found->second == from)
            << file << " calls " << symbol << " of " << found->second;
        ++count;
    });
    EXPECT_GT(count, 300u);
}

}  // namespace
