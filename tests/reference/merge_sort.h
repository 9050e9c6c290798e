// Literal form of the merge sort that operators promise: halves of n / 2 and n - n / 2, the left item unless the
// comparator answers above 0.
#ifndef OPKIT_TESTS_REFERENCE_MERGE_SORT_H
#define OPKIT_TESTS_REFERENCE_MERGE_SORT_H

#include <vector>

namespace opkit::reference {

template <class Item, class Compare>
std::vector<Item> RefMergeSort(const std::vector<Item>& items, Compare compare)
{
    if (items.size() <= 1) {
        return items;
    }
    const auto middle = items.begin() + static_cast<long>(items.size() / 2);
    std::vector<Item> left = RefMergeSort(std::vector<Item>(items.begin(), middle), compare);
    std::vector<Item> right = RefMergeSort(std::vector<Item>(middle, items.end()), compare);
    std::vector<Item> merged;
    size_t l = 0;
    size_t r = 0;
    while (l < left.size() || r < right.size()) {
        if (l == left.size()) {
            merged.push_back(right[r++]);
        } else if (r == right.size() || !(compare(left[l], right[r]) > 0)) {
            merged.push_back(left[l++]);
        } else {
            merged.push_back(right[r++]);
        }
    }
    return merged;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_MERGE_SORT_H
