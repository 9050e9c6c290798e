// The sort behind TopK, Argmin and Unique: top-down merge sort that splits n items into n / 2 and n - n / 2 and takes
// the left item when cmp(left, right) is not above 0. Comparators here need not be consistent (some answer 1 both
// ways round, some never answer below 0), so the exact pairs that are compared decide the result; the platform's own
// sort may compare others.
#ifndef OPKIT_COMMON_MERGE_SORT_H
#define OPKIT_COMMON_MERGE_SORT_H

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

namespace opkit {

// Room for sorting `count` items: on the stack while it is small, else one block from the heap.
template <class Item>
class SortBuffer {
public:
    SortBuffer() = default;
    ~SortBuffer() { free(heap_); }
    SortBuffer(const SortBuffer&) = delete;
    SortBuffer& operator=(const SortBuffer&) = delete;

    static size_t Bytes(size_t count) { return count * sizeof(Item); }

    // False when the heap has no room.
    bool Reserve(size_t count)
    {
        if (count <= kOnStack) {
            return true;
        }
        heap_ = static_cast<Item*>(malloc(Bytes(count)));
        return heap_ != nullptr;
    }

    Item* Data() { return heap_ != nullptr ? heap_ : small_; }

private:
    static constexpr size_t kOnStack = 128;
    Item small_[kOnStack];
    Item* heap_ = nullptr;
};

// Puts the first `keep` items of the sorted order in place; what lies behind them is undefined unless keep is `count`.
// `buffer` has room for `count` items. The first items that a merge puts out come from the first ones of both its
// sides, by the same comparisons, whatever the comparator answers: so no merge needs to go on beyond `keep` items.
template <class Item, class Compare>
void MergeSortFirst(Item* items, size_t count, size_t keep, Item* buffer, Compare compare)
{
    if (count < 2) {
        return;
    }
    if (count == 2) {
        if (compare(items[0], items[1]) > 0) {
            const Item left = items[0];
            items[0] = items[1];
            items[1] = left;
        }
        return;
    }
    const size_t leftCount = count / 2;
    MergeSortFirst(items, leftCount, keep, buffer, compare);
    MergeSortFirst(items + leftCount, count - leftCount, keep, buffer, compare);
    const size_t leftEnd = leftCount < keep ? leftCount : keep;
    const size_t rightEnd = count - leftCount < keep ? count : leftCount + keep;
    const size_t outEnd = count < keep ? count : keep;
    size_t left = 0;
    size_t right = leftCount;
    size_t out = 0;
    while (left < leftEnd && right < rightEnd && out < outEnd) {
        // Which side is taken is as good as random: no branch on it.
        const size_t takesLeft = compare(items[left], items[right]) <= 0 ? 1 : 0;
        buffer[out++] = items[takesLeft != 0 ? left : right];
        left += takesLeft;
        right += 1 - takesLeft;
    }
    const size_t leftRest = right < rightEnd ? 0 : outEnd - out;  // what is left on the right stays in place
    memcpy(buffer + out, items + left, leftRest * sizeof(Item));
    memcpy(items, buffer, (out + leftRest) * sizeof(Item));
}

// Sorts in place; `buffer` has room for `count` items.
template <class Item, class Compare>
void MergeSort(Item* items, size_t count, Item* buffer, Compare compare)
{
    MergeSortFirst(items, count, count, buffer, compare);
}

}  // namespace opkit

#endif  // OPKIT_COMMON_MERGE_SORT_H
