// Celu: max(0, x) + min(0, alpha * (exp(x / alpha) - 1)). The quotient rounds to f32, the rest runs in f64. NaN gives
// +0.0: it is neither at least 0 nor leads to a negative second term.
// Rows are read and written where they lie, by the unrounded stride; gaps stay untouched.

#include <cmath>

#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/activation_frame.h"

namespace opkit {
namespace {

float CeluElement(float x, float alpha)
{
    if (x >= 0.0f) {
        return x + 0.0f;  // the exponential term is not negative here, whatever alpha's sign
    }
    const double growth = std::exp(static_cast<double>(x / alpha)) - 1.0;
    const float term = static_cast<float>(growth * static_cast<double>(alpha));
    return term < 0.0f ? term : 0.0f;
}

}  // namespace
}  // namespace opkit

using namespace opkit;

uint32_t CeluOpkitForward(LayerParam* param)
{
    Input in;
    if (!ResolveOnlyInput(param, &in)) {
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
    ForEachAlignedRow(in, out, [alpha](const float* from, float* to, uint32_t length) {
        for (uint32_t i = 0; i < length; ++i) {
            to[i] = CeluElement(from[i], alpha);
        }
    });
    return kSuccess;
}
