// Round: ceiling, floor, or nearest with halves to even. A half is recognised with a tolerance and then loses exactly
// 0.5, so 3.4999995 gives 2. Ceiling and floor keep the sign bit of what becomes zero, halves do not.
// An unknown mode computes nothing.
// Rows: expanding.

#include "kernels/activation.h"
#include "kernels/round_elements.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

int32_t IsEqualToHalf(float x)
{
    return IsHalf(x) ? 1 : 0;
}

uint32_t RoundOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    if (in.count != out.count || in.dimNum != out.dimNum) {
        return kFailure;
    }
    const uint32_t mode = AttrOf<RoundAttr>(param).roundMode;
    if (mode <= OPKIT_ROUND_NEAREST) {
        ForEachRunToExpand(in, out, Kernels<ActivationKernels>().round[mode]);
    }
    return ExpandOutputChecked(out);
}
