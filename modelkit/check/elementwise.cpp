// Unary operators, the broadcasting operators, and the activations with parameters.

#include "opkit/attributes/elementwise.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

constexpr const char* kOneForEach = "the output has fewer elements than the input";

// Broadcasting reads each operand modulo its own dimensions, so any shapes do.
template <class Attr>
void CheckBroadcast(LayerCheck& layer, uint32_t operands, bool compacts, bool expands)
{
    std::vector<const Tensor*> inputs;
    for (uint32_t k = 0; k < operands; ++k) {
        inputs.push_back(compacts ? &layer.NextCompacted() : &layer.Next());
        layer.ModifiesAttr("inputStrides[" + std::to_string(k) + "]",
                           offsetof(Attr, inputStrides) + k * sizeof(StrideRecord), sizeof(StrideRecord));
    }
    const Tensor& out = expands ? layer.OutExpanded() : layer.Out();
    layer.ModifiesAttr("outputStrides[0]", offsetof(Attr, outputStrides), sizeof(StrideRecord));
    for (const Tensor* in : inputs) {
        layer.MayRunInPlace(out, *in);
    }
}

}  // namespace

// Element by element through both row layouts.
void CheckInPlace(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    layer.Elements(out, in.Count(), kOneForEach);
    layer.MayRunInPlace(out, in);
}

// Compacts the input, computes compactly, expands.
void CheckCompacting(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.Elements(out, in.Count(), kOneForEach);
    layer.MayRunInPlace(out, in);
}

// Reads padded rows, writes compactly, expands.
void CheckExpanding(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.OutExpanded();
    layer.Elements(out, in.Count(), kOneForEach);
    layer.MayRunInPlace(out, in);
}

void CheckBinaryMath(LayerCheck& layer)
{
    layer.AtMost(OPKIT_ATTR_FIELD(layer, BinaryMathAttr, mathType), layer.Attr<BinaryMathAttr>().mathType,
                 OPKIT_BINARY_MAX, "the operator fails on this code");
    CheckBroadcast<BinaryMathAttr>(layer, 2, false, false);
}

void CheckBitShift(LayerCheck& layer)
{
    CheckBroadcast<BitShiftAttr>(layer, 2, false, false);
}

void CheckCmp(LayerCheck& layer)
{
    CheckBroadcast<CmpAttr>(layer, 2, false, false);
}

void CheckMod(LayerCheck& layer)
{
    CheckBroadcast<ModAttr>(layer, 2, false, true);
    if (layer.Attr<ModAttr>().fmod == 0) {
        layer.Condition(
            "no element of input 0 that truncates to -2147483648, as NaN and all beyond 31 bits do, meets one of input "
            "1 that truncates to -1: the remainder faults");
    }
}

void CheckLogical(LayerCheck& layer)
{
    const bool negates = layer.Attr<LogicalAttr>().logicalType == OPKIT_LOGICAL_NOT;
    CheckBroadcast<LogicalAttr>(layer, negates ? 1 : 2, true, true);
}

void CheckWhere(LayerCheck& layer)
{
    const uint32_t inputCount = layer.Attr<WhereAttr>().inputCount;
    if (inputCount != 3) {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, WhereAttr, inputCount), inputCount, 3, "the operator takes three inputs");
    }
    CheckBroadcast<WhereAttr>(layer, 3, true, true);
}

void CheckSqrt(LayerCheck& layer)
{
    CheckBroadcast<SqrtAttr>(layer, 1, true, true);
}

// Rows as far apart as the stride says, of one shape on both sides.
void CheckStepping(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    layer.Rank(out, in.Rank(), in.Rank(), "input and output differ in rank");
    for (size_t d = 0; d < in.Rank(); ++d) {
        if (out.dims[d] != in.dims[d]) {
            layer.Refuse(out.Dim(d), out.dims[d], in.dims[d], "input and output differ in shape");
        }
    }
    layer.RowsReachAlign(in);
    layer.RowsReachAlign(out);
    layer.MayRunInPlace(out, in);
}

void CheckCelu(LayerCheck& layer)
{
    const float alpha = layer.Attr<CeluAttr>().alpha;
    if (alpha > -1.17549435e-38f && alpha < 1.17549435e-38f) {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, CeluAttr, alpha), 0, 1, "alpha is zero or subnormal");
    }
    CheckStepping(layer);
}

void CheckRound(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.OutExpanded();
    layer.Rank(out, in.Rank(), in.Rank(), "input and output differ in rank");
    layer.Elements(out, in.Count(), kOneForEach);
    layer.Elements(in, out.Count(), "the output has more elements than the input");
    layer.MayRunInPlace(out, in);
}

}  // namespace opkit::modelkit::check
