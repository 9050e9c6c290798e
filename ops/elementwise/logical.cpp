// Logical: and, or, xor of two broadcast inputs, or not of one, as 1.0 and 0.0. False is what lies within the zero
// tolerance, so NaN is true.
// Inputs are compacted in place, each before the next is resolved; the output is written compactly and expanded, also
// for an unknown operation, which computes nothing.

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
    const bool known = attr.logicalType <= OPKIT_LOGICAL_XOR;
    Operands<2> operands;
    if (known && Resolve(param, &operands, Rows::kInPlace, Messages::kNone) && MayPassOnce(operands)) {
        RecordStrides(attr, operands);
        const BinaryKernel kernel = Kernels<BinaryKernels>().logical[attr.logicalType];
        ForEachRowOnce(operands, [kernel](const float* const(&in)[2], const uint32_t(&steps)[2], float* out,
                                          uint32_t length) { kernel(in[0], steps[0], in[1], steps[1], out, length); });
        return kSuccess;
    }
    if (!Resolve(param, &operands, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    RecordStrides(attr, operands);
    if (known) {
        MapRuns(operands, Rows::kCompacting, Kernels<BinaryKernels>().logical[attr.logicalType]);
    }
    return ExpandOutputChecked(operands.out);
}

uint32_t NotForward(LayerParam* param)
{
    Operands<1> operands;
    if (!Resolve(param, &operands, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    RecordStrides(AttrOf<LogicalAttr>(param), operands);
    MapCompactRuns(operands, Kernels<ActivationKernels>().logicalNot);
    return ExpandOutputChecked(operands.out);
}
