// Parts of an image's column matrix, laid out as Im2col lays out the whole, for products that take them straight from
// the image.
#ifndef OPKIT_KERNELS_IMAGE_COLUMNS_H
#define OPKIT_KERNELS_IMAGE_COLUMNS_H

#include "kernels/level.h"

namespace opkit {

// Column matrix [channels * kernelH * kernelW, outHeight * outWidth] of an image [channels, height, width]. All numbers
// are below 2^20, the strides above 0.
struct ImageColumns {
    const float* image;
    int64_t height;
    int64_t width;
    uint32_t kernelH;
    uint32_t kernelW;
    int64_t padTop;
    int64_t padLeft;
    int64_t strideH;
    int64_t strideW;
    int64_t dilationH;
    int64_t dilationW;
    size_t outWidth;
    float padding;
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
