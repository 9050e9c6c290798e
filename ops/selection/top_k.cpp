// TopK: sorts every lane along one axis and writes its first k entries: values, their places along the axis as floats,
// or both. Rows are read and written where they lie.
//
// Equal values keep the order of their places. Values within 1e-6 of each other count as equal only where the strict
// test failed, so that for two such values both orders may answer 1: which pairs the merge compares decides. It always
// compares an entry on the left with one of a later place on the right, so the tolerance, which asks for a later place
// on the left, never decides there: without NaN the order is the plain stable one, whose first entries can be selected.
// With NaN the merge runs, as far as the first k entries need it. A k beyond the lane writes what the work space holds
// behind the sorted entries.

#include "common/convert.h"
#include "common/float_compare.h"
#include "kernels/selection.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lanes.h"

using namespace opkit;

namespace {

struct Descending {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const
    {
        return b.value > a.value || (NearlyEqual(a.value, b.value) && a.index > b.index) ? 1 : -1;
    }
};

struct Ascending {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const
    {
        return a.value > b.value || (NearlyEqual(a.value, b.value) && a.index > b.index) ? 1 : -1;
    }
};

// The same for the merge, where a is the one with the earlier place.
struct MergesDescending {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const { return b.value > a.value ? 1 : -1; }
    bool Select(const float* lane, size_t step, uint32_t length, SortEntry* entries, uint32_t k) const
    {
        return Kernels<SelectionKernels>().largest(lane, step, length, entries, k);
    }
};

struct MergesAscending {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const { return a.value > b.value ? 1 : -1; }
    bool Select(const float* lane, size_t step, uint32_t length, SortEntry* entries, uint32_t k) const
    {
        return Kernels<SelectionKernels>().smallest(lane, step, length, entries, k);
    }
};

constexpr uint32_t kMostSelected = 32;  // above, merging costs less than moving entries up one by one

// Sorts the first k entries of a lane, or all when k is beyond it.
template <class Order>
void FirstEntries(const float* lane, size_t step, uint32_t length, uint32_t k, SortEntry* entries, SortEntry* buffer,
                  Order order)
{
    const uint32_t keep = k < length ? k : length;
    if (keep > kMostSelected || !order.Select(lane, step, length, entries, keep)) {
        SortLane(lane, step, entries, length, keep, buffer, order);
    }
}

// One of the two outputs. Its row width is that of outputs[0], its alignment its own.
struct Sink {
    float* data = nullptr;
    uint32_t width = 0;
    uint32_t pitch = 0;

    explicit operator bool() const { return data != nullptr; }

    // Writes element(j) at compact index first + j * inner, for j below k.
    template <class Element>
    void WriteLane(uint32_t first, uint32_t inner, uint32_t k, Element element) const
    {
        const uint32_t column = first % width;
        float* const to = data + size_t{first / width} * pitch + column;
        if (inner % width == 0) {
            const size_t step = size_t{inner / width} * pitch;
            for (uint32_t j = 0; j < k; ++j) {
                to[j * step] = element(j);
            }
        } else if (inner == 1 && k <= width - column) {
            for (uint32_t j = 0; j < k; ++j) {
                to[j] = element(j);
            }
        } else {
            for (uint32_t j = 0, n = first; j < k; ++j, n += inner) {
                data[size_t{n / width} * pitch + n % width] = element(j);
            }
        }
    }
};

Sink SinkOf(const Output& out, uint32_t width)
{
    return {out.data, width, RowPitch(width, out.alignNum)};
}

struct Sinks {
    Sink values;
    Sink indices;
};

Sinks SinksOf(const LayerParam* param, const TopKAttr& attr)
{
    const Output first = OutputOf(param, 0);
    Sinks sinks;
    if (attr.hasValues != 0) {
        sinks.values = SinkOf(first, first.width);
    }
    if (attr.hasIndices != 0) {
        sinks.indices = SinkOf(attr.hasValues != 0 ? OutputOf(param, 1) : first, first.width);
    }
    return sinks;
}

template <class Order>
void WriteTopK(const Input& in, int32_t axis, const Lanes& lanes, uint32_t k, const Sinks& sinks, SortEntry* entries,
               SortEntry* buffer, Order order)
{
    ForEachPaddedLane(in, axis, lanes, [&](uint32_t g, size_t start, size_t step) {
        FirstEntries(in.data + start, step, lanes.length, k, entries, buffer, order);
        const uint32_t first = g / lanes.inner * (k * lanes.inner) + g % lanes.inner;
        if (sinks.values) {
            sinks.values.WriteLane(first, lanes.inner, k, [entries](uint32_t j) { return entries[j].value; });
        }
        if (sinks.indices) {
            sinks.indices.WriteLane(first, lanes.inner, k,
                                    [entries](uint32_t j) { return static_cast<float>(entries[j].index); });
        }
    });
}

}  // namespace

int32_t TopkDecSort(const SortEntry* a, const SortEntry* b)
{
    return Descending()(*a, *b);
}

int32_t TopkAscSort(const SortEntry* a, const SortEntry* b)
{
    return Ascending()(*a, *b);
}

uint32_t TopKOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kAll)) {
        return kFailure;
    }
    const TopKAttr& attr = AttrOf<TopKAttr>(param);
    // The count's input is the second online tensor, whatever the flags of the logical inputs say.
    const uint32_t k =
        attr.k == OPKIT_TOPK_K_FROM_INPUT ? TruncateToU32(*static_cast<const float*>(param->inputs[1].data)) : attr.k;
    const Lanes lanes = LanesAlong(in, attr.axis);
    if (lanes.count == 0 || k == 0 || (attr.hasValues == 0 && attr.hasIndices == 0)) {
        return kSuccess;
    }
    SortBuffer<SortEntry> buffer;
    if (!buffer.Reserve(lanes.length)) {
        Report(Here(), "Malloc %lu failed!\n\n", SortBuffer<SortEntry>::Bytes(lanes.length));
        return kFailure;
    }
    SortEntry* const entries = static_cast<SortEntry*>(param->opkitBuf);
    const Sinks sinks = SinksOf(param, attr);
    if (attr.largest != 0) {
        WriteTopK(in, attr.axis, lanes, k, sinks, entries, buffer.Data(), MergesDescending());
    } else {
        WriteTopK(in, attr.axis, lanes, k, sinks, entries, buffer.Data(), MergesAscending());
    }
    return kSuccess;
}
