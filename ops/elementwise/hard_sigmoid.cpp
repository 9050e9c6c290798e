// HardSigmoid: x * alpha + beta, limited to 0 and 1; product and sum round by themselves, and NaN passes.
// Rows: expanding.

#include "kernels/activation.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

uint32_t HardSigmoidOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const float alpha = AttrOf<HardSigmoidAttr>(param).alpha;
    const float beta = AttrOf<HardSigmoidAttr>(param).beta;
    const auto hardSigmoid = Kernels<ActivationKernels>().hardSigmoid;
    ForEachRunToExpand(
        in, out, [=](const float* from, float* to, uint32_t length) { hardSigmoid(from, to, length, alpha, beta); });
    return ExpandOutputChecked(out);
}
