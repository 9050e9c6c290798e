// LpNorm: divides every line along one axis by its p-norm.
// Rows: compacting.
//
// The norm is taken over magnitudes truncated to whole numbers, the division over the elements as they are: a line of
// elements between -1 and 1 has norm 0 and is divided by it.

#include <cmath>
#include <cstring>

#include "common/convert.h"
#include "kernels/normalization.h"
#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Magnitudes have 24 bits, so their first and second powers are exact in f64, and pow gives an exact result as it is.
// pow(sum, 0.5) is the square root, too: the root of 24 bits stays 2^-50 clear of every boundary between two f32
// values, and pow errs less.
struct Norm {
    int32_t p;

    float Root(float sum) const
    {
        if (p == 1) {
            return sum;
        }
        return p == 2 ? static_cast<float>(std::sqrt(static_cast<double>(sum)))
                      : RoundToF32(std::pow(static_cast<double>(sum), 1.0 / static_cast<double>(p)));
    }

    // Sums of `count` neighbouring lines, the elements of one line `step` apart.
    void SumColumns(const float* x, float* sums, uint32_t count, uint32_t axisLen, uint32_t step) const
    {
        if (p == 1 || p == 2) {
            Sums().columns(sums, x, count, axisLen, step);
            return;
        }
        for (uint32_t j = 0; j < axisLen; ++j) {
            for (uint32_t v = 0; v < count; ++v) {
                AddPower(&sums[v], x[size_t{j} * step + v]);
            }
        }
    }

    // Sums of `count` contiguous lines.
    void SumRows(const float* x, float* sums, uint32_t count, uint32_t axisLen) const
    {
        if (p == 1 || p == 2) {
            Sums().rows(sums, x, count, axisLen, axisLen);
            return;
        }
        for (uint32_t v = 0; v < count; ++v) {
            for (uint32_t j = 0; j < axisLen; ++j) {
                AddPower(&sums[v], x[size_t{v} * axisLen + j]);
            }
        }
    }

private:
    const FoldKernels& Sums() const
    {
        return p == 1 ? Kernels<NormalizationKernels>().wholeMagnitudes : Kernels<NormalizationKernels>().wholeSquares;
    }

    void AddPower(float* sum, float x) const
    {
        const int32_t n = TruncateToI32(x);  // -2^31, which has no magnitude, stays
        const uint32_t magnitude = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
        const float whole = static_cast<float>(static_cast<int32_t>(magnitude));
        *sum = RoundToF32(static_cast<double>(*sum) + std::pow(static_cast<double>(whole), static_cast<double>(p)));
    }
};

// Sums come from the whole of a block of lines before its first element is divided.
constexpr uint32_t kColumns = 256;
constexpr uint32_t kRows = 16;  // few, so that they are still near when they are divided

void NormaliseColumns(const float* x, float* y, uint32_t count, uint32_t axisLen, uint32_t step, Norm norm,
                      uint32_t block)
{
    for (uint32_t begin = 0; begin < count; begin += block) {
        const uint32_t n = count - begin < block ? count - begin : block;
        float norms[kColumns] = {};
        norm.SumColumns(x + begin, norms, n, axisLen, step);
        for (uint32_t v = 0; v < n; ++v) {
            norms[v] = norm.Root(norms[v]);
        }
        for (uint32_t j = 0; j < axisLen; ++j) {
            const float* const from = x + size_t{j} * step + begin;
            float* const to = y + size_t{j} * step + begin;
            for (uint32_t v = 0; v < n; ++v) {
                to[v] = from[v] / norms[v];
            }
        }
    }
}

void NormaliseRows(const float* x, float* y, uint32_t count, uint32_t axisLen, Norm norm, uint32_t block)
{
    for (uint32_t begin = 0; begin < count; begin += block) {
        const uint32_t n = count - begin < block ? count - begin : block;
        float norms[kRows] = {};
        norm.SumRows(x + size_t{begin} * axisLen, norms, n, axisLen);
        for (uint32_t v = 0; v < n; ++v) {
            const float root = norm.Root(norms[v]);
            const float* const from = x + size_t{begin + v} * axisLen;
            float* const to = y + size_t{begin + v} * axisLen;
            for (uint32_t j = 0; j < axisLen; ++j) {
                to[j] = from[j] / root;
            }
        }
    }
}

void Normalise(const float* x, float* y, int32_t lines, uint32_t axisLen, uint32_t step, Norm norm)
{
    uint32_t left = lines > 0 ? static_cast<uint32_t>(lines) : 0;
    // Where quotients fall on the input, but not in place, each line sees those of the lines before.
    const size_t total = size_t{left} * axisLen;
    const bool overwrites = x != y && RangesOverlap(x, total, y, total);
    if (step == 1) {
        NormaliseRows(x, y, left, axisLen, norm, overwrites ? 1 : kRows);
        return;
    }
    const size_t block = size_t{step} * axisLen;
    for (; left > 0; x += block, y += block) {
        const uint32_t here = left < step ? left : step;
        NormaliseColumns(x, y, here, axisLen, step, norm, overwrites ? 1 : kColumns);
        left -= here;
    }
}

}  // namespace

uint32_t LpNormOpkitForward(LayerParam* param)
{
    Input x;
    if (!Resolve(param, {&x}, Rows::kCompacting, Messages::kAll)) {
        return kFailure;
    }
    const Output y = OutputOf(param, 0);
    const LpNormAttr& attr = AttrOf<LpNormAttr>(param);
    const int32_t axis = attr.axis < 0 ? attr.axis + x.dimNum : attr.axis;
    const uint32_t axisLen = x.shape[axis];
    const int32_t lines = static_cast<int32_t>(x.count) / static_cast<int32_t>(axisLen);
    const uint32_t step = ShapeCount(x.shape, x.dimNum, axis + 1, x.dimNum);
    if (step == 0) {
        Report(Here(), "Illegal value, distant is 0\n");
        return kFailure;
    }
    if (lines > 0) {
        std::memset(y.data, 0, static_cast<uint32_t>(lines) * sizeof(float));
    }
    Normalise(x.data, y.data, lines, axisLen, step, {attr.p});
    return ExpandOutputChecked(y);
}
