// Shrink: x + bias below -lambd, x - bias above lambd, +0.0 between and for NaN.
// Rows: expanding.

#include "kernels/activation.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

uint32_t ShrinkOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const float bias = AttrOf<ShrinkAttr>(param).bias;
    const float lambd = AttrOf<ShrinkAttr>(param).lambd;
    const auto shrink = Kernels<ActivationKernels>().shrink;
    ForEachRunToExpand(in, out,
                       [=](const float* from, float* to, uint32_t length) { shrink(from, to, length, bias, lambd); });
    return ExpandOutputChecked(out);
}
