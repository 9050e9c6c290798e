// The element loop of linear resampling between two rows whose columns were gathered.
#ifndef OPKIT_KERNELS_RESIZE_H
#define OPKIT_KERNELS_RESIZE_H

#include "kernels/level.h"

namespace opkit {

// One source row as an output row sees it: the element to the left and to the right of each output column.
struct GatheredRow {
    const float* left;
    const float* right;
};

struct ResizeKernels {
    // out[x] between two rows at distances dy1 and dy2 and two columns at distances dx1[x] and dx2[x]. out shares no
    // memory with the rows.
    void (*blendRows)(GatheredRow row1, GatheredRow row2, const float* dx1, const float* dx2, float dy1, float dy2,
                      float* out, size_t count);
    // out[i] = row[columns[i]]. The row has `width` floats; columns beyond it are allowed where there is memory.
    void (*pick)(const float* row, size_t width, const uint32_t* columns, float* out, size_t count);
};
OPKIT_KERNEL_TABLE(ResizeKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_RESIZE_H
