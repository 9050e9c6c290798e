// Resampling; see kernels/level.h for the levels.

#include "kernels/resize.h"

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/resize_elements.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

void BlendRows(GatheredRow row1, GatheredRow row2, const float* dx1, const float* dx2, float dy1, float dy2,
               float* __restrict out, size_t count)
{
    assert(Present(row1.left, count) && Present(row1.right, count) && Present(row2.left, count) &&
           Present(row2.right, count) && Present(dx1, count) && Present(dx2, count) && Present(out, count));
    assert(Apart(row1.left, count, out, count) && Apart(row1.right, count, out, count));
    assert(Apart(row2.left, count, out, count) && Apart(row2.right, count, out, count));
    for (size_t x = 0; x < count; ++x) {
        out[x] = BlendFour(row1.left[x], row1.right[x], row2.left[x], row2.right[x], dx1[x], dx2[x], dy1, dy2);
    }
}

void PickOneByOne(const float* row, const uint32_t* columns, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = row[columns[i]];
    }
}

// A vector of columns that lie close together, as they do wherever a row grows, comes out of one window of the row.
void Pick(const float* row, size_t width, const uint32_t* columns, float* out, size_t count)
{
    assert(Present(row, count) && Present(columns, count) && Present(out, count));
    size_t i = 0;
    for (; kPermutes && width >= kWindow && i + kLanes <= count; i += kLanes) {
        const uint32_t begin = Smaller(columns[i], static_cast<uint32_t>(width - kWindow));
        const VecWord places = LoadWords(columns + i) - begin;
        constexpr uint32_t kBeyondWindow = ~static_cast<uint32_t>(kWindow - 1);
        if (AnyBitSet(places & kBeyondWindow)) {
            PickOneByOne(row, columns + i, out + i, kLanes);
        } else {
            Store(out + i, FromWindow(row + begin, places));
        }
    }
    PickOneByOne(row, columns + i, out + i, count - i);
}

}  // namespace

extern const ResizeKernels kResizeKernels = {BlendRows, Pick};

}  // namespace opkit::OPKIT_LEVEL
