// Selu: x * gamma above 0, exp(x - alpha) * alpha * gamma elsewhere. alpha is subtracted inside the exponent and
// nothing from the exponential, so the two sides do not meet at 0. The lower side runs in f64; NaN takes the upper.
// Rows: expanding.

#include "kernels/exponentials.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

uint32_t SeluOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const float alpha = AttrOf<SeluAttr>(param).alpha;
    const float gamma = AttrOf<SeluAttr>(param).gamma;
    ForEachRunToExpand(in, out, [=](const float* from, float* to, uint32_t length) {
        Kernels<ExponentialKernels>().selu(from, to, length, alpha, gamma);
    });
    return ExpandOutputChecked(out);
}
