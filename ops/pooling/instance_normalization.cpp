// InstanceNormalization: every plane to its own mean and variance, then scaled and shifted per channel, in the form
// x * a + (bias - mean * a). The work space must hold one plane.
// Rows: compacting.
//
// The biased variance takes two passes over the plane, and all sums run in f32 in index order. epsilon is a whole
// number. Only the last four dimensions count.

#include <cmath>

#include "common/bounded_memory.h"
#include "kernels/normalization.h"
#include "kernels/reduction.h"
#include "opkit/attributes/pooling.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

struct Planes {
    uint32_t count = 1;
    uint32_t size = 1;
    uint32_t channels = 1;
};

Planes PlanesOf(const Input& x)
{
    const uint32_t* const end = x.shape + x.dimNum;
    if (x.dimNum >= 4) {
        return {end[-4] * end[-3], end[-2] * end[-1], end[-3]};
    }
    if (x.dimNum == 3) {
        return {x.shape[0] * x.shape[1], x.shape[2], x.shape[1]};
    }
    return {1, x.count, 1};
}

}  // namespace

uint32_t InstanceNormalizationOpkitForward(LayerParam* param)
{
    Input x;
    Input scale;
    Input bias;
    if (!ResolveThenCompact(param, {&x, &scale, &bias})) {
        return kFailure;
    }
    const Output y = OutputOf(param, 0);
    const float epsilon = static_cast<float>(AttrOf<InstanceNormalizationAttr>(param).epsilon);
    const Planes planes = PlanesOf(x);
    const float size = static_cast<float>(planes.size);
    const uint64_t planeBytes = uint64_t{planes.size} * sizeof(float);
    float* const copy = static_cast<float*>(param->opkitBuf);

    // Sums of several planes run side by side; one after the other where the results reach planes still to be read.
    const size_t elements = size_t{planes.count} * planes.size;
    constexpr uint32_t kSideBySide = 16;
    const uint32_t group = RangesOverlap(x.data, elements, y.data, elements) ? 1 : kSideBySide;
    uint32_t channel = 0;
    for (uint32_t first = 0, here; first < planes.count; first += here) {
        here = planes.count - first < group ? planes.count - first : group;
        const float* const from = x.data + size_t{first} * planes.size;
        int32_t error = memcpy_s(copy, param->opkitBufSize, from, planeBytes);
        if (error != 0) {
            Report(Here(), "memcpy failed, errnum = %d\n", error);
            return kFailure;
        }
        float means[kSideBySide] = {};
        float squares[kSideBySide] = {};
        Kernels<ReductionKernels>().sum.rows(means, from, here, planes.size, planes.size);
        for (uint32_t i = 0; i < here; ++i) {
            means[i] = means[i] / size;
        }
        Kernels<NormalizationKernels>().squaredDistances(squares, means, from, here, planes.size, planes.size);
        for (uint32_t i = 0; i < here; ++i, channel = channel + 1 == planes.channels ? 0 : channel + 1) {
            const float variance = squares[i] / size + epsilon;
            const float inverse = static_cast<float>(1.0 / std::sqrt(static_cast<double>(variance)));
            const float a = inverse * scale.data[channel];
            const float shift = bias.data[channel] - means[i] * a;

            const size_t offset = size_t{first + i} * planes.size;
            const int64_t room = int64_t{y.size} - static_cast<int64_t>(offset * sizeof(float));
            error = memcpy_s(y.data + offset, room, x.data + offset, planeBytes);
            if (error != 0) {
                Report(Here(), "memcpy failed, errnum = %d\n", error);
                return kFailure;
            }
            Kernels<NormalizationKernels>().scaleAndShift(y.data + offset, y.data + offset, planes.size, a, shift);
        }
    }
    return ExpandOutput(y);
}
