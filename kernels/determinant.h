// The two loops of an elimination with full pivoting, each over the rest of an n x n matrix from row and column k on, k
// below n.
#ifndef OPKIT_KERNELS_DETERMINANT_H
#define OPKIT_KERNELS_DETERMINANT_H

#include "kernels/level.h"

namespace opkit {

struct DeterminantKernels {
    // Finds the entry of largest magnitude, the first in scan order; writes row and col only when it beats (k, k).
    void (*findPivot)(const float* matrix, size_t n, size_t k, uint32_t* row, uint32_t* col);
    // Clears column k below entry (k, k), apart from what is within 1e-6 of zero.
    void (*eliminate)(float* matrix, size_t n, size_t k);
};
OPKIT_KERNEL_TABLE(DeterminantKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_DETERMINANT_H
