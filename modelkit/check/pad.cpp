// Pad. Its arrays, their places in the work space and the walk over the kept rows all come from attributes, so the
// check works out the same numbers, without wrapping.

#include <array>

#include "modelkit/check/layer_check.h"
#include "opkit/attributes/movement.h"

namespace opkit::modelkit::check {
namespace {

using Counts = std::array<int64_t, OPKIT_MAX_DIMS>;

// One axis: what is added before and behind, and what is cut there, as negative numbers.
struct Axes {
    size_t rank = 0;
    Counts dims = {};
    Counts before = {};
    Counts behind = {};
    Counts cutBefore = {};
    Counts cutBehind = {};

    bool Untouched(size_t a) const { return (before[a] | behind[a] | cutBefore[a] | cutBehind[a]) == 0; }
    int64_t Extent(size_t a) const { return dims[a] + cutBefore[a] + cutBehind[a]; }
};

Axes AxesOf(const PadAttr& attr, const Tensor& in)
{
    Axes axes;
    axes.rank = in.Rank();
    for (size_t a = 0; a < axes.rank; ++a) {
        const int64_t before = attr.padsAttr[a];
        const int64_t behind = attr.padsAttr[axes.rank + a];
        axes.dims[a] = in.dims[a];
        axes.before[a] = std::max<int64_t>(before, 0);
        axes.behind[a] = std::max<int64_t>(behind, 0);
        axes.cutBefore[a] = std::min<int64_t>(before, 0);
        axes.cutBehind[a] = std::min<int64_t>(behind, 0);
    }
    return axes;
}

// Inner axes without padding become one, with the axis where that ends; counts there are in elements of the inner ones.
// *unit is how many of those the library takes for one.
Axes Merge(const Axes& axes, int64_t* unit)
{
    const bool mergeable = axes.dims[axes.rank - 1] % 4 == 0;
    size_t last = axes.rank - 1;
    int64_t product = axes.dims[last];
    while (last > 0 && mergeable && axes.Untouched(last)) {
        product *= axes.dims[--last];
    }
    Axes merged = axes;
    merged.rank = last + 1;
    *unit = product / axes.dims[last];
    merged.dims[last] = product;
    for (Counts* counts : {&merged.before, &merged.behind, &merged.cutBefore, &merged.cutBehind}) {
        (*counts)[last] *= *unit;
    }
    return merged;
}

Field PadsField(const LayerCheck& layer, size_t entry)
{
    return layer.AttrField("padsAttr[" + std::to_string(entry) + "]",
                           offsetof(PadAttr, padsAttr) + entry * sizeof(int32_t));
}

// The sizes of the arrays, in entries, and the work space that they make up.
void CheckArrays(LayerCheck& layer, const PadAttr& attr, const Axes& axes, const Axes& merged)
{
    const int64_t rank = static_cast<int64_t>(axes.rank);
    const int64_t r = static_cast<int64_t>(merged.rank);
    const auto entries = [&](const Field& field, int64_t value, int64_t least) {
        if (value < least) {
            layer.Refuse(field, value, least, "the array is too short");
        }
        return static_cast<uint64_t>(value);
    };
    const Field dimsField = OPKIT_ATTR_FIELD(layer, PadAttr, outputDimsSize);
    uint64_t words = 4 * axes.rank;  // the two halves of the pad counts
    words += entries(dimsField, attr.outputDimsSize, rank);
    layer.AtMost(dimsField, static_cast<uint64_t>(attr.outputDimsSize), axes.rank, "not the input's rank");
    words += entries(OPKIT_ATTR_FIELD(layer, PadAttr, reshapedInputDimsSize), attr.reshapedInputDimsSize, r);
    words += entries(OPKIT_ATTR_FIELD(layer, PadAttr, reshapedOutputDimsSize), attr.reshapedOutputDimsSize, r);
    words += entries(OPKIT_ATTR_FIELD(layer, PadAttr, reshapedPadsSize), attr.reshapedPadsSize, 2 * r);
    // Of 2 * r entries the second half may fall on inputStarts while all of them are 0.
    bool cuts = false;
    for (size_t a = 0; a < axes.rank; ++a) {
        cuts = cuts || axes.cutBefore[a] != 0 || axes.cutBehind[a] != 0;
    }
    words += entries(OPKIT_ATTR_FIELD(layer, PadAttr, reshapedSlicesSize), attr.reshapedSlicesSize, cuts ? 2 * r : r);
    words += entries(OPKIT_ATTR_FIELD(layer, PadAttr, inputStartsSize), attr.inputStartsSize, r);
    entries(OPKIT_ATTR_FIELD(layer, PadAttr, inputExtentsSize), attr.inputExtentsSize, r);
    words += merged.rank + 4 * axes.rank;
    layer.WorkSpace(Mul(words, 4), "the work space holds the arrays that the attributes size");
}

// Where the last kept row ends in the input: the first element's offset takes the row distance of the stride, the steps
// from row to row do so only for an innermost axis that was not merged.
uint64_t ReadEnd(const Axes& merged, int64_t unit, uint64_t align)
{
    const size_t last = merged.rank - 1;
    uint64_t end = static_cast<uint64_t>(merged.Extent(last));
    uint64_t startStep = 1;
    uint64_t rowStep = 1;
    for (size_t a = merged.rank; a-- > 0;) {
        end = Add(end, Mul(static_cast<uint64_t>(-merged.cutBefore[a]), startStep));
        if (a != last) {
            end = Add(end, Mul(static_cast<uint64_t>(merged.Extent(a) - 1), rowStep));
        }
        const uint64_t length = static_cast<uint64_t>(merged.dims[a]);
        startStep = Mul(startStep, a == last ? align : length);
        rowStep = Mul(rowStep, a == last && unit == 1 ? align : length);
    }
    return end;
}

}  // namespace

void CheckPad(LayerCheck& layer)
{
    const PadAttr attr = layer.Attr<PadAttr>();
    const Tensor& in = layer.Next();
    const Tensor& out = layer.OutExpanded();
    const auto equals = [&](const Field& field, uint64_t value) {
        if (value != 2 * in.Rank()) {
            layer.Refuse(field, static_cast<int64_t>(value), static_cast<int64_t>(2 * in.Rank()),
                         "not twice the input's rank");
        }
    };
    equals(OPKIT_ATTR_FIELD(layer, PadAttr, padCount), attr.padCount);
    equals(OPKIT_ATTR_FIELD(layer, PadAttr, padCountCheck), attr.padCountCheck);
    const Axes axes = AxesOf(attr, in);
    int64_t unit = 1;
    const Axes merged = Merge(axes, &unit);
    CheckArrays(layer, attr, axes, merged);
    uint64_t written = 1;
    for (size_t a = 0; a < axes.rank; ++a) {
        if (axes.Extent(a) < 1) {
            layer.Refuse(PadsField(layer, axes.cutBefore[a] != 0 ? a : axes.rank + a), axes.Extent(a), 1,
                         "nothing is left of the axis");
        }
        written = Mul(written, static_cast<uint64_t>(axes.Extent(a) + axes.before[a] + axes.behind[a]));
    }
    layer.Floats(out, written, "the padded tensor does not fit the output");
    layer.Work(written);
    if (attr.padMode <= OPKIT_PAD_EDGE) {
        layer.RowsReachAlign(in);
        layer.Floats(in, ReadEnd(merged, unit, in.Align()), "the rows that are read end behind the input");
    }
}

}  // namespace opkit::modelkit::check
