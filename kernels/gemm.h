// The product loops behind Gemm. C[i][j] takes its K terms in ascending order of k, each rounded product by rounded
// product; rows and columns are computed side by side, which changes no bit.
#ifndef OPKIT_KERNELS_GEMM_H
#define OPKIT_KERNELS_GEMM_H

#include "kernels/level.h"

namespace opkit {

// A matrix seen by its two index distances, in floats.
struct MatrixView {
    const float* data;
    size_t rowStep;
    size_t columnStep;
};

// A matrix that is laid out part by part, on demand: row k of a part, from column j0 on, goes to `to` + k * step.
struct PanelSource {
    void (*fill)(const void* context, size_t k0, size_t depth, size_t j0, size_t columns, float* to, size_t step);
    const void* context;
};

struct GemmKernels {
    // C[i * N + j] += ((A[i][k] * alpha) * B[k][j]) for k ascending, term by term onto C.
    void (*accumulate)(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c);
    // The same with B from a source.
    void (*accumulateFrom)(size_t M, size_t N, size_t K, float alpha, MatrixView a, const PanelSource& b, float* c);
    // The same terms summed apart from 0.0; then C[i * N + j] = sum + C[i * N + j].
    void (*addSums)(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c);
};
OPKIT_KERNEL_TABLE(GemmKernels)

// The same with fused steps, which round once: for products that are exact.
namespace avx2_fused {
extern const GemmKernels kGemmKernels;
}
namespace avx512_fused {
extern const GemmKernels kGemmKernels;
}

// In the place of what FusesAtTwiceTheRate() finds, for tests. Stands in level.cpp.
void OverrideFusing(bool fuses);

// Null where they would not be faster.
inline const GemmKernels* FusedKernelsInUse()
{
    if (ActiveLevel() == Level::kBaseline || !FusesAtTwiceTheRate()) {
        return nullptr;
    }
    return ActiveLevel() == Level::kAvx2 ? &avx2_fused::kGemmKernels : &avx512_fused::kGemmKernels;
}

}  // namespace opkit

#endif  // OPKIT_KERNELS_GEMM_H
