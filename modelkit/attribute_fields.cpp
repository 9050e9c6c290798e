// Offsets, sizes and types come from the records themselves; only the names stand here.

#include "modelkit/attribute_fields.h"

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <utility>

#include "opkit/opkit.h"

namespace opkit::modelkit {
namespace {

template <class T>
constexpr FieldType TypeOf()
{
    using Entry = std::remove_all_extents_t<T>;
    if constexpr (std::is_same_v<Entry, char>) {
        return FieldType::kText;
    } else if constexpr (std::is_same_v<Entry, uint8_t>) {
        return std::is_array_v<T> ? FieldType::kBytes : FieldType::kU8;
    } else if constexpr (std::is_same_v<Entry, int32_t>) {
        return FieldType::kI32;
    } else if constexpr (std::is_same_v<Entry, int64_t>) {
        return FieldType::kI64;
    } else if constexpr (std::is_same_v<Entry, uint64_t>) {
        return FieldType::kU64;
    } else if constexpr (std::is_same_v<Entry, float>) {
        return FieldType::kF32;
    } else if constexpr (std::is_same_v<Entry, StrideRecord>) {
        return FieldType::kStrides;
    } else {
        static_assert(std::is_same_v<Entry, uint32_t>);
        return FieldType::kU32;
    }
}

template <class T>
constexpr AttributeField MakeField(std::string_view name, size_t offset, std::span<const FieldCode> codes = {})
{
    constexpr uint32_t count = sizeof(T) / sizeof(std::remove_all_extents_t<T>);
    return {name, TypeOf<T>(), std::is_array_v<T>, static_cast<uint32_t>(offset), sizeof(T), count, codes};
}

// Laid out as tables.
// clang-format off

#define CODE(name) {name, #name}
#define FIELD(Record, member, ...) \
    MakeField<decltype(std::declval<Record&>().member)>(#member, offsetof(Record, member) __VA_OPT__(, ) __VA_ARGS__)
#define ROW(operator, record) {#operator "OpkitForward", #record "Attr", sizeof(record##Attr), k##record}
#define PLAIN(operator) {#operator "OpkitForward", "LayerAttrHead", sizeof(LayerAttrHead), {}}

// Codes.

constexpr FieldCode kBinaryMathMathTypeCodes[] = {
    CODE(OPKIT_BINARY_ADD), CODE(OPKIT_BINARY_SUB), CODE(OPKIT_BINARY_MUL), CODE(OPKIT_BINARY_DIV),
    CODE(OPKIT_BINARY_MAX),
};
constexpr FieldCode kCmpCmpTypeCodes[] = {
    CODE(OPKIT_CMP_GREATER), CODE(OPKIT_CMP_EQUAL), CODE(OPKIT_CMP_LESS), CODE(OPKIT_CMP_NOT_EQUAL),
    CODE(OPKIT_CMP_GREATER_EQUAL), CODE(OPKIT_CMP_LESS_EQUAL),
};
constexpr FieldCode kLogicalLogicalTypeCodes[] = {
    CODE(OPKIT_LOGICAL_AND), CODE(OPKIT_LOGICAL_OR), CODE(OPKIT_LOGICAL_XOR), CODE(OPKIT_LOGICAL_NOT),
};
constexpr FieldCode kRoundRoundModeCodes[] = {
    CODE(OPKIT_ROUND_CEIL), CODE(OPKIT_ROUND_FLOOR), CODE(OPKIT_ROUND_NEAREST),
};
constexpr FieldCode kReductionReductionTypeCodes[] = {
    CODE(OPKIT_REDUCE_SUM), CODE(OPKIT_REDUCE_L1), CODE(OPKIT_REDUCE_SUM_SQUARE), CODE(OPKIT_REDUCE_MEAN),
    CODE(OPKIT_REDUCE_L2), CODE(OPKIT_REDUCE_LOG_SUM), CODE(OPKIT_REDUCE_LOG_SUM_EXP), CODE(OPKIT_REDUCE_MAX),
    CODE(OPKIT_REDUCE_MIN), CODE(OPKIT_REDUCE_PROD),
};
constexpr FieldCode kUniqueAxisCodes[] = {
    CODE(OPKIT_UNIQUE_FLAT),
};
constexpr FieldCode kDepthToSpaceDepthToSpaceModeCodes[] = {
    CODE(OPKIT_DEPTH_TO_SPACE_DCR), CODE(OPKIT_DEPTH_TO_SPACE_CRD),
};
constexpr FieldCode kPadPadModeCodes[] = {
    CODE(OPKIT_PAD_CONSTANT), CODE(OPKIT_PAD_REFLECT), CODE(OPKIT_PAD_EDGE),
};
constexpr FieldCode kResizeResizeModeCodes[] = {
    CODE(OPKIT_RESIZE_NEAREST), CODE(OPKIT_RESIZE_LINEAR),
};
constexpr FieldCode kResizeCoordinateModeCodes[] = {
    CODE(OPKIT_RESIZE_HALF_PIXEL), CODE(OPKIT_RESIZE_HALF_PIXEL_OR_ZERO), CODE(OPKIT_RESIZE_ALIGN_CORNERS),
    CODE(OPKIT_RESIZE_ASYMMETRIC), CODE(OPKIT_RESIZE_CROP), CODE(OPKIT_RESIZE_HALF_PIXEL_UNSHIFTED),
};
constexpr FieldCode kResizeNearestModeCodes[] = {
    CODE(OPKIT_RESIZE_ROUND_PREFER_FLOOR), CODE(OPKIT_RESIZE_ROUND), CODE(OPKIT_RESIZE_FLOOR),
    CODE(OPKIT_RESIZE_CEIL), CODE(OPKIT_RESIZE_SIMPLE),
};
constexpr FieldCode kDetectionOutputStageCodes[] = {
    CODE(OPKIT_STAGE_NMS), CODE(OPKIT_STAGE_FILTER), CODE(OPKIT_STAGE_SORT),
};
constexpr FieldCode kIfCmpTypeCodes[] = {
    CODE(OPKIT_IF_GREATER), CODE(OPKIT_IF_EQUAL),
};
constexpr FieldCode kTopKKCodes[] = {
    CODE(OPKIT_TOPK_K_FROM_INPUT),
};
constexpr FieldCode kCondEndCondValueCodes[] = {
    CODE(OPKIT_COND_FROM_INPUT),
};

// Records.

constexpr AttributeField kBinaryMath[] = {
    FIELD(BinaryMathAttr, inputStrides), FIELD(BinaryMathAttr, outputStrides),
    FIELD(BinaryMathAttr, mathType, kBinaryMathMathTypeCodes),
};
constexpr AttributeField kBitShift[] = {
    FIELD(BitShiftAttr, inputStrides), FIELD(BitShiftAttr, outputStrides), FIELD(BitShiftAttr, shiftLeft),
};
constexpr AttributeField kMod[] = {FIELD(ModAttr, inputStrides), FIELD(ModAttr, outputStrides), FIELD(ModAttr, fmod)};
constexpr AttributeField kCmp[] = {
    FIELD(CmpAttr, cmpType, kCmpCmpTypeCodes), FIELD(CmpAttr, inputStrides), FIELD(CmpAttr, outputStrides),
};
constexpr AttributeField kLogical[] = {
    FIELD(LogicalAttr, logicalType, kLogicalLogicalTypeCodes), FIELD(LogicalAttr, inputStrides),
    FIELD(LogicalAttr, outputStrides),
};
constexpr AttributeField kWhere[] = {
    FIELD(WhereAttr, inputCount), FIELD(WhereAttr, inputStrides), FIELD(WhereAttr, outputStrides),
};
constexpr AttributeField kCelu[] = {FIELD(CeluAttr, alpha)};
constexpr AttributeField kSelu[] = {FIELD(SeluAttr, alpha), FIELD(SeluAttr, gamma)};
constexpr AttributeField kShrink[] = {FIELD(ShrinkAttr, bias), FIELD(ShrinkAttr, lambd)};
constexpr AttributeField kHardSigmoid[] = {FIELD(HardSigmoidAttr, alpha), FIELD(HardSigmoidAttr, beta)};
constexpr AttributeField kThresholdedRelu[] = {FIELD(ThresholdedReluAttr, alpha)};
constexpr AttributeField kRound[] = {FIELD(RoundAttr, roundMode, kRoundRoundModeCodes)};
constexpr AttributeField kSqrt[] = {FIELD(SqrtAttr, inputStrides), FIELD(SqrtAttr, outputStrides)};
constexpr AttributeField kGemm[] = {
    FIELD(GemmAttr, inputCount), FIELD(GemmAttr, inputStrides), FIELD(GemmAttr, outputStrides),
    FIELD(GemmAttr, alpha), FIELD(GemmAttr, beta), FIELD(GemmAttr, transA), FIELD(GemmAttr, transB),
};
constexpr AttributeField kQLinearMatMul[] = {FIELD(QLinearMatMulAttr, inputCount)};
constexpr AttributeField kConvolution[] = {
    FIELD(ConvolutionAttr, inputCount), FIELD(ConvolutionAttr, channels), FIELD(ConvolutionAttr, height),
    FIELD(ConvolutionAttr, width), FIELD(ConvolutionAttr, kernelH), FIELD(ConvolutionAttr, kernelW),
    FIELD(ConvolutionAttr, padTop), FIELD(ConvolutionAttr, padBottom), FIELD(ConvolutionAttr, padLeft),
    FIELD(ConvolutionAttr, padRight), FIELD(ConvolutionAttr, strideH), FIELD(ConvolutionAttr, strideW),
    FIELD(ConvolutionAttr, dilationH), FIELD(ConvolutionAttr, dilationW), FIELD(ConvolutionAttr, outHeight),
    FIELD(ConvolutionAttr, outWidth), FIELD(ConvolutionAttr, colChannels), FIELD(ConvolutionAttr, groupNum),
    FIELD(ConvolutionAttr, hasBias), FIELD(ConvolutionAttr, outChannels), FIELD(ConvolutionAttr, outGroupOffset),
    FIELD(ConvolutionAttr, weightGroupOffset), FIELD(ConvolutionAttr, colGroupOffset), FIELD(ConvolutionAttr, gemmM),
    FIELD(ConvolutionAttr, gemmN), FIELD(ConvolutionAttr, gemmK),
};
constexpr AttributeField kPoolingAve[] = {
    FIELD(PoolingAveAttr, kernelH), FIELD(PoolingAveAttr, kernelW), FIELD(PoolingAveAttr, strideH),
    FIELD(PoolingAveAttr, strideW), FIELD(PoolingAveAttr, padBottom), FIELD(PoolingAveAttr, padRight),
    FIELD(PoolingAveAttr, padTop), FIELD(PoolingAveAttr, padLeft), FIELD(PoolingAveAttr, padValue),
    FIELD(PoolingAveAttr, countIncludePad),
};
constexpr AttributeField kPoolingMax[] = {
    FIELD(PoolingMaxAttr, kernelH), FIELD(PoolingMaxAttr, kernelW), FIELD(PoolingMaxAttr, strideH),
    FIELD(PoolingMaxAttr, strideW), FIELD(PoolingMaxAttr, padTop), FIELD(PoolingMaxAttr, padLeft),
    FIELD(PoolingMaxAttr, padValue),
};
constexpr AttributeField kPoolingLp[] = {
    FIELD(PoolingLpAttr, kernelH), FIELD(PoolingLpAttr, kernelW), FIELD(PoolingLpAttr, strideH),
    FIELD(PoolingLpAttr, strideW), FIELD(PoolingLpAttr, padTop), FIELD(PoolingLpAttr, padLeft),
    FIELD(PoolingLpAttr, normP),
};
constexpr AttributeField kInstanceNormalization[] = {FIELD(InstanceNormalizationAttr, epsilon)};
constexpr AttributeField kLpNorm[] = {FIELD(LpNormAttr, axis), FIELD(LpNormAttr, p)};
constexpr AttributeField kReduction[] = {
    FIELD(ReductionAttr, axes), FIELD(ReductionAttr, axesNum),
    FIELD(ReductionAttr, reductionType, kReductionReductionTypeCodes), FIELD(ReductionAttr, reduceAll),
};
constexpr AttributeField kCumSum[] = {
    FIELD(CumSumAttr, exclusive), FIELD(CumSumAttr, reverse), FIELD(CumSumAttr, axis),
};
constexpr AttributeField kArgmin[] = {FIELD(ArgminAttr, axis), FIELD(ArgminAttr, selectLastIndex)};
constexpr AttributeField kHardmax[] = {FIELD(HardmaxAttr, axis), FIELD(HardmaxAttr, opsetVersion)};
constexpr AttributeField kTopK[] = {
    FIELD(TopKAttr, k, kTopKKCodes), FIELD(TopKAttr, axis), FIELD(TopKAttr, largest), FIELD(TopKAttr, hasValues),
    FIELD(TopKAttr, hasIndices),
};
constexpr AttributeField kUnique[] = {FIELD(UniqueAttr, axis, kUniqueAxisCodes), FIELD(UniqueAttr, sorted)};
constexpr AttributeField kConcat[] = {FIELD(ConcatAttr, concatInputCount), FIELD(ConcatAttr, concatAxis)};
constexpr AttributeField kExpand[] = {FIELD(ExpandAttr, inputStrides), FIELD(ExpandAttr, outputStrides)};
constexpr AttributeField kReshape[] = {FIELD(ReshapeAttr, reshapeDims), FIELD(ReshapeAttr, reshapeDimCount)};
constexpr AttributeField kPermute[] = {
    FIELD(PermuteAttr, permDimCount), FIELD(PermuteAttr, permOutDimCount), FIELD(PermuteAttr, perm),
    FIELD(PermuteAttr, permLength),
};
constexpr AttributeField kDepthToSpace[] = {
    FIELD(DepthToSpaceAttr, blockSize), FIELD(DepthToSpaceAttr, depthToSpaceMode, kDepthToSpaceDepthToSpaceModeCodes),
};
constexpr AttributeField kEyelike[] = {FIELD(EyelikeAttr, eyeK)};
constexpr AttributeField kOneHot[] = {FIELD(OneHotAttr, oneHotAxis)};
constexpr AttributeField kGather[] = {FIELD(GatherAttr, gatherAxis)};
constexpr AttributeField kGatherElements[] = {FIELD(GatherElementsAttr, gatherAxis)};
constexpr AttributeField kGatherND[] = {FIELD(GatherNDAttr, gatherAxis)};
constexpr AttributeField kScatter[] = {FIELD(ScatterAttr, scatterAxis)};
constexpr AttributeField kPad[] = {
    FIELD(PadAttr, padCountCheck), FIELD(PadAttr, outputDimsSize), FIELD(PadAttr, reshapedInputDimsSize),
    FIELD(PadAttr, reshapedOutputDimsSize), FIELD(PadAttr, reshapedPadsSize), FIELD(PadAttr, reshapedSlicesSize),
    FIELD(PadAttr, inputStartsSize), FIELD(PadAttr, inputExtentsSize), FIELD(PadAttr, padMode, kPadPadModeCodes),
    FIELD(PadAttr, padsAttr), FIELD(PadAttr, padCount), FIELD(PadAttr, padConstant),
};
constexpr AttributeField kResize[] = {
    FIELD(ResizeAttr, extrapolationValue), FIELD(ResizeAttr, coordinateMode, kResizeCoordinateModeCodes),
    FIELD(ResizeAttr, resizeMode, kResizeResizeModeCodes), FIELD(ResizeAttr, nearestMode, kResizeNearestModeCodes),
    FIELD(ResizeAttr, scales), FIELD(ResizeAttr, sizes), FIELD(ResizeAttr, roi), FIELD(ResizeAttr, roiCount),
    FIELD(ResizeAttr, useSizes), FIELD(ResizeAttr, hasRoi), FIELD(ResizeAttr, extrapolate),
};
constexpr AttributeField kDecBbox[] = {
    FIELD(DecBboxAttr, classNum), FIELD(DecBboxAttr, hasClassId), FIELD(DecBboxAttr, clipBox),
    FIELD(DecBboxAttr, imageWidth), FIELD(DecBboxAttr, imageHeight), FIELD(DecBboxAttr, mergeClasses),
};
constexpr AttributeField kDetectionOutput[] = {
    FIELD(DetectionOutputAttr, classNum), FIELD(DetectionOutputAttr, hasClassId),
    FIELD(DetectionOutputAttr, stage, kDetectionOutputStageCodes), FIELD(DetectionOutputAttr, classCapacity),
    FIELD(DetectionOutputAttr, maxBoxNum), FIELD(DetectionOutputAttr, packOutput),
    FIELD(DetectionOutputAttr, writeCount),
};
constexpr AttributeField kNonMaxSuppression[] = {
    FIELD(NonMaxSuppressionAttr, inputCount), FIELD(NonMaxSuppressionAttr, centerPointBox),
};
constexpr AttributeField kIf[] = {
    FIELD(IfAttr, cmpType, kIfCmpTypeCodes), FIELD(IfAttr, hasSecondOperand), FIELD(IfAttr, thenSegId),
    FIELD(IfAttr, elseSegId),
};
constexpr AttributeField kThenEnd[] = {FIELD(ThenEndAttr, tensorNum), FIELD(ThenEndAttr, nextSegId)};
constexpr AttributeField kElseBegin[] = {FIELD(ElseBeginAttr, tensorNum)};
constexpr AttributeField kCondEnd[] = {
    FIELD(CondEndAttr, tensorNum), FIELD(CondEndAttr, ifBranch), FIELD(CondEndAttr, loopBranch),
    FIELD(CondEndAttr, scanBranch), FIELD(CondEndAttr, condValue, kCondEndCondValueCodes),
    FIELD(CondEndAttr, nextSegId),
};
constexpr AttributeField kLoop[] = {
    FIELD(LoopAttr, iteration), FIELD(LoopAttr, condition), FIELD(LoopAttr, tripCount), FIELD(LoopAttr, outputTotal),
    FIELD(LoopAttr, inputCursor), FIELD(LoopAttr, carriedNum), FIELD(LoopAttr, exitSegId),
};
constexpr AttributeField kCustom[] = {
    FIELD(CustomAttr, totalInputNum), FIELD(CustomAttr, funcName), FIELD(CustomAttr, params.fixed),
    FIELD(CustomAttr, fixedSize),
};

constexpr AttributeRecord kRecords[] = {
    PLAIN(Acos),
    PLAIN(Acosh),
    ROW(Argmin, Argmin),
    PLAIN(Asin),
    PLAIN(Asinh),
    PLAIN(Atan),
    PLAIN(Atanh),
    ROW(BinaryMath, BinaryMath),
    ROW(BitShift, BitShift),
    ROW(Celu, Celu),
    ROW(Cmp, Cmp),
    ROW(Concat, Concat),
    ROW(Convolution, Convolution),
    PLAIN(Cos),
    PLAIN(Cosh),
    ROW(CumSum, CumSum),
    PLAIN(Det),
    ROW(Expand, Expand),
    ROW(Eyelike, Eyelike),
    ROW(Gemm, Gemm),
    ROW(PoolingLp, PoolingLp),
    ROW(PoolingMax, PoolingMax),
    ROW(Hardmax, Hardmax),
    ROW(HardSigmoid, HardSigmoid),
    ROW(InstanceNormalization, InstanceNormalization),
    ROW(Logical, Logical),
    ROW(LpNorm, LpNorm),
    PLAIN(MatMul),
    PLAIN(MaxUnpool),
    ROW(Mod, Mod),
    PLAIN(Neg),
    ROW(NonMaxSuppression, NonMaxSuppression),
    PLAIN(NonZero),
    ROW(OneHot, OneHot),
    ROW(Pad, Pad),
    ROW(QLinearMatMul, QLinearMatMul),
    PLAIN(Reciprocal),
    ROW(Reduction, Reduction),
    ROW(Round, Round),
    ROW(Scatter, Scatter),
    ROW(Selu, Selu),
    ROW(Shrink, Shrink),
    PLAIN(Sigmoid),
    PLAIN(Sign),
    PLAIN(Sin),
    PLAIN(Sinh),
    PLAIN(Softplus),
    PLAIN(Softsign),
    ROW(Sqrt, Sqrt),
    PLAIN(Tan),
    ROW(ThresholdedRelu, ThresholdedRelu),
    ROW(TopK, TopK),
    ROW(Permute, Permute),
    ROW(Unique, Unique),
    ROW(Where, Where),
    ROW(DecBbox, DecBbox),
    ROW(FilterBox, DetectionOutput),
    ROW(Sort, DetectionOutput),
    ROW(NMS, DetectionOutput),
    ROW(PoolingAve, PoolingAve),
    ROW(Loop, Loop),
    ROW(If, If),
    ROW(ThenEnd, ThenEnd),
    ROW(CondEnd, CondEnd),
    ROW(ElseBegin, ElseBegin),
    ROW(Resize, Resize),
    ROW(GatherElements, GatherElements),
    ROW(DepthToSpace, DepthToSpace),
    ROW(Reshape, Reshape),
    ROW(Custom, Custom),
    ROW(Gather, Gather),
    ROW(GatherND, GatherND),
    PLAIN(ScatterND),
};

// clang-format on

#undef CODE
#undef FIELD
#undef ROW
#undef PLAIN

}  // namespace

std::span<const AttributeRecord> AttributeRecords()
{
    return kRecords;
}

const AttributeRecord* FindAttributeRecord(std::string_view operatorName)
{
    const auto found = std::find_if(std::begin(kRecords), std::end(kRecords),
                                    [&](const AttributeRecord& record) { return record.operatorName == operatorName; });
    return found == std::end(kRecords) ? nullptr : found;
}

}  // namespace opkit::modelkit
