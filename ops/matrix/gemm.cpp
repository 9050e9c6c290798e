// Gemm: Y = alpha * op(A) * op(B) + beta * C over a stack of matrices, C optional and broadcast to Y.
// Rows: compacting.
//
// With C the products accumulate onto the broadcast C in the work space; Y is cleared in between and copied at the end.
// Without C they accumulate onto the cleared Y, so that a NaN or infinite beta still makes NaN. The number of matrices
// follows Y alone, and A and B both move on by a whole matrix each time. The stride records in the model buffer are
// written although nothing here reads them again.

#include <string.h>

#include "common/broadcast.h"
#include "opkit/attributes/matrix.h"
#include "opkit/operators.h"
#include "ops/matrix/product_plan.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr uint32_t kIndexOfC = 2;

void WriteStrides(StrideRecord* record, const Tensor& tensor)
{
    SetStride(record->strides, &record->count, tensor.shape, static_cast<uint32_t>(tensor.dimNum));
}

// Fills `to` with C in Y's shape and leaves the stride records behind.
void PrepareSum(float* to, const Output& out, const Input& c, GemmAttr* attr)
{
    WriteStrides(&attr->outputStrides[0], out);
    if (JudgeBroadCast(out.shape, static_cast<uint32_t>(out.dimNum), c.shape, c.dimNum) != 0) {
        WriteStrides(&attr->inputStrides[kIndexOfC], c);
    }
    CopyBroadcast(to, CompactShape(out.shape, out.dimNum), c.data, CompactShape(c.shape, c.dimNum));
}

void MultiplyMatrices(const GemmAttr& attr, const Input& a, const Input& b, const Output& out, float* sum)
{
    const int32_t last = a.dimNum - 1;  // A's, for B's shape as well
    const uint32_t M = a.shape[attr.transA != 0 ? last : last - 1];
    const uint32_t K = a.shape[attr.transA != 0 ? last - 1 : last];
    const uint32_t N = b.shape[attr.transB != 0 ? last - 1 : last];
    const int32_t matrices = static_cast<int32_t>(ShapeCount(out.shape, out.dimNum, 0, out.dimNum - 2));
    MultiplyStack({attr.transA, attr.transB, M, N, K, attr.alpha, a.data, b.data, attr.beta, sum}, matrices, matrices,
                  matrices);
}

}  // namespace

uint32_t GemmOpkitForward(LayerParam* param)
{
    GemmAttr& attr = AttrOf<GemmAttr>(param);
    const bool hasC = attr.inputCount == 3;
    Input in[3];
    if (!Resolve(param, in, hasC ? 3 : 2, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    float* sum = out.data;
    if (hasC) {
        sum = static_cast<float*>(param->opkitBuf);
        PrepareSum(sum, out, in[kIndexOfC], &attr);
    }
    if (out.count != 0) {
        memset(out.data, 0, size_t{out.count} * sizeof(float));
    }
    MultiplyMatrices(attr, in[0], in[1], out, sum);
    if (hasC && out.count != 0) {
        memcpy(out.data, sum, size_t{out.count} * sizeof(float));
    }
    return ExpandOutputChecked(out);
}
