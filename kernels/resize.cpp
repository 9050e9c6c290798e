// Linear resampling; see kernels/level.h for the levels.

#include "kernels/resize.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// The order of the terms, and which product comes first in each, decide the last bit.
void LinearRowLoop(const LinearRow& row, float* out, int64_t begin, int64_t end)
{
    const float* const row1 = row.row1;
    const float* const row2 = row.row2;
    const int64_t* const x1 = row.x1;
    const int64_t* const x2 = row.x2;
    const float* const dx1 = row.dx1;
    const float* const dx2 = row.dx2;
    const float dy1 = row.dy1;
    const float dy2 = row.dy2;
    float* __restrict const to = out;
    for (int64_t x = begin; x < end; ++x) {
        const float right = (dy2 * dx1[x]) * row1[x2[x]];
        const float left = (dx2[x] * dy2) * row1[x1[x]];
        const float lowerLeft = (dx2[x] * dy1) * row2[x1[x]];
        const float lowerRight = (dy1 * dx1[x]) * row2[x2[x]];
        to[x] = ((right + left) + lowerLeft) + lowerRight;
    }
}

}  // namespace

extern const ResizeKernels resizeKernels = {LinearRowLoop};

}  // namespace opkit::OPKIT_LEVEL
