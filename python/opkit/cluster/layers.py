"""Self-test layers: for every operator that needs no library beside it, calls on fixed inputs, and a hash of the outputs.

Inputs come from whole-number arithmetic, so that every machine makes the same ones. Rows are wide enough for vector code,
and odd, so that the scalar ends of loops run, too.
"""

from __future__ import annotations

import zlib
from collections.abc import Iterator

import numpy as np

from opkit import OPERATORS, Constant, Tensor, run_operator

ROWS, WIDTH = 5, 61
SHAPE = (ROWS, WIDTH)
WITHOUT = frozenset({"Custom"})  # calls a function of the user's own library

_INSIDE = {"Acos": (-1, 1), "Asin": (-1, 1), "Atanh": (-1, 1), "Acosh": (1, 30), "Sqrt": (0, 30)}
_UNARY = ("Acos Acosh Asin Asinh Atan Atanh Cos Cosh Neg Reciprocal Sigmoid Sign Sin Sinh Softplus Softsign Sqrt "
          "Tan").split()


def values(shape, low: float = -8.0, high: float = 8.0, seed: int = 1) -> np.ndarray:
    count = int(np.prod(shape))
    mixed = (np.arange(seed, seed + count, dtype=np.uint64) * 0x9E3779B97F4A7C15 ^ 0x2545F491) * 0xD1342543DE82EF95
    steps = (mixed >> np.uint64(40)).astype(np.float64) / 2**24
    return (low + steps * (high - low)).astype(np.float32).reshape(shape)


def whole(shape, low: int, high: int, seed: int = 1) -> np.ndarray:
    return np.floor(values(shape, low, high + 1, seed))


def _element_wise() -> Iterator:
    for name in _UNARY:
        yield name, [values(SHAPE, *_INSIDE.get(name, (-8, 8)))], [SHAPE], {}
    x, y, row = values(SHAPE), values(SHAPE, seed=1000), Constant(values(WIDTH, 1, 5, 7))
    for kind in range(5):
        yield "BinaryMath", [x, y], [SHAPE], {"mathType": kind}
        yield "BinaryMath", [x, row], [SHAPE], {"mathType": kind}
    for kind in range(6):
        yield "Cmp", [x, y], [SHAPE], {"cmpType": kind}
    truth, other = whole(SHAPE, 0, 1), whole(SHAPE, 0, 1, 500)
    for kind in range(3):
        yield "Logical", [truth, other], [SHAPE], {"logicalType": kind}
    yield "Logical", [truth], [SHAPE], {"logicalType": 3}
    for left in (0, 1):
        yield "BitShift", [whole(SHAPE, 0, 9999), whole(SHAPE, 0, 12, 9)], [SHAPE], {"shiftLeft": left}
        yield "Mod", [whole(SHAPE, -99, 99), whole(SHAPE, 1, 9, 9)], [SHAPE], {"fmod": left}
    yield "Where", [truth, x, y], [SHAPE], {"inputCount": 3}
    yield "Celu", [x], [SHAPE], {"alpha": 1.5}
    yield "Selu", [x], [SHAPE], {"alpha": 1.67, "gamma": 1.05}
    yield "Shrink", [x], [SHAPE], {"bias": 0.5, "lambd": 1.5}
    yield "HardSigmoid", [x], [SHAPE], {"alpha": 0.2, "beta": 0.5}
    yield "ThresholdedRelu", [x], [SHAPE], {"alpha": 0.75}
    for mode in range(3):
        yield "Round", [x], [SHAPE], {"roundMode": mode}


def _matrix() -> Iterator:
    a, b, c = values((2, 9, 23)), values((2, 23, 37), seed=77), Constant(values(37))
    yield "MatMul", [a, b], [(2, 9, 37)], {}
    yield "Gemm", [a[0], Constant(b[0]), c], [(9, 37)], {"inputCount": 3, "alpha": 0.5, "beta": 2}
    yield "Gemm", [a[0].T.copy(), b[0].T.copy()], [(9, 37)], {"inputCount": 2, "alpha": 1, "transA": 1, "transB": 1}
    yield "QLinearMatMul", [whole((9, 23), 0, 255), whole((23, 37), 0, 255, 5), [128], [100]], [(9, 37)], {
        "inputCount": 4}
    yield "Det", [values((3, 5, 5))], [(3,)], {}
    shape = dict(inputCount=2, channels=4, height=9, width=11, kernelH=3, kernelW=3, padTop=1, padBottom=1, padLeft=1,
                 padRight=1, strideH=1, strideW=1, dilationH=1, dilationW=1, outHeight=9, outWidth=11, colChannels=36,
                 groupNum=2, outChannels=6, gemmM=3, gemmN=99, gemmK=18, outGroupOffset=297, weightGroupOffset=54,
                 colGroupOffset=1782)
    yield "Convolution", [values((1, 4, 9, 11)), Constant(values((6, 2, 3, 3)))], [(1, 6, 9, 11)], shape


def _pooling() -> Iterator:
    x, out = values((1, 3, 12, 33)), (1, 3, 6, 17)
    window = {"kernelH": 3, "kernelW": 3, "strideH": 2, "strideW": 2, "padTop": 1, "padLeft": 1}
    yield "PoolingAve", [x], [out], {**window, "padBottom": 1, "padRight": 1, "countIncludePad": 1}
    yield "PoolingMax", [x], [out, out], {**window, "padValue": -100}
    for p in (1, 2, 3):
        yield "PoolingLp", [x], [out], {**window, "normP": p}
    yield "MaxUnpool", [values((1, 2, 3, 4)), whole((1, 2, 3, 4), 0, 47)], [(1, 2, 6, 8)], {}
    yield "InstanceNormalization", [x, values(3), values(3, seed=9)], [x.shape], {"epsilon": 1}
    for axis in (0, 1):
        yield "LpNorm", [values(SHAPE, 1, 9)], [SHAPE], {"axis": axis, "p": 3 - axis}


def _selection() -> Iterator:
    x = values(SHAPE)
    for kind in range(10):
        data = values(SHAPE, 0.5, 1.5)
        yield "Reduction", [data], [(ROWS, 1)], {"axes": [1], "axesNum": 1, "reductionType": kind}
        yield "Reduction", [data], [(1, WIDTH)], {"axesNum": 1, "reductionType": kind}
    for axis, groups in ((0, (WIDTH,)), (1, (ROWS,))):
        yield "Argmin", [x], [groups], {"axis": axis}
        yield "CumSum", [x], [SHAPE], {"axis": axis, "reverse": axis}
        yield "Hardmax", [x], [SHAPE], {"axis": axis, "opsetVersion": 13}
    yield "TopK", [x], [(ROWS, 7), (ROWS, 7)], {"k": 7, "axis": 1, "largest": 1, "hasValues": 1, "hasIndices": 1}
    yield "NonZero", [whole((3, 21), 0, 1)], [(2, 63)], {}
    seats = [8, 8, 40, 8]
    yield "Unique", [np.append(np.arange(8), whole(32, 0, 7))], [(n,) for n in seats], {"axis": -4, "sorted": 1}


def _movement() -> Iterator:
    x = values(SHAPE)
    yield "Concat", [x, Constant(values((ROWS, 3)))], [(ROWS, WIDTH + 3)], {"concatInputCount": 2, "concatAxis": 1}
    yield "DepthToSpace", [values((1, 8, 3, 5))], [(1, 2, 6, 10)], {"blockSize": 2}
    yield "Expand", [values((ROWS, 1, 7))], [(ROWS, 6, 7)], {}
    yield "Eyelike", [x], [SHAPE], {"eyeK": 2}
    yield "Gather", [x, whole(9, 0, ROWS - 1)], [(9, WIDTH)], {"gatherAxis": 0}
    yield "GatherElements", [x, whole((ROWS, 8), 0, WIDTH - 1)], [(ROWS, 8)], {"gatherAxis": 1}
    yield "GatherND", [x, whole((4, 1), 0, ROWS - 1)], [(4, WIDTH)], {}
    yield "OneHot", [whole(ROWS, 0, 8), Constant([9]), [-1, 1]], [(ROWS, 9)], {"oneHotAxis": 1}
    sizes = dict.fromkeys(("outputDimsSize", "reshapedInputDimsSize", "reshapedOutputDimsSize", "inputStartsSize",
                           "inputExtentsSize"), 2)
    for mode in range(3):
        yield "Pad", [x], [(ROWS + 3, WIDTH + 4)], {
            **sizes, "padCountCheck": 4, "padCount": 4, "reshapedPadsSize": 4, "reshapedSlicesSize": 4, "padMode": mode,
            "padsAttr": [1, 2, 2, 2], "padConstant": 0.5}
    yield "Permute", [x], [(WIDTH, ROWS)], {"permDimCount": 2, "permOutDimCount": 2, "perm": [1, 0], "permLength": 2}
    yield "Reshape", [Tensor(x, 256)], [(WIDTH, ROWS)], {"reshapeDims": [WIDTH, ROWS], "reshapeDimCount": 2}
    for mode in (0, 1):
        yield "Resize", [values((1, 2, 7, 9))], [(1, 2, 14, 18)], {"scales": [1, 1, 2, 2], "resizeMode": mode}
    yield "Scatter", [x, whole((ROWS, 4), 0, WIDTH - 1), values((ROWS, 4), seed=3)], [SHAPE], {"scatterAxis": 1}
    yield "ScatterND", [x, [[4], [1]], values((2, WIDTH), seed=8)], [SHAPE], {}


def _detection() -> Iterator:
    corner = values((12, 2), 0, 60)
    boxes = np.concatenate([corner, corner + values((12, 2), 8, 30, 5)], 1)
    yield "NonMaxSuppression", [boxes[None], values((1, 2, 12), 0, 1), [5], [0.4], [0.2]], [(10, 3)], {"inputCount": 5}
    # The stages pass counts and thresholds on through the thread, so they run in this order.
    yield "DecBbox", [values((1, 8, 12), -0.3, 0.3), values((1, 2, 12), 0, 1, 5), [0.4, 0.2, 3, 3], [12],
                      boxes.T[None, None].copy()], [(1, 2, 6, 12)], {
        "classNum": 2, "hasClassId": 1, "clipBox": 1, "imageWidth": 100, "imageHeight": 100}
    lists = np.zeros((1, 2, 6, 12), np.float32)
    lists[0, :, :4] = boxes.T
    lists[0, :, 4] = values((2, 12), 0, 1)
    for name, stage in (("FilterBox", 1), ("Sort", 2), ("NMS", 0)):
        yield name, [lists], [(1, 2, 6, 12)], {"classNum": 2, "hasClassId": 1, "stage": stage, "classCapacity": 12,
                                               "maxBoxNum": 12}


def _control() -> Iterator:
    x = values(SHAPE)
    yield "If", [[1]], [(1,)], {"thenSegId": 1, "elseSegId": 2}
    yield "ThenEnd", [x], [SHAPE], {"tensorNum": 1, "nextSegId": 3}
    yield "ElseBegin", [x], [SHAPE], {"tensorNum": 1}
    yield "CondEnd", [x, x + 1], [SHAPE], {"tensorNum": 1, "ifBranch": 1}
    yield "Loop", [[1], x, [1], x], [(1,), SHAPE, SHAPE], {
        "condition": -1, "tripCount": 3, "inputCursor": 1, "carriedNum": 1, "exitSegId": 4}


def self_test() -> dict[str, int]:
    """Runs all layers; a CRC-32 per operator over the outputs of its layers, in which one NaN counts as another."""
    hashes: dict[str, int] = {}
    for part in (_element_wise, _matrix, _pooling, _selection, _movement, _detection, _control):
        for name, inputs, outputs, attributes in part():
            result = run_operator(name, inputs, outputs, attributes)
            for output in result.outputs:
                output = np.where(np.isnan(output), np.float32(np.nan), output)
                hashes[name] = zlib.crc32(np.ascontiguousarray(output).tobytes(), hashes.get(name, 0))
            hashes[name] = zlib.crc32(result.seg_id.to_bytes(4, "little"), hashes[name])
    missing = set(OPERATORS) - set(hashes) - WITHOUT
    if missing:
        raise NotImplementedError(f"no self-test layer for {', '.join(sorted(missing))}")
    return hashes
