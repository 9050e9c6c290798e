// Cmp: 1.0 where a comparison of two broadcast inputs holds, else 0.0. Only equal and not equal have a tolerance, on
// the f32 difference, so that equal infinities differ and 1.0000001 is both greater than 1.0 and equal to it.
// An unknown comparison computes nothing.
// Rows: in place.

#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

uint32_t CmpOpkitForward(LayerParam* param)
{
    Operands<2> operands;
    if (!Resolve(param, &operands, Rows::kInPlace, Messages::kAll)) {
        return kFailure;
    }
    CmpAttr& attr = AttrOf<CmpAttr>(param);
    RecordStrides(attr, operands);
    if (attr.cmpType <= OPKIT_CMP_LESS_EQUAL) {
        MapRuns(operands, Rows::kInPlace, Kernels<BinaryKernels>().compare[attr.cmpType]);
    }
    return kSuccess;
}
