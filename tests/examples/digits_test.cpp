// The digits demo as a program: what it accepts, and everything that has to make it fail. Also the C example, and that
// the pages show both as they are.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <string>

#include "modelkit/model_file.h"
#include "tests/examples/example_program.h"

namespace {

namespace fs = std::filesystem;
using namespace opkit::modelkit;
using namespace opkit::test;
using testing::HasSubstr;

const fs::path kData = kRoot / "examples/digits/data";

// A copy of the demo's data that a test may spoil.
class DigitsDemo : public testing::Test {
protected:
    void SetUp() override { fs::copy(kData, folder_, fs::copy_options::recursive); }

    Outcome Demo(const std::string& options = "") const
    {
        return RunProgram(std::string(OPKIT_DIGITS) + " --data '" + folder_.string() + "' " + options);
    }

    const TemporaryFolder temporary_;
    const fs::path folder_ = temporary_.Path();
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

TEST(HelloExample, ItsPageShowsItAsItIs)
{
    const fs::path page = kRoot / "examples/c/README.md";
    EXPECT_EQ(FencedBlock(page, "examples/c/hello.c`:"), ReadText(kRoot / "examples/c/hello.c"));
    EXPECT_EQ(FencedBlock(page, "\nprints\n"), RunProgram(OPKIT_HELLO).text);
}

TEST(Readme, ShowsTheDemosRealOutput)
{
    const std::string shown = FencedBlock(kRoot / "README.md", "`script/demo` prints ends with");
    const std::string printed = RunProgram(OPKIT_DIGITS).text;
    constexpr char kLeftOut[] = "...\n";
    size_t from = 0;
    for (size_t begin = 0, end; begin < shown.size(); begin = end + sizeof(kLeftOut) - 1) {
        end = std::min(shown.find(kLeftOut, begin), shown.size());
        const std::string part = shown.substr(begin, end - begin);
        EXPECT_GT(part.size(), 200u);
        from = printed.find(part, from);
        ASSERT_NE(from, std::string::npos) << part << "\n--- is not in this order in\n" << printed;
        EXPECT_TRUE(from == 0 || printed[from - 1] == '\n');
    }
}

}  // namespace
