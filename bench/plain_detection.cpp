#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "bench/plain_loops.h"

namespace opkit::bench::plain {
namespace {

struct Slot {
    float score;
    uint32_t index;
};

// slots[1] is the root. Pop near the bottom does not compare every child.
struct Heap {
    std::vector<Slot> slots;
    uint32_t size = 0;

    void Push(uint32_t index, float score)
    {
        uint32_t place = ++size;
        for (; place >= 2 && score > slots[place / 2].score; place /= 2) {
            slots[place] = slots[place / 2];
        }
        slots[place] = {score, index};
    }

    void Pop()
    {
        const Slot last = slots[size--];
        uint32_t target = 1;
        for (uint32_t child = 2; size > 2;) {
            child += slots[child + 1].score > slots[child].score ? 1 : 0;
            if (!(slots[child].score > last.score)) {
                break;
            }
            slots[target] = slots[child];
            target = child;
            if (2 * child >= size) {
                break;
            }
            child *= 2;
        }
        slots[target] = last;
    }
};

bool Overlap(const float* a, const float* b, float threshold)
{
    const float left = std::max(std::min(a[1], a[3]), std::min(b[1], b[3]));
    const float right = std::min(std::max(a[1], a[3]), std::max(b[1], b[3]));
    const float top = std::max(std::min(a[0], a[2]), std::min(b[0], b[2]));
    const float bottom = std::min(std::max(a[0], a[2]), std::max(b[0], b[2]));
    const float inter = std::max(bottom - top, 0.0f) * std::max(right - left, 0.0f);
    if (inter <= 0.0f) {
        return false;
    }
    const float areaA = std::fabs(a[3] - a[1]) * std::fabs(a[2] - a[0]);
    const float areaB = std::fabs(b[3] - b[1]) * std::fabs(b[2] - b[0]);
    const float uni = areaA + areaB - inter;
    return areaA > 0.0f && areaB > 0.0f && uni > 0.0f && inter / uni > threshold;
}

struct Box {
    float x1, y1, x2, y2, score, area;
};

void Decode(float low, float high, float shift, float logSize, float limit, float* newLow, float* newHigh)
{
    const float size = (high - low) + 1.0f;
    const float centre = static_cast<float>(static_cast<double>(low) + 0.5 * static_cast<double>(size));
    const float newCentre = size * shift + centre;
    const float newSize = static_cast<float>(static_cast<double>(size) * std::exp(static_cast<double>(logSize)));
    const double half = 0.5 * static_cast<double>(newSize);
    *newLow = std::clamp(static_cast<float>(static_cast<double>(newCentre) - half), 0.0f, limit);
    *newHigh = std::clamp(static_cast<float>(half + static_cast<double>(newCentre)), 0.0f, limit);
}

// Hoare's partition around the first score.
void Sort(Box* boxes, int low, int high)
{
    const float pivot = boxes[low].score;
    int i = low;
    int j = high;
    while (j > i) {
        while (pivot > boxes[j].score && --j > i) {
        }
        if (j <= i) {
            break;
        }
        std::swap(boxes[i], boxes[j]);
        if (++i >= j) {
            break;
        }
        while (boxes[i].score > pivot && ++i != j) {
        }
        if (i == j) {
            break;
        }
        std::swap(boxes[i], boxes[j]);
        --j;
    }
    if (i - 1 > low) {
        Sort(boxes, low, i - 1);
    }
    if (i + 1 < high) {
        Sort(boxes, i + 1, high);
    }
}

uint32_t Suppress(Box* boxes, uint32_t count, float threshold)
{
    for (uint32_t i = 0; i < count; ++i) {
        boxes[i].area = (boxes[i].y2 - boxes[i].y1 + 1.0f) * (boxes[i].x2 - boxes[i].x1 + 1.0f);
    }
    std::vector<char> keep(count, 1);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (!keep[i]) {
            continue;
        }
        const Box a = boxes[i];
        for (uint32_t j = i + 1; j < count; ++j) {
            const Box& b = boxes[j];
            if (!keep[j] || b.x1 > a.x2 || a.x1 > b.x2 || b.y1 > a.y2 || a.y1 > b.y2) {
                continue;
            }
            const float w = std::max(std::min(a.x2, b.x2) - std::max(a.x1, b.x1) + 1.0f, 0.0f);
            const float h = std::max(std::min(a.y2, b.y2) - std::max(a.y1, b.y1) + 1.0f, 0.0f);
            const float inter = w * h;
            keep[j] = !(inter > threshold * (a.area + b.area - inter));
        }
        boxes[kept++] = a;
    }
    return kept;
}

}  // namespace

size_t NonMaxSuppression(const float* boxes, const float* scores, size_t count, size_t classes, int limit,
                         float overlap, float lowest, float* rows)
{
    size_t written = 0;
    Heap heap;
    heap.slots.resize(count + 2);
    for (size_t c = 0; c < classes; ++c, scores += count) {
        for (uint32_t i = 0; i < count; ++i) {
            if (scores[i] > lowest) {
                heap.Push(i, scores[i]);
            }
        }
        std::vector<uint32_t> selected;
        while (heap.size != 0) {
            const uint32_t candidate = heap.slots[1].index;
            heap.Pop();
            bool dropped = false;
            for (size_t s = 0; s < selected.size() && !dropped; ++s) {
                dropped = Overlap(boxes + size_t{selected[s]} * 4, boxes + size_t{candidate} * 4, overlap);
            }
            if (dropped) {
                continue;
            }
            if (static_cast<int>(selected.size()) >= limit) {
                heap.size = 0;
                break;
            }
            rows[written * 3] = 0.0f;
            rows[written * 3 + 1] = static_cast<float>(c);
            rows[written * 3 + 2] = static_cast<float>(candidate);
            ++written;
            selected.push_back(candidate);
        }
    }
    return written;
}

void DetectionChain(const Chain& chain, float* out, uint32_t* counts)
{
    const uint32_t n = chain.n;
    const float limit = static_cast<float>(chain.imageSize - 1);
    std::vector<Box> boxes(n);
    std::vector<Box> decoded(n);  // of the latest class that has deltas
    std::memset(out, 0, size_t{5} * n * chain.classes * sizeof(float));
    for (uint32_t c = 0; c < chain.classes; ++c) {
        for (uint32_t i = 0; i < n && c < 2; ++i) {
            const float* const delta = chain.deltas + size_t{8} * i + size_t{4} * c;
            Box& box = decoded[i];
            Decode(chain.proposals[i], chain.proposals[2 * n + i], delta[0], delta[2], limit, &box.x1, &box.x2);
            Decode(chain.proposals[n + i], chain.proposals[3 * n + i], delta[1], delta[3], limit, &box.y1, &box.y2);
        }
        for (uint32_t i = 0; i < n; ++i) {
            boxes[i] = decoded[i];
            boxes[i].score = chain.scores[size_t{i} * chain.classes + c];
        }
        uint32_t count = 0;
        for (uint32_t i = 0; i < n; ++i) {
            const Box& box = boxes[i];
            if (box.score >= chain.thresholds[1] && box.x2 - box.x1 > chain.thresholds[3] &&
                box.y2 - box.y1 > chain.thresholds[2]) {
                boxes[count++] = box;
            }
        }
        if (count > 1) {
            Sort(boxes.data(), 0, static_cast<int>(count) - 1);
            count = Suppress(boxes.data(), count, chain.thresholds[0]);
        }
        counts[c] = count;
        for (uint32_t i = 0; i < count; ++i) {
            float* const fields = out + size_t{5} * n * c + i;
            fields[0] = boxes[i].x1;
            fields[n] = boxes[i].y1;
            fields[2 * n] = boxes[i].x2;
            fields[3 * n] = boxes[i].y2;
            fields[4 * n] = boxes[i].score;
        }
    }
}

}  // namespace opkit::bench::plain
