#include "tests/support/twin.h"

#include <gtest/gtest.h>

#include "opkit/helpers/frame.h"
#include "opkit/opkit.h"

namespace opkit::test {
namespace {

CaseVisitor caseVisitor = nullptr;

struct Observed {
    RunResult run;
    std::vector<uint32_t> state;
};

template <class Run>
Observed Observe(const TwinOptions& options, Run&& run)
{
    if (options.before) {
        options.before();
    }
    Observed observed = {run(), {}};
    if (options.after) {
        observed.state = options.after();
    }
    return observed;
}

// Returns whether all was the same.
bool ExpectSame(const World& actualWorld, const Observed& actual, const World& expectedWorld, const Observed& expected,
                NanPolicy policy)
{
    EXPECT_EQ(actual.run.result, expected.run.result);
    EXPECT_EQ(actual.run.messages, expected.run.messages);
    EXPECT_EQ(actual.state, expected.state);
    const std::string difference = World::Difference(actualWorld, expectedWorld, policy);
    if (!difference.empty()) {
        ADD_FAILURE() << difference;
    }
    return actual.run.result == expected.run.result && actual.run.messages == expected.run.messages &&
           actual.state == expected.state && difference.empty();
}

}  // namespace

void VisitCases(CaseVisitor visitor)
{
    caseVisitor = visitor;
}

RunResult RunCaptured(World& world, ForwardFunc function)
{
    RunResult run;
    CaptureStdout capture;
    run.result = world.RunDirect(function);
    run.messages = NormalizeMessages(capture.Stop());
    return run;
}

RunResult RunRequestCaptured(World& world)
{
    RunResult run;
    CaptureStdout capture;
    run.result = world.RunRequest();
    run.messages = NormalizeMessages(capture.Stop());
    return run;
}

void ExpectSameAsReference(const LayerCase& layer, ForwardFunc actual, ForwardFunc reference,
                           const TwinOptions& options)
{
    if (caseVisitor != nullptr) {
        caseVisitor(layer, actual, options);
        return;
    }
    const World start(layer);
    World expectedWorld = start.Clone();
    Observed expected = Observe(options, [&] { return RunCaptured(expectedWorld, reference); });

    bool same = true;
    ForEachLevel([&](Level) {
        World world = start.Clone();
        const Observed observed = Observe(options, [&] { return RunCaptured(world, actual); });
        same = ExpectSame(world, observed, expectedWorld, expected, options.nan) && same;
    });
    if (options.throughRequest) {
        SCOPED_TRACE("through OpkitForward");
        EXPECT_EQ(GetForwardFunc(layer.OperatorName().c_str()), actual) << "the operator table leads elsewhere";
        World world = start.Clone();
        const Observed observed = Observe(options, [&] { return RunRequestCaptured(world); });
        if (expected.run.result != 0) {
            expected.run.result = UINT32_MAX;
            expected.run.messages += "[OpkitForward:#]" + layer.OperatorName() + " failed.\n\n";
        }
        same = ExpectSame(world, observed, expectedWorld, expected, options.nan) && same;
    }
    if (!same) {
        ADD_FAILURE() << "differs from the reference:\n" << layer.Describe();
    }
}

}  // namespace opkit::test
