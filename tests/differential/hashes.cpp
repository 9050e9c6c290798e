// One hash per operator, over everything that the operator tests' random layers leave behind: results, messages, state
// and memory. Two builds of the library that differ anywhere print different lines.
//
//     opkit_hashes [rounds]      rounds of the tests, each with seeds of its own; 1 when not given
//
// The layers run at every instruction-set level, and a case whose levels differ is printed and ends the program with 1.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "tests/support/twin.h"

namespace opkit::test {
namespace {

struct OperatorHash {
    uint64_t cases = 0;
    uint64_t hash = 0;
};

std::map<std::string, OperatorHash> hashes;
int differingCases = 0;

void Mix(uint64_t* hash, uint64_t value)
{
    *hash = (*hash ^ value) * 0xd6e8feb86659fd93ULL;
    *hash ^= *hash >> 32;
}

uint64_t HashOfRun(World& world, ForwardFunc function, const TwinOptions& options)
{
    if (options.before) {
        options.before();
    }
    const RunResult run = RunCaptured(world, function);
    uint64_t hash = world.Hash(options.nan);
    Mix(&hash, run.result);
    for (const char c : run.messages) {
        Mix(&hash, static_cast<unsigned char>(c));
    }
    if (options.after) {
        for (const uint32_t word : options.after()) {
            Mix(&hash, word);
        }
    }
    return hash;
}

void HashCase(const LayerCase& layer, ForwardFunc function, const TwinOptions& options)
{
    const World start(layer);
    bool first = true;
    uint64_t hash = 0;
    ForEachLevel([&](Level level) {
        World world = start.Clone();
        const uint64_t atLevel = HashOfRun(world, function, options);
        if (!first && atLevel != hash) {
            std::printf("%s differs at %s:\n%s\n", layer.OperatorName().c_str(), LevelName(level),
                        layer.Describe().c_str());
            ++differingCases;
        }
        hash = first ? atLevel : hash;
        first = false;
    });
    OperatorHash& entry = hashes[layer.OperatorName()];
    ++entry.cases;
    Mix(&entry.hash, hash);
}

// A repeated run of the tests starts from another seed.
class NewSeed : public testing::EmptyTestEventListener {
    void OnTestIterationStart(const testing::UnitTest&, int iteration) override
    {
        setenv("OPKIT_TEST_SEED", std::to_string(20240917 + 977 * iteration).c_str(), 1);
    }
};

}  // namespace
}  // namespace opkit::test

int main(int argc, char** argv)
{
    using namespace opkit::test;
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(brief, true);
    GTEST_FLAG_SET(repeat, argc > 1 ? std::atoi(argv[1]) : 1);
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());  // the lines alone
    listeners.Append(new NewSeed);
    VisitCases(HashCase);
    const bool testsPassed = RUN_ALL_TESTS() == 0;
    for (const auto& [name, entry] : hashes) {
        std::printf("%-34s %7llu cases  %016llx\n", name.c_str(), static_cast<unsigned long long>(entry.cases),
                    static_cast<unsigned long long>(entry.hash));
    }
    if (!testsPassed) {
        std::printf("tests of this build fail\n");
    }
    return testsPassed && differingCases == 0 ? 0 : 1;
}
