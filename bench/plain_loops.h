// The work of the table's rows written plainly: one loop nest, on compact arrays, in the order that defines the bits.
// "Literal" loops follow the definition element by element, index arithmetic included; the others are what one would
// write by hand for speed without a second thought. All compiled for this machine with -O3.
#ifndef OPKIT_BENCH_PLAIN_LOOPS_H
#define OPKIT_BENCH_PLAIN_LOOPS_H

#include <cstddef>
#include <cstdint>

namespace opkit::bench::plain {

// C += A B, and C += (sums of A B^T).
void Gemm(const float* a, const float* b, float* c, size_t m, size_t n, size_t k);
void GemmTransB(const float* a, const float* b, float* c, size_t m, size_t n, size_t k);

using UnaryLoop = void (*)(const float* in, float* out, size_t count);
void Sigmoid(const float* in, float* out, size_t count);
void Softplus(const float* in, float* out, size_t count);
void Celu(const float* in, float* out, size_t count);  // alpha 1
void Selu(const float* in, float* out, size_t count);  // alpha 1.67326, gamma 1.0507
void Sinh(const float* in, float* out, size_t count);
void Acosh(const float* in, float* out, size_t count);

enum class Fold { kSum, kSumSquare, kProduct, kMaximum, kMinimum, kSumExp };
// Folds `length` elements of each of `rows` rows. The literal form finds every place by division and remainder.
void FoldRows(Fold fold, const float* in, float* out, size_t rows, size_t length);
void FoldRowsLiteral(Fold fold, const float* in, float* out, uint32_t rows, uint32_t length, uint32_t alignNum);
float Read(const float* in, size_t count);  // as fast as memory gives it

using BinaryLoop = void (*)(const float* a, const float* b, float* out, size_t count);
void Greater(const float* a, const float* b, float* out, size_t count);
void Equal(const float* a, const float* b, float* out, size_t count);
void And(const float* a, const float* b, float* out, size_t count);
void Xor(const float* a, const float* b, float* out, size_t count);
void WholeMod(const float* a, const float* b, float* out, size_t count);
void FloatMod(const float* a, const float* b, float* out, size_t count);
void ShiftLeft(const float* a, const float* b, float* out, size_t count);
void Where(const float* condition, const float* x, const float* y, float* out, size_t count);

void InstanceNormalization(const float* x, const float* scale, const float* bias, float* y, size_t planes, size_t size);
void LpNorm(const float* x, float* y, size_t outer, size_t length, size_t inner);  // p = 2
void CumSum(const float* x, float* y, size_t outer, size_t length, size_t inner);
void Hardmax(const float* x, float* y, size_t lanes, size_t length);
void HardmaxColumns(const float* x, float* y, size_t outer, size_t length, size_t inner);
void MaxUnpool(const float* x, const float* indices, float* y, size_t planes, size_t in, size_t out);
void NonZero(const float* x, float* y, size_t rows, size_t columns, size_t outCount);
// Elements of a matrix by pairs of indices.
void ScatterNd(const float* data, const float* indices, const float* updates, float* y, size_t rows, size_t columns,
               size_t tuples);

void TransposeBlocks(const float* in, float* out, size_t rows, size_t columns);                // in 16 x 16 blocks
void DepthToSpace(const float* in, float* out, size_t channels, size_t height, size_t width);  // blocks of 2

// Lanes sorted by the C library, then the first k entries.
void TopKQsort(const float* in, float* values, float* indices, size_t lanes, size_t length, size_t k);
size_t UniqueSearch(const float* in, float* values, float* firsts, float* inverse, float* counts, size_t count);

// Boxes [count, 4] by corners, scores [classes, count]; returns the rows written. Heap steps as the operator has them.
size_t NonMaxSuppression(const float* boxes, const float* scores, size_t count, size_t classes, int limit,
                         float overlap, float lowest, float* rows);

// Decoding, filter, sort and suppression of `n` proposals; results as field rows per class.
struct Chain {
    uint32_t n;
    uint32_t classes;
    uint32_t imageSize;
    const float* deltas;
    const float* scores;
    const float* thresholds;
    const float* proposals;
};
void DetectionChain(const Chain& chain, float* out, uint32_t* counts);

}  // namespace opkit::bench::plain

#endif  // OPKIT_BENCH_PLAIN_LOOPS_H
