// The first entries of a lane in sorted order, without sorting the lane.
#ifndef OPKIT_KERNELS_SELECTION_H
#define OPKIT_KERNELS_SELECTION_H

#include "kernels/level.h"
#include "opkit/helpers/selection.h"

namespace opkit {

// Writes the first `keep` entries, 1 to count, of the lane's `count` elements, `step` floats apart, in order: by value,
// equal values by place. False when the lane holds a NaN, which has no place in that order; best is undefined then.
using SelectKernel = bool (*)(const float* lane, size_t step, size_t count, SortEntry* best, size_t keep);

struct SelectionKernels {
    SelectKernel largest;
    SelectKernel smallest;
};
OPKIT_KERNEL_TABLE(SelectionKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_SELECTION_H
