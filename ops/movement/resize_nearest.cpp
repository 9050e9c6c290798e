// Resize, nearest: every output element is a copy of the input element that its coordinates round to, on all four axes.
// Offsets are found once per axis, so that an element costs one table look-up and one load.

#include <cstdlib>
#include <cstring>

#include "kernels/resize.h"
#include "ops/movement/resize_tables.h"

namespace opkit {
namespace {

constexpr int32_t kAxes = 4;

// The tables of the four axes: on the stack, and on the heap when they are long.
class OffsetTables {
public:
    explicit OffsetTables(const uint32_t* outShape)
    {
        for (int32_t axis = 0; axis < kAxes; ++axis) {
            entries_ += outShape[axis];
        }
        uint32_t* next = entries_ <= kOnStack ? local_ : static_cast<uint32_t*>(std::malloc(Bytes()));
        heap_ = next == local_ ? nullptr : next;
        for (int32_t axis = 0; axis < kAxes && next != nullptr; ++axis) {
            axes_[axis] = next;
            next += outShape[axis];
        }
    }
    ~OffsetTables() { std::free(heap_); }
    OffsetTables(const OffsetTables&) = delete;
    OffsetTables& operator=(const OffsetTables&) = delete;

    bool Valid() const { return axes_[0] != nullptr; }
    size_t Bytes() const { return entries_ * sizeof(uint32_t); }
    uint32_t* operator[](int32_t axis) const { return axes_[axis]; }

private:
    static constexpr size_t kOnStack = 4096;
    size_t entries_ = 0;
    uint32_t* axes_[kAxes] = {};
    uint32_t* heap_ = nullptr;
    uint32_t local_[kOnStack];
};

// Compact offsets become padded ones. They add up as before: those of the outer axes are whole rows.
void PadOffsets(uint32_t* offsets, uint32_t count, uint32_t width, uint32_t pitch, uint32_t outside)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (offsets[i] != outside) {
            offsets[i] = (offsets[i] / width) * pitch + offsets[i] % width;
        }
    }
}

// One output row, or a part of it, from the input row at `in`.
struct ColumnPicker {
    bool oneByOne;  // some may lie outside of the input, or be overwritten by the output
    uint32_t outside;
    float outsideValue;
    uint32_t rowWidth;  // of the input

    void Fill(float* out, uint32_t count) const
    {
        for (uint32_t i = 0; i < count; ++i) {
            out[i] = outsideValue;
        }
    }

    void Pick(const float* in, const uint32_t* columns, float* out, uint32_t count) const
    {
        if (!oneByOne) {
            Kernels<ResizeKernels>().pick(in, rowWidth, columns, out, count);
            return;
        }
        for (uint32_t i = 0; i < count; ++i) {
            out[i] = columns[i] == outside ? outsideValue : in[columns[i]];
        }
    }
};

// Elements of consecutive columns, as on an axis that is not resampled, move as one block.
bool AreConsecutive(const uint32_t* columns, uint32_t count, uint32_t outside)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (columns[i] != i || columns[i] == outside) {
            return false;
        }
    }
    return true;
}

// Where the tensors overlap, every element is read when its turn comes: the output may have overwritten it by then.
void Sample(const Input& in, const Output& out, const OffsetTables& tables, const ColumnPicker& picker, bool overlap)
{
    const uint32_t* const size = out.shape;
    const uint32_t outside = picker.outside;
    const uint32_t* const columns = tables[3];
    const bool consecutive = !overlap && AreConsecutive(columns, size[3], outside);
    // Whole unless the output has more than four dimensions.
    const bool wholeRows = !overlap && size[3] == out.width;
    RowCursor cursor(out.width, out.Pitch());
    for (uint32_t n = 0; n < size[0]; ++n) {
        for (uint32_t c = 0; c < size[1]; ++c) {
            const uint32_t plane = tables[0][n] + tables[1][c];
            const bool planeOutside = tables[0][n] == outside || tables[1][c] == outside;
            for (uint32_t h = 0; h < size[2]; ++h) {
                const bool rowOutside = planeOutside || tables[2][h] == outside;
                const float* const row = rowOutside ? nullptr : in.data + size_t{plane + tables[2][h]};
                const bool sameAsAbove = wholeRows && h > 0 && tables[2][h] == tables[2][h - 1];
                for (uint32_t w = 0, length; w < size[3]; w += length) {
                    length = size[3] - w < cursor.LeftInRow() ? size[3] - w : cursor.LeftInRow();
                    float* const to = out.data + cursor.Offset();
                    if (rowOutside) {
                        picker.Fill(to, length);
                    } else if (consecutive) {
                        std::memmove(to, row + w, size_t{length} * sizeof(float));
                    } else if (sameAsAbove) {
                        std::memcpy(to, to - out.Pitch(), size_t{length} * sizeof(float));
                    } else {
                        picker.Pick(row, columns + w, to, length);
                    }
                    cursor.Advance(length);
                }
            }
        }
    }
}

}  // namespace

uint32_t ResizeNearest(const ResizeLayer& layer, Caller caller)
{
    Input in;
    Output out;
    if (!ResolveResize(layer.param, &in, &out) || out.count == 0) {
        return kSuccess;
    }
    const bool extrapolate = layer.attr->extrapolate != 0;
    if (in.count == 0 && !extrapolate) {
        return kSuccess;  // nothing to take
    }
    uint32_t steps[kAxes];
    for (int32_t axis = 0; axis < kAxes; ++axis) {
        const int32_t inner = in.dimNum - axis - 1;
        steps[axis] = inner > 0 ? ElementCount(in.shape + axis + 1, static_cast<uint32_t>(inner)) : 1;
    }
    const OffsetTables tables(out.shape);
    if (!tables.Valid()) {
        Report(caller, "Malloc %ld failed!\n\n", static_cast<long>(tables.Bytes()));
        return kSuccess;  // as when the linear tables find no memory
    }
    const NearestContext context = {static_cast<uint32_t>(in.dimNum),
                                    in.shape,
                                    out.shape,
                                    steps,
                                    layer.scales,
                                    layer.region,
                                    extrapolate,
                                    layer.attr->coordinateMode,
                                    layer.attr->nearestMode};
    const uint32_t outside = OutsideOffset(context);
    for (int32_t axis = 0; axis < kAxes; ++axis) {
        BuildNearestOffsets(context, tables[axis], axis);
        PadOffsets(tables[axis], out.shape[axis], in.width, in.Pitch(), outside);
    }
    const bool overlap = TensorsOverlap(in, out);
    Sample(in, out, tables, {extrapolate || overlap, outside, layer.attr->extrapolationValue, in.width}, overlap);
    return kSuccess;
}

}  // namespace opkit
