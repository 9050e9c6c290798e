// Celu: max(0, x) + min(0, alpha * (exp(x / alpha) - 1)). The quotient rounds to f32, the rest runs in f64. NaN gives
// +0.0: it is neither at least 0 nor leads to a negative second term.
// Rows: stepping.

#include "kernels/exponentials.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

using namespace opkit;

uint32_t CeluOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kStepping, Messages::kNone)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    if (!SameDimensions(in, out, Shown::kSigned)) {
        return kFailure;
    }
    const float alpha = AttrOf<CeluAttr>(param).alpha;
    if (IsFloatEqZero(alpha) != 0) {
        Report(Here(), "alpha is zero! \n\n");
        return kFailure;
    }
    ForEachSteppedRow(in, out, [alpha](const float* from, float* to, uint32_t length) {
        Kernels<ExponentialKernels>().celu(from, to, length, alpha);
    });
    return kSuccess;
}
