// Unary element loops; see kernels/level.h for the levels.

#include "kernels/unary.h"

#include "kernels/unary_elements.h"

namespace opkit::OPKIT_LEVEL {
namespace {

template <float (*Element)(float)>
void Map(const float* in, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = Element(in[i]);
    }
}

}  // namespace

extern const UnaryKernels kUnaryKernels = {Map<NegElement>, Map<ReciprocalElement>, Map<SignElement>,
                                           Map<SoftsignElement>};

}  // namespace opkit::OPKIT_LEVEL
