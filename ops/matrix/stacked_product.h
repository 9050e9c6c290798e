// The product of two stacks of matrices, the smaller stacks repeated in index order.
#ifndef OPKIT_OPS_MATRIX_STACKED_PRODUCT_H
#define OPKIT_OPS_MATRIX_STACKED_PRODUCT_H

#include "opkit/helpers.h"

namespace opkit {

struct MatrixStack {
    float* data;
    int32_t count;
};

// y[i] = a[i % a.count] * b[i % b.count]; what y held does not matter. The counts of a and b are not 0 if y has any.
inline void MultiplyStacks(uint32_t M, uint32_t N, uint32_t K, MatrixStack a, MatrixStack b, MatrixStack y)
{
    GemmArgs args = {};
    args.M = M;
    args.N = N;
    args.K = K;
    args.alpha = 1.0f;
    args.beta = 0.0f;
    const bool oneRight = y.count > 1 && a.count == y.count && b.count == 1;
    if (oneRight && uint64_t{M} * static_cast<uint32_t>(y.count) <= INT32_MAX / (uint64_t{N} + 1)) {
        args.M *= static_cast<uint32_t>(y.count);  // one right factor for all: the stack is one tall matrix
        y.count = 1;
    }
    for (int32_t i = 0; i < y.count; ++i) {
        args.A = a.data + size_t{static_cast<uint32_t>(i % a.count)} * M * K;
        args.B = b.data + size_t{static_cast<uint32_t>(i % b.count)} * K * N;
        args.C = y.data + size_t{static_cast<uint32_t>(i)} * M * N;
        Gemm(args);
    }
}

}  // namespace opkit

#endif  // OPKIT_OPS_MATRIX_STACKED_PRODUCT_H
