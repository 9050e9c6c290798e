// Reduction folds; see kernels/level.h for the levels.

#include "kernels/reduction.h"

#include "kernels/fold_steps.h"
#include "kernels/folds.h"

namespace opkit::OPKIT_LEVEL {
extern const ReductionKernels kReductionKernels = {
    kFold<Add>, kFold<AddMagnitude>, kFold<AddSquare>, kFold<TakeLarger>, kFold<TakeSmaller>, kFold<Multiply>,
};

}  // namespace opkit::OPKIT_LEVEL
