// Literal forms of the operators that walk lines: CumSum, Argmin, Hardmax, TopK.
#ifndef OPKIT_TESTS_REFERENCE_LINES_H
#define OPKIT_TESTS_REFERENCE_LINES_H

#include "opkit/attributes/selection.h"
#include "opkit/helpers/selection.h"
#include "tests/reference/merge_sort.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline uint32_t RefInner(const RefTensor& in, int32_t axis)
{
    uint32_t inner = 1;
    for (int32_t d = axis + 1; d < in.dimNum; ++d) {
        inner *= in.shape[d];
    }
    return inner;
}

inline uint32_t RefCumSum(LayerParam* param)
{
    const auto& attr = *static_cast<const CumSumAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    RefResolve(param, cursor, in);
    const RefTensor out = RefOutput(param, 0);
    if (in.AlignNum() != in.Width() && in.count != 0) {
        for (uint32_t i = 0; i < in.count; ++i) {
            RefMove(in.data + i, in.data + RefPadded(i, in.Width(), in.AlignNum()));
        }
    }
    const uint32_t axisLen = in.shape[attr.axis];
    const uint32_t inner = RefInner(in, attr.axis);
    const uint32_t groups = in.count / axisLen;
    for (uint32_t g = 0; g < groups; ++g) {
        const uint32_t start = (g / inner) * axisLen * inner + g % inner;
        for (uint32_t c = 0; c < axisLen; ++c) {
            const uint32_t at = start + (attr.reverse == 1 ? axisLen - 1 - c : c) * inner;
            const uint32_t previous = attr.reverse == 1 ? at + inner : at - inner;
            if (c == 0) {
                RefMove(out.data + at, in.data + at);
            } else {
                out.data[at] = in.data[at] + out.data[previous];
            }
        }
    }
    if (attr.exclusive != 0) {
        for (uint32_t n = 0; n < axisLen * groups; ++n) {
            out.data[n] -= in.data[n];
        }
    }
    const uint32_t w = out.Width();
    const uint32_t s = out.AlignNum();
    RefInsertAlign(out.data, out.count, static_cast<int32_t>(w), s, (out.count / w) * s + w - s - 1);
    return 0;
}

inline int32_t RefLessFirst(const SortEntry& a, const SortEntry& b)
{
    if (a.value > b.value) {
        return 1;
    }
    return RefIsEqual(a.value, b.value) && a.index > b.index ? 1 : 0;
}

inline int32_t RefLessLast(const SortEntry& a, const SortEntry& b)
{
    if (a.value > b.value) {
        return 1;
    }
    return RefIsEqual(a.value, b.value) && a.index < b.index ? 1 : 0;
}

inline int32_t RefTopkDec(const SortEntry& a, const SortEntry& b)
{
    if (b.value > a.value) {
        return 1;
    }
    return RefIsEqual(a.value, b.value) && a.index > b.index ? 1 : -1;
}

inline int32_t RefTopkAsc(const SortEntry& a, const SortEntry& b)
{
    if (a.value > b.value) {
        return 1;
    }
    return RefIsEqual(a.value, b.value) && a.index > b.index ? 1 : -1;
}

// Line g of the input, sorted.
template <class Compare>
std::vector<SortEntry> RefSortedLine(const RefTensor& in, uint32_t g, uint32_t axisLen, uint32_t inner, Compare compare)
{
    std::vector<SortEntry> entries(axisLen);
    uint32_t flat = (g / inner) * (axisLen * inner) + g % inner;
    for (uint32_t c = 0; c < axisLen; ++c) {
        RefMove(&entries[c].value, &RefAt(in, flat));
        entries[c].index = static_cast<int32_t>(c);
        flat += inner;
    }
    return RefMergeSort(entries, compare);
}

inline uint32_t RefArgmin(LayerParam* param)
{
    const auto& attr = *static_cast<const ArgminAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    const uint32_t axisLen = in.shape[attr.axis];
    const uint32_t groups = in.count / axisLen;
    for (uint32_t g = 0; g < groups; ++g) {
        const auto line = RefSortedLine(in, g, axisLen, RefInner(in, attr.axis),
                                        attr.selectLastIndex != 0 ? RefLessLast : RefLessFirst);
        RefAt(out, g) = static_cast<float>(line[0].index);
    }
    return 0;
}

inline uint32_t RefTopK(LayerParam* param)
{
    const auto& attr = *static_cast<const TopKAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport("TopKOpkitForward", "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor values = RefOutput(param, 0);
    const RefTensor indices = RefOutput(param, attr.hasValues != 0 && attr.hasIndices != 0 ? 1 : 0);
    const uint32_t outWidth = values.Width();
    uint32_t k = attr.k;
    if (k == 0xFFFFFFFFu) {
        k = RefToU32(*static_cast<const float*>(param->inputs[1].data));
    }
    const uint32_t axisLen = in.shape[attr.axis];
    const uint32_t inner = RefInner(in, attr.axis);
    const uint32_t groups = in.count / axisLen;
    auto* buffer = static_cast<SortEntry*>(param->opkitBuf);
    for (uint32_t g = 0; g < groups; ++g) {
        const auto line = RefSortedLine(in, g, axisLen, inner, attr.largest != 0 ? RefTopkDec : RefTopkAsc);
        std::memcpy(buffer, line.data(), line.size() * sizeof(SortEntry));
        uint32_t flat = (g / inner) * (k * inner) + g % inner;
        for (uint32_t j = 0; j < k; ++j) {
            if (attr.hasValues != 0) {
                RefMove(&values.data[RefPadded(flat, outWidth, values.AlignNum())], &buffer[j].value);
            }
            if (attr.hasIndices != 0) {
                indices.data[RefPadded(flat, outWidth, indices.AlignNum())] = static_cast<float>(buffer[j].index);
            }
            flat += inner;
        }
    }
    return 0;
}

inline uint32_t RefHardmax(LayerParam* param)
{
    const char* const name = "HardmaxOpkitForward";
    const auto& attr = *static_cast<const HardmaxAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    if (!RefCompact(name, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t axis = attr.axis < 0 ? attr.axis + in.dimNum : attr.axis;
    uint32_t outer = 1;
    for (int32_t d = 0; d < axis; ++d) {
        outer *= in.shape[d];
    }
    const uint32_t axisLen = in.shape[axis];
    const uint32_t rest = axisLen * RefInner(in, axis);
    for (uint32_t i = 0; i < out.count; ++i) {
        out.data[i] = 0.0f;
    }
    const bool old = attr.opsetVersion <= 12;
    const uint32_t inner = old ? 1 : rest / axisLen;
    const uint32_t length = old ? rest : axisLen;
    const uint32_t lines = old ? outer : in.count / axisLen;
    for (uint32_t g = 0; g < lines; ++g) {
        const uint32_t start = (g / inner) * length * inner + g % inner;
        uint32_t best = 0;
        for (uint32_t c = 1; c < length; ++c) {
            if (in.data[start + c * inner] > in.data[start + best * inner]) {
                best = c;
            }
        }
        out.data[start + best * inner] = 1.0f;
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_LINES_H
