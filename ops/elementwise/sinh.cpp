// Sinh: computed in f64. There are no checks and no messages: there must be an input and a last dimension.
// Rows: compacting.

#include "kernels/exponentials.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t SinhOpkitForward(LayerParam* param)
{
    Input in;
    Resolve(param, {&in}, Rows::kCompacting, Messages::kNone);
    const Output out = OutputOf(param, 0);
    RunInOrder(in.data, out.data, in.count, Kernels<ExponentialKernels>().sinh);
    ExpandOutputUnchecked(out);
    return kSuccess;
}
