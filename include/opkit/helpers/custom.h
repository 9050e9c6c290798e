/* The records that a custom operator's function receives. Such a function lives in the library
 * "libtvr_opkit_custom_x86.so" on the loader's search path and has the type CustomFunc; its result is ignored. */
#ifndef OPKIT_HELPERS_CUSTOM_H
#define OPKIT_HELPERS_CUSTOM_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* One tensor. Unlike in TensorInfo, dimNum follows stride. */
typedef struct CustomTensor {
    uint32_t reserved; /*  0  0 */
    uint32_t stride;   /*  4  bytes */
    uint32_t dimNum;   /*  8 */
    uint32_t reserved12;
    uint32_t* shape; /* 16 */
    void* data;      /* 24  f32 elements in padded rows */
    uint32_t size;   /* 32  bytes */
    uint32_t reserved36;
} CustomTensor;
OPKIT_OFFSET(CustomTensor, reserved, 0);
OPKIT_OFFSET(CustomTensor, stride, 4);
OPKIT_OFFSET(CustomTensor, dimNum, 8);
OPKIT_OFFSET(CustomTensor, shape, 16);
OPKIT_OFFSET(CustomTensor, data, 24);
OPKIT_OFFSET(CustomTensor, size, 32);
OPKIT_SIZE(CustomTensor, 40);

/* One call. The record and its two arrays end with the call; tensor data and the model buffer outlive it. */
typedef struct CustomCall {
    CustomTensor* inputs;  /*  0 */
    uint32_t inputNum;     /*  8  online and offline */
    CustomTensor* outputs; /* 16 */
    uint32_t outputNum;    /* 24 */
    void* params;          /* 32  the layer's parameter bytes, in the model buffer */
    uint32_t paramSize;    /* 40 */
} CustomCall;
OPKIT_OFFSET(CustomCall, inputs, 0);
OPKIT_OFFSET(CustomCall, inputNum, 8);
OPKIT_OFFSET(CustomCall, outputs, 16);
OPKIT_OFFSET(CustomCall, outputNum, 24);
OPKIT_OFFSET(CustomCall, params, 32);
OPKIT_OFFSET(CustomCall, paramSize, 40);
OPKIT_SIZE(CustomCall, 48);

typedef uint32_t (*CustomFunc)(CustomCall* call);

OPKIT_END_C

#endif /* OPKIT_HELPERS_CUSTOM_H */
