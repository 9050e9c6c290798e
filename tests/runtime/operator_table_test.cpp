// Every row of the operator table by itself: the name a model writes, and the function it must lead to.

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>

#include "opkit/opkit.h"

namespace opkit {
namespace {

struct Row {
    std::string name;
    ForwardFunc ownName;  // the function that bears the row's name, whatever the row leads to
};

const Row kRows[] = {
#define OPKIT_OPERATOR(name, forward, record, check) {#name "OpkitForward", name##OpkitForward},
#include "opkit/operators.def"
};

const std::set<std::string> kBoxStages = {"FilterBoxOpkitForward", "SortOpkitForward", "NMSOpkitForward"};

TEST(OperatorTable, EveryRowLeadsToTheFunctionOfItsName)
{
    size_t others = 0;
    std::set<std::string> names;
    for (const Row& row : kRows) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name << " stands twice";
        if (!kBoxStages.contains(row.name)) {
            EXPECT_EQ(GetForwardFunc(row.name.c_str()), row.ownName) << row.name;
            ++others;
        }
    }
    EXPECT_EQ(others + kBoxStages.size(), std::size(kRows));
}

TEST(OperatorTable, BoxStagesShareOneFunction)
{
    for (const std::string& name : kBoxStages) {
        EXPECT_EQ(GetForwardFunc(name.c_str()), DetectionOutputOpkitForward) << name;
    }
}

TEST(OperatorTable, FunctionsWithoutARow)
{
    for (const char* name : {"DetectionOutputOpkitForward", "AndOrXorForward", "NotForward", "ConvIntegerForward",
                             "QLinearConvForward", "PoolingAveOpkitForwardCore", "IfBranch", "OpkitForward"}) {
        EXPECT_EQ(GetForwardFunc(name), nullptr) << name;
    }
}

}  // namespace
}  // namespace opkit
