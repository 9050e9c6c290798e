// The merge sort, against its literal form, with the comparators that rely on it and with ones that contradict
// themselves.

#include "common/merge_sort.h"

#include <gtest/gtest.h>

#include <functional>

#include "opkit/opkit.h"
#include "tests/reference/merge_sort.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;
using opkit::reference::RefMergeSort;

using Compare = std::function<int32_t(const SortEntry&, const SortEntry&)>;

// Bits, so that NaN values compare too.
std::vector<uint64_t> BitsOf(const std::vector<SortEntry>& entries)
{
    std::vector<uint64_t> bits(entries.size());
    if (!entries.empty()) {
        memcpy(bits.data(), entries.data(), entries.size() * sizeof(SortEntry));
    }
    return bits;
}

std::vector<SortEntry> Sorted(std::vector<SortEntry> entries, const Compare& compare)
{
    std::vector<SortEntry> buffer(entries.size());
    MergeSort(entries.data(), entries.size(), buffer.data(), compare);
    return entries;
}

std::vector<SortEntry> RandomEntries(Random& random, size_t count)
{
    const Values kind = random.OneOf({Values::kMixed, Values::kIntegers, Values::kBits});
    std::vector<SortEntry> entries(count);
    for (size_t i = 0; i < count; ++i) {
        entries[i] = {random.Float(kind), static_cast<int32_t>(i)};
    }
    return entries;
}

TEST(MergeSort, SameAsReference)
{
    const Compare comparators[] = {
        [](const SortEntry& a, const SortEntry& b) { return LessCompareSelectFirst(&a, &b); },
        [](const SortEntry& a, const SortEntry& b) { return LessCompareSelectLast(&a, &b); },
        [](const SortEntry& a, const SortEntry& b) { return TopkDecSort(&a, &b); },
        [](const SortEntry& a, const SortEntry& b) { return TopkAscSort(&a, &b); },
        [](const SortEntry&, const SortEntry&) { return 1; },
        [](const SortEntry&, const SortEntry&) { return 0; },
        // No order at all, but the same answer for the same pair.
        [](const SortEntry& a, const SortEntry& b) { return ((a.index * 7919) ^ (b.index * 104729)) % 3 - 1; },
    };
    for (size_t c = 0; c < std::size(comparators); ++c) {
        SCOPED_TRACE(c);
        ForRandomCases(150, [&](Random& random) {
            const auto entries =
                RandomEntries(random, static_cast<size_t>(random.Int(0, random.Chance(0.2) ? 900 : 40)));
            EXPECT_EQ(BitsOf(Sorted(entries, comparators[c])), BitsOf(RefMergeSort(entries, comparators[c])));
        });
    }
}

// The first items are those of the whole sort, also with a comparator that knows no order.
TEST(MergeSort, FirstItems)
{
    const Compare comparators[] = {
        [](const SortEntry& a, const SortEntry& b) { return LessCompareSelectLast(&a, &b); },
        [](const SortEntry& a, const SortEntry& b) { return TopkDecSort(&a, &b); },
        [](const SortEntry&, const SortEntry&) { return 1; },
        [](const SortEntry& a, const SortEntry& b) { return ((a.index * 7919) ^ (b.index * 104729)) % 3 - 1; },
    };
    for (size_t c = 0; c < std::size(comparators); ++c) {
        SCOPED_TRACE(c);
        ForRandomCases(150, [&](Random& random) {
            const size_t count = static_cast<size_t>(random.Int(0, 300));
            const size_t keep = static_cast<size_t>(random.Int(0, static_cast<int32_t>(count)));
            const auto entries = RandomEntries(random, count);
            std::vector<SortEntry> first = entries;
            std::vector<SortEntry> buffer(count);
            MergeSortFirst(first.data(), count, keep, buffer.data(), comparators[c]);
            std::vector<SortEntry> all = RefMergeSort(entries, comparators[c]);
            first.resize(keep);
            all.resize(keep);
            EXPECT_EQ(BitsOf(first), BitsOf(all));
        });
    }
}

// "Always take the right one" turns 0 1 2 3 4 around by halves: {0 1} -> 1 0, {2 | 3 4} -> 4 3 2, then the right half
// first.
TEST(MergeSort, AlwaysRight)
{
    std::vector<int> items = {0, 1, 2, 3, 4};
    int buffer[5];
    MergeSort(items.data(), items.size(), buffer, [](int, int) { return 1; });
    EXPECT_EQ(items, (std::vector<int>{4, 3, 2, 1, 0}));
}

// An odd count splits into the smaller half first: {5} {4 3}, so the pairs are (4 3), then (5 3), (5 4).
TEST(MergeSort, ComparesLeftWithRight)
{
    std::vector<int> items = {5, 4, 3};
    int buffer[3];
    std::vector<std::pair<int, int>> pairs;
    MergeSort(items.data(), items.size(), buffer, [&](int a, int b) {
        pairs.emplace_back(a, b);
        return a > b ? 1 : 0;
    });
    EXPECT_EQ(items, (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(pairs, (std::vector<std::pair<int, int>>{{4, 3}, {5, 3}, {5, 4}}));
}

TEST(MergeSort, StableForEqualItems)
{
    std::vector<SortEntry> entries(100);
    for (int i = 0; i < 100; ++i) {
        entries[static_cast<size_t>(i)] = {static_cast<float>(i % 3), i};
    }
    const auto sorted =
        Sorted(entries, [](const SortEntry& a, const SortEntry& b) { return a.value > b.value ? 1 : 0; });
    for (size_t i = 1; i < sorted.size(); ++i) {
        EXPECT_TRUE(sorted[i - 1].value < sorted[i].value ||
                    (sorted[i - 1].value == sorted[i].value && sorted[i - 1].index < sorted[i].index));
    }
}

TEST(MergeSort, BufferOnStackThenHeap)
{
    AllocFault fault;
    {
        SortBuffer<SortEntry> small;
        EXPECT_TRUE(small.Reserve(128));
        EXPECT_NE(small.Data(), nullptr);
        EXPECT_EQ(fault.Seen(), 0u);
        SortBuffer<SortEntry> large;
        EXPECT_TRUE(large.Reserve(129));
        if (AllocFaultAvailable()) {
            EXPECT_EQ(fault.LiveBytes(), 129u * 8);
        }
        large.Data()[128] = {1.0f, 2};
    }
    fault.Disarm();
    EXPECT_EQ(fault.Live(), 0);
    if (AllocFaultAvailable()) {
        AllocFault failing(0);
        SortBuffer<SortEntry> none;
        EXPECT_FALSE(none.Reserve(129));
        failing.Disarm();
    }
}

}  // namespace
}  // namespace opkit
