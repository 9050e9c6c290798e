// Operators that move every element to a place of its own.

#include "opkit/attributes/movement.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

// The alignment that Reshape and DepthToSpace read input 0 by: the first online tensor's, also for a constant. The rows
// of a constant then have to fit the model buffer.
uint64_t CheckFirstAlign(LayerCheck& layer, const Tensor& in, uint64_t rows)
{
    const Tensor& first = layer.OnlineUnread(0, "the stride comes from the first online input, also for a constant");
    layer.AtLeast(first.strideField, first.stride, 4, "an alignment of 0 is a zero divisor");
    if (in.offline) {
        const uint64_t floats = Add(Mul(rows - 1, PitchOf(in.Width(), first.Align())), in.Width());
        layer.AtMost(in.placeField, Add(in.memory.begin, Mul(floats, 4)), layer.ModelSize(),
                     "with the stride of inputs[0] the data ends behind the model buffer");
    }
    return first.Align();
}

}  // namespace

void CheckConcat(LayerCheck& layer)
{
    const ConcatAttr attr = layer.Attr<ConcatAttr>();
    const Field axisField = OPKIT_ATTR_FIELD(layer, ConcatAttr, concatAxis);
    const Tensor& out = layer.OutExpanded();
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ConcatAttr, concatInputCount), attr.concatInputCount, OPKIT_MAX_LAYER_INPUTS,
                 "a layer has at most 80 inputs");
    if (attr.concatInputCount == 0) {
        return;
    }
    layer.Axis(axisField, attr.concatAxis, out.Rank());
    const size_t axis = static_cast<size_t>(attr.concatAxis);
    uint64_t outer = 0;
    uint64_t inner = 0;
    uint64_t joined = 0;  // along the axis
    for (uint32_t k = 0; k < attr.concatInputCount; ++k) {
        const Tensor& in = layer.NextCompacted();
        layer.Axis(axisField, attr.concatAxis, in.Rank());
        if (k == 0) {
            outer = in.Count(0, axis);
            inner = in.Count(axis + 1, in.Rank());
        }
        layer.Elements(in, Mul(outer, in.dims[axis], inner), "an input smaller than the first one's other dimensions");
        joined = Add(joined, in.dims[axis]);
    }
    const uint64_t block = Mul(out.dims[axis], inner);
    layer.Elements(out, Add(Mul(outer - 1, block), Mul(joined, inner)), "the inputs end behind the output");
}

void CheckExpand(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.ModifiesAttr("inputStrides[0]", offsetof(ExpandAttr, inputStrides), sizeof(StrideRecord));
    layer.ModifiesAttr("outputStrides[0]", offsetof(ExpandAttr, outputStrides), sizeof(StrideRecord));
    layer.MayRunInPlace(out, in);
}

void CheckReshape(LayerCheck& layer)
{
    const ReshapeAttr attr = layer.Attr<ReshapeAttr>();
    const Field rankField = OPKIT_ATTR_FIELD(layer, ReshapeAttr, reshapeDimCount);
    layer.AtLeast(rankField, attr.reshapeDimCount, 1, "the target has 1 to 10 dimensions");
    layer.AtMost(rankField, attr.reshapeDimCount, OPKIT_MAX_DIMS, "the target has 1 to 10 dimensions");
    const uint32_t last = attr.reshapeDimCount - 1;
    const uint64_t width = attr.reshapeDims[last];
    const Field widthField = layer.AttrField("reshapeDims[" + std::to_string(last) + "]",
                                             offsetof(ReshapeAttr, reshapeDims) + last * sizeof(uint32_t));
    layer.AtLeast(widthField, width, 1, "a width of 0 is a zero divisor");
    layer.AtMost(widthField, width, INT32_MAX, "a width beyond 31 bits");

    const Tensor& in = layer.Next();
    const uint64_t alignIn = CheckFirstAlign(layer, in, in.Rows());
    const Tensor& out = layer.OutRaw(0);
    layer.AtLeast(out.strideField, out.stride, 4, "an alignment of 0 is a zero divisor");
    const uint64_t pitchOut = PitchOf(width, out.Align());
    layer.Floats(out, Span(in.Count(), width, pitchOut), "the input's elements do not fit the output");
    const uint64_t pitchIn = PitchOf(in.Width(), alignIn);
    const bool bothCompact = pitchIn == in.Width() && pitchOut == width;
    if (bothCompact || (in.Width() == width && pitchIn == pitchOut)) {
        layer.MayAlias(out, in);
    }
}

void CheckPermute(LayerCheck& layer)
{
    const PermuteAttr attr = layer.Attr<PermuteAttr>();
    const Tensor& in = layer.Next();
    const uint32_t rank = static_cast<uint32_t>(in.Rank());
    const auto equals = [&](const Field& field, uint32_t value) {
        if (value != rank) {
            layer.Refuse(field, value, rank, "not the input's rank");
        }
    };
    equals(OPKIT_ATTR_FIELD(layer, PermuteAttr, permDimCount), attr.permDimCount);
    equals(OPKIT_ATTR_FIELD(layer, PermuteAttr, permOutDimCount), attr.permOutDimCount);
    layer.AtMost(OPKIT_ATTR_FIELD(layer, PermuteAttr, permLength), attr.permLength, rank, "above the input's rank");
    for (uint32_t d = 0; d < rank; ++d) {
        layer.Axis(
            layer.AttrField("perm[" + std::to_string(d) + "]", offsetof(PermuteAttr, perm) + d * sizeof(uint32_t)),
            attr.perm[d], rank);
    }
    const Tensor& out = layer.OutExpanded();
    layer.Elements(out, in.Count(), "the output has fewer elements than the input");
    layer.WorkSpace(8 * in.Rank(), "the work space holds two pitches per dimension");
}

void CheckDepthToSpace(LayerCheck& layer)
{
    const DepthToSpaceAttr attr = layer.Attr<DepthToSpaceAttr>();
    const Tensor& in = layer.Next();
    const Tensor& out = layer.OutRaw(0);
    if (attr.depthToSpaceMode > OPKIT_DEPTH_TO_SPACE_CRD) {
        return;  // nothing is done
    }
    const Field blockField = OPKIT_ATTR_FIELD(layer, DepthToSpaceAttr, blockSize);
    const uint64_t block = attr.blockSize;
    layer.AtLeast(blockField, block, 1, "a block size of 0 is a zero divisor");
    layer.AtMost(blockField, block, UINT16_MAX, "its square is beyond 32 bits");
    const uint64_t planes = Mul(in.FromEnd(4), in.FromEnd(3));
    CheckFirstAlign(layer, in, Mul(planes, in.FromEnd(2)));
    const uint64_t depth = in.FromEnd(3) / (block * block);
    if (depth == 0) {
        return;
    }
    layer.AtLeast(out.strideField, out.stride, 4, "an alignment of 0 is a zero divisor");
    const uint64_t width = Mul(in.FromEnd(1), block);
    layer.AtMost(blockField, width, INT32_MAX, "rows beyond 31 bits");
    const uint64_t rows = Mul(in.FromEnd(4), depth, Mul(in.FromEnd(2), block));
    layer.Floats(out, Mul(rows, PitchOf(width, out.Align())), "the blocks do not fit the output");
}

void CheckEyelike(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.Rank(in, 2, 2, "the operator takes a matrix");
    layer.Floats(out, in.Count(), "the input's elements do not fit the output");
}

void CheckOneHot(LayerCheck& layer)
{
    const Tensor& indices = layer.NextCompacted();
    layer.SkipTo(2);
    const Tensor& values = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    const int32_t axis = layer.Attr<OneHotAttr>().oneHotAxis;
    layer.Axis(OPKIT_ATTR_FIELD(layer, OneHotAttr, oneHotAxis), axis, out.Rank());
    layer.Elements(indices, out.Count() / out.dims[static_cast<size_t>(axis)], "fewer indices than the output takes");
    layer.Elements(values, 2, "an off-value and an on-value");
    layer.Modifies(indices);
}

}  // namespace opkit::modelkit::check
