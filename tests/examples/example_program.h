// Runs the example programs as a user would: by a shell line, in the project's root.
#ifndef OPKIT_TESTS_EXAMPLES_EXAMPLE_PROGRAM_H
#define OPKIT_TESTS_EXAMPLES_EXAMPLE_PROGRAM_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace opkit::test {

inline const std::filesystem::path kRoot = OPKIT_SOURCE_DIR;

struct Outcome {
    int status = -1;
    std::string text;  // standard output and standard error
};

inline Outcome RunProgram(const std::string& command)
{
    Outcome outcome;
    FILE* pipe = popen(("cd '" + kRoot.string() + "' && " + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return outcome;
    }
    char part[4096];
    for (size_t length; (length = fread(part, 1, sizeof part, pipe)) > 0;) {
        outcome.text.append(part, length);
    }
    const int status = pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

inline std::string ReadText(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline void WriteText(const std::filesystem::path& file, const std::string& text)
{
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

// The first fenced block of a page behind the line that holds `marker`.
inline std::string FencedBlock(const std::filesystem::path& page, const std::string& marker)
{
    const std::string text = ReadText(page);
    const size_t line = text.find(marker);
    EXPECT_NE(line, std::string::npos) << marker;
    const size_t fence = text.find("\n```", line);
    const size_t begin = text.find('\n', fence + 1) + 1;
    return text.substr(begin, text.find("\n```", begin) + 1 - begin);
}

// A directory of the test's own.
class TemporaryFolder {
public:
    TemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "opkit-example-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }

    const std::filesystem::path& Path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace opkit::test

#endif  // OPKIT_TESTS_EXAMPLES_EXAMPLE_PROGRAM_H
