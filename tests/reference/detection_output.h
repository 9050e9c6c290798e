// Literal form of DetectionOutput and its stages.
#ifndef OPKIT_TESTS_REFERENCE_DETECTION_OUTPUT_H
#define OPKIT_TESTS_REFERENCE_DETECTION_OUTPUT_H

#include <algorithm>
#include <vector>

#include "opkit/attributes/detection.h"
#include "opkit/helpers/detection.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline void RefNms(DetBox* boxes, uint32_t& count, uint32_t maxKeep, float thresh)
{
    for (uint32_t i = 0; i < count; ++i) {
        DetBox& b = boxes[i];
        const float height = b.y2 - b.y1 + 1.0f;
        const float width = b.x2 - b.x1 + 1.0f;
        b.area = height * width;
    }
    std::vector<uint32_t> keep(count, 1);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count && kept < maxKeep; ++i) {
        if (keep[i] == 0) {
            continue;
        }
        for (uint32_t j = i + 1; j < count; ++j) {
            const DetBox& a = boxes[i];
            const DetBox& b = boxes[j];
            if (keep[j] == 0 || b.x1 > a.x2 || a.x1 > b.x2 || b.y1 > a.y2 || a.y1 > b.y2) {
                continue;
            }
            const float xx1 = a.x1 > b.x1 ? a.x1 : b.x1;
            const float yy1 = a.y1 > b.y1 ? a.y1 : b.y1;
            const float xx2 = a.x2 < b.x2 ? a.x2 : b.x2;
            const float yy2 = a.y2 < b.y2 ? a.y2 : b.y2;
            float w = xx2 - xx1 + 1.0f;
            float h = yy2 - yy1 + 1.0f;
            w = w >= 0.0f ? w : 0.0f;
            h = h >= 0.0f ? h : 0.0f;
            const float inter = w * h;
            const float uni = a.area + b.area - inter;
            if (inter > thresh * uni) {
                keep[j] = 0;
            }
        }
        boxes[kept] = boxes[i];
        ++kept;
    }
    count = kept;
}

inline void RefFilter(DetBox* boxes, uint32_t& count, uint32_t maxKeep, float score, float width, float height)
{
    if (count == 0 || maxKeep == 0) {
        count = 0;
        return;
    }
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count && kept < maxKeep; ++i) {
        const bool passes =
            boxes[i].score >= score && boxes[i].x2 - boxes[i].x1 > width && boxes[i].y2 - boxes[i].y1 > height;
        if (passes) {
            boxes[kept] = boxes[i];
            ++kept;
        }
    }
    count = kept;
}

inline void RefQuickSort(DetBox* boxes, int32_t low, int32_t high)
{
    const float pivot = boxes[low].score;
    int32_t i = low;
    int32_t j = high;
    bool leave = false;
    while (!leave && j > i) {
        while (pivot > boxes[j].score) {
            --j;
            if (j <= i) {
                leave = true;
                break;
            }
        }
        if (leave) {
            break;
        }
        std::swap(boxes[i], boxes[j]);
        ++i;
        if (i >= j) {
            break;
        }
        while (boxes[i].score > pivot) {
            ++i;
            if (i == j) {
                leave = true;
                break;
            }
        }
        if (leave) {
            break;
        }
        std::swap(boxes[i], boxes[j]);
        --j;
    }
    if (i - 1 > low) {
        RefQuickSort(boxes, low, i - 1);
    }
    if (i + 1 < high) {
        RefQuickSort(boxes, i + 1, high);
    }
}

inline uint32_t RefDetectionOutput(LayerParam* param)
{
    const char* const name = "DetectionOutputOpkitForward";
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    if (!RefCompact(name, in)) {
        return kAllOnes;
    }
    const auto& attr = *static_cast<DetectionOutputAttr*>(param->attr);
    const RefTensor out = RefOutput(param, 0);
    const bool packed = attr.packOutput != 0 || attr.writeCount != 0;
    if (param->dumpHook.dumpAll != 0) {
        for (uint32_t i = 0; i < out.count; ++i) {
            out.data[i] = 0.0f;
        }
    }
    const uint32_t capacity = attr.classCapacity;
    const uint32_t fields = attr.hasClassId != 0 ? 6 : 5;
    std::vector<DetBox> boxes(size_t{capacity} * attr.classNum + 1);
    const auto field = [](DetBox& box, uint32_t k) { return reinterpret_cast<float*>(&box) + k; };
    for (uint32_t c = 0; c < attr.classNum; ++c) {
        for (uint32_t i = 0; i < g_curBoxNum[c]; ++i) {
            DetBox& box = boxes[c * capacity + i];
            for (uint32_t k = 0; k < fields; ++k) {
                const float* const value = in.data + c * fields * capacity + k * capacity + i;
                if (k < 5) {
                    RefMove(field(box, k), value);
                } else {
                    box.classId = RefToI32(*value);
                }
            }
        }
    }
    for (uint32_t c = 0; c < attr.classNum; ++c) {
        uint32_t& count = g_curBoxNum[c];
        DetBox* const list = boxes.data() + size_t{c} * capacity;
        if (attr.stage == 0 && count > 1) {
            RefNms(list, count, attr.maxBoxNum, g_nmsThresh);
        } else if (attr.stage == 1) {
            RefFilter(list, count, attr.maxBoxNum, g_lowScoreThresh, g_maxWidth, g_maxHeight);
        } else if (attr.stage == 2 && count > 1) {
            RefQuickSort(list, 0, static_cast<int32_t>(count) - 1);
        }
    }
    const uint32_t outW = out.shape[3];
    uint32_t column = 0;
    for (uint32_t c = 0; c < attr.classNum; ++c) {
        for (uint32_t i = 0; i < g_curBoxNum[c]; ++i, ++column) {
            for (uint32_t k = 0; k < fields; ++k) {
                const uint32_t at = packed ? k * outW + column : c * fields * outW + k * outW + i;
                DetBox& box = boxes[c * capacity + i];
                if (k < 5) {
                    RefMove(out.data + at, field(box, k));
                } else {
                    out.data[at] = static_cast<float>(box.classId);
                }
            }
        }
    }
    for (uint32_t c = 0; c < attr.classNum; ++c) {
        g_curBoxNum[c] = std::min(g_curBoxNum[c], attr.maxBoxNum);
    }
    if (attr.packOutput != 0 && attr.classNum >= 2) {
        uint32_t sum = 0;
        for (uint32_t c = 0; c < attr.classNum; ++c) {
            sum += g_curBoxNum[c];
        }
        g_curBoxNum[0] = sum;
    }
    if (attr.writeCount != 0) {
        const RefTensor counts = RefOutput(param, 1);
        counts.data[0] = static_cast<float>(g_curBoxNum[0]);
        if (attr.packOutput == 0 && attr.classNum >= 2) {
            for (uint32_t c = 1; c < attr.classNum; ++c) {
                counts.data[c] = static_cast<float>(g_curBoxNum[c]);
            }
        }
        if (RefExpandChecked(name, counts) != 0) {
            return kAllOnes;
        }
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_DETECTION_OUTPUT_H
