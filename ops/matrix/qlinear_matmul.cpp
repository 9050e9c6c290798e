// QLinearMatMul: a product of quantised values held as floats, in three forms told apart by the declared input count:
// plain, with zero points, with scales and zero points. Only the last one rounds, at the end; nothing is clamped.
// Rows: compacting.
//
// A and B are dequantised where they lie, also in the model buffer: every further batch item or request dequantises a
// constant again. Scales and zero points are read when they are used.

#include "kernels/quantized.h"
#include "opkit/attributes/matrix.h"
#include "opkit/operators.h"
#include "ops/matrix/product_plan.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr int32_t kFullForm = 8;
constexpr int32_t kDequantize = 0;
constexpr int32_t kQuantize = 1;

uint32_t InputsToRead(int32_t inputCount)
{
    if (inputCount < 2) {
        return 0;
    }
    return static_cast<uint32_t>(inputCount <= 4 ? inputCount : kFullForm);
}

void Dequantize(const Input& input, float scale, float zero)
{
    QLinearMatMulQuantize(input.data, static_cast<int32_t>(input.count), kDequantize, scale, zero);
}

void DequantizeFactors(const Input (&in)[kFullForm], int32_t inputCount)
{
    switch (inputCount) {
        case kFullForm:
            Dequantize(in[0], in[1].data[0], in[2].data[0]);
            Dequantize(in[3], in[4].data[0], in[5].data[0]);
            break;
        case 2:
            break;
        case 3:
            Dequantize(in[0], 1.0f, in[2].data[0]);
            break;
        default:
            Dequantize(in[0], 1.0f, in[2].data[0]);
            Dequantize(in[1], 1.0f, in[3].data[0]);
            break;
    }
}

int32_t Matrices(const Tensor& tensor)
{
    return static_cast<int32_t>(ShapeCount(tensor.shape, tensor.dimNum, 0, tensor.dimNum - 2));
}

}  // namespace

void QLinearMatMulQuantize(float* data, int32_t count, int32_t mode, float scale, float zero)
{
    if (count < 1) {
        return;
    }
    const auto convert =
        mode == kDequantize ? Kernels<QuantizedKernels>().dequantize : Kernels<QuantizedKernels>().quantize;
    convert(data, static_cast<size_t>(count), scale, zero);
}

uint32_t QLinearMatMulOpkitForward(LayerParam* param)
{
    if (param->attr == nullptr) {
        return kFailure;
    }
    const int32_t inputCount = AttrOf<QLinearMatMulAttr>(param).inputCount;
    Input in[kFullForm];
    if (!Resolve(param, in, InputsToRead(inputCount), Rows::kCompacting, Messages::kOfRows)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const Input& a = in[0];
    const Input& b = inputCount == kFullForm ? in[3] : in[1];
    if (static_cast<uint32_t>(out.dimNum) < 2 || inputCount < 2 || a.dimNum < 1) {
        Report(Here(), "dimNumOut(%u) < 2,  dimNumIn0:%d < 1, inputNum:%d < 2\n", static_cast<uint32_t>(out.dimNum),
               a.dimNum, inputCount);
        return kFailure;
    }
    const uint32_t rows = out.shape[out.dimNum - 2];
    const int32_t aBatch = Matrices(a);
    const int32_t bBatch = Matrices(b);
    const int32_t yBatch = Matrices(out);
    DequantizeFactors(in, inputCount);
    if (yBatch > 0) {
        if (aBatch == 0 || bBatch == 0) {
            Report(Here(), "cannot divisor zero, aBatch = %d, bBatch = %d\n", aBatch, bBatch);
            return kFailure;
        }
        MultiplyStack({0, 0, rows, out.width, a.width, 1.0f, a.data, b.data, 0.0f, out.data}, aBatch, bBatch, yBatch);
    }
    if (inputCount == kFullForm) {
        QLinearMatMulQuantize(out.data, static_cast<int32_t>(out.count), kQuantize, in[6].data[0], in[7].data[0]);
    }
    return ExpandOutput(out);
}
