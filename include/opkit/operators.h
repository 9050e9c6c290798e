/* The operators: every function that a layer can name, and the forms behind some of them.
 *
 * An operator takes a LayerParam and returns 0 or failure, mostly all ones. What all of them have in common:
 *   - Tensors hold f32, also where they hold indices, truth values or quantised numbers, and rows may be padded. As a
 *     truth value x is false when |x| is at most 1e-6, so NaN is true.
 *   - Inputs are numbered logically: input k is a constant of the model or the next online tensor, as inputFlags[k] of
 *     the layer's attribute block says. That block is a record of opkit/attributes/, named after the operator.
 *   - Output shapes are the model's; no operator writes one. Shapes, axes, counts and work space sizes are trusted
 *     unless a comment names a check; otherwise a zero width, alignment or axis length is the model's fault.
 *   - "Rows" says how padded rows are treated. In place: they are read and written where they lie. Compacting: inputs
 *     lose their padding in their own memory and are left so, constants of the model included; the output is written
 *     compactly and expanded. Expanding: inputs stay as they were, the output as before. Stepping: row after row by the
 *     unrounded alignment. The gaps behind output rows hold nothing of value.
 *   - "Fails" means: prints a line with the reporting function's name and returns something other than 0; "silently"
 *     means without the line. What was written by then stays. An input that does not resolve fails unless a comment
 *     says otherwise; most compacting and expanding operators fail on an output of width 0.
 *   - Threads: an operator touches its layer's tensors, work space and attribute block only, unless its comment says
 *     more. So one model buffer serves one request at a time, and requests that share nothing may run side by side. */
#ifndef OPKIT_OPERATORS_H
#define OPKIT_OPERATORS_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* ---- element by element, without attributes ---- */

/* outputs[0][i] = f(input 0[i]) for an input of any shape. f is libm's f32 function, or for Neg, Reciprocal, Sigmoid,
 * Sign, Softplus and Softsign the function ...CalcFunc of helpers/frame.h. Rows: in place. Fail silently when the input
 * does not resolve; an empty input is a success. */
OPKIT_API uint32_t AcosOpkitForward(LayerParam* param);
OPKIT_API uint32_t AsinOpkitForward(LayerParam* param);
OPKIT_API uint32_t AsinhOpkitForward(LayerParam* param);
OPKIT_API uint32_t AtanOpkitForward(LayerParam* param);
OPKIT_API uint32_t AtanhOpkitForward(LayerParam* param);
OPKIT_API uint32_t CosOpkitForward(LayerParam* param);
OPKIT_API uint32_t CoshOpkitForward(LayerParam* param);
OPKIT_API uint32_t NegOpkitForward(LayerParam* param);
OPKIT_API uint32_t ReciprocalOpkitForward(LayerParam* param);
OPKIT_API uint32_t SigmoidOpkitForward(LayerParam* param);
OPKIT_API uint32_t SignOpkitForward(LayerParam* param);
OPKIT_API uint32_t SinOpkitForward(LayerParam* param);
OPKIT_API uint32_t SoftplusOpkitForward(LayerParam* param);
OPKIT_API uint32_t SoftsignOpkitForward(LayerParam* param);
OPKIT_API uint32_t TanOpkitForward(LayerParam* param);

/* acosh in f64. Rows: compacting, unlike its siblings. */
OPKIT_API uint32_t AcoshOpkitForward(LayerParam* param);

/* sinh in f64. Rows: compacting. Never fails; the input must be there. */
OPKIT_API uint32_t SinhOpkitForward(LayerParam* param);

/* ---- element-wise with attributes ---- */

/* outputs[0] = a + b, a - b, a * b, a / b or the larger of both, inputs 0 and 1 broadcast to the output's shape
 * (BinaryMathAttr). A product or quotient with |b| at most 1e-6 is +0.0, whatever a is; the larger is b unless a > b.
 * Rows: in place. Writes its stride records.
 * Fails on an unknown mathType; silently when an input does not resolve. */
OPKIT_API uint32_t BinaryMathOpkitForward(LayerParam* param);

/* outputs[0] = a shifted by b modulo 64 places, left or right (BitShiftAttr); both count as unsigned 64-bit whole
 * numbers, the result is rounded to f32. Broadcasts as BinaryMath does. Rows: in place. Writes its stride records.
 * A negative operand is reported and computed all the same. Fails silently when an input does not resolve. */
OPKIT_API uint32_t BitShiftOpkitForward(LayerParam* param);

/* outputs[0] = a modulo b, broadcast (ModAttr). Of whole numbers, with b's sign, 0 where b truncates to 0; or of floats
 * by fmod, with a's sign, 0 where b is within 1e-6 of zero.
 * Rows: expanding. Writes its stride records. */
OPKIT_API uint32_t ModOpkitForward(LayerParam* param);

/* outputs[0] = 1.0 where the comparison of a and b holds, else 0.0, broadcast (CmpAttr). Equality has a tolerance of
 * 1e-6, order has none. Rows: in place. Writes its stride records.
 * An unknown cmpType computes nothing and succeeds. */
OPKIT_API uint32_t CmpOpkitForward(LayerParam* param);

/* outputs[0] = and, or, xor of two inputs, or not of one, as 1.0 and 0.0, broadcast (LogicalAttr). Rows: compacting.
 * Writes its stride records. An unknown logicalType only expands, and succeeds. LogicalOpkitForward hands logicalType 3
 * to NotForward, which does not look at the code, and all else to AndOrXorForward, to which 3 is unknown. */
OPKIT_API uint32_t LogicalOpkitForward(LayerParam* param);
OPKIT_API uint32_t AndOrXorForward(LayerParam* param);
OPKIT_API uint32_t NotForward(LayerParam* param);

/* outputs[0] = input 1 where input 0 is true, else input 2, bit for bit, broadcast (WhereAttr). Rows: compacting.
 * Writes its stride records. Fails silently unless inputCount is 3. */
OPKIT_API uint32_t WhereOpkitForward(LayerParam* param);

/* outputs[0] = x for x >= 0, else (exp(x / alpha) - 1) * alpha (CeluAttr); +0.0 for NaN. Input and output of one shape.
 * Rows: stepping.
 * Fails when the shapes differ or alpha is zero or subnormal; silently when the input does not resolve. */
OPKIT_API uint32_t CeluOpkitForward(LayerParam* param);

/* outputs[0] = x * gamma above 0, else exp(x - alpha) * alpha * gamma (SeluAttr). Rows: expanding; the input's element
 * count decides. */
OPKIT_API uint32_t SeluOpkitForward(LayerParam* param);

/* outputs[0] = x + bias below -lambd, x - bias above lambd, else +0.0 (ShrinkAttr). Rows: expanding. */
OPKIT_API uint32_t ShrinkOpkitForward(LayerParam* param);

/* outputs[0] = alpha * x + beta limited to 0 and 1, NaN passing (HardSigmoidAttr). Rows: expanding. */
OPKIT_API uint32_t HardSigmoidOpkitForward(LayerParam* param);

/* outputs[0] = x where x is above alpha, else +0.0 (ThresholdedReluAttr). Shapes, rows and failures as in Celu. */
OPKIT_API uint32_t ThresholdedReluOpkitForward(LayerParam* param);

/* outputs[0] = x rounded up, down, or to the nearest whole number (RoundAttr). Rows: expanding. An unknown roundMode
 * only expands. Fails silently when rank or element count of input and output differ. */
OPKIT_API uint32_t RoundOpkitForward(LayerParam* param);

/* outputs[0] = square root in f32, NaN below 0, broadcast to the output's shape (SqrtAttr). Rows: compacting. Writes
 * its stride records. */
OPKIT_API uint32_t SqrtOpkitForward(LayerParam* param);

/* ---- matrices and convolution ---- */

/* Y [..., M, N] = alpha * op(A) * op(B) + beta * C (GemmAttr), one product per matrix of Y; A and B move on by a whole
 * matrix each time. C, when there is one, is broadcast to Y's shape in the work space, which holds Y's elements. Rows:
 * compacting. Writes stride records when there is a C. */
OPKIT_API uint32_t GemmOpkitForward(LayerParam* param);

/* Y [..., M, N] = A [..., M, K] * B [..., K, N]; a smaller stack of matrices is used over again in order.
 * Rows: compacting.
 * Fails when A or B has no matrix but Y has; silently when the layer has no attribute block. */
OPKIT_API uint32_t MatMulOpkitForward(LayerParam* param);

/* MatMul of dequantised A and B, the result quantised again when all eight inputs are given (QLinearMatMulAttr).
 * Nothing is clamped. Rows: compacting; the inputs are dequantised in place, constants of the model too, so that a
 * second run dequantises them again.
 * Fails when Y has below 2 dimensions or inputCount is below 2; silently when an input does not resolve. */
OPKIT_API uint32_t QLinearMatMulOpkitForward(LayerParam* param);

/* Y [images, outChannels, outHeight, outWidth]: convolution of X with W by im2col and a product per image and group, in
 * whole numbers held as floats (ConvolutionAttr). inputCount decides between the two forms; their failures, -1, are
 * reported once more. The work space holds the column matrix and a byte per output position.
 * Rows: compacting, of X and W. */
OPKIT_API uint32_t ConvolutionOpkitForward(LayerParam* param);
/* Convolution with zero points only. Y's old content takes part when both zero points are set.
 * Returns 0 or -1, silently when an input does not resolve. */
OPKIT_API int32_t ConvIntegerForward(LayerParam* param);
/* Convolution with scales, each truncated to a byte before use. With hasBias the first gemmN weights are rescaled in
 * place for every image, so the model buffer changes. Returns as ConvIntegerForward does. */
OPKIT_API int32_t QLinearConvForward(LayerParam* param);

/* outputs[0], one element per matrix = determinant of X [..., n, n]. Rows: compacting; X is left eliminated. */
OPKIT_API uint32_t DetOpkitForward(LayerParam* param);

/* ---- pooling and normalisation ---- */

/* outputs[0] [N, C, outH, outW] = mean of each window of input 0 [N, C, H, W] (PoolingAveAttr). Rows: in place. The
 * operator returns 0 whatever happens; its core returns 0, or -1 with a message when the input does not resolve or,
 * without countIncludePad, a window holds no element. */
OPKIT_API uint32_t PoolingAveOpkitForward(LayerParam* param);
OPKIT_API int32_t PoolingAveOpkitForwardCore(LayerParam* param);

/* outputs[0] [N, C, outH, outW] = largest element of each window of input 0 [N, C, H, W], the first in scan order
 * (PoolingMaxAttr); outputs[1], when there is one, its place in the plane. NaN never wins, and an index without a
 * winner keeps what it held. Rows: in place.
 * The operator returns 0 whatever happens; its core returns 0, or all ones with a message when the input does not
 * resolve. */
OPKIT_API uint32_t PoolingMaxOpkitForward(LayerParam* param);
OPKIT_API uint32_t PoolingMaxOpkitForwardCore(LayerParam* param);

/* outputs[0] [N, C, outH, outW] = norm of each window of input 0 [N, C, H, W] (PoolingLpAttr). Rows: compacting. Fails
 * silently when the input does not resolve.
 * The core does all but the expansion and returns 0 or -1. */
OPKIT_API uint32_t PoolingLpOpkitForward(LayerParam* param);
OPKIT_API int32_t PoolingLpOpkitForwardCore(LayerParam* param);

/* outputs[0] [N, C, outH, outW] = zeros, and each element of X [N, C, H, W] at the place in its plane that I, of X's
 * shape, names; the last of several wins. Rows: expanding.
 * Fails at the first place outside the plane. */
OPKIT_API uint32_t MaxUnpoolOpkitForward(LayerParam* param);

/* outputs[0] = x * a + (bias - mean * a) per plane of X [N, C, H, W], a = scale[c] / sqrt(variance + epsilon)
 * (InstanceNormalizationAttr); only the last four dimensions count. Inputs X, scale, bias; the work space holds one
 * plane. Rows: compacting.
 * Fails when a plane exceeds the work space or the output's size; silently when an input does not resolve. */
OPKIT_API uint32_t InstanceNormalizationOpkitForward(LayerParam* param);

/* outputs[0] = input 0, each line along axis divided by its p-norm, for which elements are truncated to whole numbers
 * (LpNormAttr). A norm of 0 is divided by all the same. Rows: compacting. */
OPKIT_API uint32_t LpNormOpkitForward(LayerParam* param);

/* ---- reductions and selection ---- */

/* outputs[0] = input 0 folded over axes, or over all (ReductionAttr), in ascending order of the input's elements. Rows:
 * in place. An unknown reductionType leaves zeros. Fails when the output has no elements; the input must be there. */
OPKIT_API uint32_t ReductionOpkitForward(LayerParam* param);

/* outputs[0] = running sums of input 0 along axis (CumSumAttr); the exclusive sum is the inclusive one less the
 * element. Rows: compacting. Never fails; the input must be there. */
OPKIT_API uint32_t CumSumOpkitForward(LayerParam* param);

/* outputs[0], one index per line = place of the smallest element of input 0 along axis (ArgminAttr); elements within
 * 1e-6 count as equal for the last place, not for the first. Rows: in place; the work space holds one line. Fails
 * silently when the input does not resolve. */
OPKIT_API uint32_t ArgminOpkitForward(LayerParam* param);

/* outputs[0] = 1.0 at the first largest element of each line or block, else 0.0 (HardmaxAttr). A NaN in first place
 * stays the largest. Rows: compacting. */
OPKIT_API uint32_t HardmaxOpkitForward(LayerParam* param);

/* The k first entries of every sorted line of input 0 along axis: values, indices, or both (TopKAttr). k may come from
 * inputs[1], an online tensor whatever the flags say. Rows: in place, both outputs by the width of outputs[0]; the work
 * space holds one line. What lies behind k stays untouched. */
OPKIT_API uint32_t TopKOpkitForward(LayerParam* param);

/* outputs[0] = the coordinates of input 0's non-zero elements: dimension k of the u-th one lies at k * count + u, zeros
 * behind them, count being the number of such elements. Rows: expanding.
 * The output must have room for rank * count elements. */
OPKIT_API uint32_t NonZeroOpkitForward(LayerParam* param);

/* The distinct slices of input 0 along axis (UniqueAttr): outputs[0] the slices, [1] where each was first seen, [2]
 * which slice each position maps to, [3] how often each occurs. Slices are equal by float comparison, NaN never. Rows:
 * compacting; all four outputs are expanded by their own shapes.
 * Fails when a slice exceeds outputs[0] or memory runs out; silently when the input does not resolve.
 * Threads: writes the process-wide g_size, so it runs on one thread of a process at a time. */
OPKIT_API uint32_t UniqueOpkitForward(LayerParam* param);

/* ---- data movement ---- */

/* outputs[0] = concatInputCount inputs joined along concatAxis (ConcatAttr). Rows: compacting. Fails silently, with the
 * output unexpanded, when an input does not resolve; prints nothing. */
OPKIT_API uint32_t ConcatOpkitForward(LayerParam* param);

/* outputs[0] = input 0 broadcast to the output's shape (ExpandAttr). Rows: compacting. Writes its stride records. */
OPKIT_API uint32_t ExpandOpkitForward(LayerParam* param);

/* outputs[0] = the elements of input 0 in order, in rows of the last target dimension (ReshapeAttr). Rows: in place;
 * the input's stride is that of inputs[0], for a constant too. Fails silently when the input does not resolve. */
OPKIT_API uint32_t ReshapeOpkitForward(LayerParam* param);

/* outputs[0] = input 0 with its axes in the order of perm (PermuteAttr). Rows: expanding.
 * Fails silently when a count of the attributes does not fit the rank. */
OPKIT_API uint32_t PermuteOpkitForward(LayerParam* param);

/* outputs[0] [N, C / (b * b), H * b, W * b] = input 0 [N, C, H, W] with channels turned into b x b blocks
 * (DepthToSpaceAttr). Rows: in place; the input's stride is that of inputs[0], for a constant too.
 * An unknown mode computes nothing and succeeds. Fails silently when the input does not resolve. */
OPKIT_API uint32_t DepthToSpaceOpkitForward(LayerParam* param);

/* outputs[0] = zeros of input 0's shape [rows, cols] and ones in one column from the place that eyeK names down to the
 * last row (EyelikeAttr). Rows: compacting.
 * Fails when the input's rank is not 2; silently when it does not resolve. */
OPKIT_API uint32_t EyelikeOpkitForward(LayerParam* param);

/* outputs[0] = values[0] everywhere, values[1] at the place along oneHotAxis that each index of input 0 names
 * (OneHotAttr); the depth is the output's dimension. Rows: compacting. A negative index has the depth added to it in
 * place. Fails at an index of depth or above. */
OPKIT_API uint32_t OneHotOpkitForward(LayerParam* param);

/* outputs[0] = slices of input 0 along gatherAxis, one per index of input 1 (GatherAttr). Rows: stepping. Indices are
 * truncated and not checked against the axis; one that leads outside the data fails. */
OPKIT_API uint32_t GatherOpkitForward(LayerParam* param);

/* outputs[0], of input 1's shape = for each index of input 1 the element of input 0 at the same place but for the axis
 * (GatherElementsAttr). Indices are rounded; those outside the axis are clipped in place. Rows: in place. */
OPKIT_API uint32_t GatherElementsOpkitForward(LayerParam* param);

/* outputs[0] = slices of input 0, one per tuple of indices, a row of input 1 (GatherNDAttr). Rows: stepping; slices
 * keep the data's gaps. Indices outside their axis are reported and clipped in place, too low ones to 0. */
OPKIT_API uint32_t GatherNDOpkitForward(LayerParam* param);

/* outputs[0] = input 0 with element i of input 2 written at element i's place but for the axis, there at index i of
 * input 1, rounded (ScatterAttr). Rows: compacting.
 * Fails at an index outside the axis, before the output is touched; silently when an input does not resolve. */
OPKIT_API uint32_t ScatterOpkitForward(LayerParam* param);

/* outputs[0] = input 0 with slices of input 2 written at the tuples of indices of input 1. Rows: in place; the work
 * space, 4 bytes per tuple and per data dimension, is checked.
 * Fails when ranks or shapes do not fit or, the data being copied by then, an index is out of range. */
OPKIT_API uint32_t ScatterNDOpkitForward(LayerParam* param);

/* outputs[0] = input 0 padded with a constant, its mirror image or its edge, and cropped where a count is negative
 * (PadAttr). Rows: expanding. An unknown mode only expands.
 * Fails silently when a count of the attributes does not fit the rank, or edge would pad an axis of no elements. */
OPKIT_API uint32_t PadOpkitForward(LayerParam* param);

/* outputs[0] = X [N, C, H, W] resampled to the output's shape, nearest (all four axes) or linear (H and W)
 * (ResizeAttr). Rows: in place, except that the linear mode stores extrapolated elements at their compact place. An
 * unknown resizeMode, and tables that memory does not suffice for, leave the output untouched and succeed. Fails when
 * the default region cannot be allocated; silently when an input does not resolve. */
OPKIT_API uint32_t ResizeOpkitForward(LayerParam* param);

/* ---- detection; see helpers/detection.h for the thread-local state that ties a chain of layers to one thread ---- */

/* outputs[0] [classNum, fields, N] = boxes decoded from deltas, scores and proposals, in rows of x1, y1, x2, y2, score
 * and class id; unused places are zeros (DecBboxAttr). Two classes are decoded, further ones take the second's boxes
 * with their own scores. Rows: compacting. Starts a chain: sets this thread's thresholds and counts.
 * Fails when classNum is not 1 to 256, unless classes are merged. Threads: writes thread-local state. */
OPKIT_API uint32_t DecBboxOpkitForward(LayerParam* param);

/* outputs[0] = the boxes of input 0 after one stage: suppression, filter or sort (DetectionOutputAttr); outputs[1], on
 * request, their counts. Rows: compacting. Places that no box reaches keep their content, but are zeros in a dump.
 * Fails when memory runs out. Threads: reads and writes thread-local state. */
OPKIT_API uint32_t DetectionOutputOpkitForward(LayerParam* param);

/* DetectionOutputOpkitForward with a message of their own on failure. A layer of one of these names calls
 * DetectionOutputOpkitForward directly. */
OPKIT_API uint32_t FilterBoxOpkitForward(LayerParam* param);
OPKIT_API uint32_t SortOpkitForward(LayerParam* param);
OPKIT_API uint32_t NMSOpkitForward(LayerParam* param);

/* outputs[0] = rows of batch, class, box index, by descending score; behind them all bits are set
 * (NonMaxSuppressionAttr). Boxes [batches, boxNum, 4], scores [batches, classes, boxNum]. Rows: compacting. The work
 * space holds the heap. The output must have room for what is selected.
 * Returns 0, or all ones on failure. */
OPKIT_API uint32_t NonMaxSuppressionOpkitForward(LayerParam* param);

/* ---- control flow: operators that leave a segment id for the caller; tensors keep their own row layouts ---- */

/* outputs[0][0] = 1.0 and segId = thenSegId if the condition holds, else 0.0 and elseSegId (IfAttr). Of the operands
 * only the first element counts: either it is true, or the first operand is above, or equal to, the second.
 * Fails on an unknown cmpType, returning 1. The operands must be there. */
OPKIT_API uint32_t IfOpkitForward(LayerParam* param);

/* Copies inputs 0 to tensorNum - 1 to the outputs (ThenEndAttr), then segId = nextSegId.
 * Fails silently when an input does not resolve, segId untouched. */
OPKIT_API uint32_t ThenEndOpkitForward(LayerParam* param);

/* The same without a segment id (ElseBeginAttr). */
OPKIT_API uint32_t ElseBeginOpkitForward(LayerParam* param);

/* Ends a conditional, a loop's body or a scan's, by the first of ifBranch, loopBranch and scanBranch that is set
 * (CondEndAttr). Fails when none is. */
OPKIT_API uint32_t CondEndOpkitForward(LayerParam* param);

/* Copies one half of the inputs to the outputs, the half that ifBranch names, whichever branch ran; segId = 0xFFFFFFFF.
 * Fails silently when an input does not resolve. */
OPKIT_API uint32_t IfBranch(LayerParam* param);

/* outputs[0][0] = the loop's condition, from input 0 or the attribute; the other outputs are the following inputs;
 * segId = nextSegId. Input 0 must resolve in any case.
 * Fails when tensorNum is not the output count, unless the condition is the attribute's. */
OPKIT_API uint32_t LoopBranch(LayerParam* param);

/* Copies the inputs to the outputs; segId stays. Fails when tensorNum is not the output count. */
OPKIT_API uint32_t ScanBranch(LayerParam* param);

/* One pass through a loop's head (LoopAttr): the first, a middle or the last, as the state in the attribute block says.
 * segId = 0xFFFFFFFF to go on, exitSegId to leave. Returns 0 also when a pass failed.
 * Threads: the loop's state lies in the model buffer. */
OPKIT_API uint32_t LoopOpkitForward(LayerParam* param);

/* First pass: the condition, from an input unless it is known; carried values from the first inputs go to the body, or
 * to the final outputs when the condition is 0. Returns 0, or all ones silently when an input does not resolve. */
OPKIT_API uint32_t LoopFirstTime(LayerParam* param);
/* Middle pass: condition and carried values come from the body's inputs. Returns 0. */
OPKIT_API uint32_t LoopMiddleTime(LayerParam* param);
/* The trip count is used up: the body's carried values go to the final outputs; the state is reset. Returns 0. */
OPKIT_API uint32_t LoopOutOfBound(LayerParam* param);
/* Resets the loop's state: iteration 0, inputCursor 1, condition -1, outputTotal the number of outputs. */
OPKIT_API void Prepare(LayerParam* param);

/* ---- custom ---- */

/* Calls the function funcName of "libtvr_opkit_custom_x86.so" with all tensors as they lie and the layer's parameter
 * bytes (CustomAttr, helpers/custom.h). The library is opened and closed again for every call.
 * Fails when the input counts disagree, or the library or the function is not found; never by what the function does.
 * Threads: what the function makes of it. */
OPKIT_API uint32_t CustomOpkitForward(LayerParam* param);

OPKIT_END_C

#endif /* OPKIT_OPERATORS_H */
