// Sinh: computed in f64. The input is compacted in place, the output written compactly and expanded, all without a
// check or a message: there must be an input and a last dimension.

#include "kernels/exponentials.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t SinhOpkitForward(LayerParam* param)
{
    Input in;
    ResolveOnlyInput(param, &in);
    if (in.alignNum != in.width) {
        CompactRows(in.data, in.count, in.width, in.alignNum);
    }
    const Output out = OutputOf(param, 0);
    Kernels<ExponentialKernels>().sinh(in.data, out.data, in.count);
    if (out.count != 0) {
        SpreadRows(out.data, out.count, static_cast<int32_t>(out.width), out.alignNum,
                   LastIndex(out.count, out.width, out.alignNum));
    }
    return kSuccess;
}
