// Logical: and, or, xor of two broadcast inputs, or not of one, as 1.0 and 0.0. False is what lies within the zero
// tolerance, so NaN is true. An unknown operation computes nothing.
// Rows: compacting.

#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

uint32_t LogicalOpkitForward(LayerParam* param)
{
    const bool negates = AttrOf<LogicalAttr>(param).logicalType == OPKIT_LOGICAL_NOT;
    return negates ? NotForward(param) : AndOrXorForward(param);
}

uint32_t AndOrXorForward(LayerParam* param)
{
    LogicalAttr& attr = AttrOf<LogicalAttr>(param);
    if (attr.logicalType <= OPKIT_LOGICAL_XOR) {
        const BinaryKernel kernel = Kernels<BinaryKernels>().logical[attr.logicalType];
        return RunCompacting<2>(param, attr, RunOf(kernel));
    }
    Operands<2> operands;
    if (!Resolve(param, &operands, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    RecordStrides(attr, operands);
    return ExpandOutputChecked(operands.out);
}

uint32_t NotForward(LayerParam* param)
{
    return MapCompacting(param, AttrOf<LogicalAttr>(param), Kernels<ActivationKernels>().logicalNot);
}
