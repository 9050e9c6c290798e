/* The public headers as a C program sees them: compiled with -std=c11 -Wall -Wextra -pedantic -Werror. The assertions
 * in the headers do most of the work; what is here uses a record, a code and a function of each header as C code would.
 */

#include "opkit/opkit.h"

/* block: sizeof(DetectionOutputAttr) zeroed bytes, the largest record used here. */
uint32_t HeadersTouch(void* block, const struct timeval* now);

static float Twice(float x)
{
    return x + x;
}

/* Fills one record of each attribute header in place. */
static uint32_t TouchAttributes(void* block)
{
    ((LayerAttrHead*)block)->inputFlags[0] = '1';
    ((BinaryMathAttr*)block)->mathType = OPKIT_BINARY_MAX;
    ((ConvolutionAttr*)block)->gemmK = 9;
    ((PoolingAveAttr*)block)->countIncludePad = 1;
    ((TopKAttr*)block)->k = OPKIT_TOPK_K_FROM_INPUT;
    ((PadAttr*)block)->padMode = OPKIT_PAD_EDGE;
    ((DetectionOutputAttr*)block)->stage = OPKIT_STAGE_FILTER;
    ((LoopAttr*)block)->tripCount = -1;
    ((CustomAttr*)block)->params.sized.marker = OPKIT_CUSTOM_SIZED_MARKER;
    ((CustomAttr*)block)->params.fixed[79] = 1;
    return ((CustomAttr*)block)->fixedSize;
}

/* Uses a record or a function of each helper header. */
static uint32_t TouchHelpers(LayerParam* layer, const struct timeval* now)
{
    uint32_t dims[2] = {2, 3};
    uint32_t strides[2] = {0, 0};
    uint32_t count = 0;
    SetStride(strides, &count, dims, 2);
    const DimPair pair = {strides, count};
    uint32_t sum = BroadCast(1, pair, pair, pair, pair);

    float cells[6] = {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f};
    float product[6] = {0.0f};
    const GemmArgs args = {.M = 2, .N = 2, .K = 2, .alpha = 1.0f, .A = cells, .B = cells, .beta = 0.0f, .C = product};
    Gemm(args);

    const SortEntry first = {1.0f, 0};
    const SortEntry second = {2.0f, 1};
    sum += (uint32_t)TopkAscSort(&first, &second);

    TensorPitches pitches = {strides, 2};
    TensorPictchesInit(&pitches, dims, 2);

    DetBox box = {.x2 = 4.0f, .y2 = 2.0f, .classId = 1};
    uint32_t boxes = 1;
    InitArea(&box, &boxes);
    g_curBoxNum[0] = boxes;
    g_nmsThresh = 0.5f;

    TensorDesc desc = {2, 12, 6, 0};
    const ShapePair shapes = {dims, dims};
    InputToOutput(&desc, &desc, cells, product, shapes);

    const CustomCall call = {.params = cells, .paramSize = sizeof cells};
    const ElementFunc element = Twice;
    const InputResolver resolver = ParseInputInfo;
    ProfilingLayer(&layer->profiling, 0, *now, *now);
    return sum + call.paramSize + SingleInOutCalcfuncWithLoopWrapper(element, resolver, layer);
}

uint32_t HeadersTouch(void* block, const struct timeval* now)
{
    uint32_t shape[1] = {4};
    float data[4] = {0.0f};
    TensorInfo tensor = {.stride = 16, .batch = 1, .dimNum = 1, .shape = shape, .data = data, .size = sizeof data};
    ModelOffsets offsets = {.layerTableOffset = 0, .layerTableSize = 8};
    ForwardParam request = {.inputs = &tensor, .inputNum = 1, .attr = &offsets, .attrSize = sizeof offsets};
    LayerParam layer = {.inputs = &tensor, .inputNum = 1, .outputs = &tensor, .outputNum = 1, .attr = block};
    const ForwardFunc operators[] = {
#define OPKIT_OPERATOR(name, forward, record, check) forward##OpkitForward,
#include <opkit/operators.def>
    };
    const bool known = GetForwardFunc("AcosOpkitForward") == operators[0];
    return OpkitForward(&request) + (OpkitGetVersion() != OPKIT_VERSION) + (OPKIT_GIT_VERSION == NULL) +
           (uint32_t)g_size + known + TouchAttributes(block) + TouchHelpers(&layer, now);
}
