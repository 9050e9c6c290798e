// Parts of an image's column matrix, laid out as Im2col lays out the whole, for products that take them straight from
// the image.
#ifndef OPKIT_KERNELS_IMAGE_COLUMNS_H
#define OPKIT_KERNELS_IMAGE_COLUMNS_H

#include "kernels/level.h"
#include "opkit/helpers/matrix.h"

namespace opkit {

// The column matrix that Im2col lays out for an image. The padded image is less than 2^31 high and wide, and takes in
// the kernel; strides are not 0.
struct ImageColumns {
    Im2colArgs args;
    size_t outHeight;
    size_t outWidth;
};

struct ImageColumnKernels {
    // Rows k0 to k0 + depth - 1, columns j0 to j0 + count - 1 of an ImageColumns, to rows `step` floats apart.
    void (*fill)(const void* columns, size_t k0, size_t depth, size_t j0, size_t count, float* to, size_t step);
    // Whether every value is at most `limit` in magnitude; NaN is not.
    bool (*areWithin)(const float* values, size_t count, float limit);
};
OPKIT_KERNEL_TABLE(ImageColumnKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_IMAGE_COLUMNS_H
