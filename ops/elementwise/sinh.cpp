// Sinh: computed in f64. The input is compacted in place, the output written compactly and expanded, all without a
// check or a message: there must be an input and a last dimension.

#include "kernels/exponentials.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t SinhOpkitForward(LayerParam* param)
{
    Input in;
    Resolve(param, {&in}, Rows::kCompacting, Messages::kNone);
    const Output out = OutputOf(param, 0);
    Kernels<ExponentialKernels>().sinh(in.data, out.data, in.count);
    ExpandOutputUnchecked(out);
    return kSuccess;
}
