// opkit run --selftest: the layers are sound, are those of the operator table, and a level that differs is named.

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

#include "kernels/level.h"
#include "modelkit/check.h"
#include "opkit/opkit.h"
#include "tools/command.h"
#include "tools/level_library.h"
#include "tools/selftest.h"

namespace {

using namespace opkit;
using namespace opkit::modelkit;
using namespace opkit::tools;
using testing::HasSubstr;

TEST(Selftest, LayersAreSoundAndOfAllOperators)
{
    std::set<std::string> names;
    for (const SelftestLayer& layer : SelftestLayers()) {
        SCOPED_TRACE(layer.operatorName);
        EXPECT_NE(GetForwardFunc(layer.operatorName.c_str()), nullptr);
        EXPECT_TRUE(names.insert(layer.operatorName).second);
        EXPECT_FALSE(layer.model.outputs.empty());
        for (const CheckRefusal& refusal : CheckModel(layer.model, 1).refusals) {
            ADD_FAILURE() << refusal.Text();
        }
    }
    EXPECT_EQ(names.size(), 72u);  // the table's 73 without Custom
    EXPECT_EQ(names.count("CustomOpkitForward"), 0u);
}

std::string PrintedBy(bool* same, uint32_t (*forward)(ForwardParam*))
{
    testing::internal::CaptureStdout();
    *same = Selftest(SelftestLayers(), forward);
    return testing::internal::GetCapturedStdout();
}

TEST(Selftest, AllLevelsAgree)
{
    bool same = false;
    const std::string printed = PrintedBy(&same, OpkitForward);
    EXPECT_TRUE(same);
    EXPECT_THAT(printed, testing::ContainsRegex("\nNeg +[0-9a-f]{8}\n"));
    EXPECT_THAT(printed, HasSubstr("\n72 operators: the same bits at all levels of this machine\n"));
    EXPECT_THAT(printed, testing::StartsWith("levels  baseline"));
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 74);
}

// One bit in one element of one operator, at the highest level only.
TEST(Selftest, NamesAnOperatorWhoseLevelsDiffer)
{
    if (DetectedLevel() == Level::kBaseline) {
        GTEST_SKIP() << "this machine has one level";
    }
    bool same = true;
    const std::string printed = PrintedBy(&same, [](ForwardParam* param) {
        const uint32_t result = OpkitForward(param);
        static int calls = 0;
        const int levels = static_cast<int>(DetectedLevel()) + 1;
        const bool isGemm = SelftestLayers()[static_cast<size_t>(calls++ / levels)].operatorName == "GemmOpkitForward";
        if (isGemm && ActiveLevel() == DetectedLevel()) {
            *static_cast<uint8_t*>(param->outputs[0].data) ^= 1;
        }
        return result;
    });
    EXPECT_FALSE(same);
    EXPECT_THAT(printed, testing::ContainsRegex("\nGemm +[0-9a-f]{8} .*[0-9a-f]{8} at AVX"));
    EXPECT_THAT(printed, testing::ContainsRegex("\n72 operators; the levels differ in Gemm\n$"));
}

TEST(Selftest, ALevelMustBeThere)
{
    EXPECT_EQ(ChooseLevel("", Level::kAvx512), std::nullopt);
    EXPECT_EQ(ChooseLevel("baseline", Level::kBaseline), Level::kBaseline);
    EXPECT_EQ(ChooseLevel("avx2", Level::kAvx512), Level::kAvx2);
    EXPECT_EQ(ChooseLevel("avx512", Level::kAvx512), Level::kAvx512);
    try {
        ChooseLevel("avx512", Level::kAvx2);
        FAIL();
    } catch (const ToolError& error) {
        EXPECT_STREQ(error.what(), "--level avx512: this machine has no more than avx2");
    }
}

// Data that is all alike, or layers that fail softly, would prove little.
TEST(Selftest, LayersDoSomething)
{
    std::set<std::string> hashes;
    bool same = false;
    std::istringstream lines(PrintedBy(&same, OpkitForward));
    std::string name;
    std::string hash;
    std::getline(lines, name);  // the levels
    while (lines >> name >> hash && hash.size() == 8) {
        EXPECT_TRUE(hashes.insert(hash).second) << name;
    }
    EXPECT_EQ(hashes.size(), 72u);
}

}  // namespace
