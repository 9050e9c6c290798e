// Every row of the operator table by itself: the name a model writes, and the function it must lead to.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "opkit/opkit.h"

namespace opkit {
namespace {

struct Row {
    const char* name;
    ForwardFunc forward;
};

// Written out, not taken from the table: the box stages share one function, all others have their own.
const Row kRows[] = {
    {"AcosOpkitForward", AcosOpkitForward},
    {"AcoshOpkitForward", AcoshOpkitForward},
    {"ArgminOpkitForward", ArgminOpkitForward},
    {"AsinOpkitForward", AsinOpkitForward},
    {"AsinhOpkitForward", AsinhOpkitForward},
    {"AtanOpkitForward", AtanOpkitForward},
    {"AtanhOpkitForward", AtanhOpkitForward},
    {"BinaryMathOpkitForward", BinaryMathOpkitForward},
    {"BitShiftOpkitForward", BitShiftOpkitForward},
    {"CeluOpkitForward", CeluOpkitForward},
    {"CmpOpkitForward", CmpOpkitForward},
    {"ConcatOpkitForward", ConcatOpkitForward},
    {"ConvolutionOpkitForward", ConvolutionOpkitForward},
    {"CosOpkitForward", CosOpkitForward},
    {"CoshOpkitForward", CoshOpkitForward},
    {"CumSumOpkitForward", CumSumOpkitForward},
    {"DetOpkitForward", DetOpkitForward},
    {"ExpandOpkitForward", ExpandOpkitForward},
    {"EyelikeOpkitForward", EyelikeOpkitForward},
    {"GemmOpkitForward", GemmOpkitForward},
    {"PoolingLpOpkitForward", PoolingLpOpkitForward},
    {"PoolingMaxOpkitForward", PoolingMaxOpkitForward},
    {"HardmaxOpkitForward", HardmaxOpkitForward},
    {"HardSigmoidOpkitForward", HardSigmoidOpkitForward},
    {"InstanceNormalizationOpkitForward", InstanceNormalizationOpkitForward},
    {"LogicalOpkitForward", LogicalOpkitForward},
    {"LpNormOpkitForward", LpNormOpkitForward},
    {"MatMulOpkitForward", MatMulOpkitForward},
    {"MaxUnpoolOpkitForward", MaxUnpoolOpkitForward},
    {"ModOpkitForward", ModOpkitForward},
    {"NegOpkitForward", NegOpkitForward},
    {"NonMaxSuppressionOpkitForward", NonMaxSuppressionOpkitForward},
    {"NonZeroOpkitForward", NonZeroOpkitForward},
    {"OneHotOpkitForward", OneHotOpkitForward},
    {"PadOpkitForward", PadOpkitForward},
    {"QLinearMatMulOpkitForward", QLinearMatMulOpkitForward},
    {"ReciprocalOpkitForward", ReciprocalOpkitForward},
    {"ReductionOpkitForward", ReductionOpkitForward},
    {"RoundOpkitForward", RoundOpkitForward},
    {"ScatterOpkitForward", ScatterOpkitForward},
    {"SeluOpkitForward", SeluOpkitForward},
    {"ShrinkOpkitForward", ShrinkOpkitForward},
    {"SigmoidOpkitForward", SigmoidOpkitForward},
    {"SignOpkitForward", SignOpkitForward},
    {"SinOpkitForward", SinOpkitForward},
    {"SinhOpkitForward", SinhOpkitForward},
    {"SoftplusOpkitForward", SoftplusOpkitForward},
    {"SoftsignOpkitForward", SoftsignOpkitForward},
    {"SqrtOpkitForward", SqrtOpkitForward},
    {"TanOpkitForward", TanOpkitForward},
    {"ThresholdedReluOpkitForward", ThresholdedReluOpkitForward},
    {"TopKOpkitForward", TopKOpkitForward},
    {"PermuteOpkitForward", PermuteOpkitForward},
    {"UniqueOpkitForward", UniqueOpkitForward},
    {"WhereOpkitForward", WhereOpkitForward},
    {"DecBboxOpkitForward", DecBboxOpkitForward},
    {"FilterBoxOpkitForward", DetectionOutputOpkitForward},
    {"SortOpkitForward", DetectionOutputOpkitForward},
    {"NMSOpkitForward", DetectionOutputOpkitForward},
    {"PoolingAveOpkitForward", PoolingAveOpkitForward},
    {"LoopOpkitForward", LoopOpkitForward},
    {"IfOpkitForward", IfOpkitForward},
    {"ThenEndOpkitForward", ThenEndOpkitForward},
    {"CondEndOpkitForward", CondEndOpkitForward},
    {"ElseBeginOpkitForward", ElseBeginOpkitForward},
    {"ResizeOpkitForward", ResizeOpkitForward},
    {"GatherElementsOpkitForward", GatherElementsOpkitForward},
    {"DepthToSpaceOpkitForward", DepthToSpaceOpkitForward},
    {"ReshapeOpkitForward", ReshapeOpkitForward},
    {"CustomOpkitForward", CustomOpkitForward},
    {"GatherOpkitForward", GatherOpkitForward},
    {"GatherNDOpkitForward", GatherNDOpkitForward},
    {"ScatterNDOpkitForward", ScatterNDOpkitForward},
};

TEST(OperatorTable, EveryRowLeadsToItsOperator)
{
    std::set<std::string> names;
    for (const Row& row : kRows) {
        EXPECT_EQ(GetForwardFunc(row.name), row.forward) << row.name;
        names.insert(row.name);
    }
    EXPECT_EQ(names.size(), 73u);
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
