// Linear resampling; see kernels/level.h for the levels.

#include "kernels/resize.h"

#include "kernels/resize_elements.h"

namespace opkit::OPKIT_LEVEL {
namespace {

void BlendRows(GatheredRow row1, GatheredRow row2, const float* dx1, const float* dx2, float dy1, float dy2,
               float* __restrict out, size_t count)
{
    for (size_t x = 0; x < count; ++x) {
        out[x] = BlendFour(row1.left[x], row1.right[x], row2.left[x], row2.right[x], dx1[x], dx2[x], dy1, dy2);
    }
}

}  // namespace

extern const ResizeKernels resizeKernels = {BlendRows};

}  // namespace opkit::OPKIT_LEVEL
