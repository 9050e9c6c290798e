// The loop example: what it prints, how often the body runs, and that a loop cut short fails.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "modelkit/segment_runner.h"
#include "opkit/opkit.h"
#include "tests/examples/example_program.h"

namespace {

using namespace opkit::modelkit;
using namespace opkit::test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

TEST(LoopExample, ConvergesAsItsPageShows)
{
    const Outcome outcome = RunProgram(OPKIT_LOOP);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_THAT(outcome.text, EndsWith("converged: 26 passes, relative difference from sqrtf at most 2.4e-07\n"));
    EXPECT_EQ(outcome.text, FencedBlock(kRoot / "examples/loop/README.md", "\nprints\n"));
}

TEST(LoopExample, ATripCountTooSmallFails)
{
    const Outcome outcome = RunProgram(std::string(OPKIT_LOOP) + " --trip-count 5");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("FAILED: 12 passes"));
    EXPECT_THAT(outcome.text, Not(HasSubstr("converged")));
    // The body runs 12 times, so a trip count of 12 is just enough.
    EXPECT_EQ(RunProgram(std::string(OPKIT_LOOP) + " --trip-count 12").status, 0);
}

// The model on disk is the whole loop: any numbers, any caller that runs the tables as their ids say.
TEST(LoopExample, TheSavedModelTakesOtherNumbers)
{
    const TemporaryFolder folder;
    const std::filesystem::path name = folder.Path() / "newton";
    ASSERT_EQ(RunProgram(std::string(OPKIT_LOOP) + " --save '" + name.string() + "'").status, 0);
    const Model model = LoadModel(name);
    ASSERT_EQ(model.tables.size(), 3u);
    const std::vector<float> numbers = {4, 9, 16, 25, 36, 49};
    Request request(model);
    for (int run = 0; run < 2; ++run) {  // leaving the loop makes it ready again
        request.SetInput("a", numbers);
        const uint32_t passes = SegmentRunner(model).Run(request, OpkitForward);
        EXPECT_GT(passes, 10u);
        EXPECT_LT(passes, 26u);
        for (size_t i = 0; i < numbers.size(); ++i) {
            EXPECT_NEAR(request.GetOutput("root")[i], static_cast<float>(i + 2), 1e-6);
            EXPECT_NEAR(request.GetOutput("square")[i], numbers[i], 2e-5);
        }
    }
}

}  // namespace
