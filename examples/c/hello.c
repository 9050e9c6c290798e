/* Reads one digit, drawn below, with the model of the digits example. */
#include <opkit/opkit.h>
#include <stdio.h>

enum { MODEL_SIZE = 132216, TABLE_OFFSET = 24360, TABLE_SIZE = 107856, SCRATCH_SIZE = 49744 }; /* from digits.json */

static _Alignas(64) unsigned char model[MODEL_SIZE], scratch[SCRATCH_SIZE];
static const char* picture[8] = {"  ####  ", " ##  ## ", "     ## ", "   ###  ",
                                 "     ## ", "     ## ", " ##  ## ", "  ####  "};

int main(int argc, char** argv)
{
    FILE* file = fopen(argc > 1 ? argv[1] : "examples/digits/data/digits.bin", "rb");
    if (file == NULL || fread(model, 1, MODEL_SIZE, file) != MODEL_SIZE) {
        fprintf(stderr, "cannot read the model\n");
        return 1;
    }
    fclose(file);

    float pixels[8][16] = {{0}}, logits[10], scores[4], classes[4]; /* rows of 8 pixels, padded to 16 floats */
    for (int i = 0; i < 64; ++i) {
        pixels[i / 8][i % 8] = picture[i / 8][i % 8] == '#' ? 1.0f : 0.0f;
    }
    TensorInfo in = {.stride = 64, .batch = 1, .data = pixels, .size = sizeof pixels};
    TensorInfo out[3] = {{.stride = 40, .data = logits, .size = sizeof logits},
                         {.stride = 16, .data = scores, .size = sizeof scores},
                         {.stride = 16, .data = classes, .size = sizeof classes}};
    ModelOffsets table = {TABLE_OFFSET, TABLE_SIZE};
    ForwardParam request = {.inputs = &in, .inputNum = 1, .outputs = out, .outputNum = 3};
    request.opkitBuf = scratch;
    request.opkitBufSize = SCRATCH_SIZE;
    request.attr = &table;
    request.attrSize = sizeof table;
    request.model = model;
    request.modelSize = MODEL_SIZE;
    if (OpkitForward(&request) != 0) {
        return 1;
    }
    printf("That is a %.0f (score %.2f), or a %.0f (%.2f)\n", classes[0], scores[0], classes[1], scores[1]);
    return 0;
}
