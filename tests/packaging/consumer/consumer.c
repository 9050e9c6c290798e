/* Calls one operator of the installed library, with the installed headers. */
#include <opkit/opkit.h>
#include <stdio.h>

int main(void)
{
    static LayerAttrBlock attributes;
    uint32_t shape[1] = {3};
    float x[3] = {1.5f, -2.0f, 0.25f}, y[3] = {0};
    TensorInfo in = {.stride = 12, .batch = 1, .dimNum = 1, .shape = shape, .data = x, .size = sizeof x};
    TensorInfo out = {.stride = 12, .batch = 1, .dimNum = 1, .shape = shape, .data = y, .size = sizeof y};
    LayerParam layer = {.inputs = &in, .inputNum = 1, .outputs = &out, .outputNum = 1};
    layer.attr = &attributes;
    layer.attrSize = sizeof attributes;
    if (OpkitGetVersion() != OPKIT_VERSION || NegOpkitForward(&layer) != 0) {
        return 1;
    }
    printf("C %#x %g %g %g\n", (unsigned)OpkitGetVersion(), y[0], y[1], y[2]);
    return 0;
}
