// Literal form of Unique: linear search, one entry after the other.
#ifndef OPKIT_TESTS_REFERENCE_UNIQUE_H
#define OPKIT_TESTS_REFERENCE_UNIQUE_H

#include "opkit/attributes/selection.h"
#include "opkit/helpers/selection.h"
#include "opkit/opkit.h"
#include "tests/reference/merge_sort.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

// The bounded copy, for ranges that do not overlap.
inline int32_t RefMemcpyS(void* to, int64_t space, const void* from, uint64_t count)
{
    if (space <= 0) {
        return 34;
    }
    if (to == nullptr) {
        return 22;
    }
    if (from == nullptr || count > static_cast<uint64_t>(space)) {
        std::memset(to, 0, static_cast<size_t>(space));
        return from == nullptr ? 150 : 162;
    }
    std::memmove(to, from, count);
    return 0;
}

inline bool RefSameSlice(const float* a, const float* b, uint32_t n)
{
    for (uint32_t i = 0; i < n; ++i) {
        if (!(a[i] == b[i])) {
            return false;
        }
    }
    return true;
}

inline uint32_t RefUnique(LayerParam* param)
{
    const char* const name = "UniqueOpkitForward";
    const auto& attr = *static_cast<const UniqueAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    RefTensor out[4];
    for (uint32_t i = 0; i < 4; ++i) {
        out[i] = RefOutput(param, i);
    }
    const bool flat = attr.axis == -4;
    uint32_t axisLen = in.count;
    uint32_t outer = 1;
    uint32_t inner = 1;
    if (!flat) {
        axisLen = in.shape[attr.axis];
        for (int32_t d = 0; d < in.dimNum; ++d) {
            outer *= d < attr.axis ? in.shape[d] : 1;
            inner *= d > attr.axis ? in.shape[d] : 1;
        }
    }
    const uint32_t subSize = outer * inner;
    g_size = static_cast<int32_t>(subSize);
    if (!RefCompact(name, in)) {
        return kAllOnes;
    }
    std::vector<UniqueEntry> table;
    std::vector<float> copies(size_t{axisLen} * subSize + 1);
    std::vector<int32_t> inverse(axisLen);
    for (uint32_t i = 0; i < axisLen; ++i) {
        float* const slice = copies.data() + size_t{i} * subSize;
        for (uint32_t o = 0; o < outer; ++o) {
            const int64_t space = (int64_t{outer} * inner - int64_t{o} * inner) * 4;
            const int32_t code =
                RefMemcpyS(slice + o * inner, space, in.data + i * inner + o * inner * axisLen, uint64_t{inner} * 4);
            if (code != 0) {
                RefReport("GetSubTensor", "memcpy failed, errnum = %d\n", code);
                break;
            }
        }
        size_t j = 0;
        while (j < table.size() && !RefSameSlice(table[j].slice, slice, subSize)) {
            ++j;
        }
        inverse[i] = static_cast<int32_t>(j);
        if (j < table.size()) {
            table[j].count += 1;
        } else {
            table.push_back({slice, static_cast<int32_t>(j), static_cast<int32_t>(i), 1});
        }
    }
    if (attr.sorted != 0) {
        table = RefMergeSort(table, [subSize](const UniqueEntry& a, const UniqueEntry& b) {
            for (uint32_t k = 0; k < subSize; ++k) {
                if (a.slice[k] > b.slice[k]) {
                    return 1;
                }
                if (b.slice[k] > a.slice[k]) {
                    return 0;
                }
            }
            return 1;
        });
    }
    const auto uniqueCount = static_cast<uint32_t>(table.size());
    for (uint32_t j = 0; j < uniqueCount; ++j) {
        if (flat) {
            RefMove(out[0].data + j, table[j].slice);
        }
        for (uint32_t o = 0; !flat && o < outer; ++o) {
            const uint32_t at = o * (inner * uniqueCount) + j * inner;
            const int32_t code = RefMemcpyS(out[0].data + at, int64_t{out[0].size} - int64_t{at} * 4,
                                            table[j].slice + o * inner, uint64_t{inner} * 4);
            if (code != 0) {
                RefReport(name, "memcpy failed, errnum = %d\n", code);
                return kAllOnes;
            }
        }
        out[1].data[j] = static_cast<float>(table[j].firstIdx);
        out[3].data[j] = static_cast<float>(table[j].count);
    }
    std::vector<int32_t> perm(uniqueCount);
    for (uint32_t e = 0; e < uniqueCount; ++e) {
        perm[static_cast<size_t>(table[e].order)] = static_cast<int32_t>(e);
    }
    for (uint32_t i = 0; i < axisLen; ++i) {
        const int32_t entry = inverse[i];
        out[2].data[i] = static_cast<float>(attr.sorted == 1 ? perm[static_cast<size_t>(entry)] : entry);
    }
    for (const RefTensor& tensor : out) {
        if (tensor.Width() != 0 && RefExpand(name, tensor) != 0) {
            return kAllOnes;
        }
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_UNIQUE_H
