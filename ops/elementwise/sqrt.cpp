// Sqrt: the f32 square root of an input that may broadcast; below zero a NaN.
// Rows: compacting.

#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

uint32_t SqrtOpkitForward(LayerParam* param)
{
    return MapCompacting(param, AttrOf<SqrtAttr>(param), Kernels<ActivationKernels>().squareRoot);
}
