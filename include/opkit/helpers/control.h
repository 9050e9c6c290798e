/* Helpers of the control-flow operators: resolvers that keep no running indices, and tensor copies between different
 * row layouts. Copies read and write by each side's own rounded row pitch, and nothing is compacted. */
#ifndef OPKIT_HELPERS_CONTROL_H
#define OPKIT_HELPERS_CONTROL_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* What a resolver found out about a tensor. */
typedef struct TensorDesc {
    int32_t dimNum;     /*  0 */
    uint32_t stride;    /*  4  bytes */
    int32_t count;      /*  8  elements */
    uint32_t isOffline; /* 12  1: a constant of the model; 0: an online input */
} TensorDesc;
OPKIT_OFFSET(TensorDesc, stride, 4);
OPKIT_OFFSET(TensorDesc, count, 8);
OPKIT_OFFSET(TensorDesc, isOffline, 12);
OPKIT_SIZE(TensorDesc, 16);

/* Two shapes, the input's first. */
typedef struct ShapePair {
    uint32_t* in;  /* 0 */
    uint32_t* out; /* 8 */
} ShapePair;
OPKIT_OFFSET(ShapePair, out, 8);
OPKIT_SIZE(ShapePair, 16);

/* Resolves logical input index by counting the flags before it. Fills desc, data and shape.
 * Returns false, silently, for an online input at or above inputNum. An offline rank of 0 is not refused.
 * Threads: touches its arguments only. */
OPKIT_API bool ParseInputInfo2(TensorDesc* desc, float** data, uint32_t** shape, uint32_t index, LayerParam* param);

/* Describes output `index`; outputs is the address of a layer's field outputs. desc->isOffline stays as it was.
 * Threads: touches its arguments only. */
OPKIT_API void ParseOutputInfo(TensorInfo** outputs, float** data, uint32_t** shape, TensorDesc* desc, int32_t index);

/* Copies an input to output `index`, as many elements as the output has; outputs as above.
 * Threads: touches its arguments only. */
OPKIT_API void ParseInputToOutput(TensorInfo** outputs, uint32_t index, uint32_t* inShape, TensorDesc* inDesc,
                                  float* inData);

/* Copies outDesc->count elements from in to out. Threads: touches its arguments only. */
OPKIT_API void InputToOutput(TensorDesc* inDesc, TensorDesc* outDesc, float* in, float* out, ShapePair shapes);

/* Describes online input `onlineIndex`, whatever its flag. The dimensions are multiplied into desc->count, which is not
 * reset, and desc->isOffline stays as it was.
 * Returns false, with nothing written, when there is no such input. Threads: touches its arguments only. */
OPKIT_API bool ParseOnlineInputInfoLoop(TensorDesc* desc, float** data, uint32_t** shape, uint32_t onlineIndex,
                                        LayerParam* param);

/* Ends a pass of a loop: a condition of 0 resets the loop's state, any other counts the pass; then param->segId becomes
 * 0xFFFFFFFF if the condition is 1, else the loop's exitSegId.
 *   attr  a LoopAttr; altered
 * Threads: one request at a time per model buffer. */
OPKIT_API void SetConditionSegId(LayerParam* param, LayerAttrBlock* attr);

OPKIT_END_C

#endif /* OPKIT_HELPERS_CONTROL_H */
