// The pages keep up with the files: excerpts stand in the file that they name, and links lead somewhere.

#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <regex>
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
std::string WithoutSpace(const std::string& text)
{
    return std::regex_replace(text, std::regex("\\s+"), "");
}

// A fenced block whose paragraph before it ends with "`file`:" is an excerpt of that file.
TEST(Pages, ExcerptsStandInTheirFiles)
{
    const std::string page = ReadText(kRoot / "CONTRIBUTING.md");
    const std::regex excerpt("`([\\w./]+)`:\n\n```\\w+\n((?:(?!```)[^\n]*\n)*)```\n");
    size_t count = 0;
    for (std::sregex_iterator match(page.begin(), page.end(), excerpt), end; match != end; ++match, ++count) {
        const std::string file = (*match)[1];
        EXPECT_NE(WithoutSpace(ReadText(kRoot / file)).find(WithoutSpace((*match)[2])), std::string::npos)
            << file << "\n"
            << (*match)[2];
    }
    EXPECT_EQ(count, 8u);
}

TEST(Pages, LinksLeadSomewhere)
{
    std::vector<fs::path> pages = {kRoot / "README.md", kRoot / "CONTRIBUTING.md"};
    for (const fs::directory_entry& entry : fs::directory_iterator(kRoot / "docs")) {
        if (entry.path().extension() == ".md") {
            pages.push_back(entry.path());
        }
    }
    const std::regex link("\\]\\(([\\w./-]+)(#[\\w-]+)?\\)");
    size_t count = 0;
    for (const fs::path& page : pages) {
        const std::string text = ReadText(page);
        for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match, ++count) {
            EXPECT_TRUE(fs::exists(page.parent_path() / (*match)[1].str())) << page << " links to " << (*match)[1];
        }
    }
    EXPECT_GT(count, 8u);
}

}  // namespace
