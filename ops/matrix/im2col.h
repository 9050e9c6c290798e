// Column matrices whose elements can be found in the image one by one.
#ifndef OPKIT_OPS_MATRIX_IM2COL_H
#define OPKIT_OPS_MATRIX_IM2COL_H

#include "kernels/image_columns.h"
#include "opkit/helpers.h"

namespace opkit {

// A kernel of a single place that moves by one without padding: the image is its own column matrix.
bool IsPointwise(const Im2colArgs& args);

// Describes the matrix that Im2col lays out. False, with nothing described, where its coordinates may wrap or run
// backward, where the kernel exceeds the padded image, and for kernels of more than 2^16 places along an axis.
bool DescribeColumns(const Im2colArgs& args, ImageColumns* columns);

}  // namespace opkit

#endif  // OPKIT_OPS_MATRIX_IM2COL_H
