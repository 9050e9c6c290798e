// The detection chain, whose counts of boxes are data, and suppression by score.

#include "opkit/attributes/detection.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

constexpr uint32_t kMostClasses = 256;  // lists that a thread keeps counts of

uint64_t Fields(uint32_t hasClassId)
{
    return hasClassId != 0 ? 6 : 5;
}

// Deltas and scores: the shape is one proposal's share, and rows are compacted for all proposals. The shares of a
// constant lie one behind the other.
void CheckShare(LayerCheck& layer, const Tensor& share, uint64_t proposals, uint64_t floats, const char* reason)
{
    const uint64_t count = Mul(share.Count(), proposals);
    layer.AtMost(share.shapeField, count, INT32_MAX, "elements of all proposals beyond 31 bits");
    if (share.offline) {
        layer.AtMost(share.placeField, Add(share.memory.begin, Mul(floats, 4)), layer.ModelSize(),
                     "the share of a proposal ends behind the model buffer");
        return;
    }
    if (share.Align() != share.Width()) {
        layer.Floats(share, Span(count, share.Width(), share.Pitch()), "rows for all proposals do not fit");
        layer.Modifies(share);
    }
    layer.Floats(share, floats, reason);
}

uint64_t ShareRoom(const LayerCheck& layer, const Tensor& share)
{
    return share.offline ? (layer.ModelSize() - share.memory.begin) / 4 : share.Room();
}

// What `count` proposals, at least one, take of the deltas, the scores and the output. The first two classes are
// decoded even where there is only one.
uint64_t DeltaFloats(uint64_t count)
{
    return Mul(8, count);
}

uint64_t ScoreFloats(const DecBboxAttr& attr, uint64_t count)
{
    return Add(Mul(count - 1, attr.classNum), std::max<uint64_t>(attr.classNum, 2));
}

uint64_t BoxFloats(const DecBboxAttr& attr, uint64_t proposals, uint64_t count)
{
    const uint64_t classes = std::max<uint64_t>(attr.classNum, 2);
    const uint64_t lastRow = attr.hasClassId == 1 ? 5 : 4;
    if (attr.mergeClasses == 0) {
        return Add(Mul(Add(Mul(classes - 1, Fields(attr.hasClassId)), lastRow), proposals), count);
    }
    // The boxes of further classes go to multiples of the proposals, all else to multiples of the count.
    const uint64_t row = classes > 2 ? Add(Mul(classes - 1, proposals), count) : Mul(2, count);
    return Add(Mul(lastRow, attr.classNum, proposals), row);
}

}  // namespace

void CheckDecBbox(LayerCheck& layer)
{
    const DecBboxAttr attr = layer.Attr<DecBboxAttr>();
    const Tensor& deltas = layer.Next();
    const Tensor& scores = layer.Next();
    const Tensor& thresholds = layer.NextCompacted();
    layer.NextCompacted();  // the count
    const Tensor& proposals = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.Elements(thresholds, 4, "overlap, score, height and width");
    layer.Rank(proposals, 4, OPKIT_MAX_DIMS, "the fourth dimension is the number of proposals");
    const uint64_t n = proposals.dims[3];
    layer.Elements(proposals, Mul(4, n), "four edges per proposal");

    const uint64_t classNum = attr.classNum;
    const Field classField = OPKIT_ATTR_FIELD(layer, DecBboxAttr, classNum);
    layer.AtLeast(classField, classNum, 1, "no class");
    if (attr.mergeClasses == 0) {
        layer.AtMost(classField, classNum, kMostClasses, "the operator fails");
    }
    CheckShare(layer, deltas, n, DeltaFloats(1), "eight deltas per proposal");
    CheckShare(layer, scores, n, ScoreFloats(attr, 1), "a score per proposal and class, of two at least");
    layer.Floats(out, BoxFloats(attr, n, 1), "the boxes of all classes, of two at least, do not fit the output");
    const uint64_t most = LargestThatFits(n, [&](uint64_t count) {
        return DeltaFloats(count) <= ShareRoom(layer, deltas) && ScoreFloats(attr, count) <= ShareRoom(layer, scores) &&
               BoxFloats(attr, n, count) <= out.Room();
    });
    layer.Work(Mul(8, Add(classNum, 2), n));
    layer.Condition("the first element of input 3, the number of proposals, lies from 0 to " + std::to_string(most));
}

void CheckDetectionOutput(LayerCheck& layer)
{
    const DetectionOutputAttr attr = layer.Attr<DetectionOutputAttr>();
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    const Field classField = OPKIT_ATTR_FIELD(layer, DetectionOutputAttr, classNum);
    layer.AtLeast(classField, attr.classNum, 1, "no class");
    layer.AtMost(classField, attr.classNum, kMostClasses, "a thread keeps the counts of 256 lists");
    const uint64_t fields = Fields(attr.hasClassId);
    layer.Elements(in, Mul(attr.classNum, fields, attr.classCapacity), "the lists do not fit the input");
    layer.Rank(out, 4, OPKIT_MAX_DIMS, "the fourth dimension is the row length");
    const uint64_t rowLength = out.dims[3];
    const bool packed = attr.packOutput != 0 || attr.writeCount != 0;
    layer.Floats(out, Mul(packed ? 1 : attr.classNum, fields, rowLength), "the lists' rows do not fit the output");
    if (attr.stage == OPKIT_STAGE_NMS || attr.stage == OPKIT_STAGE_SORT) {  // all pairs, at worst
        layer.Work(Mul(attr.classNum, attr.classCapacity, uint64_t{attr.classCapacity}));
    }
    if (attr.writeCount != 0) {
        const Tensor& counts = layer.OutExpanded(1);
        layer.Floats(counts, attr.packOutput != 0 ? 1 : attr.classNum, "a count per class");
    }
    // What is written of a list. Only these two stages cut it before that; suppression passes over a list of one box.
    uint64_t most = attr.classCapacity;
    if (attr.stage == OPKIT_STAGE_NMS || attr.stage == OPKIT_STAGE_FILTER) {
        most = std::min<uint64_t>(most, std::max<uint64_t>(attr.maxBoxNum, 1));
    }
    const bool cuts = !packed && most > rowLength;
    std::string condition = "the layers before leave at most " + std::to_string(cuts ? rowLength : attr.classCapacity) +
                            " boxes in each list";
    if (packed && Mul(attr.classNum, most) > rowLength) {
        condition += " and at most " + std::to_string(rowLength) + " in all";
    }
    layer.Condition(condition);
}

void CheckNonMaxSuppression(LayerCheck& layer)
{
    const int32_t inputCount = std::clamp(layer.Attr<NonMaxSuppressionAttr>().inputCount, 2, 5);
    const Tensor& boxes = layer.NextCompacted();
    const Tensor& scores = layer.NextCompacted();
    for (int32_t k = 2; k < inputCount; ++k) {
        layer.NextCompacted();
    }
    const Tensor& out = layer.OutExpanded();
    layer.Rank(boxes, 2, OPKIT_MAX_DIMS, "batches, boxes");
    layer.Rank(scores, 2, OPKIT_MAX_DIMS, "batches, classes");
    const uint64_t batches = boxes.dims[0];
    const uint64_t boxNum = boxes.dims[1];
    const uint64_t lists = Mul(batches, scores.dims[1]);
    layer.AtMost(boxes.Dim(1), boxNum, 1 << 24, "indices beyond 24 bits do not come back from a float");
    layer.Elements(boxes, Mul(batches, boxNum, 4), "four values per box");
    layer.Elements(scores, Mul(lists, boxNum), "a score per box and class");
    layer.WorkSpace(Mul(Add(boxNum, 1), 8), "the work space holds the heap");
    layer.Work(Mul(lists, boxNum, boxNum));
    const uint64_t rows = out.Room() / 3;
    if (rows < Mul(lists, boxNum)) {
        layer.Condition("at most " + std::to_string(rows) + " boxes are selected in all");
    }
}

}  // namespace opkit::modelkit::check
