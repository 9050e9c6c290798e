// Literal form of NonMaxSuppression, with the heap's exact steps.
#ifndef OPKIT_TESTS_REFERENCE_NON_MAX_SUPPRESSION_H
#define OPKIT_TESTS_REFERENCE_NON_MAX_SUPPRESSION_H

#include <vector>

#include "opkit/attributes/detection.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

struct RefHeap {
    struct Slot {
        float score = 0.0f;
        uint32_t index = 0;
    };
    std::vector<Slot> slots;
    uint32_t size = 0;

    void Push(uint32_t index, float score)
    {
        uint32_t pos = size + 1;
        while (pos >= 2 && score > slots[pos / 2].score) {
            slots[pos] = slots[pos / 2];
            pos = pos / 2;
        }
        slots[pos] = {score, index};
        size += 1;
    }

    void Pop()
    {
        const Slot last = slots[size];
        size -= 1;
        if (size == 0) {
            slots[1].score = 0.0f;
            return;
        }
        if (size == 1 || size == 2) {
            slots[1] = last;
            return;
        }
        uint32_t parent = 1, child = 2, target = 0;
        while (true) {
            if (slots[child + 1].score > slots[child].score) {
                child = child + 1;
            }
            if (!(slots[child].score > last.score)) {
                target = parent;
                break;
            }
            slots[parent] = slots[child];
            if (2 * child >= size) {
                target = child;
                break;
            }
            parent = child;
            child = 2 * child;
        }
        slots[target] = last;
    }
};

inline bool RefSuppressByIou(const float* boxes, uint32_t first, uint32_t second, uint32_t center, float threshold)
{
    float xmin[2], xmax[2], ymin[2], ymax[2];
    for (int k = 0; k < 2; ++k) {
        const float* const b = boxes + 4 * (k == 0 ? first : second);
        if (center != 0) {
            const float halfW = b[2] * 0.5f, halfH = b[3] * 0.5f;
            xmin[k] = b[0] - halfW;
            xmax[k] = b[0] + halfW;
            ymin[k] = b[1] - halfH;
            ymax[k] = b[1] + halfH;
        } else {
            xmin[k] = b[1] >= b[3] ? b[3] : b[1];
            xmax[k] = b[1] >= b[3] ? b[1] : b[3];
            ymin[k] = b[0] >= b[2] ? b[2] : b[0];
            ymax[k] = b[0] >= b[2] ? b[0] : b[2];
        }
    }
    const float left = xmin[1] > xmin[0] ? xmin[1] : xmin[0];
    const float top = ymin[1] > ymin[0] ? ymin[1] : ymin[0];
    const float right = xmax[0] < xmax[1] ? xmax[0] : xmax[1];
    const float bottom = ymax[0] < ymax[1] ? ymax[0] : ymax[1];
    float high = bottom - top, wide = right - left;
    if (0.0f > high) {
        high = 0.0f;
    }
    if (0.0f > wide) {
        wide = 0.0f;
    }
    const float inter = high * wide;
    if (inter <= 0.0f) {
        return false;
    }
    float area[2];
    for (int k = 0; k < 2; ++k) {
        area[k] = (xmax[k] - xmin[k]) * (ymax[k] - ymin[k]);
        if (area[k] <= 0.0f) {
            return false;
        }
    }
    const float uni = area[0] + area[1] - inter;
    if (uni <= 0.0f) {
        return false;
    }
    return inter / uni > threshold;
}

inline uint32_t RefNonMaxSuppression(LayerParam* param)
{
    const char* const name = "NonMaxSuppressionOpkitForward";
    const auto& attr = *static_cast<NonMaxSuppressionAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in[5];
    int32_t limit = 0;
    float overlap = 0.0f;
    float lowest = 0.0f;
    for (int32_t k = 0; k < 5; ++k) {
        if (k >= 2 && attr.inputCount <= k) {
            break;
        }
        if (!RefResolve(param, cursor, in[k])) {
            RefReport(name, "ParseInputInfo failed.\n\n");
            return kAllOnes;
        }
        if (!RefCompact(name, in[k])) {
            return kAllOnes;
        }
        if (k == 2) {
            limit = RefToI32(in[k].data[0]);
        } else if (k == 3) {
            overlap = in[k].data[0];
        } else if (k == 4) {
            lowest = in[k].data[0];
        }
    }
    const RefTensor out = RefOutput(param, 0);
    if (out.data == nullptr) {
        RefReport(name, "init outputdata failed!\n");
        return kAllOnes;
    }
    std::memset(out.data, 255, out.size);
    const uint32_t batches = in[0].shape[0], boxNum = in[0].shape[1], classes = in[1].shape[1];
    float* row = out.data;
    for (uint32_t b = 0; b < batches; ++b) {
        for (uint32_t c = 0; c < classes; ++c) {
            RefHeap heap;
            heap.slots.resize(boxNum + 1);
            for (uint32_t i = 0; i < boxNum; ++i) {
                const float score = in[1].data[(b * classes + c) * boxNum + i];
                if (score > lowest) {
                    heap.Push(i, score);
                }
            }
            std::vector<uint32_t> selected;
            while (heap.size != 0) {
                const uint32_t candidate = heap.slots[1].index;
                heap.Pop();
                bool dropped = false;
                for (const uint32_t better : selected) {
                    dropped = dropped || RefSuppressByIou(in[0].data + b * boxNum * 4, better, candidate,
                                                          attr.centerPointBox, overlap);
                }
                if (dropped) {
                    continue;
                }
                if (limit >= 1 && static_cast<int32_t>(selected.size()) >= limit) {
                    break;
                }
                *row++ = static_cast<float>(b);
                *row++ = static_cast<float>(c);
                *row++ = static_cast<float>(candidate);
                selected.push_back(candidate);
            }
        }
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_NON_MAX_SUPPRESSION_H
