// The first entries of a line of elements in sorted order, without sorting the line.
#ifndef OPKIT_KERNELS_SELECTION_H
#define OPKIT_KERNELS_SELECTION_H

#include "kernels/level.h"
#include "opkit/helpers/selection.h"

namespace opkit {

// Writes the first `keep` entries, 1 to count, of the line's `count` elements, at most INT32_MAX, `step` floats apart,
// in order: by value, equal values by place. False when the line holds a NaN, which has no place in that order; best is
// undefined then.
using SelectKernel = bool (*)(const float* line, size_t step, size_t count, SortEntry* best, size_t keep);

struct SelectionKernels {
    SelectKernel largest;
    SelectKernel smallest;
};
OPKIT_KERNEL_TABLE(SelectionKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_SELECTION_H
