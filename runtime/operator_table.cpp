// The operator table. A layer's operator name is the whole key.
//
// The three box stages share one function, which tells them apart by an attribute; the functions that bear the rows'
// own names exist and are exported, but no row leads to them.

#include <cstring>

#include "opkit/helpers.h"
#include "opkit/operators.h"

namespace {

struct OperatorRow {
    const char* name;
    ForwardFunc forward;
};

constexpr OperatorRow kOperators[] = {
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
static_assert(sizeof(kOperators) / sizeof(kOperators[0]) == 73, "the table has 73 rows");

// Most names differ in their first letter, which takes no call to see.
bool SameName(const char* a, const char* b)
{
    return a[0] == b[0] && std::strcmp(a, b) == 0;
}

}  // namespace

ForwardFunc GetForwardFunc(const char* name)
{
    if (name == nullptr) {
        return nullptr;
    }
    for (const OperatorRow& row : kOperators) {
        if (SameName(row.name, name)) {
            return row.forward;
        }
    }
    return nullptr;
}
