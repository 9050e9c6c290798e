#include "modelkit/segment_runner.h"

#include <gmock/gmock.h>

#include "modelkit/model_builder.h"
#include "opkit/opkit.h"
#include "tests/modelkit/segment_models.h"

namespace {

using namespace opkit::modelkit;
using opkit::test::Branching;
using opkit::test::NegateInALoop;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

static_assert(kNoSegment == OPKIT_NO_SEGMENT);

constexpr uint32_t kLeaveAlone = 0xFFFFFFFE;
constexpr uint32_t kFail = 0xFFFFFFFD;

// What the fake library does, one entry per call, and what it saw.
std::vector<uint32_t> script;
std::vector<uint32_t> offsetsSeen;
std::vector<uint32_t> segIdsSeen;

uint32_t ScriptedForward(ForwardParam* param)
{
    const size_t call = offsetsSeen.size();
    offsetsSeen.push_back(static_cast<const ModelOffsets*>(param->attr)->layerTableOffset);
    segIdsSeen.push_back(param->segId);
    const uint32_t step = call < script.size() ? script[call] : script.back();
    if (step == kFail) {
        return 1;
    }
    if (step != kLeaveAlone) {
        param->segId = step;
    }
    return 0;
}

// Tables 1 "head" (falls through to 2), 2 "body", 3 "after".
Model ThreeTables()
{
    ModelBuilder builder;
    builder.AddInput({"x", {1}});
    builder.AddOutput({"y", {1}});
    builder.BeginTable(1, "head");
    builder.NextSegment(2);
    builder.BeginTable(2, "body");
    builder.BeginTable(3, "after");
    return builder.Build();
}

class SegmentRunnerTest : public testing::Test {
protected:
    std::vector<uint32_t> Ran(const SegmentRunner& runner, std::vector<uint32_t> steps)
    {
        script = std::move(steps);
        offsetsSeen.clear();
        segIdsSeen.clear();
        runner.Run(request_, ScriptedForward);
        return Segments();
    }
    std::vector<uint32_t> Segments() const
    {
        std::vector<uint32_t> segments;
        for (const uint32_t offset : offsetsSeen) {
            for (const ModelTable& table : model_.tables) {
                if (table.layerTableOffset == offset) {
                    segments.push_back(table.segmentId);
                }
            }
        }
        return segments;
    }
    std::string ErrorOf(const SegmentRunner& runner, std::vector<uint32_t> steps)
    {
        try {
            Ran(runner, std::move(steps));
        } catch (const SegmentError& error) {
            pass_ = error.pass;
            segment_ = error.segmentId;
            return error.what();
        }
        return "no error";
    }

    const Model model_ = ThreeTables();
    Request request_{model_};
    uint32_t pass_ = 0;
    uint32_t segment_ = 0;
};

TEST_F(SegmentRunnerTest, EndsWithoutAJumpAndWithoutASuccessor)
{
    EXPECT_THAT(Ran(SegmentRunner(model_).Start(3), {kNoSegment}), ElementsAre(3));
    EXPECT_THAT(Ran(SegmentRunner(model_), {kNoSegment}), ElementsAre(1, 2));
}

TEST_F(SegmentRunnerTest, LoopsUntilTheHeadLeavesItsExit)
{
    std::vector<uint32_t> passes;
    std::vector<uint32_t> left;
    SegmentRunner runner(model_);
    runner.OnPass([&](const SegmentPass& pass) {
        passes.push_back(pass.number);
        left.push_back(pass.segId);
    });
    EXPECT_THAT(Ran(runner, {kNoSegment, 1, kNoSegment, 1, 3, kNoSegment}), ElementsAre(1, 2, 1, 2, 1, 3));
    EXPECT_THAT(passes, ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_THAT(left, ElementsAre(kNoSegment, 1, kNoSegment, 1, 3, kNoSegment));
}

TEST_F(SegmentRunnerTest, StartsEveryTableWithNoJumpAskedFor)
{
    Ran(SegmentRunner(model_).Start(2), {3, kLeaveAlone});
    EXPECT_THAT(Segments(), ElementsAre(2, 3));
    EXPECT_THAT(segIdsSeen, ElementsAre(kNoSegment, kNoSegment));
    EXPECT_EQ(request_.SegId(), kNoSegment);
}

TEST_F(SegmentRunnerTest, ReturnsTheNumberOfPasses)
{
    script = {2, 3, kNoSegment};
    offsetsSeen.clear();
    EXPECT_EQ(SegmentRunner(model_).Run(request_, ScriptedForward), 3u);
}

TEST_F(SegmentRunnerTest, NamesAnIdWithoutATable)
{
    EXPECT_THAT(
        ErrorOf(SegmentRunner(model_), {kNoSegment, 9}),
        AllOf(HasSubstr("pass 1"), HasSubstr("segment 2 (body)"), HasSubstr("asks for segment 9, which has no table")));
    EXPECT_EQ(pass_, 1u);
    EXPECT_EQ(segment_, 2u);
    EXPECT_THAT(Segments(), ElementsAre(1, 2));
}

TEST_F(SegmentRunnerTest, NamesTheTableThatFailed)
{
    uint32_t passes = 0;
    SegmentRunner runner(model_);
    runner.OnPass([&](const SegmentPass&) { ++passes; });
    EXPECT_THAT(ErrorOf(runner, {3, kFail}), HasSubstr("pass 1, segment 3 (after): the request failed"));
    EXPECT_EQ(passes, 1u);
}

TEST_F(SegmentRunnerTest, GivesUpAtTheLimit)
{
    EXPECT_THAT(ErrorOf(SegmentRunner(model_).MaxPasses(5), {1}), HasSubstr("given up after 5 passes"));
    EXPECT_THAT(Segments(), ElementsAre(1, 1, 1, 1, 1));
    EXPECT_THAT(Ran(SegmentRunner(model_).MaxPasses(2), {3, kNoSegment}), ElementsAre(1, 3));
    EXPECT_THAT(ErrorOf(SegmentRunner(model_).MaxPasses(0), {1}), HasSubstr("pass 0, segment 1 (head)"));
    EXPECT_THAT(Segments(), IsEmpty());
}

TEST_F(SegmentRunnerTest, RefusesTablesItCannotTellApart)
{
    EXPECT_THROW(SegmentRunner(model_).Start(4), BuildError);
    Model model = model_;
    model.tables[1].segmentId = 1;
    EXPECT_THROW(SegmentRunner{model}, BuildError);
    model = model_;
    model.tables[1].next = 4;
    EXPECT_THROW(SegmentRunner{model}, BuildError);
    model = model_;
    model.tables[2].segmentId = kNoSegment;
    EXPECT_THROW(SegmentRunner{model}, BuildError);
    model.tables.clear();
    EXPECT_THROW(SegmentRunner{model}, BuildError);
}

TEST(SegmentRunnerWithLibrary, RunsALoop)
{
    const Model model = NegateInALoop(3);
    Request request(model);
    std::vector<uint32_t> segments;
    for (int again = 0; again < 2; ++again) {  // the head resets itself on leaving
        request.Reset(model);
        request.SetInput("one", std::vector<float>{1});
        request.SetInput("x", std::vector<float>{1, 2, 3, 4, 5, 6});
        segments.clear();
        SegmentRunner runner(model);
        runner.OnPass([&](const SegmentPass& pass) { segments.push_back(pass.table->segmentId); });
        EXPECT_EQ(runner.Run(request, OpkitForward), 8u);
        EXPECT_THAT(segments, ElementsAre(10, 20, 10, 20, 10, 20, 10, 30));
        EXPECT_THAT(request.GetOutput("y"), ElementsAre(1, 2, 3, 4, 5, 6));  // three times inside, once behind
    }
}

TEST(SegmentRunnerWithLibrary, TakesOneOfTwoBranches)
{
    const Model model = Branching();
    Request request(model);
    std::vector<uint32_t> segments;
    SegmentRunner runner(model);
    runner.OnPass([&](const SegmentPass& pass) { segments.push_back(pass.table->segmentId); });

    request.SetInput("x", std::vector<float>{1, 2, 3, 4});
    runner.Run(request, OpkitForward);
    EXPECT_THAT(segments, ElementsAre(0, 1, 3));
    EXPECT_THAT(request.GetOutput("y"), ElementsAre(-1, -2, -3, -4));

    segments.clear();
    request.SetInput("x", std::vector<float>{0, 2, 3, 4});
    runner.Run(request, OpkitForward);
    EXPECT_THAT(segments, ElementsAre(0, 2, 3));
    EXPECT_THAT(request.GetOutput("y"), ElementsAre(0, 2, 3, 4));
}

}  // namespace
