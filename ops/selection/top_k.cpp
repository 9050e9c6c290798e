// TopK: sorts every line along one axis and writes its first k entries: values, their places along the axis as floats,
// or both.
// Rows: in place, both outputs' by the width of output 0.
//
// The order is that of a merge sort. Its merge compares a left entry with a right one of a later place. The exported
// comparators take values within 1e-6 for equal, but only when the left entry has the later place, so that in the merge
// this never counts: without NaN the order is the plain stable one, and its first entries may as well be selected. A
// NaN is neither above nor below anything, and what comes out depends on which pairs meet: such lines are merged, as
// far as the first k entries need it. A k beyond the line writes what the work space holds behind the sorted entries.

#include "common/convert.h"
#include "common/float_compare.h"
#include "kernels/selection.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lines.h"

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
    bool Select(const float* line, size_t step, uint32_t length, SortEntry* entries, uint32_t k) const
    {
        return Kernels<SelectionKernels>().largest(line, step, length, entries, k);
    }
};

struct MergesAscending {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const { return a.value > b.value ? 1 : -1; }
    bool Select(const float* line, size_t step, uint32_t length, SortEntry* entries, uint32_t k) const
    {
        return Kernels<SelectionKernels>().smallest(line, step, length, entries, k);
    }
};

constexpr uint32_t kMostSelected = 32;  // above, merging costs less than moving entries up one by one

// Sorts the first k entries of a line, or all when k is beyond it.
template <class Order>
void FirstEntries(const float* line, size_t step, uint32_t length, uint32_t k, SortEntry* entries, SortEntry* buffer,
                  Order order)
{
    const uint32_t keep = k < length ? k : length;
    if (keep > kMostSelected || !order.Select(line, step, length, entries, keep)) {
        SortLine(line, step, entries, length, keep, buffer, order);
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
    void WriteLine(uint32_t first, uint32_t inner, uint32_t k, Element element) const
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
void WriteTopK(const Input& in, int32_t axis, const Lines& lines, uint32_t k, const Sinks& sinks, SortEntry* entries,
               SortEntry* buffer, Order order)
{
    ForEachLine(in, axis, lines, [&](uint32_t g, size_t start, size_t step) {
        FirstEntries(in.data + start, step, lines.length, k, entries, buffer, order);
        const uint32_t first = g / lines.inner * (k * lines.inner) + g % lines.inner;
        if (sinks.values) {
            sinks.values.WriteLine(first, lines.inner, k, [entries](uint32_t j) { return entries[j].value; });
        }
        if (sinks.indices) {
            sinks.indices.WriteLine(first, lines.inner, k,
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
    const Lines lines = LinesAlong(in, attr.axis);
    if (lines.count == 0 || k == 0 || (attr.hasValues == 0 && attr.hasIndices == 0)) {
        return kSuccess;
    }
    SortBuffer<SortEntry> buffer;
    if (!buffer.Reserve(lines.length)) {
        Report(Here(), "Malloc %lu failed!\n\n", SortBuffer<SortEntry>::Bytes(lines.length));
        return kFailure;
    }
    SortEntry* const entries = static_cast<SortEntry*>(param->opkitBuf);
    const Sinks sinks = SinksOf(param, attr);
    if (attr.largest != 0) {
        WriteTopK(in, attr.axis, lines, k, sinks, entries, buffer.Data(), MergesDescending());
    } else {
        WriteTopK(in, attr.axis, lines, k, sinks, entries, buffer.Data(), MergesAscending());
    }
    return kSuccess;
}
