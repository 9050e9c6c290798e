// Reductions, scans, sorting and searching.

#include "opkit/attributes/selection.h"

#include <bit>

#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

constexpr uint64_t kSortEntry = 8;
constexpr const char* kLaneWork = "the work space holds one lane of sort entries";

// Comparisons of a merge sort, which sorts each of the input's lines of `length`.
uint64_t SortWork(const Tensor& in, uint64_t length)
{
    return Mul(in.Count(), static_cast<uint64_t>(std::bit_width(length)));
}

// Largest output index that an input element leads to: entries of `axes` behind `axesNum` count for the distances of
// the output, but not for the walk.
uint64_t LastReducedIndex(const ReductionAttr& attr, const Tensor& in)
{
    const uint32_t rank = static_cast<uint32_t>(in.Rank());
    const auto listed = [&attr](uint32_t axis, uint32_t entries) {
        return std::find(attr.axes, attr.axes + entries, axis) != attr.axes + entries;
    };
    uint64_t distance = 1;
    uint64_t last = 0;
    for (uint32_t k = rank; k-- > 0;) {
        if (!listed(k, attr.axesNum)) {
            last = Add(last, Mul(in.dims[k] - 1, distance));
        }
        if (!listed(k, rank)) {
            distance = Mul(distance, in.dims[k]);
        }
    }
    return last;
}

// How many entries per lane the outputs have room for, at most the lane's length. The rows of both are as wide as those
// of outputs[0].
uint64_t RoomForK(const std::vector<const Tensor*>& outputs, uint64_t lanes, uint64_t length)
{
    const uint64_t width = outputs[0]->Width();
    return LargestThatFits(length, [&](uint64_t k) {
        return std::all_of(outputs.begin(), outputs.end(), [&](const Tensor* out) {
            return Span(Mul(lanes, k), width, PitchOf(width, out->Align())) <= out->Room();
        });
    });
}

}  // namespace

void CheckReduction(LayerCheck& layer)
{
    const ReductionAttr attr = layer.Attr<ReductionAttr>();
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    layer.AtMost(OPKIT_ATTR_FIELD(layer, ReductionAttr, axesNum), attr.axesNum, 10, "axes has 10 entries");
    if (attr.reduceAll == 0) {
        layer.WorkSpace(8 * in.Rank(), "the work space holds two distances per dimension");
        layer.Elements(out, Add(LastReducedIndex(attr, in), 1), "the axes leave more elements than the output has");
    }
}

void CheckCumSum(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.Axis(OPKIT_ATTR_FIELD(layer, CumSumAttr, axis), layer.Attr<CumSumAttr>().axis, in.Rank());
    layer.Elements(out, in.Count(), "the output has fewer elements than the input");
    layer.MayRunInPlace(out, in);
}

void CheckArgmin(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    const int32_t axis = layer.Attr<ArgminAttr>().axis;
    layer.Axis(OPKIT_ATTR_FIELD(layer, ArgminAttr, axis), axis, in.Rank());
    const uint64_t length = in.dims[static_cast<size_t>(axis)];
    layer.WorkSpace(Mul(kSortEntry, length), kLaneWork);
    layer.Elements(out, in.Count() / length, "the output has no element for each lane");
    layer.Work(SortWork(in, length));
}

void CheckHardmax(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    const int64_t axis = layer.Attr<HardmaxAttr>().axis;
    layer.Axis(OPKIT_ATTR_FIELD(layer, HardmaxAttr, axis), axis < 0 ? axis + static_cast<int64_t>(in.Rank()) : axis,
               in.Rank());
    layer.Elements(out, in.Count(), "the output has fewer elements than the input");
}

void CheckTopK(LayerCheck& layer)
{
    const TopKAttr attr = layer.Attr<TopKAttr>();
    const Field kField = OPKIT_ATTR_FIELD(layer, TopKAttr, k);
    const Tensor& in = layer.Next();
    layer.Axis(OPKIT_ATTR_FIELD(layer, TopKAttr, axis), attr.axis, in.Rank());
    const uint64_t length = in.dims[static_cast<size_t>(attr.axis)];
    std::vector<const Tensor*> outputs = {&layer.Out()};
    if (attr.hasValues != 0 && attr.hasIndices != 0) {
        outputs.push_back(&layer.Out(1));
    }
    layer.WorkSpace(Mul(kSortEntry, length), kLaneWork);
    layer.Work(SortWork(in, length));
    const bool writes = attr.hasValues != 0 || attr.hasIndices != 0;
    const uint64_t most = writes ? RoomForK(outputs, in.Count() / length, length) : length;
    if (attr.k == OPKIT_TOPK_K_FROM_INPUT) {
        const Tensor& k = layer.Online(1, "k comes from the second online input");
        if (k.memory.block == Memory::Block::kScratch) {
            layer.Refuse(k.placeField, static_cast<int64_t>(k.memory.begin), 0,
                         "k lies in scratch, where no caller can hold it to a limit: it takes an input of the request");
        }
        layer.Condition("the first element of inputs[1], k, lies from 0 to " + std::to_string(most));
    } else {
        layer.AtMost(kField, attr.k, most, "k is beyond the lane or the outputs");
    }
}

void CheckNonZero(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    layer.OutExpanded();
    layer.Work(Mul(in.Rank(), in.Count()));
}

void CheckUnique(LayerCheck& layer)
{
    const int32_t axis = layer.Attr<UniqueAttr>().axis;
    const Tensor& in = layer.NextCompacted();
    const Tensor& values = layer.OutExpanded(0);
    const Tensor& firsts = layer.OutExpanded(1);
    const Tensor& mapping = layer.OutExpanded(2);
    const Tensor& counts = layer.OutExpanded(3);
    uint64_t slices = in.Count();
    uint64_t sliceSize = 1;
    if (axis != OPKIT_UNIQUE_FLAT) {
        layer.Axis(OPKIT_ATTR_FIELD(layer, UniqueAttr, axis), axis, in.Rank());
        slices = in.dims[static_cast<size_t>(axis)];
        sliceSize = in.Count() / slices;
    }
    layer.Floats(mapping, slices, "the mapping has an element for each position");
    layer.Work(Add(Mul(2, SortWork(in, slices)), Mul(8, in.Count())));  // searched for, sorted where that is too long
    const uint64_t most = std::min({values.Room() / sliceSize, firsts.Room(), counts.Room()});
    if (most < slices) {
        layer.Condition("input 0 has at most " + std::to_string(most) + " distinct " +
                        (sliceSize == 1 ? "elements, each NaN" : "slices, each with a NaN") + " being one of its own");
    }
}

}  // namespace opkit::modelkit::check
