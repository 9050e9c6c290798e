// MaxUnpool: puts pooled values back at the positions inside their output plane that a max pooling recorded; all other
// elements are zeros. Of several values for one position the last wins.
// Rows: expanding.

#include <cstring>

#include "common/convert.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Returns false at the first position outside the plane.
bool ScatterRow(const float* values, const float* positions, uint32_t width, float* plane, uint32_t planeSize)
{
    for (uint32_t i = 0; i < width; ++i) {
        const uint32_t position = TruncateToU32(positions[i]);
        if (position >= planeSize) {
            return false;
        }
        plane[position] = values[i];
    }
    return true;
}

}  // namespace

uint32_t MaxUnpoolOpkitForward(LayerParam* param)
{
    Input x;
    Input indices;
    if (!Resolve(param, {&x, &indices}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output y = OutputOf(param, 0);
    if (y.count != 0) {
        std::memset(y.data, 0, size_t{y.count} * sizeof(float));
    }

    const uint32_t planes = GetImgNum(x.shape, x.dimNum) * GetChannels(x.shape, x.dimNum);
    const uint32_t height = GetHeight(x.shape, x.dimNum);
    const uint32_t width = GetWidth(x.shape, x.dimNum);
    if (planes == 0 || height == 0 || width == 0) {
        return ExpandOutputChecked(y);  // before any pitch, which may be a division by zero
    }
    const uint32_t planeSize = GetHeight(y.shape, y.dimNum) * GetWidth(y.shape, y.dimNum);
    const size_t pitch = x.Pitch();
    const size_t indexPitch = indices.Pitch();
    const float* row = x.data;
    const float* indexRow = indices.data;
    float* plane = y.data;
    for (uint32_t p = 0; p < planes; ++p, plane += planeSize) {
        for (uint32_t h = 0; h < height; ++h, row += pitch, indexRow += indexPitch) {
            if (!ScatterRow(row, indexRow, width, plane, planeSize)) {
                Report(Here(), "Maximum index out-of-range.\n\n");
                return kFailure;
            }
        }
    }
    return ExpandOutputChecked(y);
}
