// Where: input 1 where the condition, input 0, is true, else input 2, all three broadcast. Bits move unchanged, and a
// NaN condition is true.
// Rows: compacting.

#include "common/float_compare.h"
#include "common/move_floats.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

namespace {

constexpr uint32_t kInputs = 3;

void SelectRun(const float* const (&in)[kInputs], const uint32_t (&steps)[kInputs], float* out, uint32_t length)
{
    if (steps[0] != 0) {
        Kernels<BinaryKernels>().select(in[0], in[1], steps[1], in[2], steps[2], out, length);
        return;
    }
    const uint32_t chosen = NearZero(*in[0]) ? 2 : 1;  // for the whole run
    MoveOrRepeat(out, in[chosen], steps[chosen], length);
}

}  // namespace

uint32_t WhereOpkitForward(LayerParam* param)
{
    WhereAttr& attr = AttrOf<WhereAttr>(param);
    if (attr.inputCount != kInputs) {
        return kFailure;
    }
    return RunCompacting<kInputs>(param, attr, SelectRun);
}
