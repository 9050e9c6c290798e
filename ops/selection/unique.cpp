// Unique: the distinct slices of a tensor along one axis, or its distinct elements, with the place where each was first
// seen, the entry that every position maps to, and how often each occurs.
// Rows: compacting; all four outputs are expanded by their own shapes, however many entries there are.
//
// Slices are equal when all floats are: +0.0 and -0.0 are one, a NaN makes a slice of its own. A NaN orders like an
// equal element, so it leaves what the merge compares to decide. Only `sorted` 1 renumbers the mapping; any other
// non-zero value sorts the entries and leaves the mapping in first-seen numbers.
//
// Equal slices are found by a hash table. Slices with a NaN never enter it. Data that crowds the table, as can be made
// for any fixed hash, is sorted instead: the time is bounded whatever the data.

#include <cstdlib>
#include <cstring>

#include "common/bounded_memory.h"
#include "common/merge_sort.h"
#include "common/move_floats.h"
#include "opkit/attributes/selection.h"
#include "opkit/opkit.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

struct Slices {
    uint32_t count;  // along the axis
    uint32_t outer;
    uint32_t inner;
    uint32_t size;  // floats of one slice
    bool flat;
};

Slices SlicesOf(const Input& in, int32_t axis)
{
    if (axis == OPKIT_UNIQUE_FLAT) {
        return {in.count, 1, 1, 1, true};
    }
    const uint32_t outer = ShapeCount(in.shape, in.dimNum, 0, axis);
    const uint32_t inner = ShapeCount(in.shape, in.dimNum, axis + 1, in.dimNum);
    return {in.shape[axis], outer, inner, outer * inner, false};
}

// A distinct slice. Entries are numbered as they are first seen.
struct Entry {
    int32_t firstIdx;
    int32_t count;
};

struct Slot {
    uint32_t hash;
    uint32_t entry;  // number + 1; 0: free
};

// A number of the sort, with the value beside it where slices are single floats.
struct SortItem {
    float value;
    uint32_t entry;
};

// The working tables, one block from the heap.
struct Tables {
    Slot* slots;
    Entry* entries;
    SortItem* items;
    SortItem* buffer;
    uint32_t* inverse;
    uint32_t* renumbered;
    float* slices;
    uint32_t slotMask;

    static uint64_t SlotCount(uint32_t count)
    {
        uint64_t slots = 4;
        while (slots < uint64_t{count} * 2) {
            slots *= 2;
        }
        return slots;
    }

    static size_t Bytes(const Slices& slices)
    {
        constexpr size_t kPerSlice = sizeof(Entry) + 2 * sizeof(SortItem) + 2 * sizeof(uint32_t);
        return SlotCount(slices.count) * sizeof(Slot) +
               slices.count * (kPerSlice + size_t{slices.size} * sizeof(float));
    }

    Tables(void* block, const Slices& layout)
        : slots(static_cast<Slot*>(block)), slotMask(static_cast<uint32_t>(SlotCount(layout.count) - 1))
    {
        entries = reinterpret_cast<Entry*>(slots + slotMask + 1);
        items = reinterpret_cast<SortItem*>(entries + layout.count);
        buffer = items + layout.count;
        inverse = reinterpret_cast<uint32_t*>(buffer + layout.count);
        renumbered = inverse + layout.count;
        slices = reinterpret_cast<float*>(renumbered + layout.count);
        std::memset(slots, 0, (size_t{slotMask} + 1) * sizeof(Slot));
    }
};

void CopySlice(float* src, float* dst, uint32_t index, const Slices& layout)
{
    if (layout.inner == 0) {
        GetSubTensor(src, dst, index, layout.inner, static_cast<int32_t>(layout.outer),
                     static_cast<int32_t>(layout.count));  // there is nothing to copy, but something to report
        return;
    }
    const float* from = src + size_t{index} * layout.inner;
    MoveRows(dst, layout.inner, from, size_t{layout.inner} * layout.count, layout.outer, layout.inner);
}

// Hashes a slice with both zeros alike. False for a slice with a NaN, which equals nothing.
bool HashSlice(const float* slice, uint32_t size, uint32_t* hash)
{
    uint64_t state = 0x9e3779b97f4a7c15u;
    for (uint32_t i = 0; i < size; ++i) {
        if (slice[i] != slice[i]) {
            return false;
        }
        state = (state ^ __builtin_bit_cast(uint32_t, slice[i] + 0.0f)) * 0xff51afd7ed558ccdu;
        state ^= state >> 32;
    }
    state *= 0xc4ceb9fe1a85ec53u;
    *hash = static_cast<uint32_t>(state >> 32);
    return true;
}

bool SameSlice(const float* a, const float* b, uint32_t size)
{
    for (uint32_t i = 0; i < size; ++i) {
        if (a[i] != b[i]) {
            return false;
        }
    }
    return true;
}

bool HasNan(const float* slice, uint32_t size)
{
    return !SameSlice(slice, slice, size);
}

const float* SliceOf(const Tables& tables, uint32_t entry, uint32_t size)
{
    return tables.slices + static_cast<size_t>(tables.entries[entry].firstIdx) * size;
}

int32_t CompareSlices(const float* a, const float* b, int32_t size)
{
    for (int32_t k = 0; k < size; ++k) {
        if (a[k] > b[k]) {
            return 1;
        }
        if (b[k] > a[k]) {
            return 0;
        }
    }
    return 1;
}

// Fills entries and inverse from the slices by sorting these; returns how many entries there are.
uint32_t CollectBySorting(const Slices& layout, Tables& tables)
{
    const auto sliceAt = [&](uint32_t i) { return tables.slices + size_t{i} * layout.size; };
    uint32_t* const first = tables.renumbered;  // where the slice of each position was first seen; lent for that
    uint32_t comparable = 0;
    for (uint32_t i = 0; i < layout.count; ++i) {
        first[i] = i;
        if (!HasNan(sliceAt(i), layout.size)) {
            tables.items[comparable++] = {0.0f, i};
        }
    }
    // Of equal slices the merge takes the left one, so each run of them begins with the one first seen.
    MergeSort(tables.items, comparable, tables.buffer, [&](const SortItem& a, const SortItem& b) {
        return 1 - CompareSlices(sliceAt(b.entry), sliceAt(a.entry), static_cast<int32_t>(layout.size));
    });
    for (uint32_t j = 1; j < comparable; ++j) {
        const uint32_t before = tables.items[j - 1].entry;
        const uint32_t here = tables.items[j].entry;
        first[here] = SameSlice(sliceAt(before), sliceAt(here), layout.size) ? first[before] : here;
    }
    uint32_t uniqueCount = 0;
    for (uint32_t i = 0; i < layout.count; ++i) {
        if (first[i] == i) {
            tables.entries[uniqueCount] = {static_cast<int32_t>(i), 1};
            tables.inverse[i] = uniqueCount++;
        } else {
            tables.inverse[i] = tables.inverse[first[i]];
            ++tables.entries[tables.inverse[i]].count;
        }
    }
    return uniqueCount;
}

// Slots that may be passed over for each slice. At most half of the table is in use, and evenly spread slices pass over
// less than one.
constexpr uint64_t kPassedPerSlice = 4;

// Fills slices, entries and inverse; returns how many entries there are.
uint32_t CollectEntries(float* src, const Slices& layout, Tables& tables)
{
    uint32_t uniqueCount = 0;
    uint64_t mayPass = kPassedPerSlice * layout.count;
    for (uint32_t i = 0; i < layout.count; ++i) {
        float* const slice = tables.slices + size_t{i} * layout.size;
        CopySlice(src, slice, i, layout);
        Slot* slot = nullptr;
        uint32_t hash = 0;
        if (HashSlice(slice, layout.size, &hash)) {
            slot = tables.slots + (hash & tables.slotMask);
            const auto holdsSlice = [&] {
                const float* const other =
                    tables.slices + static_cast<size_t>(tables.entries[slot->entry - 1].firstIdx) * layout.size;
                return slot->hash == hash && SameSlice(other, slice, layout.size);
            };
            for (; slot->entry != 0 && !holdsSlice(); --mayPass) {
                if (mayPass == 0) {
                    while (++i < layout.count) {
                        CopySlice(src, tables.slices + size_t{i} * layout.size, i, layout);
                    }
                    return CollectBySorting(layout, tables);
                }
                slot = slot == tables.slots + tables.slotMask ? tables.slots : slot + 1;
            }
        }
        if (slot != nullptr && slot->entry != 0) {
            ++tables.entries[slot->entry - 1].count;
            tables.inverse[i] = slot->entry - 1;
            continue;
        }
        tables.entries[uniqueCount] = {static_cast<int32_t>(i), 1};
        tables.inverse[i] = uniqueCount++;
        if (slot != nullptr) {
            *slot = {hash, uniqueCount};
        }
    }
    return uniqueCount;
}

// Fills items with the entries in the order of the output.
void OrderEntries(const Tables& tables, uint32_t uniqueCount, uint32_t size, bool sorted)
{
    for (uint32_t j = 0; j < uniqueCount; ++j) {
        tables.items[j] = {size == 1 ? *SliceOf(tables, j, 1) : 0.0f, j};
    }
    if (!sorted) {
        return;
    }
    if (size == 1) {
        MergeSort(tables.items, uniqueCount, tables.buffer,
                  [](const SortItem& a, const SortItem& b) { return b.value > a.value ? 0 : 1; });
    } else {
        MergeSort(tables.items, uniqueCount, tables.buffer, [&](const SortItem& a, const SortItem& b) {
            return CompareSlices(SliceOf(tables, a.entry, size), SliceOf(tables, b.entry, size),
                                 static_cast<int32_t>(size));
        });
    }
}

// Puts entry j of `uniqueCount` in its place among the values; the code of the copy that failed, or 0.
int32_t WriteSlice(const Output& out, const float* slice, const Slices& layout, uint32_t uniqueCount, uint32_t j)
{
    for (uint32_t o = 0; o < layout.outer; ++o) {
        const size_t at = size_t{o} * layout.inner * uniqueCount + size_t{j} * layout.inner;
        const int64_t space = int64_t{out.size} - static_cast<int64_t>(at * sizeof(float));
        const int32_t code =
            memcpy_s(out.data + at, space, slice + size_t{o} * layout.inner, size_t{layout.inner} * sizeof(float));
        if (code != 0) {
            return code;
        }
    }
    return 0;
}

// The same where all copies are known to fit.
void WriteFittingSlice(const Output& out, const float* slice, const Slices& layout, uint32_t uniqueCount, uint32_t j)
{
    MoveRows(out.data + size_t{j} * layout.inner, size_t{layout.inner} * uniqueCount, slice, layout.inner, layout.outer,
             layout.inner);
}

}  // namespace

int32_t CompareUniqueVal(const UniqueEntry* a, const UniqueEntry* b)
{
    return CompareSlices(a->slice, b->slice, g_size);
}

int32_t IsEqualTwoArray(float* a, float* b, int32_t n)
{
    return n < 1 || SameSlice(a, b, static_cast<uint32_t>(n)) ? 1 : 0;
}

uint32_t FindKey(UniqueEntry* table, float* key, int32_t count, uint32_t n)
{
    for (int32_t j = 0; j < count; ++j) {
        if (IsEqualTwoArray(table[j].slice, key, static_cast<int32_t>(n)) != 0) {
            return static_cast<uint32_t>(j);
        }
    }
    return UINT32_MAX;
}

void GetSubTensor(float* src, float* dst, uint32_t idx, uint32_t inner, int32_t outer, int32_t axisLen)
{
    for (int32_t o = 0; o < outer; ++o) {
        const size_t done = static_cast<size_t>(o) * inner;
        const size_t left = static_cast<size_t>(outer) * inner - done;
        const float* const from = src + size_t{idx} * inner + done * static_cast<uint32_t>(axisLen);
        const int32_t code =
            memcpy_s(dst + done, static_cast<int64_t>(left * sizeof(float)), from, size_t{inner} * sizeof(float));
        if (code != 0) {
            Report(Here(), "memcpy failed, errnum = %d\n", code);
            return;
        }
    }
}

uint32_t UniqueOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    const Output outputs[] = {OutputOf(param, 0), OutputOf(param, 1), OutputOf(param, 2), OutputOf(param, 3)};
    const UniqueAttr& attr = AttrOf<UniqueAttr>(param);
    const Slices layout = SlicesOf(in, attr.axis);
    g_size = static_cast<int32_t>(layout.size);  // also when compacting fails
    if (!CompactInput(in)) {
        return kFailure;
    }

    const size_t bytes = Tables::Bytes(layout);
    void* const block = malloc(bytes);
    if (block == nullptr) {
        Report(Here(), "Malloc %lu failed!\n\n", bytes);
        return kFailure;
    }
    Tables tables(block, layout);
    const uint32_t uniqueCount = CollectEntries(in.data, layout, tables);
    OrderEntries(tables, uniqueCount, layout.size, attr.sorted != 0);

    const size_t valueBytes = size_t{uniqueCount} * layout.size * sizeof(float);
    const bool fits = layout.flat || (layout.inner != 0 && outputs[0].data != nullptr && valueBytes <= outputs[0].size);
    for (uint32_t j = 0; j < uniqueCount; ++j) {
        const uint32_t entry = tables.items[j].entry;
        const float* const slice = SliceOf(tables, entry, layout.size);
        if (fits) {
            WriteFittingSlice(outputs[0], slice, layout, uniqueCount, j);
        } else if (const int32_t code = WriteSlice(outputs[0], slice, layout, uniqueCount, j); code != 0) {
            Report(Here(), "memcpy failed, errnum = %d\n", code);
            free(block);
            return kFailure;
        }
        outputs[1].data[j] = static_cast<float>(tables.entries[entry].firstIdx);
        outputs[3].data[j] = static_cast<float>(tables.entries[entry].count);
        tables.renumbered[entry] = j;
    }
    for (uint32_t i = 0; i < layout.count; ++i) {
        const uint32_t entry = tables.inverse[i];
        outputs[2].data[i] = static_cast<float>(attr.sorted == 1 ? tables.renumbered[entry] : entry);
    }
    free(block);
    for (const Output& out : outputs) {
        if (out.width != 0 && ExpandOutput(out) != kSuccess) {  // without a width there is nothing to expand
            return kFailure;
        }
    }
    return kSuccess;
}
