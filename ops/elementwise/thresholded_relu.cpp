// ThresholdedRelu: x where it lies above alpha, +0.0 elsewhere and for NaN.
// Rows: stepping.

#include "kernels/activation.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

uint32_t ThresholdedReluOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kStepping, Messages::kNone)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    if (!SameDimensions(in, out, Shown::kUnsigned)) {
        return kFailure;
    }
    const float alpha = AttrOf<ThresholdedReluAttr>(param).alpha;
    const auto threshold = Kernels<ActivationKernels>().threshold;
    ForEachSteppedRow(in, out,
                      [=](const float* from, float* to, uint32_t length) { threshold(from, to, length, alpha); });
    return kSuccess;
}
