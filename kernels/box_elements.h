// Lengths of boxes, for the kernels and for the exported scalar form.
#ifndef OPKIT_KERNELS_BOX_ELEMENTS_H
#define OPKIT_KERNELS_BOX_ELEMENTS_H

#include "kernels/choose.h"

namespace opkit {
namespace {

// Of an interval that includes both ends; 0 when it is empty, and for NaN.
inline float InclusiveLength(float low, float high)
{
    const float length = high - low + 1.0f;
    return Choose(length >= 0.0f, length, 0.0f);
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_BOX_ELEMENTS_H
