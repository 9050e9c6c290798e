// The detection example: the boxes, the picture, and that any other box fails.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/examples/example_program.h"

namespace {

namespace fs = std::filesystem;
using namespace opkit::test;
using testing::HasSubstr;
using testing::StartsWith;

// A copy of the scene that a test may spoil.
class DetectionExample : public testing::Test {
protected:
    void SetUp() override { fs::copy(kRoot / "examples/detection/data", folder_); }

    Outcome Detect() const
    {
        return RunProgram(std::string(OPKIT_DETECTION) + " --data '" + folder_.string() + "' --picture '" +
                          Picture().string() + "'");
    }
    fs::path Picture() const { return folder_ / "boxes.ppm"; }
    void Replace(const char* name, const std::string& from, const std::string& to) const
    {
        std::string text = ReadText(folder_ / name);
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        WriteText(folder_ / name, text.replace(at, from.size(), to));
    }

    const TemporaryFolder temporary_;
    const fs::path folder_ = temporary_.Path();
};

TEST_F(DetectionExample, FindsTheBoxesAsItsPageShows)
{
    const Outcome outcome = Detect();
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_THAT(outcome.text, HasSubstr("as expected: 5 boxes, 5 expected"));
    EXPECT_THAT(outcome.text, StartsWith(FencedBlock(kRoot / "examples/detection/README.md", "\nprints\n")));
}

// 160 by 120 pixels at scale 4. The best box of class 0 begins at 10.986, 18.478: 44, 74 in the picture.
TEST_F(DetectionExample, DrawsThePicture)
{
    ASSERT_EQ(Detect().status, 0);
    const std::string picture = ReadText(Picture());
    const std::string header = "P6\n640 480\n255\n";
    ASSERT_THAT(picture, StartsWith(header));
    ASSERT_EQ(picture.size(), header.size() + 640 * 480 * 3);
    const auto pixel = [&](size_t x, size_t y) { return picture.substr(header.size() + (y * 640 + x) * 3, 3); };
    EXPECT_EQ(pixel(43, 100), "\x1e\x1e\x1e");  // outside
    EXPECT_EQ(pixel(44, 100), "\xff\xaa\x28");  // frame of class 0, three pixels wide
    EXPECT_EQ(pixel(46, 74), "\xff\xaa\x28");
    EXPECT_EQ(pixel(412, 100), "\x46\xbe\xff");  // frame of class 1, at 102.995
    EXPECT_EQ(pixel(60, 100), "\x5a\x3c\x14");   // an object of class 0
    EXPECT_EQ(pixel(20, 400), "\x6e\x6e\x6e");   // a proposal that came to nothing, at 5
    EXPECT_EQ(pixel(639, 479), "\x1e\x1e\x1e");
}

TEST_F(DetectionExample, AnotherBoxFails)
{
    Replace("expected.csv", "10.9862", "10.9892");
    Outcome outcome = Detect();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("not as expected"));
    EXPECT_THAT(outcome.text, HasSubstr("FAILED: 5 boxes, 5 expected"));

    Replace("expected.csv", "10.9892", "10.9862");
    EXPECT_EQ(Detect().status, 0);
    Replace("expected.csv", "1,102.9946", "0,102.9946");  // another class
    EXPECT_EQ(Detect().status, 1);
}

TEST_F(DetectionExample, AMissingOrAdditionalBoxFails)
{
    const std::string expected = ReadText(folder_ / "expected.csv");
    WriteText(folder_ / "expected.csv", expected + "1,1,2,3,4,0.5\n");
    EXPECT_THAT(Detect().text, HasSubstr("FAILED: 5 boxes, 6 expected"));
    WriteText(folder_ / "expected.csv", expected.substr(0, expected.rfind('\n', expected.size() - 2) + 1));
    const Outcome outcome = Detect();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("FAILED: 5 boxes, 4 expected"));
}

// The stages decide by the data: with another score another box wins, and below the threshold none does.
TEST_F(DetectionExample, OtherScoresGiveOtherBoxes)
{
    Replace("proposals.csv", ",0.94,0.23", ",0.77,0.23");  // the second best of its object has 0.78
    Outcome outcome = Detect();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("    0   0.78"));
    EXPECT_THAT(outcome.text, testing::Not(HasSubstr("0.77")));
    Replace("proposals.csv", ",0.77,0.23", ",0.29,0.23");
    EXPECT_THAT(Detect().text, HasSubstr("  filter          8        6\n"));
}

TEST_F(DetectionExample, FilesThatAreNoTablesFail)
{
    Replace("proposals.csv", "5,80,24,109", "5,80,24,1o9");
    EXPECT_THAT(Detect().text, HasSubstr("proposals.csv: \"1o9\" is no number"));
    Replace("proposals.csv", "5,80,24,1o9", "5,80,24");
    EXPECT_THAT(Detect().text, HasSubstr("has not 14 columns"));
    WriteText(folder_ / "proposals.csv", "");
    EXPECT_THAT(Detect().text, HasSubstr("FAILED: "));
    fs::remove(folder_ / "proposals.csv");
    EXPECT_EQ(Detect().status, 1);
}

}  // namespace
