// Unary element loops; see kernels/level.h for the levels.

#include "kernels/unary.h"

#include "kernels/map.h"
#include "kernels/unary_elements.h"

namespace opkit::OPKIT_LEVEL {
extern const UnaryKernels kUnaryKernels = {Map<NegElement>, Map<ReciprocalElement>, Map<SignElement>,
                                           Map<SoftsignElement>};

}  // namespace opkit::OPKIT_LEVEL
