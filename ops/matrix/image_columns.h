// Convolutions that need no column matrix: their products find its elements in the image.
#ifndef OPKIT_OPS_MATRIX_IMAGE_COLUMNS_H
#define OPKIT_OPS_MATRIX_IMAGE_COLUMNS_H

#include "kernels/image_columns.h"
#include "opkit/attributes/matrix.h"

namespace opkit {

// Whether the image is its own column matrix, and the groups' products stay inside it: the kernel is a single place
// that moves by one without padding.
bool ImageIsColumns(const ConvolutionAttr& attr);

// Whether the groups' products share out the image's column matrix evenly, and all of its coordinates are small: then
// any element of it can be found from the attributes.
bool CanFindColumns(const ConvolutionAttr& attr);

// The columns of one group.
ImageColumns FindColumns(const ConvolutionAttr& attr, const float* image, uint32_t group, int32_t padValue);

}  // namespace opkit

#endif  // OPKIT_OPS_MATRIX_IMAGE_COLUMNS_H
