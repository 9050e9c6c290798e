// Which product runs, for every operator of this folder, and why the bits are those of the plain loops of Gemm: one
// that adds term by term onto C, and, where an operand is transposed, one that sums apart and adds C at the end.
//
// - A cleared C: a sum that starts from +0.0 never becomes -0.0 when rounded to nearest, so that adding C at the end
//   changes nothing. Both loops give the same, and transposition is only a way to read an operand.
// - Onto a C that counts the two loops round differently, and each has a product of its own.
// - Rows of C do not know of each other: a stack of products with one right factor is one tall product.
// - a * b = b * a, so that kernels may exchange the operands; alpha stays with the elements of A.
// - The correction of a quantised product without zero points subtracts zeros: see CorrectionVanishes().
// - With an alpha of zero and finite operands all terms are +0.0 or -0.0, and a cleared C stays +0.0 throughout.
#ifndef OPKIT_OPS_MATRIX_PRODUCT_PLAN_H
#define OPKIT_OPS_MATRIX_PRODUCT_PLAN_H

#include "kernels/gemm.h"
#include "kernels/whole.h"
#include "opkit/helpers.h"

namespace opkit {

enum class Start {
    kCleared,  // C counts as +0.0, whatever it holds
    kFromC,    // the terms go onto C one by one
    kApart,    // the terms are summed from +0.0, and C is added to the sum
};

// The ways that a product went, as a set.
using Ways = uint32_t;
constexpr Ways kWayZeros = 1;   // C was cleared, and there was nothing to add
constexpr Ways kWayApart = 2;   // in f32, product and sum rounded one after the other: always right
constexpr Ways kWayFused = 16;  // in f32, both in one step, where every product is exact
constexpr Ways kWayShorts = 4;  // in integers (kernels/whole.h), as words of two shorts
constexpr Ways kWayBytes = 8;   // or of four bytes

// C [M, N], with the terms (a * alpha) * b of each element added for k ascending.
struct ProductPlan {
    uint32_t M;
    uint32_t N;
    uint32_t K;
    float alpha;
    MatrixView a;
    MatrixView b;
    const PanelSource* source;  // in place of `b`, or null; `a` and its values are finite then; not for sums apart
    Start start;
    float* c;
    WholeRange sourceRange = {false, 0, 0};  // the source's values, where they are known to be whole numbers
};

Ways RunProduct(const ProductPlan& plan);

// A product for each matrix of a stack C[i] = A[i % aCount] * B[i % bCount]; `first` is that of i = 0. The counts of A
// and B are not 0 if there is any matrix.
void MultiplyStack(GemmArgs first, int32_t aCount, int32_t bCount, int32_t count);

// Whether the correction leaves a quantised product as it is if all elements of A and B are small. Without zero points
// it subtracts 0 times the sums of rows and columns, which are finite then: +0.0 or -0.0, from a C that started cleared
// and so is never -0.0. The scale of 1 and the zero point of 0 after that change nothing either.
bool CorrectionVanishes(const QGemmArgs& args);

// Whether sums of as many values as CorrectionVanishes() admits stay finite. NaN is not small.
bool AreSmall(const float* values, size_t count);

}  // namespace opkit

#endif  // OPKIT_OPS_MATRIX_PRODUCT_PLAN_H
