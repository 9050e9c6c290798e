// LpNorm: divides every vector along one axis by its p-norm. Compacts its input, writes compactly and expands.
//
// The norm is taken over magnitudes truncated to whole numbers, the division over the elements as they are: a vector of
// elements between -1 and 1 has norm 0 and is divided by it.

#include <cmath>
#include <cstring>

#include "common/convert.h"
#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Magnitude of the truncated element; -2^31, which has none, stays.
float WholeMagnitude(float x)
{
    const int32_t n = TruncateToI32(x);
    const uint32_t magnitude = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
    return static_cast<float>(static_cast<int32_t>(magnitude));
}

// Magnitudes have 24 bits, so their first and second powers are exact in f64, and pow gives an exact result as it is.
struct FirstPower {
    double operator()(float n) const { return n; }
    // pow(sum, 1.0)
    double Root(float sum) const { return sum; }
};

struct SecondPower {
    double operator()(float n) const { return static_cast<double>(n) * static_cast<double>(n); }
    // pow(sum, 0.5): the root of 24 bits stays 2^-50 clear of every boundary between two f32 values, pow errs less.
    double Root(float sum) const { return std::sqrt(static_cast<double>(sum)); }
};

struct AnyPower {
    double p;
    double operator()(float n) const { return std::pow(static_cast<double>(n), p); }
    double Root(float sum) const { return std::pow(static_cast<double>(sum), 1.0 / p); }
};

constexpr uint32_t kSideBySide = 32;

// `count` neighbouring vectors at once; the elements of one vector lie `distance` apart.
template <class Power>
void NormaliseVectors(const float* x, float* y, uint32_t count, uint32_t axisLen, size_t distance, Power power)
{
    float norms[kSideBySide] = {};
    for (uint32_t j = 0; j < axisLen; ++j) {
        for (uint32_t v = 0; v < count; ++v) {
            const double term = power(WholeMagnitude(x[j * distance + v]));
            norms[v] = RoundToF32(static_cast<double>(norms[v]) + term);
        }
    }
    for (uint32_t v = 0; v < count; ++v) {
        norms[v] = static_cast<float>(power.Root(norms[v]));
    }
    for (uint32_t j = 0; j < axisLen; ++j) {
        for (uint32_t v = 0; v < count; ++v) {
            y[j * distance + v] = x[j * distance + v] / norms[v];
        }
    }
}

template <class Power>
void Normalise(const float* x, float* y, int32_t vectors, uint32_t axisLen, uint32_t distance, Power power)
{
    const size_t block = size_t{distance} * axisLen;
    for (uint32_t left = vectors > 0 ? static_cast<uint32_t>(vectors) : 0; left > 0; x += block, y += block) {
        const uint32_t here = left < distance ? left : distance;
        for (uint32_t v = 0; v < here; v += kSideBySide) {
            const uint32_t count = here - v < kSideBySide ? here - v : kSideBySide;
            NormaliseVectors(x + v, y + v, count, axisLen, distance, power);
        }
        left -= here;
    }
}

}  // namespace

uint32_t LpNormOpkitForward(LayerParam* param)
{
    InputCursor cursor = {param};
    Input x;
    if (!NextInputOrReport(&cursor, &x) || !CompactInput(x)) {
        return kFailure;
    }
    const Output y = OutputOf(param, 0);
    const LpNormAttr& attr = AttrOf<LpNormAttr>(param);
    const int32_t axis = attr.axis < 0 ? attr.axis + x.dimNum : attr.axis;
    const uint32_t axisLen = x.shape[axis];
    const int32_t vectors = static_cast<int32_t>(x.count) / static_cast<int32_t>(axisLen);
    const uint32_t distance = ShapeCount(x.shape, x.dimNum, axis + 1, x.dimNum);
    if (distance == 0) {
        Report(Here(), "Illegal value, distant is 0\n");
        return kFailure;
    }
    if (vectors > 0) {
        std::memset(y.data, 0, static_cast<uint32_t>(vectors) * sizeof(float));
    }
    if (attr.p == 1) {
        Normalise(x.data, y.data, vectors, axisLen, distance, FirstPower());
    } else if (attr.p == 2) {
        Normalise(x.data, y.data, vectors, axisLen, distance, SecondPower());
    } else {
        Normalise(x.data, y.data, vectors, axisLen, distance, AnyPower{static_cast<double>(attr.p)});
    }
    return ExpandOutputChecked(y);
}
