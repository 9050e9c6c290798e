"""Made by script/generate: the operators and their attribute records as data.

RECORDS has a record's size and, per field, its type and its byte offset from the start of the layer's attribute block.
OPERATORS has the rows of the operator table, without the suffix OpkitForward, and the record of each.
CODES has names for the values of some fields; an attribute takes the name in place of the number.
"""

import numpy as np

U8, U32, I32, U64, I64, F32 = "u1", "<u4", "<i4", "<u8", "<i8", "<f4"
STRIDES = np.dtype([("strides", U32, 10), ("count", U32)])  # a StrideRecord; operators write them

RECORDS = {
    "LayerAttrHead": (3924, {}),
    "ArgminAttr": (3940, {"axis": (I32, 3928), "selectLastIndex": (U32, 3936)}),
    "BinaryMathAttr": (8772, {
        "inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448), "mathType": (U32, 8768),
    }),
    "BitShiftAttr": (8772, {
        "inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448), "shiftLeft": (U8, 8768),
    }),
    "CeluAttr": (3932, {"alpha": (F32, 3928)}),
    "CmpAttr": (8772, {
        "cmpType": (U32, 3928), "inputStrides": ((STRIDES, 80), 3932), "outputStrides": ((STRIDES, 30), 7452),
    }),
    "ConcatAttr": (3932, {"concatInputCount": (U32, 3924), "concatAxis": (I32, 3928)}),
    "ConvolutionAttr": (4032, {
        "inputCount": (U32, 3928), "channels": (U32, 3932), "height": (U32, 3936), "width": (U32, 3940),
        "kernelH": (U32, 3944), "kernelW": (U32, 3948), "padTop": (U32, 3952), "padBottom": (U32, 3956),
        "padLeft": (U32, 3960), "padRight": (U32, 3964), "strideH": (U32, 3968), "strideW": (U32, 3972),
        "dilationH": (U32, 3976), "dilationW": (U32, 3980), "outHeight": (U32, 3984), "outWidth": (U32, 3988),
        "colChannels": (U32, 3992), "groupNum": (U32, 3996), "hasBias": (U32, 4000), "outChannels": (U32, 4004),
        "outGroupOffset": (U32, 4008), "weightGroupOffset": (U32, 4012), "colGroupOffset": (U32, 4016),
        "gemmM": (U32, 4020), "gemmN": (U32, 4024), "gemmK": (U32, 4028),
    }),
    "CumSumAttr": (3940, {"exclusive": (U32, 3928), "reverse": (U32, 3932), "axis": (I32, 3936)}),
    "ExpandAttr": (8768, {"inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448)}),
    "EyelikeAttr": (3936, {"eyeK": (I32, 3932)}),
    "GemmAttr": (8784, {
        "inputCount": (U32, 3924), "inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448),
        "alpha": (F32, 8772), "beta": (F32, 8776), "transA": (U8, 8780), "transB": (U8, 8781),
    }),
    "PoolingLpAttr": (3976, {
        "kernelH": (U32, 3928), "kernelW": (U32, 3932), "strideH": (U32, 3936), "strideW": (U32, 3940),
        "padTop": (U32, 3944), "padLeft": (U32, 3948), "normP": (U32, 3972),
    }),
    "PoolingMaxAttr": (3972, {
        "kernelH": (U32, 3928), "kernelW": (U32, 3932), "strideH": (U32, 3936), "strideW": (U32, 3940),
        "padTop": (U32, 3952), "padLeft": (U32, 3960), "padValue": (F32, 3968),
    }),
    "HardmaxAttr": (3936, {"axis": (I32, 3928), "opsetVersion": (I32, 3932)}),
    "HardSigmoidAttr": (3936, {"alpha": (F32, 3928), "beta": (F32, 3932)}),
    "InstanceNormalizationAttr": (3932, {"epsilon": (I32, 3928)}),
    "LogicalAttr": (8772, {
        "logicalType": (U32, 3928), "inputStrides": ((STRIDES, 80), 3932), "outputStrides": ((STRIDES, 30), 7452),
    }),
    "LpNormAttr": (3936, {"axis": (I32, 3928), "p": (I32, 3932)}),
    "ModAttr": (8772, {
        "inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448), "fmod": (U8, 8768),
    }),
    "NonMaxSuppressionAttr": (3932, {"inputCount": (I32, 3924), "centerPointBox": (U32, 3928)}),
    "OneHotAttr": (3932, {"oneHotAxis": (I32, 3928)}),
    "PadAttr": (4052, {
        "padCountCheck": (U32, 3928), "outputDimsSize": (I32, 3932), "reshapedInputDimsSize": (I32, 3936),
        "reshapedOutputDimsSize": (I32, 3940), "reshapedPadsSize": (I32, 3944), "reshapedSlicesSize": (I32, 3948),
        "inputStartsSize": (I32, 3952), "inputExtentsSize": (I32, 3956), "padMode": (U32, 3960),
        "padsAttr": ((I32, 20), 3964), "padCount": (U32, 4044), "padConstant": (F32, 4048),
    }),
    "QLinearMatMulAttr": (3932, {"inputCount": (I32, 3928)}),
    "ReductionAttr": (3984, {
        "axes": ((U32, 10), 3928), "axesNum": (U32, 3968), "reductionType": (U32, 3976), "reduceAll": (U32, 3980),
    }),
    "RoundAttr": (3932, {"roundMode": (U32, 3928)}),
    "ScatterAttr": (3932, {"scatterAxis": (I32, 3928)}),
    "SeluAttr": (3936, {"alpha": (F32, 3928), "gamma": (F32, 3932)}),
    "ShrinkAttr": (3936, {"bias": (F32, 3928), "lambd": (F32, 3932)}),
    "SqrtAttr": (8768, {"inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448)}),
    "ThresholdedReluAttr": (3932, {"alpha": (F32, 3928)}),
    "TopKAttr": (3948, {
        "k": (U32, 3928), "axis": (I32, 3932), "largest": (U32, 3936), "hasValues": (U32, 3940),
        "hasIndices": (U32, 3944),
    }),
    "PermuteAttr": (3980, {
        "permDimCount": (U32, 3928), "permOutDimCount": (U32, 3932), "perm": ((U32, 10), 3936),
        "permLength": (U32, 3976),
    }),
    "UniqueAttr": (3936, {"axis": (I32, 3928), "sorted": (U32, 3932)}),
    "WhereAttr": (8768, {
        "inputCount": (U32, 3924), "inputStrides": ((STRIDES, 80), 3928), "outputStrides": ((STRIDES, 30), 7448),
    }),
    "DecBboxAttr": (8792, {
        "classNum": (U32, 8768), "hasClassId": (U32, 8772), "clipBox": (U32, 8776), "imageWidth": (U32, 8780),
        "imageHeight": (U32, 8784), "mergeClasses": (U32, 8788),
    }),
    "DetectionOutputAttr": (8808, {
        "classNum": (U32, 8768), "hasClassId": (U32, 8772), "stage": (U32, 8776), "classCapacity": (U32, 8780),
        "maxBoxNum": (U32, 8792), "packOutput": (U32, 8796), "writeCount": (U32, 8804),
    }),
    "PoolingAveAttr": (3980, {
        "kernelH": (U32, 3928), "kernelW": (U32, 3932), "strideH": (U32, 3936), "strideW": (U32, 3940),
        "padBottom": (U32, 3944), "padRight": (U32, 3948), "padTop": (U32, 3952), "padLeft": (U32, 3960),
        "padValue": (F32, 3968), "countIncludePad": (U8, 3976),
    }),
    "LoopAttr": (3980, {
        "iteration": (I32, 3932), "condition": (I32, 3936), "tripCount": (I64, 3944), "outputTotal": (U64, 3952),
        "inputCursor": (U32, 3960), "carriedNum": (U32, 3968), "exitSegId": (U32, 3976),
    }),
    "IfAttr": (3944, {
        "cmpType": (U32, 3928), "hasSecondOperand": (U8, 3932), "thenSegId": (U32, 3936), "elseSegId": (U32, 3940),
    }),
    "ThenEndAttr": (3932, {"tensorNum": (I32, 3924), "nextSegId": (U32, 3928)}),
    "CondEndAttr": (3948, {
        "tensorNum": (U32, 3924), "ifBranch": (U32, 3928), "loopBranch": (U32, 3932), "scanBranch": (U32, 3936),
        "condValue": (U32, 3940), "nextSegId": (U32, 3944),
    }),
    "ElseBeginAttr": (3928, {"tensorNum": (I32, 3924)}),
    "ResizeAttr": (4088, {
        "extrapolationValue": (F32, 3936), "coordinateMode": (U32, 3940), "resizeMode": (U32, 3944),
        "nearestMode": (U32, 3948), "scales": ((F32, 10), 3952), "sizes": ((I32, 10), 3992), "roi": ((F32, 10), 4032),
        "roiCount": (U32, 4072), "useSizes": (U32, 4076), "hasRoi": (U32, 4080), "extrapolate": (U32, 4084),
    }),
    "GatherElementsAttr": (8772, {"gatherAxis": (I32, 8768)}),
    "DepthToSpaceAttr": (3936, {"blockSize": (U32, 3928), "depthToSpaceMode": (U32, 3932)}),
    "ReshapeAttr": (3972, {"reshapeDims": ((U32, 10), 3928), "reshapeDimCount": (U32, 3968)}),
    "CustomAttr": (4076, {
        "totalInputNum": (U32, 3924), "funcName": ("S64", 3928), "params.sized.sizedSize": (U32, 3992),
        "params.sized.marker": (U32, 3996), "params.sized.params": ((U8, 72), 4000), "params.fixed": ((U8, 80), 3992),
        "fixedSize": (U32, 4072),
    }),
    "GatherAttr": (8772, {"gatherAxis": (U32, 8768)}),
    "GatherNDAttr": (8772, {"gatherAxis": (I32, 8768)}),
}

OPERATORS = {
    "Acos": "LayerAttrHead", "Acosh": "LayerAttrHead", "Argmin": "ArgminAttr", "Asin": "LayerAttrHead",
    "Asinh": "LayerAttrHead", "Atan": "LayerAttrHead", "Atanh": "LayerAttrHead", "BinaryMath": "BinaryMathAttr",
    "BitShift": "BitShiftAttr", "Celu": "CeluAttr", "Cmp": "CmpAttr", "Concat": "ConcatAttr",
    "Convolution": "ConvolutionAttr", "Cos": "LayerAttrHead", "Cosh": "LayerAttrHead", "CumSum": "CumSumAttr",
    "Det": "LayerAttrHead", "Expand": "ExpandAttr", "Eyelike": "EyelikeAttr", "Gemm": "GemmAttr",
    "PoolingLp": "PoolingLpAttr", "PoolingMax": "PoolingMaxAttr", "Hardmax": "HardmaxAttr",
    "HardSigmoid": "HardSigmoidAttr", "InstanceNormalization": "InstanceNormalizationAttr", "Logical": "LogicalAttr",
    "LpNorm": "LpNormAttr", "MatMul": "LayerAttrHead", "MaxUnpool": "LayerAttrHead", "Mod": "ModAttr",
    "Neg": "LayerAttrHead", "NonMaxSuppression": "NonMaxSuppressionAttr", "NonZero": "LayerAttrHead",
    "OneHot": "OneHotAttr", "Pad": "PadAttr", "QLinearMatMul": "QLinearMatMulAttr", "Reciprocal": "LayerAttrHead",
    "Reduction": "ReductionAttr", "Round": "RoundAttr", "Scatter": "ScatterAttr", "Selu": "SeluAttr",
    "Shrink": "ShrinkAttr", "Sigmoid": "LayerAttrHead", "Sign": "LayerAttrHead", "Sin": "LayerAttrHead",
    "Sinh": "LayerAttrHead", "Softplus": "LayerAttrHead", "Softsign": "LayerAttrHead", "Sqrt": "SqrtAttr",
    "Tan": "LayerAttrHead", "ThresholdedRelu": "ThresholdedReluAttr", "TopK": "TopKAttr", "Permute": "PermuteAttr",
    "Unique": "UniqueAttr", "Where": "WhereAttr", "DecBbox": "DecBboxAttr", "FilterBox": "DetectionOutputAttr",
    "Sort": "DetectionOutputAttr", "NMS": "DetectionOutputAttr", "PoolingAve": "PoolingAveAttr", "Loop": "LoopAttr",
    "If": "IfAttr", "ThenEnd": "ThenEndAttr", "CondEnd": "CondEndAttr", "ElseBegin": "ElseBeginAttr",
    "Resize": "ResizeAttr", "GatherElements": "GatherElementsAttr", "DepthToSpace": "DepthToSpaceAttr",
    "Reshape": "ReshapeAttr", "Custom": "CustomAttr", "Gather": "GatherAttr", "GatherND": "GatherNDAttr",
    "ScatterND": "LayerAttrHead",
}

CODES = {
    "OPKIT_BINARY_ADD": 0, "OPKIT_BINARY_SUB": 1, "OPKIT_BINARY_MUL": 2, "OPKIT_BINARY_DIV": 3, "OPKIT_BINARY_MAX": 4,
    "OPKIT_CMP_GREATER": 0, "OPKIT_CMP_EQUAL": 1, "OPKIT_CMP_LESS": 2, "OPKIT_CMP_NOT_EQUAL": 3,
    "OPKIT_CMP_GREATER_EQUAL": 4, "OPKIT_CMP_LESS_EQUAL": 5,
    "OPKIT_LOGICAL_AND": 0, "OPKIT_LOGICAL_OR": 1, "OPKIT_LOGICAL_XOR": 2, "OPKIT_LOGICAL_NOT": 3,
    "OPKIT_PAD_CONSTANT": 0, "OPKIT_PAD_REFLECT": 1, "OPKIT_PAD_EDGE": 2,
    "OPKIT_REDUCE_SUM": 0, "OPKIT_REDUCE_L1": 1, "OPKIT_REDUCE_SUM_SQUARE": 2, "OPKIT_REDUCE_MEAN": 3,
    "OPKIT_REDUCE_L2": 4, "OPKIT_REDUCE_LOG_SUM": 5, "OPKIT_REDUCE_LOG_SUM_EXP": 6, "OPKIT_REDUCE_MAX": 7,
    "OPKIT_REDUCE_MIN": 8, "OPKIT_REDUCE_PROD": 9,
    "OPKIT_ROUND_CEIL": 0, "OPKIT_ROUND_FLOOR": 1, "OPKIT_ROUND_NEAREST": 2,
    "OPKIT_TOPK_K_FROM_INPUT": 0xFFFFFFFF,
    "OPKIT_UNIQUE_FLAT": -4,
    "OPKIT_STAGE_NMS": 0, "OPKIT_STAGE_FILTER": 1, "OPKIT_STAGE_SORT": 2,
    "OPKIT_IF_GREATER": 0, "OPKIT_IF_EQUAL": 1,
    "OPKIT_COND_FROM_INPUT": 0xFFFFFFFF,
    "OPKIT_RESIZE_HALF_PIXEL": 0, "OPKIT_RESIZE_HALF_PIXEL_OR_ZERO": 1, "OPKIT_RESIZE_ALIGN_CORNERS": 2,
    "OPKIT_RESIZE_ASYMMETRIC": 3, "OPKIT_RESIZE_CROP": 4, "OPKIT_RESIZE_HALF_PIXEL_UNSHIFTED": 5,
    "OPKIT_RESIZE_NEAREST": 0, "OPKIT_RESIZE_LINEAR": 1,
    "OPKIT_RESIZE_ROUND_PREFER_FLOOR": 0, "OPKIT_RESIZE_ROUND": 1, "OPKIT_RESIZE_FLOOR": 2, "OPKIT_RESIZE_CEIL": 3,
    "OPKIT_RESIZE_SIMPLE": 4,
    "OPKIT_DEPTH_TO_SPACE_DCR": 0, "OPKIT_DEPTH_TO_SPACE_CRD": 1,
}
