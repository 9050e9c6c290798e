// The branch example: both paths as its page shows them, and that a wrong path fails.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "modelkit/model_file.h"
#include "tests/examples/example_program.h"

namespace {

using namespace opkit::modelkit;
using namespace opkit::test;
using testing::HasSubstr;

TEST(BranchExample, TakesBothPathsAsItsPageShows)
{
    const Outcome outcome = RunProgram(OPKIT_BRANCH);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_EQ(outcome.text, FencedBlock(kRoot / "examples/branch/README.md", "\nprints\n") + "\n");
    EXPECT_THAT(outcome.text, HasSubstr("segment 1, loud, leaves segment 3"));
    EXPECT_THAT(outcome.text, HasSubstr("segment 2, quiet, leaves no jump"));
}

TEST(BranchExample, TheWrongPathFails)
{
    const Outcome quiet = RunProgram(std::string(OPKIT_BRANCH) + " --limit 0.25");  // all is loud
    EXPECT_EQ(quiet.status, 1);
    EXPECT_THAT(quiet.text, HasSubstr("FAILED: expected"));
    EXPECT_THAT(quiet.text, testing::Not(HasSubstr("segment 2, quiet")));
    EXPECT_EQ(RunProgram(std::string(OPKIT_BRANCH) + " --limit 4").status, 1);  // nothing is: 4 is not above 4
    EXPECT_EQ(RunProgram(std::string(OPKIT_BRANCH) + " --limit 0.5").status, 0);
}

TEST(BranchExample, SavesItsTables)
{
    const TemporaryFolder folder;
    ASSERT_EQ(RunProgram(std::string(OPKIT_BRANCH) + " --save '" + (folder.Path() / "leveller").string() + "'").status,
              0);
    const Model model = LoadModel(folder.Path() / "leveller");
    ASSERT_EQ(model.tables.size(), 4u);
    EXPECT_EQ(model.Table(2).next, 3u);
    EXPECT_EQ(model.Table(1).next, std::nullopt);
}

}  // namespace
