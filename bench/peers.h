// The peers: OpenBLAS and oneDNN, one thread each. Without the package, HaveBlas() is false and oneDNN's functions give
// empty work.
#ifndef OPKIT_BENCH_PEERS_H
#define OPKIT_BENCH_PEERS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/table.h"

namespace opkit::bench::peers {

bool HaveBlas();
std::string BlasName();  // version and the core its kernels are for; "not installed"
void UseOneThread();

// Row-major C = op(A) op(B).
Work Sgemm(bool transA, bool transB, int64_t m, int64_t n, int64_t k, const float* a, const float* b, float* c);

std::string DnnlName();

using Dims = std::vector<int64_t>;

struct Conv {
    int64_t inChannels, outChannels, size, kernel, pad;
};
// Images in plain NCHW; weights may be laid out in advance as the library likes.
Work Convolution(const Conv& shape, const float* x, const float* w, float* y);

enum class BinaryOp { kAdd, kMultiply, kDivide, kMaximum, kGreater };
// Dense operands; b broadcasts where its dimension is 1.
Work Binary(BinaryOp op, const Dims& shape, const Dims& shapeB, const float* a, const float* b, float* out);

struct Pool {
    bool average;
    int64_t channels, size, kernel, stride, pad;
};
Work Pooling(const Pool& shape, const float* x, float* y);

// Doubles the last two dimensions of [1, channels, size, size].
Work Resample(bool linear, int64_t channels, int64_t size, const float* x, float* y);

// [1, channels, size, size] to [1, size, size, channels].
Work ToNhwc(int64_t channels, int64_t size, const float* x, float* y);
Work Transpose(int64_t rows, int64_t columns, const float* x, float* y);

}  // namespace opkit::bench::peers

#endif  // OPKIT_BENCH_PEERS_H
