/* A custom library for the tests. Its functions write what they were handed to the outputs. */

#include <string.h>

#include "opkit/helpers/custom.h"

static uint32_t calls; /* starts afresh whenever the library is loaded */

/* Behind every other function's back: bound at its first call, which never comes. */
extern void OpkitTestNowhereDefined(void);

/* outputs[0] = sum of the first elements of all inputs, input count, parameter size, first parameter byte, calls. */
OPKIT_API uint32_t Describe(CustomCall* call)
{
    float* out = call->outputs[0].data;
    float sum = 0;
    for (uint32_t i = 0; i < call->inputNum; ++i) {
        sum += *(const float*)call->inputs[i].data;
    }
    out[0] = sum;
    out[1] = (float)call->inputNum;
    out[2] = (float)call->paramSize;
    out[3] = (float)(call->paramSize == 0 ? -1 : ((const unsigned char*)call->params)[0]);
    out[4] = (float)++calls;
    return 1; /* not looked at */
}

/* outputs[i] = reserved, stride, dimNum, size and the dimensions of input i. */
OPKIT_API uint32_t DescribeTensors(CustomCall* call)
{
    for (uint32_t i = 0; i < call->inputNum; ++i) {
        const CustomTensor* in = &call->inputs[i];
        float* out = call->outputs[i].data;
        out[0] = (float)in->reserved;
        out[1] = (float)in->stride;
        out[2] = (float)in->dimNum;
        out[3] = (float)in->size;
        for (uint32_t d = 0; d < in->dimNum; ++d) {
            out[4 + d] = (float)in->shape[d];
        }
    }
    return 0;
}

/* The padded rows of input 0, byte for byte, to output 0; then the output's own record behind them. */
OPKIT_API uint32_t CopyRaw(CustomCall* call)
{
    const CustomTensor* out = &call->outputs[0];
    memcpy(out->data, call->inputs[0].data, call->inputs[0].size);
    float* end = (float*)out->data + call->inputs[0].size / 4;
    end[0] = (float)out->reserved;
    end[1] = (float)out->stride;
    end[2] = (float)out->dimNum;
    end[3] = (float)out->shape[0];
    end[4] = (float)out->size;
    return 0;
}

/* The request's memory needs no outputs: the count goes to input 0. */
OPKIT_API uint32_t CountOutputs(CustomCall* call)
{
    *(float*)call->inputs[0].data = (float)call->outputNum;
    return 0;
}

OPKIT_API uint32_t NeverCalled(CustomCall* call)
{
    (void)call;
    OpkitTestNowhereDefined();
    return 0;
}
