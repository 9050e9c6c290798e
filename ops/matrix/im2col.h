// Column matrices whose elements can be found in the image one by one.
#ifndef OPKIT_OPS_MATRIX_IM2COL_H
#define OPKIT_OPS_MATRIX_IM2COL_H

#include "kernels/image_columns.h"
#include "kernels/whole.h"
#include "opkit/helpers.h"

namespace opkit {

// A kernel of a single place that moves by one without padding: the image is its own column matrix.
bool IsPointwise(const Im2colArgs& args);

// Describes the matrix that Im2col lays out. False, with nothing described, where its coordinates may wrap or run
// backward, where the kernel exceeds the padded image, and for kernels of more than 2^16 places along an axis.
bool DescribeColumns(const Im2colArgs& args, ImageColumns* columns);

// The values of the matrix of an image of `count` floats, padding included. Not whole where no product asks for it.
WholeRange RangeOfColumns(const Im2colArgs& args, const float* image, size_t count);

}  // namespace opkit

#endif  // OPKIT_OPS_MATRIX_IM2COL_H
