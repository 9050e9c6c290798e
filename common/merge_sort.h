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

// Sorts in place; `buffer` has room for `count` items.
template <class Item, class Compare>
void MergeSort(Item* items, size_t count, Item* buffer, Compare compare)
{
    if (count < 2) {
        return;
    }
    const size_t leftCount = count / 2;
    MergeSort(items, leftCount, buffer, compare);
    MergeSort(items + leftCount, count - leftCount, buffer, compare);
    size_t left = 0;
    size_t right = leftCount;
    size_t out = 0;
    while (left < leftCount && right < count) {
        buffer[out++] = compare(items[left], items[right]) <= 0 ? items[left++] : items[right++];
    }
    memcpy(buffer + out, items + left, (leftCount - left) * sizeof(Item));  // what is left on the right stays in place
    memcpy(items, buffer, (out + leftCount - left) * sizeof(Item));
}

}  // namespace opkit

#endif  // OPKIT_COMMON_MERGE_SORT_H
