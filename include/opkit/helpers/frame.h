/* What the driver and every operator stand on: the request check, the layer parser, the operator table, dumping and
 * timing, the input resolver, the in-place row routines and the two wrappers of the unary operators.
 *
 * Rows: a tensor's last dimension is its width, alignNum = stride / 4 its alignment in floats, and rows start
 * rowPitch = (width rounded up to a multiple of alignNum) floats apart. "Compact" means rowPitch == width. */
#ifndef OPKIT_HELPERS_FRAME_H
#define OPKIT_HELPERS_FRAME_H

#include <sys/time.h>

#include "opkit/records.h"

OPKIT_BEGIN_C

/* Says whether a request may run: arrays and buffers present, batch at most 256, model at most 0x40000000 bytes,
 * layer table inside the model buffer. Nothing a tensor points to is looked at.
 * Returns 0, or all ones with a message for the first thing found wrong.
 * Threads: reads its argument only. */
OPKIT_API uint32_t CheckForwardParam(ForwardParam* param);

/* Checks one layer record and what it locates against the layer table's extent and the scratch size.
 *   layerOffset  of the record, from the layer table
 * Returns 0, or all ones with a message. Sums of an offset and a size wrap in 32 bits, and then pass.
 * Threads: reads its arguments only. */
OPKIT_API uint32_t CheckLayerParam(ForwardParam* param, uint32_t layerOffset);

/* Fill layerParam->inputs or ->outputs, already allocated with the record's count, for one batch item.
 *   record      the layer's record; its tensor tables are read
 *   batchIndex  selects the slice of request tensors and of scratch tensors that move with the batch item
 * Return 0, or all ones with a message; entries before the failing one are filled.
 * Threads: touch their arguments only. */
OPKIT_API uint32_t ParseLayerInputInfo(ForwardParam* param, LayerRecord* record, LayerParam* layerParam,
                                       uint32_t batchIndex);
OPKIT_API uint32_t ParseLayerOutputInfo(ForwardParam* param, LayerRecord* record, LayerParam* layerParam,
                                        uint32_t batchIndex);

/* Builds what an operator is called with: the record at layerOffset (from the layer table), for one batch item.
 * Allocates layerParam->inputs and ->outputs; release them with ReleaseLayerParam. All else points into the request.
 * Fields that a layer has no use for keep their values, so zero the record once before the first call.
 * Returns 0, or all ones with a message and nothing left allocated.
 * Threads: touches its arguments only. */
OPKIT_API uint32_t ParseLayerParam(ForwardParam* param, uint32_t layerOffset, LayerParam* layerParam,
                                   uint32_t batchIndex);

/* Frees the two tensor arrays of ParseLayerParam and sets them to null; a second call does nothing.
 * Threads: touches its argument only. */
OPKIT_API void ReleaseLayerParam(LayerParam* layerParam);

/* Finds an operator by its name, such as "TopKOpkitForward". "FilterBoxOpkitForward", "SortOpkitForward" and
 * "NMSOpkitForward" all give DetectionOutputOpkitForward.
 * Returns null for a null or unknown name; prints nothing.
 * Threads: no state. */
OPKIT_API ForwardFunc GetForwardFunc(const char* name);

/* Returns 1 if the hook has a dump function and wants this layer (all of them, or its id is listed), else 0.
 * Threads: reads its argument only. */
OPKIT_API uint32_t IsDumpLayer(uint32_t layerId, DumpHook* dumpHook);

/* The outputs of a layer as DumpLayer takes them; LayerParam holds the same pair from its field outputs on. */
typedef struct OutputsView {
    TensorInfo* data; /* 0 */
    uint32_t count;   /* 8 */
} OutputsView;
OPKIT_OFFSET(OutputsView, count, 8);

/* Hands each output of a layer to the hook's dump function, if IsDumpLayer says so. The hook's record is rewritten for
 * each output, and the data is shown as it lies, padded rows included.
 * Threads: runs the dump function on the calling thread. */
OPKIT_API void DumpLayer(OutputsView* outputs, uint32_t layerId, DumpHook* dumpHook);

/* Writes slotIndex, startTime and endTime (microseconds) of one profiling slot; the slot's other bytes stay.
 * A slot that does not fit in profiling->size bytes is passed over silently.
 * Threads: touches its arguments only. */
OPKIT_API void ProfilingLayer(ProfilingBuffer* profiling, uint32_t slotIndex, struct timeval start, struct timeval end);

/* Resolves logical input `index` of a layer, online (an entry of param->inputs) or offline (a constant of the model).
 * Callers walk index upward from 0, with both running indices starting at 0.
 *   data, shape, dimNum, stride  out; an offline input is compact, its stride is 4 * its last dimension
 *   count                        in and out: multiplied by every dimension, so start it at 1
 *   onlineIndex, offlineIndex    in and out: the one that was used is advanced
 * Returns false, silently, for an offline input of rank below 1 (data, dimNum and shape may be written then) and for
 * an online index at or above inputNum. An online input of rank 0 resolves and leaves count alone.
 * Threads: touches its arguments only. */
OPKIT_API bool ParseInputInfo(float** data, uint32_t** shape, int32_t* dimNum, uint32_t* stride, uint32_t* count,
                              uint32_t index, uint32_t* onlineIndex, uint32_t* offlineIndex, LayerParam* param);

/* A resolver of ParseInputInfo's form. */
typedef bool (*InputResolver)(float** data, uint32_t** shape, int32_t* dimNum, uint32_t* stride, uint32_t* count,
                              uint32_t index, uint32_t* onlineIndex, uint32_t* offlineIndex, LayerParam* param);

/* Compacts rows in place: element i moves from (i / widthIn) * rowPitch + i % widthIn to i, for count elements.
 *   data        [rows, rowPitch] floats, count = rows * widthIn; altered, and nothing undoes it
 *   widthIn     floats of a row that count; alignNumIn  alignment of a row, in floats
 * Returns true, also when count is below 1; false with a message when data is null or widthIn or alignNumIn is 0.
 * Threads: touches its arguments only. */
OPKIT_API bool DelAlignSpace(float* data, int32_t count, uint32_t widthIn, uint32_t alignNumIn);

/* Expands compact rows in place, walking from the last element to the first; gaps keep what they held.
 *   data         count compact floats in front, room up to lastIndex; altered
 *   width        floats of a row; at 0 or below no row end is ever met
 *   rowDistance  floats from one row's start to the next; callers pass alignNum, unrounded
 *   lastIndex    final place of the last element: (count / width) * rowDistance + width - rowDistance - 1
 * Returns true, also when there is nothing to move; false with a message when data is null.
 * Threads: touches its arguments only. */
OPKIT_API bool InsertAlignSpace(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex);

/* Expands data, computed compactly, to the rows that tensor's shape and stride describe.
 * The tensor has at least one dimension, and the last is not 0. data need not be tensor->data.
 * Returns false silently when tensor->shape is null, and with messages when InsertAlignSpace fails.
 * Threads: touches its arguments only. */
OPKIT_API bool ProcessAlignSpace(TensorInfo* tensor, float* data);

/* Computes count elements from src to dst; opkitBuf is the layer's work space. */
typedef void (*CalcFunc)(float* src, float* dst, void* opkitBuf, uint32_t count);
/* Computes one element. */
typedef float (*ElementFunc)(float x);

/* Runs calc once over the whole compact input: input 0 is compacted in place (and stays so) when its width differs from
 * its alignNum, calc fills outputs[0] compactly, and the output's rows are then expanded.
 * calc sees the input's element count, the expansion uses the output's. The resolver's result is not looked at.
 * Returns 0, or all ones with a message when a row routine fails or the output's width is 0.
 * Threads: touches the layer's tensors only. */
OPKIT_API uint32_t SingleInOutCalcfuncWrapper(CalcFunc calc, InputResolver resolver, LayerParam* param);

/* Applies element to every element of input 0 and writes outputs[0], each side by its own width and rounded row pitch;
 * the input is left as it was, gaps of the output stay untouched.
 * Returns 0, also for an empty input; all ones silently when the resolver fails.
 * Threads: touches the layer's tensors only. */
OPKIT_API uint32_t SingleInOutCalcfuncWithLoopWrapper(ElementFunc element, InputResolver resolver, LayerParam* param);

/* acosh of count elements, computed in f64; opkitBuf is not used. */
OPKIT_API void AcoshCalcFunc(float* src, float* dst, void* opkitBuf, uint32_t count);
/* x with its sign bit flipped, NaN included. */
OPKIT_API float NegCalcFunc(float x);
/* 1 / x; up to |x| = 2^-23 it is -8388608 for x below 0 and +8388608 otherwise, -0.0 included. */
OPKIT_API float ReciprocalCalcFunc(float x);
/* 1 / (exp(-x) + 1), in f64. */
OPKIT_API float SigmoidCalcFunc(float x);
/* 1, -1, or +0.0 for both zeros and NaN. */
OPKIT_API float SignCalcFunc(float x);
/* log(exp(x) + 1), in f64; infinity where exp overflows. */
OPKIT_API float SoftplusCalcFunc(float x);
/* x / (|x| + 1), in f64. */
OPKIT_API float SoftsignCalcFunc(float x);

OPKIT_END_C

#endif /* OPKIT_HELPERS_FRAME_H */
