// The pages keep up with the files: excerpts stand in the file that they name, and links lead somewhere.

#include <gtest/gtest.h>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = OPKIT_SOURCE_DIR;

std::string ReadText(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Line breaks and indentation do not count.
std::string WithoutSpace(std::string text)
{
    std::erase_if(text, [](unsigned char letter) { return std::isspace(letter) != 0; });
    return text;
}

// A fenced block whose paragraph before it ends with "`file`:" is an excerpt of that file.
TEST(Pages, ExcerptsStandInTheirFiles)
{
    const std::string page = ReadText(kRoot / "CONTRIBUTING.md");
    const std::string mark = "`:\n\n```";
    size_t count = 0;
    for (size_t at = 0; (at = page.find(mark, at)) != std::string::npos; ++count) {
        const size_t name = page.rfind('`', at - 1) + 1;
        const size_t begin = page.find('\n', at + mark.size());
        const size_t end = page.find("\n```", begin);
        const std::string file = page.substr(name, at - name);
        const std::string excerpt = page.substr(begin, end - begin);
        EXPECT_NE(WithoutSpace(ReadText(kRoot / file)).find(WithoutSpace(excerpt)), std::string::npos)
            << file << excerpt;
        at = end;
    }
    EXPECT_EQ(count, 10u);
}

TEST(Pages, LinksLeadSomewhere)
{
    std::vector<fs::path> pages = {kRoot / "README.md", kRoot / "CONTRIBUTING.md", kRoot / "python/README.md"};
    for (const fs::directory_entry& entry : fs::directory_iterator(kRoot / "docs")) {
        if (entry.path().extension() == ".md") {
            pages.push_back(entry.path());
        }
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(kRoot / "examples")) {
        if (fs::exists(entry.path() / "README.md")) {
            pages.push_back(entry.path() / "README.md");
        }
    }
    size_t count = 0;
    for (const fs::path& page : pages) {
        const std::string text = ReadText(page);
        for (size_t at = 0; (at = text.find("](", at)) != std::string::npos;) {
            at += 2;
            const std::string target = text.substr(at, text.find_first_of("#) ", at) - at);
            if (target.find("://") != std::string::npos || text[at + target.size()] == ' ') {
                continue;  // a web page, or C++
            }
            EXPECT_TRUE(fs::exists(page.parent_path() / target)) << page << " links to " << target;
            ++count;
        }
    }
    EXPECT_GT(count, 8u);
}

// What the first page shows of the program stands in a page whose commands are run.
TEST(Pages, ReadmeShowsWhatGettingStartedRuns)
{
    const std::string readme = ReadText(kRoot / "README.md");
    const std::string session = ReadText(kRoot / "docs/getting-started.md");
    const std::string mark = "\n```console\n";
    const size_t begin = readme.find(mark) + mark.size();
    const std::string block = readme.substr(begin, readme.find("```", begin) - begin);
    ASSERT_EQ(block.find("$ "), 0u);
    size_t count = 0;
    for (size_t at = 0, next; at < block.size(); at = next, ++count) {
        next = block.find("\n$ ", at) + 1;
        next = next == 0 ? block.size() : next;
        const std::string part = block.substr(at, next - at);
        EXPECT_NE(session.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(count, 2u);
}

}  // namespace
