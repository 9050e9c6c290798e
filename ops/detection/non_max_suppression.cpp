// NonMaxSuppression: per batch and class, boxes by descending score that overlap no better one too much, written as
// rows of batch, class and box index; what follows the last row has all bits set. It shares nothing with the stages of
// the detection chain.
// Rows: compacting.
//
// The heap in the work space pops in a nearly sorted order only: near the bottom it does not compare every child. Which
// boxes are selected follows from these exact steps.

#include <algorithm>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "kernels/boxes.h"
#include "opkit/attributes/detection.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Sides of a box in continuous coordinates.
struct Sides {
    float xmin;
    float xmax;
    float ymin;
    float ymax;

    float Area() const { return (xmax - xmin) * (ymax - ymin); }
};

Sides SidesOf(const float* box, bool center)
{
    Sides sides;
    if (center) {
        sides.xmin = box[0] - box[2] * 0.5f;
        sides.xmax = box[0] + box[2] * 0.5f;
        sides.ymin = box[1] - box[3] * 0.5f;
        sides.ymax = box[1] + box[3] * 0.5f;
    } else {
        MaxMin(&sides.xmin, &sides.xmax, box[1], box[3]);
        MaxMin(&sides.ymin, &sides.ymax, box[0], box[2]);
    }
    return sides;
}

bool OverlapAbove(const Sides& first, const Sides& second, float threshold)
{
    const float left = HelperMax(first.xmin, second.xmin);
    const float top = HelperMax(first.ymin, second.ymin);
    const float right = HelperMin(first.xmax, second.xmax);
    const float bottom = HelperMin(first.ymax, second.ymax);
    const float inter = HelperMax(bottom - top, 0.0f) * HelperMax(right - left, 0.0f);
    if (inter <= 0.0f) {
        return false;
    }
    const float firstArea = first.Area();
    const float secondArea = second.Area();
    if (firstArea <= 0.0f || secondArea <= 0.0f) {
        return false;
    }
    const float uni = firstArea + secondArea - inter;
    if (uni <= 0.0f) {
        return false;
    }
    return inter / uni > threshold;
}

BoxFields FieldsOf(const Sides& sides)
{
    return {sides.xmin, sides.ymin, sides.xmax, sides.ymax, sides.Area()};
}

void Store(const BoxFields& box, BoxBlock* block, size_t place)
{
    block->x1[place] = box.x1;
    block->y1[place] = box.y1;
    block->x2[place] = box.x2;
    block->y2[place] = box.y2;
    block->area[place] = box.area;
}

struct Settings {
    int32_t limit = 0;  // boxes per class; below 1 there is none
    float overlap = 0.0f;
    float score = 0.0f;
    bool center = false;
};

// One class of one batch item. Appends its rows at `rows` and returns the end.
float* SelectClass(BoxHeap* heap, const float* boxes, uint32_t batch, uint32_t classIndex, const Settings& settings,
                   float* rows)
{
    const float* const firstRow = rows;
    int32_t selected = 0;
    BoxBlock block;  // of the first boxes selected; the others are found by their rows
    size_t inBlock = 0;
    while (!IsEmpty(heap)) {
        float score = 0.0f;
        const uint32_t candidate = FindMax(heap, &score);
        Pop(heap, &score);
        const Sides sides = SidesOf(boxes + size_t{candidate} * 4, settings.center);
        bool suppressed = Kernels<BoxKernels>().overlapsAny(block, inBlock, FieldsOf(sides), settings.overlap);
        for (const float* row = firstRow + 3 * inBlock; row != rows && !suppressed; row += 3) {
            const int32_t better = TruncateToI32(row[2]);
            suppressed = OverlapAbove(SidesOf(boxes + ptrdiff_t{better} * 4, settings.center), sides, settings.overlap);
        }
        if (suppressed) {
            continue;
        }
        if (settings.limit >= 1 && selected >= settings.limit) {
            break;
        }
        rows[0] = static_cast<float>(batch);
        rows[1] = static_cast<float>(classIndex);
        rows[2] = static_cast<float>(candidate);
        if (inBlock < kBoxBlock) {
            const int32_t better = TruncateToI32(rows[2]);
            Store(FieldsOf(SidesOf(boxes + ptrdiff_t{better} * 4, settings.center)), &block, inBlock++);
        }
        rows += 3;
        ++selected;
    }
    return rows;
}

}  // namespace

void Init(BoxHeap* heap, LayerParam* param, int32_t capacity)
{
    if (capacity < 1) {
        return;
    }
    heap->slots = static_cast<HeapSlot*>(param->opkitBuf);
    for (uint32_t k = 0; k <= static_cast<uint32_t>(capacity); ++k) {
        heap->slots[k] = {0.0f, k};
    }
    heap->capacity = capacity;
    heap->size = 0;
}

bool IsEmpty(BoxHeap* heap)
{
    return heap != nullptr && heap->size == 0;
}

bool IsFull(BoxHeap* heap)
{
    return heap != nullptr && heap->size == heap->capacity;
}

uint32_t Push(uint32_t index, BoxHeap* heap, float score)
{
    if (IsFull(heap)) {
        return 0;
    }
    int32_t pos = heap->size + 1;
    while (pos >= 2 && score > heap->slots[pos / 2].score) {
        heap->slots[pos] = heap->slots[pos / 2];
        pos /= 2;
    }
    heap->slots[pos] = {score, index};
    ++heap->size;
    return 1;
}

uint32_t FindMax(BoxHeap* heap, float* score)
{
    if (IsEmpty(heap)) {
        return 0;
    }
    *score = heap->slots[1].score;
    return heap->slots[1].index;
}

uint32_t Pop(BoxHeap* heap, float* score)
{
    if (IsEmpty(heap)) {
        return 0;
    }
    HeapSlot* const slots = heap->slots;
    const HeapSlot last = slots[heap->size];
    *score = slots[1].score;
    const int32_t size = --heap->size;
    if (size == 0) {
        slots[1].score = 0.0f;
        return 1;
    }
    int32_t target = 1;
    // With two entries left they are not compared; further down, a child that is the very last entry is not either.
    for (int32_t child = 2; size > 2;) {
        if (slots[child + 1].score > slots[child].score) {
            ++child;
        }
        if (!(slots[child].score > last.score)) {
            break;
        }
        slots[target] = slots[child];
        target = child;
        if (2 * child >= size) {
            break;
        }
        child = 2 * child;
    }
    slots[target] = last;
    return last.index;
}

bool SuppressByIOU(float* boxes, int32_t first, int32_t second, uint32_t center, float threshold)
{
    return OverlapAbove(SidesOf(boxes + ptrdiff_t{first} * 4, center != 0),
                        SidesOf(boxes + ptrdiff_t{second} * 4, center != 0), threshold);
}

void MaxMin(float* min, float* max, float a, float b)
{
    const bool descending = a >= b;
    *min = descending ? b : a;
    *max = descending ? a : b;
}

float HelperMin(float a, float b)
{
    return a < b ? a : b;
}

float HelperMax(float a, float b)
{
    return b > a ? b : a;
}

uint32_t NonMaxSuppressionOpkitForward(LayerParam* param)
{
    const NonMaxSuppressionAttr& attr = AttrOf<NonMaxSuppressionAttr>(param);
    const uint32_t inputCount = static_cast<uint32_t>(std::clamp(attr.inputCount, 2, 5));
    Input inputs[5];
    Settings settings;
    settings.center = attr.centerPointBox != 0;
    if (!Resolve(param, inputs, inputCount, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    if (inputCount > 2) {
        settings.limit = TruncateToI32(inputs[2].data[0]);
    }
    if (inputCount > 3) {
        settings.overlap = inputs[3].data[0];
    }
    if (inputCount > 4) {
        settings.score = inputs[4].data[0];
    }
    const Output out = OutputOf(param, 0);
    if (memset_s(out.data, out.size, 0xFF, out.size) != 0) {
        Report(Here(), "init outputdata failed!\n");
        return kFailure;
    }

    const uint32_t batches = inputs[0].shape[0];
    const uint32_t boxNum = inputs[0].shape[1];
    const uint32_t classes = inputs[1].shape[1];
    const float* scores = inputs[1].data;
    float* rows = out.data;
    for (uint32_t b = 0; b < batches; ++b) {
        const float* const boxes = inputs[0].data + size_t{b} * boxNum * 4;
        for (uint32_t c = 0; c < classes; ++c, scores += boxNum) {
            BoxHeap heap = {};
            Init(&heap, param, static_cast<int32_t>(boxNum));
            for (uint32_t i = 0; i < boxNum; ++i) {
                if (scores[i] > settings.score) {
                    Push(i, &heap, scores[i]);
                }
            }
            rows = SelectClass(&heap, boxes, b, c, settings, rows);
        }
    }
    return ExpandOutputChecked(out);
}
