// Argmin: the place of the smallest element of every lane along one axis, as a float. Rows are read and written where
// they lie.
//
// The answer is the first entry of the lane's sorted entries, for which the merge need not go beyond one. Elements
// within 1e-6 of each other are equal, but only where the strict test failed; a NaN is equal to nothing and above
// nothing. The merge compares an entry with one of a later place, so where the first of equals counts the tolerance
// never decides: without NaN the answer is the first smallest element.

#include "common/float_compare.h"
#include "kernels/selection.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "ops/selection/lanes.h"

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

// firstOf(lane, step, entries) leaves the answer in entries[0].
template <class FirstOf>
void WritePlaces(const Input& in, int32_t axis, const Lanes& lanes, const Output& out, SortEntry* entries,
                 FirstOf firstOf)
{
    TrapWithoutWidth(out.width);
    RowCursor place(out.width, out.Pitch());
    ForEachPaddedLane(in, axis, lanes, [&](uint32_t, size_t start, size_t step) {
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
    const Lanes lanes = LanesAlong(in, attr.axis);
    if (lanes.count == 0) {
        return kSuccess;
    }
    SortBuffer<SortEntry> buffer;
    if (!buffer.Reserve(lanes.length)) {
        Report(Here(), "Malloc %lu failed!\n\n", SortBuffer<SortEntry>::Bytes(lanes.length));
        return kFailure;
    }
    SortEntry* const entries = static_cast<SortEntry*>(param->opkitBuf);
    if (attr.selectLastIndex != 0) {
        WritePlaces(in, attr.axis, lanes, out, entries, [&](const float* lane, size_t step, SortEntry* first) {
            SortLane(lane, step, first, lanes.length, 1, buffer.Data(), SelectLast());
        });
    } else {
        WritePlaces(in, attr.axis, lanes, out, entries, [&](const float* lane, size_t step, SortEntry* first) {
            if (!Kernels<SelectionKernels>().smallest(lane, step, lanes.length, first, 1)) {
                SortLane(lane, step, first, lanes.length, 1, buffer.Data(), SelectFirst());
            }
        });
    }
    return kSuccess;
}
