// The element function of linear resampling.
#ifndef OPKIT_KERNELS_RESIZE_ELEMENTS_H
#define OPKIT_KERNELS_RESIZE_ELEMENTS_H

namespace opkit {
namespace {

// The order of the terms, and of the factors in each weight, decides the last bit: upper right comes first.
inline float BlendFour(float x11, float x12, float x21, float x22, float dx1, float dx2, float dy1, float dy2)
{
    return ((((dy2 * dx1) * x12) + ((dx2 * dy2) * x11)) + ((dx2 * dy1) * x21)) + ((dy1 * dx1) * x22);
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_RESIZE_ELEMENTS_H
