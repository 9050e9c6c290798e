// DetectionOutput: one stage of the detection chain - suppression, filter or sort - over the box lists of all classes.
// The stage is an attribute; the layer names FilterBox, Sort and NMS all lead here.
// Rows: compacting.
//
// How many boxes a list holds, and the thresholds, come from this thread's objects and go back there: the tensors carry
// no counts. Counts are clamped after the boxes are written, so a sort may write more than it reports.

#include <cstdlib>
#include <cstring>

#include "common/convert.h"
#include "common/smaller.h"
#include "kernels/box_elements.h"
#include "kernels/boxes.h"
#include "opkit/attributes/detection.h"
#include "opkit/operators.h"
#include "ops/detection/chain_state.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Intersection and union. What a NaN coordinate gives here does not matter: its box's area is NaN, and so is the union.
void Intersect(const DetBox& a, const DetBox& b, float* inter, float* uni)
{
    const float width = InclusiveLength(Larger(a.x1, b.x1), Smaller(a.x2, b.x2));
    const float height = InclusiveLength(Larger(a.y1, b.y1), Smaller(a.y2, b.y2));
    *inter = width * height;
    *uni = a.area + b.area - *inter;
}

BoxFields FieldsOf(const DetBox& box)
{
    return {box.x1, box.y1, box.x2, box.y2, box.area};
}

void Collect(const DetBox* boxes, size_t count, BoxBlock* block)
{
    for (size_t j = 0; j < count; ++j) {
        block->x1[j] = boxes[j].x1;
        block->y1[j] = boxes[j].y1;
        block->x2[j] = boxes[j].x2;
        block->y2[j] = boxes[j].y2;
        block->area[j] = boxes[j].area;
    }
}

// Keeps the boxes that overlap no better one that is kept, at most maxKeep, and moves them to the front; returns how
// many. Block by block: the boxes kept so far go over a block before its own boxes decide among themselves.
uint32_t KeepApart(DetBox* boxes, uint32_t total, uint32_t maxKeep, float thresh, uint32_t* keep)
{
    uint32_t kept = 0;
    for (uint32_t begin = 0; begin < total && kept < maxKeep; begin += kBoxBlock) {
        const uint32_t count = total - begin < kBoxBlock ? total - begin : kBoxBlock;
        BoxBlock block;
        Collect(boxes + begin, count, &block);
        for (uint32_t k = 0; k < kept; ++k) {
            Kernels<BoxKernels>().suppress(block, 0, count, FieldsOf(boxes[k]), thresh, keep + begin);
        }
        for (uint32_t i = 0; i < count && kept < maxKeep; ++i) {
            if (keep[begin + i] != 0) {
                const DetBox box = boxes[begin + i];
                Kernels<BoxKernels>().suppress(block, i + 1, count, FieldsOf(box), thresh, keep + begin);
                boxes[kept++] = box;
            }
        }
    }
    return kept;
}

void Swap(DetBox* a, DetBox* b)
{
    const DetBox box = *a;
    *a = *b;
    *b = box;
}

// One partition around the first score. Boxes equal to it are swapped, not skipped, and a NaN stops both scans: where
// they end up decides which of them survive later stages. Returns the pivot's place.
int32_t Partition(DetBox* boxes, int32_t low, int32_t high)
{
    const float pivot = boxes[low].score;
    int32_t i = low;
    int32_t j = high;
    while (j > i) {
        while (pivot > boxes[j].score) {
            if (--j <= i) {
                return i;
            }
        }
        Swap(&boxes[i], &boxes[j]);
        if (++i >= j) {
            return i;
        }
        while (boxes[i].score > pivot) {
            if (++i == j) {
                return i;
            }
        }
        Swap(&boxes[i], &boxes[j]);
        --j;
    }
    return i;
}

// Where all scores differ there is one descending order, however it is reached. Both orders that would take a partition
// for every box are recognised: nothing to do for a descending range, a reversal for an ascending one.
bool SortOrdered(DetBox* boxes, int32_t low, int32_t high)
{
    int32_t i = low + 1;
    while (i <= high && boxes[i - 1].score > boxes[i].score) {
        ++i;
    }
    if (i > high) {
        return true;
    }
    i = low + 1;
    while (i <= high && boxes[i - 1].score < boxes[i].score) {
        ++i;
    }
    if (i <= high) {
        return false;
    }
    for (; low < high; ++low, --high) {
        Swap(&boxes[low], &boxes[high]);
    }
    return true;
}

// Copies rows x1, y1, x2, y2, score and class id between field rows and records.
void ReadBoxes(const float* rows, size_t rowLength, DetBox* boxes, uint32_t count, bool withClassId)
{
    for (uint32_t i = 0; i < count; ++i) {
        boxes[i].x1 = rows[i];  // NOLINT: the input has resolved
        boxes[i].y1 = rows[rowLength + i];
        boxes[i].x2 = rows[2 * rowLength + i];
        boxes[i].y2 = rows[3 * rowLength + i];
        boxes[i].score = rows[4 * rowLength + i];
    }
    for (uint32_t i = 0; withClassId && i < count; ++i) {
        boxes[i].classId = TruncateToI32(rows[5 * rowLength + i]);
    }
}

void WriteBoxes(const DetBox* boxes, uint32_t count, bool withClassId, float* rows, size_t rowLength)
{
    for (uint32_t i = 0; i < count; ++i) {
        rows[i] = boxes[i].x1;
        rows[rowLength + i] = boxes[i].y1;
        rows[2 * rowLength + i] = boxes[i].x2;
        rows[3 * rowLength + i] = boxes[i].y2;
        rows[4 * rowLength + i] = boxes[i].score;
    }
    for (uint32_t i = 0; withClassId && i < count; ++i) {
        rows[5 * rowLength + i] = static_cast<float>(boxes[i].classId);
    }
}

void RunStage(const DetectionOutputAttr& attr, DetBox* boxes)
{
    const uint32_t fields = FieldCount(attr.hasClassId);
    switch (attr.stage) {
        case OPKIT_STAGE_NMS:
            ProcessNMS(boxes, attr.classNum, fields, attr.classCapacity, attr.maxBoxNum);
            break;
        case OPKIT_STAGE_FILTER:
            ProcessFilterBox(boxes, attr.classNum, fields, attr.classCapacity, attr.maxBoxNum);
            break;
        case OPKIT_STAGE_SORT:
            ProcessSort(boxes, attr.classNum, fields, attr.classCapacity, attr.maxBoxNum);
            break;
        default:  // boxes pass through
            break;
    }
}

// From here on class 0 stands for all classes, if they were packed.
void UpdateCounts(const DetectionOutputAttr& attr)
{
    for (uint32_t c = 0; c < attr.classNum; ++c) {
        g_curBoxNum[c] = g_curBoxNum[c] < attr.maxBoxNum ? g_curBoxNum[c] : attr.maxBoxNum;
    }
    if (attr.packOutput != 0) {
        for (uint32_t c = 1; c < attr.classNum; ++c) {
            g_curBoxNum[0] += g_curBoxNum[c];
        }
    }
}

void WriteCounts(const DetectionOutputAttr& attr, float* counts)
{
    counts[0] = static_cast<float>(g_curBoxNum[0]);
    for (uint32_t c = 1; attr.packOutput == 0 && c < attr.classNum; ++c) {
        counts[c] = static_cast<float>(g_curBoxNum[c]);
    }
}

// The message is spelt so; whoever searches logs for it relies on that.
uint32_t RunOrReport(LayerParam* param, Caller caller = Here())
{
    if (DetectionOutputOpkitForward(param) != kSuccess) {
        Report(caller, "%s falied.\n\n", caller.function);
        return kFailure;
    }
    return kSuccess;
}

}  // namespace

void Input2Bbox(const float* data, DetBox* boxes, uint32_t classNum, uint32_t hasClassId, uint32_t classCapacity)
{
    const size_t block = size_t{FieldCount(hasClassId)} * classCapacity;
    for (uint32_t c = 0; c < classNum; ++c) {
        ReadBoxes(data + c * block, classCapacity, boxes + size_t{c} * classCapacity, g_curBoxNum[c], hasClassId != 0);
    }
}

void Bbox2Output(const DetBox* boxes, float* out, uint32_t classNum, uint32_t hasClassId, uint32_t classCapacity,
                 uint32_t outWidth, uint32_t packed)
{
    const size_t block = size_t{FieldCount(hasClassId)} * outWidth;
    for (uint32_t c = 0; c < classNum; ++c) {
        WriteBoxes(boxes + size_t{c} * classCapacity, g_curBoxNum[c], hasClassId != 0, out, outWidth);
        out += packed != 0 ? g_curBoxNum[c] : block;
    }
}

void InitArea(DetBox* boxes, uint32_t* count)
{
    for (uint32_t i = 0; i < *count; ++i) {
        boxes[i].area = (boxes[i].y2 - boxes[i].y1 + 1.0f) * (boxes[i].x2 - boxes[i].x1 + 1.0f);
    }
}

void NmsOperator(DetBox* a, DetBox* b, float* inter, float* uni)
{
    Intersect(*a, *b, inter, uni);
}

uint32_t DoNms(DetBox* boxes, uint32_t* count, uint32_t maxKeep, float thresh)
{
    InitArea(boxes, count);
    const uint32_t total = *count;
    const size_t bytes = size_t{total} * sizeof(uint32_t);
    uint32_t* const keep = static_cast<uint32_t*>(std::malloc(bytes));
    if (keep == nullptr) {
        Report(Here(), "Malloc %lu failed!\n\n", bytes);
        return kFailure;
    }
    for (uint32_t i = 0; i < total; ++i) {
        keep[i] = 0xFFFFFFFFu;
    }
    *count = KeepApart(boxes, total, maxKeep, thresh, keep);
    std::free(keep);
    return kSuccess;
}

void DoFilterBox(DetBox* boxes, uint32_t* count, uint32_t maxKeep, float score, float width, float height)
{
    uint32_t kept = 0;
    for (uint32_t i = 0; i < *count && kept < maxKeep; ++i) {
        const DetBox& box = boxes[i];
        if (box.score >= score && box.x2 - box.x1 > width && box.y2 - box.y1 > height) {
            boxes[kept++] = box;
        }
    }
    *count = kept;
}

void ProcessNMS(DetBox* boxes, uint32_t classNum, uint32_t /*fieldNum*/, uint32_t classCapacity, uint32_t maxKeep)
{
    for (uint32_t c = 0; c < classNum; ++c) {
        if (g_curBoxNum[c] > 1) {
            DoNms(boxes + size_t{c} * classCapacity, &g_curBoxNum[c], maxKeep, g_nmsThresh);
        }
    }
}

void ProcessFilterBox(DetBox* boxes, uint32_t classNum, uint32_t /*fieldNum*/, uint32_t classCapacity, uint32_t maxKeep)
{
    for (uint32_t c = 0; c < classNum; ++c) {
        DoFilterBox(boxes + size_t{c} * classCapacity, &g_curBoxNum[c], maxKeep, g_lowScoreThresh, g_maxWidth,
                    g_maxHeight);
    }
}

void ProcessSort(DetBox* boxes, uint32_t classNum, uint32_t /*fieldNum*/, uint32_t classCapacity, uint32_t /*maxKeep*/)
{
    for (uint32_t c = 0; c < classNum; ++c) {
        if (g_curBoxNum[c] > 1) {
            QuickSort(boxes + size_t{c} * classCapacity, 0, static_cast<int32_t>(g_curBoxNum[c] - 1));
        }
    }
}

// The two sides of a pivot share no box, so either may come first: the shorter one by recursion, which keeps that
// shallow, the longer one by going round.
void QuickSort(DetBox* boxes, int32_t low, int32_t high)
{
    while (!SortOrdered(boxes, low, high)) {
        const int32_t pivot = Partition(boxes, low, high);
        const bool leftIsShorter = pivot - low < high - pivot;
        const int32_t shortLow = leftIsShorter ? low : pivot + 1;
        const int32_t shortHigh = leftIsShorter ? pivot - 1 : high;
        if (shortHigh > shortLow) {
            QuickSort(boxes, shortLow, shortHigh);
        }
        low = leftIsShorter ? pivot + 1 : low;
        high = leftIsShorter ? high : pivot - 1;
        if (high <= low) {
            return;
        }
    }
}

void DoSort(DetBox* boxes, uint32_t* count, uint32_t limit)
{
    for (uint32_t i = 0; i < *count && i < limit; ++i) {
        uint32_t best = i;
        for (uint32_t j = i + 1; j < *count; ++j) {
            if (boxes[j].score > boxes[best].score) {
                best = j;
            }
        }
        Swap(&boxes[i], &boxes[best]);
    }
}

uint32_t DetectionOutputOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const DetectionOutputAttr& attr = AttrOf<DetectionOutputAttr>(param);
    const Output out = OutputOf(param, 0);
    const bool packed = attr.packOutput != 0 || attr.writeCount != 0;
    if (param->dumpHook.dumpAll != 0 && out.count != 0) {
        std::memset(out.data, 0, size_t{out.count} * sizeof(float));
    }
    const size_t slots = size_t{attr.classCapacity} * attr.classNum;
    DetBox* const boxes = static_cast<DetBox*>(std::malloc(slots * sizeof(DetBox)));
    if (boxes == nullptr) {
        Report(Here(), "Malloc failed!\n\n");
        return kFailure;
    }
    Input2Bbox(in.data, boxes, attr.classNum, attr.hasClassId, attr.classCapacity);
    RunStage(attr, boxes);
    Bbox2Output(boxes, out.data, attr.classNum, attr.hasClassId, attr.classCapacity, out.shape[3], packed ? 1 : 0);
    std::free(boxes);

    UpdateCounts(attr);
    if (attr.writeCount != 0) {
        const Output counts = OutputOf(param, 1);
        WriteCounts(attr, counts.data);
        if (ExpandOutputChecked(counts) != kSuccess) {
            return kFailure;
        }
    }
    return ExpandOutputChecked(out);
}

uint32_t FilterBoxOpkitForward(LayerParam* param)
{
    return RunOrReport(param);
}

uint32_t SortOpkitForward(LayerParam* param)
{
    return RunOrReport(param);
}

uint32_t NMSOpkitForward(LayerParam* param)
{
    return RunOrReport(param);
}
