// The gather and scatter families. Where an index leads is the library's to look at: one outside fails the layer.

#include "modelkit/check/layer_check.h"
#include "opkit/attributes/movement.h"

namespace opkit::modelkit::check {
namespace {

// Floats that `rows` rows span when they lie as far apart as the stride says.
uint64_t AlignedSpan(uint64_t rows, uint64_t align, uint64_t width)
{
    return rows == 0 ? 0 : Add(Mul(rows - 1, align), width);
}

// The shape checks of the operator itself, which fails otherwise.
void CheckScatterShapes(LayerCheck& layer, const Tensor& data, const Tensor& indices, const Tensor& updates)
{
    const uint64_t length = indices.Width();
    layer.AtMost(indices.Dim(indices.Rank() - 1), length, data.Rank(), "tuples longer than the data's rank");
    const size_t before = indices.Rank() - 1;
    const size_t rank = before + data.Rank() - static_cast<size_t>(length);
    layer.Rank(updates, rank, rank, "the updates have the indices' outer and the data's inner dimensions");
    for (size_t d = 0; d < rank; ++d) {
        const uint32_t expected = d < before ? indices.dims[d] : data.dims[d - before + length];
        if (updates.dims[d] != expected) {
            layer.Refuse(updates.Dim(d), updates.dims[d], expected,
                         "the updates have the indices' outer and the data's inner dimensions");
        }
    }
}

}  // namespace

void CheckGather(LayerCheck& layer)
{
    const Tensor& data = layer.Next();
    const Tensor& indices = layer.Next();
    const Tensor& out = layer.OutRaw(0);
    const int32_t gatherAxis = static_cast<int32_t>(layer.Attr<GatherAttr>().gatherAxis);
    layer.Axis(OPKIT_ATTR_FIELD(layer, GatherAttr, gatherAxis), gatherAxis, data.Rank());
    layer.RowsReachAlign(data);
    layer.RowsReachAlign(indices);
    const size_t axis = static_cast<size_t>(gatherAxis);
    const size_t last = data.Rank() - 1;
    const bool alongRows = axis == last;
    const uint64_t outer = data.Count(0, axis);
    const uint64_t rows =
        alongRows ? Mul(outer, indices.Rows()) : Mul(outer, indices.Count(), data.Count(axis + 1, last));
    const uint64_t width = alongRows ? indices.Width() : data.Width();
    layer.AtLeast(out.strideField, out.stride, rows > 1 ? Mul(width, 4) : 0,
                  "rows as far apart as the stride would overlap");
    layer.Floats(out, AlignedSpan(rows, out.Align(), width), "the slices do not fit the output");
    layer.Work(Mul(rows, width));
}

void CheckGatherElements(LayerCheck& layer)
{
    const Tensor& data = layer.Next();
    const Tensor& indices = layer.Next();
    const Tensor& out = layer.Out();
    layer.Axis(OPKIT_ATTR_FIELD(layer, GatherElementsAttr, gatherAxis), layer.Attr<GatherElementsAttr>().gatherAxis,
               data.Rank());
    layer.Elements(out, indices.Count(), "the output has fewer elements than there are indices");
    layer.Modifies(indices);
}

void CheckGatherND(LayerCheck& layer)
{
    const Tensor& data = layer.Next();
    const Tensor& indices = layer.Next();
    const Tensor& out = layer.OutRaw(0);
    const int32_t batchDims = layer.Attr<GatherNDAttr>().gatherAxis;
    const Field axisField = OPKIT_ATTR_FIELD(layer, GatherNDAttr, gatherAxis);
    layer.Axis(axisField, batchDims, indices.Rank());
    const uint64_t length = indices.Width();
    const uint64_t covered = Add(static_cast<uint64_t>(batchDims), length);
    layer.AtMost(axisField, covered, data.Rank(), "batch dimensions and index tuples go beyond the data's rank");
    layer.RowsReachAlign(indices);
    layer.RowsReachAlign(data);
    uint64_t slice = 1;
    if (covered != data.Rank()) {
        slice = Mul(data.Count(covered, data.Rank() - 1), data.Align());
    }
    layer.Floats(out, Mul(indices.Rows(), slice), "the slices do not fit the output");
    layer.Work(Mul(indices.Rows(), slice));
    layer.Modifies(indices);
}

void CheckScatter(LayerCheck& layer)
{
    const Tensor& data = layer.NextCompacted();
    const Tensor& indices = layer.NextCompacted();
    const Tensor& updates = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    const int32_t scatterAxis = layer.Attr<ScatterAttr>().scatterAxis;
    layer.Axis(OPKIT_ATTR_FIELD(layer, ScatterAttr, scatterAxis), scatterAxis, data.Rank());
    layer.Rank(updates, data.Rank(), data.Rank(), "the updates have the data's rank");
    for (size_t d = 0; d < data.Rank(); ++d) {
        if (d != static_cast<size_t>(scatterAxis)) {
            layer.AtMost(updates.Dim(d), updates.dims[d], data.dims[d], "updates reach beyond the data");
        }
    }
    layer.Elements(updates, indices.Count(), "fewer updates than indices");
    layer.Floats(out, data.Count(), "the data does not fit the output");
    layer.WorkSpace(Mul(Add(indices.Count(), 2 * data.Rank()), 4),
                    "the work space holds the indices and two words per dimension");
    layer.MayRunInPlace(out, data);
}

void CheckScatterND(LayerCheck& layer)
{
    const Tensor& data = layer.Next();
    const Tensor& indices = layer.Next();
    const Tensor& updates = layer.NextRaw();
    const Tensor& out = layer.Out();
    CheckScatterShapes(layer, data, indices, updates);
    if (updates.Rank() > 0) {
        layer.Rows(updates);
        layer.RowsReachAlign(updates);
    } else {  // one value for one tuple
        layer.AtLeast(updates.strideField, updates.stride, 4, "an alignment of 0 is a zero divisor");
        layer.Floats(updates, 1, "one value");
    }
    layer.RowsReachAlign(out);
    layer.Floats(out, Mul(data.Rows(), data.Pitch()), "the data does not fit the output");
    layer.WorkSpace(Mul(Add(indices.Rows(), data.Rank()), 4),
                    "the work space holds an offset per tuple and the pitches");
    layer.MayRunInPlace(out, data);
}

}  // namespace opkit::modelkit::check
