/* A custom library: two functions that models call by name through CustomOpkitForward. It is built as
 * libtvr_opkit_custom_x86.so and needs nothing of opkit but this header. */

#include <math.h>
#include <opkit/helpers/custom.h>
#include <string.h>

/* Tensors come as they lie in memory: rows of the last dimension, padded to a multiple of the stride. */
typedef struct Rows {
    float* data;
    uint32_t count, width, pitch;
} Rows;

static Rows RowsOf(const CustomTensor* tensor)
{
    Rows rows = {tensor->data, 1, 1, 1};
    for (uint32_t d = 0; d + 1 < tensor->dimNum; ++d) {
        rows.count *= tensor->shape[d];
    }
    if (tensor->dimNum > 0) {
        rows.width = tensor->shape[tensor->dimNum - 1];
    }
    const uint32_t alignment = tensor->stride / sizeof(float);
    rows.pitch = alignment == 0 ? rows.width : (rows.width + alignment - 1) / alignment * alignment;
    return rows;
}

/* A call cannot fail, its result is ignored: what is not as expected is best left alone. */
static int IsUnary(const CustomCall* call, uint32_t paramSize)
{
    if (call->inputNum != 1 || call->outputNum != 1 || call->paramSize != paramSize) {
        return 0;
    }
    const Rows in = RowsOf(&call->inputs[0]), out = RowsOf(&call->outputs[0]);
    return in.count == out.count && in.width == out.width;
}

/* out = x, but at least params[0] and at most params[1]. */
OPKIT_API uint32_t SampleClamp(CustomCall* call)
{
    float limits[2]; /* the parameter bytes lie in the model buffer at a multiple of 4 */
    if (!IsUnary(call, sizeof limits)) {
        return 1;
    }
    memcpy(limits, call->params, sizeof limits);
    const Rows in = RowsOf(&call->inputs[0]), out = RowsOf(&call->outputs[0]);
    for (uint32_t row = 0; row < in.count; ++row) {
        for (uint32_t i = 0; i < in.width; ++i) {
            const float x = in.data[row * in.pitch + i];
            out.data[row * out.pitch + i] = x < limits[0] ? limits[0] : x > limits[1] ? limits[1] : x;
        }
    }
    return 0;
}

/* Every row: out = exp(x / params[0]), divided by the row's sum. */
OPKIT_API uint32_t SampleRowSoftmax(CustomCall* call)
{
    float temperature;
    if (!IsUnary(call, sizeof temperature)) {
        return 1;
    }
    memcpy(&temperature, call->params, sizeof temperature);
    const Rows in = RowsOf(&call->inputs[0]), out = RowsOf(&call->outputs[0]);
    for (uint32_t row = 0; row < in.count; ++row) {
        const float* x = in.data + row * in.pitch;
        float* y = out.data + row * out.pitch;
        float largest = x[0], sum = 0;
        for (uint32_t i = 1; i < in.width; ++i) {
            largest = x[i] > largest ? x[i] : largest;
        }
        for (uint32_t i = 0; i < in.width; ++i) {
            y[i] = expf((x[i] - largest) / temperature);
            sum += y[i];
        }
        for (uint32_t i = 0; i < in.width; ++i) {
            y[i] /= sum;
        }
    }
    return 0;
}
