// MatMul: Y[i] = A[i % batch of A] * B[i % batch of B], matrix by matrix of a stack.
// Sizes come from A's shape and Y's width; of B only the number of matrices counts.
// Rows: compacting.

#include "opkit/operators.h"
#include "ops/matrix/product_plan.h"
#include "runtime/frame.h"

using namespace opkit;

int32_t MatmulGetCount(uint32_t* shape, int32_t dimNum)
{
    return static_cast<int32_t>(dimNum < 3 ? 1 : ElementCount(shape, static_cast<uint32_t>(dimNum) - 2));
}

uint32_t MatMulOpkitForward(LayerParam* param)
{
    if (param->attr == nullptr) {
        return kFailure;
    }
    Input a;
    Input b;
    if (!Resolve(param, {&a, &b}, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const uint32_t rows = a.dimNum > 1 ? a.shape[a.dimNum - 2] : 1;
    const int32_t aBatch = MatmulGetCount(a.shape, a.dimNum);
    const int32_t bBatch = MatmulGetCount(b.shape, b.dimNum);
    const int32_t yBatch = MatmulGetCount(out.shape, out.dimNum);
    if (yBatch > 0) {
        if (aBatch == 0 || bBatch == 0) {
            Report(Here(), "cannot divisor zero, len0 = %d, len1 = %d\n", aBatch, bBatch);
            return kFailure;
        }
        MultiplyStack({0, 0, rows, out.width, a.width, 1.0f, a.data, b.data, 0.0f, out.data}, aBatch, bBatch, yBatch);
    }
    return ExpandOutputChecked(out);
}
