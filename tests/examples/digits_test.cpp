// The digits demo as a program: what it accepts, and everything that has to make it fail. Also the C example, and that
// the README shows both as they are.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "modelkit/model_file.h"

namespace {

namespace fs = std::filesystem;
using namespace opkit::modelkit;
using testing::HasSubstr;

const fs::path kRoot = OPKIT_SOURCE_DIR;
const fs::path kData = kRoot / "examples/digits/data";

struct Outcome {
    int status = -1;
    std::string text;  // standard output and standard error
};

Outcome RunProgram(const std::string& command)
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

std::string ReadText(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

void WriteText(const fs::path& file, const std::string& text)
{
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

// A copy of the demo's data that a test may spoil.
class DigitsDemo : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = (fs::temp_directory_path() / "opkit-digits-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
        fs::copy(kData, folder_, fs::copy_options::recursive);
    }
    void TearDown() override { fs::remove_all(folder_); }

    Outcome Demo(const std::string& options = "") const
    {
        return RunProgram(std::string(OPKIT_DIGITS) + " --data '" + folder_.string() + "' " + options);
    }

    fs::path folder_;
};

TEST_F(DigitsDemo, RecognisesTheHeldOutImages)
{
    const Outcome outcome = Demo();
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_THAT(outcome.text, HasSubstr("accuracy 98.33 %: 354 of 360"));
    EXPECT_THAT(outcome.text, HasSubstr("3600 logits agree"));
    EXPECT_THAT(outcome.text, HasSubstr("Convolution"));
    EXPECT_THAT(outcome.text, testing::Not(HasSubstr("FAILED")));
}

TEST_F(DigitsDemo, AnyBatchSizeGivesTheSameResult)
{
    for (const char* batch : {"1", "7", "180", "256"}) {
        const Outcome outcome = Demo(std::string("--batch ") + batch);
        EXPECT_EQ(outcome.status, 0) << outcome.text;
        EXPECT_THAT(outcome.text, HasSubstr("354 of 360"));
    }
    EXPECT_NE(Demo("--batch 0").status, 0);
    EXPECT_NE(Demo("--batch 257").status, 0);
}

TEST_F(DigitsDemo, WrongLabelsFailTheAccuracy)
{
    std::string labels = ReadText(folder_ / "labels.npy");
    for (size_t image = 0; image < 10; ++image) {
        char& label = labels[labels.size() - 4 * (image + 1)];
        label = static_cast<char>((label + 1) % 10);
    }
    WriteText(folder_ / "labels.npy", labels);
    const Outcome outcome = Demo();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("FAILED: the accuracy is below 97 %"));
}

TEST_F(DigitsDemo, AFileThatEndsEarlyFails)
{
    for (const char* name : {"labels.npy", "images.npy", "logits.npy"}) {
        const std::string whole = ReadText(folder_ / name);
        WriteText(folder_ / name, whole.substr(0, whole.size() - 1));
        const Outcome outcome = Demo();
        EXPECT_EQ(outcome.status, 1) << name;
        EXPECT_THAT(outcome.text, HasSubstr(std::string(name) + ": ends before its last element"));
        WriteText(folder_ / name, "no array");
        EXPECT_EQ(Demo().status, 1) << name;
        fs::remove(folder_ / name);
        EXPECT_EQ(Demo().status, 1) << name;
        WriteText(folder_ / name, whole);
    }
    EXPECT_EQ(Demo().status, 0);
}

TEST_F(DigitsDemo, ADamagedModelFileIsRefused)
{
    std::string buffer = ReadText(folder_ / "digits.bin");
    buffer[100] = static_cast<char>(buffer[100] ^ 1);
    WriteText(folder_ / "digits.bin", buffer);
    const Outcome outcome = Demo();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("CRC-32"));
}

TEST_F(DigitsDemo, OneAlteredWeightFailsTheLogits)
{
    Model model = LoadModel(folder_ / "digits");
    for (const ModelConstant& constant : model.constants) {
        float& weight = model.bytes.At<float>(constant.offset);
        const float before = weight;
        weight += 0.01f;
        SaveModel(model, folder_ / "digits");
        weight = before;
        const Outcome outcome = Demo();
        EXPECT_EQ(outcome.status, 1) << constant.name;
        EXPECT_THAT(outcome.text, HasSubstr("FAILED: logit")) << constant.name;
    }
}

TEST_F(DigitsDemo, TheModelComesFromTheWeights)
{
    fs::remove(folder_ / "digits.json");
    fs::remove(folder_ / "digits.bin");
    const Outcome outcome = RunProgram(std::string(OPKIT_MAKE_MODEL) + " --data '" + folder_.string() + "'");
    ASSERT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_TRUE(ReadText(folder_ / "digits.bin") == ReadText(kData / "digits.bin"));
    EXPECT_EQ(ReadText(folder_ / "digits.json"), ReadText(kData / "digits.json"));
}

TEST(HelloExample, ReadsItsDigit)
{
    const Outcome outcome = RunProgram(OPKIT_HELLO);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_THAT(outcome.text, testing::StartsWith("That is a 3 (score "));
    EXPECT_EQ(RunProgram(std::string(OPKIT_HELLO) + " README.md").status, 1);
}

// The fenced block of README.md that follows the line `marker`.
std::string ReadmeBlock(const std::string& marker)
{
    const std::string readme = ReadText(kRoot / "README.md");
    const size_t line = readme.find(marker);
    EXPECT_NE(line, std::string::npos) << marker;
    const size_t fence = readme.find("\n```", line);
    const size_t begin = readme.find('\n', fence + 1) + 1;
    return readme.substr(begin, readme.find("\n```", begin) + 1 - begin);
}

TEST(Readme, ShowsTheCExampleAsItIs)
{
    EXPECT_EQ(ReadmeBlock("examples/c/hello.c`:"), ReadText(kRoot / "examples/c/hello.c"));
    EXPECT_EQ(ReadmeBlock("It prints"), RunProgram(OPKIT_HELLO).text);
}

// Cuts out what differs from run to run: the number before " us", and the spaces before it.
std::string WithoutTimes(std::string text)
{
    for (size_t at = 0; (at = text.find(" us\n", at + 1)) != std::string::npos;) {
        const size_t begin = text.find_last_not_of(" 0123456789.", at) + 1;
        text.erase(begin, at - begin);
        at = begin;
    }
    return text;
}

TEST(Readme, ShowsTheDemosRealOutput)
{
    const std::string shown = ReadmeBlock("`script/demo` ends with");
    EXPECT_EQ(WithoutTimes(shown), WithoutTimes(RunProgram(OPKIT_DIGITS).text));
}

}  // namespace
