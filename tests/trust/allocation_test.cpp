// Every allocation that a request makes fails once, the n-th for every n, over the operator tests' random layers: the
// request then fails with a message, or succeeds with the same memory or a message; nothing stays allocated, and a
// second request on fresh memory is as if nothing had happened. Linked with the operator tests, whose cases it takes.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "opkit/opkit.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/operator_names.h"
#include "tests/support/twin.h"

namespace opkit::test {
namespace {

constexpr int kCasesPerOperator = 40;
std::map<std::string, int> cases;
std::map<std::string, uint64_t> allocations;  // most that one request made

struct Outcome {
    uint32_t result;
    std::string messages;
    uint64_t seen;
    int64_t live;
};

Outcome Run(World& world, const TwinOptions& options, uint64_t failAt)
{
    if (options.before) {
        options.before();
    }
    CaptureStdout capture;
    std::printf(" ");  // standard output has its buffer before anything is counted
    std::fflush(stdout);
    AllocFault fault(failAt);
    const uint32_t result = OpkitForward(&world.Param());
    fault.Disarm();
    Outcome outcome = {result, NormalizeMessages(capture.Stop()), fault.Seen(), fault.Live()};
    fault.FreeLive();
    return outcome;
}

void FailEachAllocation(const LayerCase& layer, ForwardFunc, const TwinOptions& options)
{
    if (++cases[layer.OperatorName()] > kCasesPerOperator) {
        return;
    }
    SCOPED_TRACE(layer.Describe());
    const World start(layer);
    World intact = start.Clone();
    const Outcome expected = Run(intact, options, AllocFault::kNever);
    EXPECT_EQ(expected.live, 0);
    uint64_t& most = allocations[layer.OperatorName()];
    most = std::max(most, expected.seen);
    for (uint64_t n = 0; n < expected.seen; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        World world = start.Clone();
        const Outcome outcome = Run(world, options, n);
        EXPECT_EQ(outcome.live, 0);
        EXPECT_GT(outcome.seen, n);
        if (outcome.result == 0) {  // linear Resize and DoNms go on, and say so; sorting finds another way
            EXPECT_EQ(expected.result, 0u);
            EXPECT_TRUE(outcome.messages.find("Malloc ") != std::string::npos ||
                        World::Difference(world, intact, options.nan).empty());
        } else {
            EXPECT_EQ(outcome.result, 0xFFFFFFFFu);
            EXPECT_GT(outcome.messages.size(), 1u);
        }
    }
    World again = start.Clone();
    const Outcome after = Run(again, options, AllocFault::kNever);
    EXPECT_EQ(after.result, expected.result);
    EXPECT_EQ(World::Difference(again, intact, options.nan), "");
}

class AllocationSweep : public testing::Environment {
    void SetUp() override
    {
        if (AllocFaultAvailable()) {
            VisitCases(FailEachAllocation);
        }
    }

    void TearDown() override
    {
        if (AllocFaultAvailable()) {
            std::set<std::string> expected = OperatorNames();
            expected.erase("CustomOpkitForward");  // needs a library beside it
            EXPECT_EQ(KeysOf(cases), expected);
            for (const char* name :
                 {"ArgminOpkitForward", "FilterBoxOpkitForward", "NMSOpkitForward", "ResizeOpkitForward",
                  "SortOpkitForward", "TopKOpkitForward", "UniqueOpkitForward"}) {
                EXPECT_GT(allocations[name], 2u) << name << " allocated nothing beside the two tensor arrays";
            }
        }
    }
};

const testing::Environment* const kAllocationSweep = testing::AddGlobalTestEnvironment(new AllocationSweep);

}  // namespace
}  // namespace opkit::test
