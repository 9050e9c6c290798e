// Compacting and expanding padded rows in place.

#include "common/row_layout.h"

#include <cstring>

#include "common/move_floats.h"
#include "common/report.h"
#include "common/shape.h"
#include "opkit/helpers.h"

namespace opkit {
namespace {

void SpreadElementByElement(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex)
{
    uint32_t to = lastIndex;
    int32_t column = 0;
    for (uint32_t from = count; from-- > 0;) {
        data[to] = data[from];
        if (++column == width) {
            to += static_cast<uint32_t>(width) - rowDistance - 1;
            column = 0;
        } else {
            --to;
        }
    }
}

}  // namespace

void CompactRows(float* data, uint32_t count, uint32_t width, uint32_t alignNum)
{
    const uint32_t pitch = RowPitch(width, alignNum);
    if (pitch == width) {
        return;
    }
    // A source never lies below its destination, so whole rows may move one after the other.
    for (uint32_t done = 0, row = 0; done < count; done += width, ++row) {
        const uint32_t length = count - done < width ? count - done : width;
        std::memmove(data + done, data + size_t{row} * pitch, size_t{length} * sizeof(float));
    }
}

void SpreadRows(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex)
{
    const uint32_t w = static_cast<uint32_t>(width);
    const bool wholeRows =
        width > 0 && count % w == 0 && rowDistance >= w && lastIndex == LastIndex(count, w, rowDistance);
    if (!wholeRows) {
        SpreadElementByElement(data, count, width, rowDistance, lastIndex);
        return;
    }
    if (rowDistance == w) {
        return;  // every element stands on its place
    }
    for (uint32_t row = count / w; row-- > 0;) {
        std::memmove(data + size_t{row} * rowDistance, data + size_t{row} * w, size_t{w} * sizeof(float));
    }
}

void FillSpreadGaps(float* data, uint32_t count, uint32_t width, uint32_t rowDistance)
{
    for (size_t gap = width; gap < count; gap += rowDistance) {
        const size_t gapEnd = gap + (rowDistance - width);
        const size_t end = gapEnd < count ? gapEnd : count;
        for (size_t at = gap; at < end;) {
            const size_t column = at % width;
            const size_t length = width - column < end - at ? width - column : end - at;
            MoveFloats(data + at, data + at / width * rowDistance + column, length);
            at += length;
        }
    }
}

}  // namespace opkit

using namespace opkit;

bool DelAlignSpace(float* data, int32_t count, uint32_t widthIn, uint32_t alignNumIn)
{
    if (data == nullptr) {
        Report(Here(), "Input data is NULL.\n\n");
        return false;
    }
    if (widthIn == 0 || alignNumIn == 0) {
        Report(Here(), "Illegal value, widthIn = %u, alignNumIn = %u\n", widthIn, alignNumIn);
        return false;
    }
    if (count >= 1) {
        CompactRows(data, static_cast<uint32_t>(count), widthIn, alignNumIn);
    }
    return true;
}

bool InsertAlignSpace(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex)
{
    if (data == nullptr) {
        Report(Here(), "Input data is NULL.\n\n");
        return false;
    }
    if (static_cast<int32_t>(count - 1) >= 0) {
        SpreadRows(data, count, width, rowDistance, lastIndex);
    }
    return true;
}

bool ProcessAlignSpace(TensorInfo* tensor, float* data)
{
    if (tensor->shape == nullptr) {
        return false;
    }
    const uint32_t count = ElementCount(tensor->shape, tensor->dimNum);
    const uint32_t width = tensor->shape[tensor->dimNum - 1];
    const uint32_t rowDistance = tensor->stride >> 2;
    if (!InsertAlignSpace(data, count, static_cast<int32_t>(width), rowDistance,
                          LastIndex(count, width, rowDistance))) {
        Report(Here(), "InsertAlignSpace failed.\n");
        return false;
    }
    return true;
}
