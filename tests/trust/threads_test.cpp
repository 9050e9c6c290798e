// Eight threads run the operator tests' random layers at once, each on memory of its own and each in another order, and
// must leave what a single thread leaves. Linked with the operator tests, whose cases it collects while they run; the
// threads start after the last test.
//
// Unique keeps its comparison length in a global: its layers take turns.

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "opkit/opkit.h"
#include "tests/support/operator_names.h"
#include "tests/support/twin.h"

namespace opkit::test {
namespace {

constexpr size_t kCasesPerOperator = 24;
constexpr size_t kThreads = 8;
constexpr const char* kAlone = "UniqueOpkitForward";

struct CollectedCase {
    std::string name;
    World start;
    ForwardFunc function;
    TwinOptions options;
    uint64_t expected = 0;
};

// Of each operator's cases the first ones and then, ever more rarely, later ones.
std::vector<CollectedCase> collected;
std::map<std::string, size_t> seen;

uint64_t HashOfRun(const CollectedCase& one)
{
    if (one.options.before) {
        one.options.before();
    }
    World world = one.start.Clone();
    uint64_t hash = world.RunDirect(one.function) * 31;
    hash += world.Hash(one.options.nan);
    if (one.options.after) {
        for (const uint32_t word : one.options.after()) {
            hash = hash * 31 + word;
        }
    }
    return hash;
}

void Collect(const LayerCase& layer, ForwardFunc function, const TwinOptions& options)
{
    const size_t count = seen[layer.OperatorName()]++;
    const bool rare = (count & (count - 1)) == 0 || count % 37 == 0;
    if (count >= kCasesPerOperator && !rare) {
        return;
    }
    collected.push_back({layer.OperatorName(), World(layer), function, options});
    CaptureStdout silence;
    collected.back().expected = HashOfRun(collected.back());
}

// A layer that loads a library: the loader is shared by all threads.
void CollectCustom()
{
    LayerCase layer("CustomOpkitForward");
    layer.Online({2}, {1, 100}).Output({5});
    layer.Attr<CustomAttr>().totalInputNum = 1;
    layer.Attr<CustomAttr>().funcName[0] = 'x';  // no such function: the layer fails after loading
    Collect(layer, CustomOpkitForward, {});
}

class EightThreads : public testing::Environment {
    void SetUp() override { VisitCases(Collect); }

    void TearDown() override
    {
        CollectCustom();
        VisitCases(nullptr);
        std::mutex turns;
        std::vector<std::vector<std::string>> differing(kThreads);
        CaptureStdout silence;
        {
            std::vector<std::jthread> threads;
            for (size_t t = 0; t < kThreads; ++t) {
                threads.emplace_back([t, &turns, &differing] {
                    for (size_t i = 0; i < collected.size(); ++i) {
                        const size_t stride = t % 2 == 0 ? 1 : collected.size() - 1;  // upwards or downwards
                        const CollectedCase& one =
                            collected[(i * stride + t * collected.size() / kThreads) % collected.size()];
                        std::unique_lock<std::mutex> turn(turns, std::defer_lock);
                        if (one.name == kAlone) {
                            turn.lock();
                        }
                        if (HashOfRun(one) != one.expected) {
                            differing[t].push_back(one.name);
                        }
                    }
                });
            }
        }
        silence.Stop();
        EXPECT_EQ(KeysOf(seen), OperatorNames());
        for (const std::vector<std::string>& names : differing) {
            EXPECT_EQ(names, std::vector<std::string>());
        }
    }
};

const testing::Environment* const kEightThreads = testing::AddGlobalTestEnvironment(new EightThreads);

}  // namespace
}  // namespace opkit::test
