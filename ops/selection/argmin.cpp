// Argmin: the place of the smallest element of every line along one axis, as a float.
// Rows: in place.
//
// The answer is what a merge sort of the line puts first. The merge compares a left entry with a right one of a later
// place, and takes values within 1e-6 for equal where the left one is not greater. Where the last of equals counts,
// that moves the answer: [1.0, 1.0000005] gives 1. Where the first counts it never does, so that without NaN, which is
// equal to nothing and greater than nothing, the answer is the first smallest element.

#include "common/float_compare.h"
#include "kernels/selection.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lines.h"

using namespace opkit;

namespace {

struct SelectFirst {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const
    {
        return a.value > b.value || (NearlyEqual(a.value, b.value) && a.index > b.index) ? 1 : 0;
    }
};

struct SelectLast {
    int32_t operator()(const SortEntry& a, const SortEntry& b) const
    {
        return a.value > b.value || (NearlyEqual(a.value, b.value) && a.index < b.index) ? 1 : 0;
    }
};

// firstOf(line, step, entries) leaves the answer in entries[0].
template <class FirstOf>
void WritePlaces(const Input& in, int32_t axis, const Lines& lines, const Output& out, SortEntry* entries,
                 FirstOf firstOf)
{
    TrapWithoutWidth(out.width);
    RowCursor place(out.width, out.Pitch());
    ForEachLine(in, axis, lines, [&](uint32_t, size_t start, size_t step) {
        firstOf(in.data + start, step, entries);
        out.data[place.Offset()] = static_cast<float>(entries[0].index);
        place.Advance(1);
    });
}

}  // namespace

int32_t LessCompareSelectFirst(const SortEntry* a, const SortEntry* b)
{
    return SelectFirst()(*a, *b);
}

int32_t LessCompareSelectLast(const SortEntry* a, const SortEntry* b)
{
    return SelectLast()(*a, *b);
}

uint32_t ArgminOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    const ArgminAttr& attr = AttrOf<ArgminAttr>(param);
    const Lines lines = LinesAlong(in, attr.axis);
    if (lines.count == 0) {
        return kSuccess;
    }
    SortBuffer<SortEntry> buffer;
    if (!buffer.Reserve(lines.length)) {
        Report(Here(), "Malloc %lu failed!\n\n", SortBuffer<SortEntry>::Bytes(lines.length));
        return kFailure;
    }
    SortEntry* const entries = static_cast<SortEntry*>(param->opkitBuf);
    if (attr.selectLastIndex != 0) {
        WritePlaces(in, attr.axis, lines, out, entries, [&](const float* line, size_t step, SortEntry* first) {
            SortLine(line, step, first, lines.length, 1, buffer.Data(), SelectLast());
        });
    } else {
        WritePlaces(in, attr.axis, lines, out, entries, [&](const float* line, size_t step, SortEntry* first) {
            if (!Kernels<SelectionKernels>().smallest(line, step, lines.length, first, 1)) {
                SortLine(line, step, first, lines.length, 1, buffer.Data(), SelectFirst());
            }
        });
    }
    return kSuccess;
}
