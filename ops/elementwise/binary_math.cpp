// BinaryMath: sum, difference, product, quotient or maximum of two broadcast inputs, in f32.
// A b within the zero tolerance makes product and quotient +0.0 whatever a is, so the product does not commute; the
// maximum is b unless a is strictly greater.
// Rows: in place.

#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

uint32_t BinaryMathOpkitForward(LayerParam* param)
{
    Operands<2> operands;
    if (!Resolve(param, &operands, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    BinaryMathAttr& attr = AttrOf<BinaryMathAttr>(param);
    RecordStrides(attr, operands);
    if (attr.mathType > OPKIT_BINARY_MAX) {  // an error also when the output is empty
        Report(Here(), "Binary math type[%d] error. failed.\n\n", static_cast<int32_t>(attr.mathType));
        return kFailure;
    }
    MapRuns(operands, Rows::kInPlace, Kernels<BinaryKernels>().math[attr.mathType]);
    return kSuccess;
}
