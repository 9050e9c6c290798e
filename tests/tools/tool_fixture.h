// Drives the built program in a directory of its own, on models written by modelkit.
#ifndef OPKIT_TESTS_TOOLS_TOOL_FIXTURE_H
#define OPKIT_TESTS_TOOLS_TOOL_FIXTURE_H

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "opkit/opkit.h"

namespace opkit::test {

struct ToolResult {
    int code = 0;
    std::string out;
    std::string err;
};

struct Npy {
    std::string header;
    std::vector<float> values;
};

class ToolTest : public testing::Test {
protected:
    ToolTest()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "opkit-tool-XXXXXX").string();
        directory_ = mkdtemp(pattern.data());
    }
    ~ToolTest() override { std::filesystem::remove_all(directory_); }

    std::filesystem::path At(const std::string& name) const { return directory_ / name; }

    std::string Read(const std::string& name) const
    {
        std::ifstream stream(At(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    void Write(const std::string& name, const std::string& content) const
    {
        std::ofstream(At(name), std::ios::binary) << content;
    }

    // Runs a shell line in the directory; "opkit" in it is the built program.
    ToolResult Shell(const std::string& line) const
    {
        const std::string command = "cd '" + directory_.string() + "' && PATH=\"" +
                                    std::filesystem::path(OPKIT_TOOL).parent_path().string() + ":$PATH\" && { " + line +
                                    "; } >.out 2>.err </dev/null";
        const int status = std::system(command.c_str());
        ToolResult result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(".out"), Read(".err")};
        std::filesystem::remove(At(".out"));
        std::filesystem::remove(At(".err"));
        return result;
    }
    ToolResult Tool(const std::string& arguments) const { return Shell("opkit " + arguments); }

    // Succeeds, with nothing on standard error.
    std::string Good(const std::string& arguments) const
    {
        const ToolResult result = Tool(arguments);
        EXPECT_EQ(result.code, 0) << arguments << "\n" << result.err;
        EXPECT_EQ(result.err, "") << arguments;
        return result.out;
    }

    // Fails with one line on standard error that holds all the texts, and leaves no new file behind.
    void Bad(const std::string& arguments, const std::vector<std::string>& texts) const
    {
        SCOPED_TRACE("opkit " + arguments);
        const auto before = Files();
        const ToolResult result = Tool(arguments);
        EXPECT_EQ(result.code, 1);
        EXPECT_THAT(result.err, testing::StartsWith("opkit: "));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        for (const std::string& text : texts) {
            EXPECT_THAT(result.err, testing::HasSubstr(text));
        }
        EXPECT_EQ(Files(), before);
    }

    std::vector<std::string> Files() const
    {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_)) {
            files.push_back(entry.path().string());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    // An .npy file, by the format's own description.
    void WriteNpy(const std::string& name, const std::string& shape, const std::vector<float>& values,
                  const std::string& descr = "<f4", const std::string& order = "False") const
    {
        std::string header = "{'descr': '" + descr + "', 'fortran_order': " + order + ", 'shape': " + shape + ", }";
        header.resize((10 + header.size() + 64) / 64 * 64 - 11, ' ');
        header += '\n';
        std::string content("\x93NUMPY\x01\x00", 8);
        content += static_cast<char>(header.size() & 0xff);
        content += static_cast<char>(header.size() >> 8);
        content += header;
        content.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
        Write(name, content);
    }
    Npy ReadNpy(const std::string& name) const
    {
        const std::string content = Read(name);
        Npy npy;
        if (content.size() < 10) {
            ADD_FAILURE() << name << " is no .npy file";
            return npy;
        }
        const size_t length = static_cast<unsigned char>(content[8]) + 256U * static_cast<unsigned char>(content[9]);
        npy.header = content.substr(10, length);
        npy.values.resize((content.size() - 10 - length) / sizeof(float));
        std::memcpy(npy.values.data(), content.data() + 10 + length, npy.values.size() * sizeof(float));
        EXPECT_EQ((10 + length) % 64, 0u);
        EXPECT_EQ((content.size() - 10 - length) % sizeof(float), 0u);
        return npy;
    }

    std::filesystem::path directory_;
};

}  // namespace opkit::test

#endif  // OPKIT_TESTS_TOOLS_TOOL_FIXTURE_H
