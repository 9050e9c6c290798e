/* Loads and unloads the library a thousand times, runs a model each time, and the process does not grow. */

#include <dlfcn.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "opkit/opkit.h"

enum { kRounds = 1000, kWarmUp = 20, kFloats = 3 };

/* A table of one layer: TopK sorts its floats. Offsets count from the start of the table. */
static struct Model {
    uint32_t layerCount;
    uint32_t layerOffset;
    LayerRecord layer;
    TensorRecord input;
    TensorRecord outputs[2];
    uint32_t shape;
    char name[20];
    TopKAttr attr;
} model;

static void BuildModel(void)
{
    const TensorRecord tensor = {0, 0, 0, 0, offsetof(struct Model, shape), sizeof(uint32_t)};
    memset(&model, 0, sizeof model);
    model.layerCount = 1;
    model.layerOffset = offsetof(struct Model, layer);
    model.layer.nameOffset = offsetof(struct Model, name);
    model.layer.nameSize = sizeof model.name;
    model.layer.bufSize = kFloats * 8;
    model.layer.attrOffset = offsetof(struct Model, attr);
    model.layer.attrSize = sizeof model.attr;
    model.layer.inputNum = 1;
    model.layer.inputTableOffset = offsetof(struct Model, input);
    model.layer.outputNum = 2;
    model.layer.outputTableOffset = offsetof(struct Model, outputs);
    model.input = tensor;
    model.outputs[0] = tensor;
    model.outputs[1] = tensor;
    model.outputs[1].memIndex = 1;
    model.shape = kFloats;
    strcpy(model.name, "TopKOpkitForward");
    model.attr.k = kFloats;
    model.attr.largest = 1;
    model.attr.hasValues = 1;
    model.attr.hasIndices = 1;
}

/* Whether a request on the model is wrong. */
static int RunModel(uint32_t (*forward)(ForwardParam*))
{
    float in[kFloats] = {1.0f, 3.0f, 2.0f};
    float values[kFloats] = {0};
    float indices[kFloats] = {0};
    const float sorted[kFloats] = {3.0f, 2.0f, 1.0f};
    const float order[kFloats] = {1.0f, 2.0f, 0.0f};
    uint64_t scratch[kFloats];
    ModelOffsets offsets = {0, sizeof model};
    TensorInfo input;
    TensorInfo outputs[2];
    ForwardParam request;
    memset(&input, 0, sizeof input);
    input.stride = sizeof in;
    input.batch = 1;
    input.size = sizeof in;
    input.data = in;
    outputs[0] = outputs[1] = input;
    outputs[0].data = values;
    outputs[1].data = indices;
    memset(&request, 0, sizeof request);
    request.inputs = &input;
    request.inputNum = 1;
    request.outputs = outputs;
    request.outputNum = 2;
    request.opkitBuf = scratch;
    request.opkitBufSize = sizeof scratch;
    request.attr = &offsets;
    request.attrSize = sizeof offsets;
    request.model = &model;
    request.modelSize = sizeof model;
    return forward(&request) != 0 || memcmp(values, sorted, sizeof sorted) != 0 ||
           memcmp(indices, order, sizeof order) != 0;
}

static int LoadOnce(const char* file)
{
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    uint32_t (*version)(void) = (uint32_t(*)(void))dlsym(library, "OpkitGetVersion");
    uint32_t (*forward)(ForwardParam*) = (uint32_t(*)(ForwardParam*))dlsym(library, "OpkitForward");
    const float* const threshold = (const float*)dlsym(library, "g_nmsThresh"); /* thread-local: allocates its block */
    const int wrong = version == NULL || forward == NULL || threshold == NULL || version() != 0x30000 ||
                      RunModel(forward) || *threshold != 0.0f;
    return dlclose(library) != 0 || wrong || dlopen(file, RTLD_NOW | RTLD_NOLOAD) != NULL;
}

int main(int argc, char** argv)
{
    size_t before = 0;
    BuildModel();
    for (int round = 0; round < kRounds; ++round) {
        if (argc != 2 || LoadOnce(argv[1]) != 0) {
            fprintf(stderr, "round %d fails\n", round);
            return 1;
        }
        if (round == kWarmUp) {
            before = mallinfo2().uordblks;
        }
    }
    const size_t after = mallinfo2().uordblks;
    fprintf(stderr, "%d rounds, %zu bytes in use after %d, %zu at the end\n", kRounds, before, kWarmUp, after);
    return after > before ? 1 : 0;
}
