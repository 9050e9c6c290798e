// Literal form of Resize. Two places are this library's own choice: sizes from an input become scales, and a nearest
// element outside the input takes the extrapolation value.
#ifndef OPKIT_TESTS_REFERENCE_RESIZE_H
#define OPKIT_TESTS_REFERENCE_RESIZE_H

#include <algorithm>
#include <vector>

#include "opkit/attributes/movement.h"
#include "tests/reference/control.h"

namespace opkit::reference {

inline float RefCoordinate(uint32_t mode, uint32_t i, uint32_t in, uint32_t out, float s, float a, float b)
{
    const float x = static_cast<float>(i);
    const float inLast = static_cast<float>(in - 1);
    const float outLast = static_cast<float>(out - 1);
    if (mode == 1) {
        return static_cast<float>(out) > 1.0f ? (x + 0.5f) / s - 0.5f : 0.0f;
    }
    if (mode == 2) {
        return std::fabs(static_cast<double>(static_cast<float>(out) - 1.0f)) < 1e-6 ? 0.0f : (x * inLast) / outLast;
    }
    if (mode == 3) {
        return x / s;
    }
    if (mode == 4) {
        if (static_cast<float>(out) > 1.0f) {
            return ((x * (b - a)) * inLast) / outLast + inLast * a;
        }
        const float sum = a + b;
        return static_cast<float>((0.5 * static_cast<double>(sum)) * static_cast<double>(inLast));
    }
    if (mode == 5) {
        return (x + 0.5f) / s;
    }
    return (x + 0.5f) / s - 0.5f;
}

inline bool RefTiny(float x)
{
    return std::fabs(static_cast<double>(x)) < 1e-6;
}

// The low 32 bits of the 64-bit truncation.
inline uint32_t RefLow32(float x)
{
    if (!(std::fabs(x) < 9223372036854775808.0f)) {
        return 0;
    }
    return static_cast<uint32_t>(static_cast<int64_t>(x));
}

inline void RefResizeNearest(LayerParam* param, const float* scales, const float* roi)
{
    auto* attr = static_cast<ResizeAttr*>(param->attr);
    RefDesc in;
    if (!RefParse2(in, 0, param)) {
        return;
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t rank = in.desc.dimNum;
    std::vector<uint32_t> strides(static_cast<size_t>(rank), 1);
    for (int32_t k = rank - 2; k >= 0; --k) {
        strides[k] = strides[k + 1] * in.shape[k + 1];
    }
    const uint32_t outside = 0u - strides[0] * in.shape[0];
    std::vector<uint32_t> offsets[4];
    for (int32_t axis = 0; axis < 4; ++axis) {
        const uint32_t size = in.shape[axis];
        const float s = scales[axis];
        for (uint32_t i = 0; i < out.shape[axis]; ++i) {
            if (RefTiny(s - 1.0f)) {
                offsets[axis].push_back(i * strides[axis]);
                continue;
            }
            const float x =
                RefCoordinate(attr->coordinateMode, i, size, out.shape[axis], s, roi[axis], roi[rank + axis]);
            const bool flag = attr->extrapolate != 0 && (x < 0.0f || x > static_cast<float>(size - 1));
            float r = 0;
            if (attr->nearestMode == 1) {
                r = std::round(x);
            } else if (attr->nearestMode == 2) {
                r = std::floor(x);
            } else if (attr->nearestMode == 3) {
                r = std::ceil(x);
            } else if (attr->nearestMode == 4) {
                r = s < 1.0f ? std::ceil(x) : x;
            } else {
                const float t = static_cast<float>(RefLow32(x));
                r = RefTiny(0.5f + (x - t)) ? std::floor(x) : std::round(x);
            }
            if (r >= static_cast<float>(size)) {
                r = static_cast<float>(size - 1);
            } else {
                r = std::max(0.0f, r);
            }
            offsets[axis].push_back(flag ? outside : RefLow32(r) * strides[axis]);
        }
    }
    const uint32_t inW = in.shape[rank - 1];
    uint32_t f = 0;
    for (const uint32_t n : offsets[0]) {
        for (const uint32_t c : offsets[1]) {
            for (const uint32_t h : offsets[2]) {
                for (const uint32_t w : offsets[3]) {
                    if (n == outside || c == outside || h == outside || w == outside) {
                        RefMove(&RefAt(out, f), &attr->extrapolationValue);
                    } else {
                        RefMove(&RefAt(out, f), in.data + RefPadded(n + c + h + w, inW, in.desc.stride / 4));
                    }
                    f += 1;
                }
            }
        }
    }
}

struct RefLinearAxis {
    std::vector<float> source;
    std::vector<int64_t> low;
    std::vector<int64_t> high;
    std::vector<float> d1;
    std::vector<float> d2;
};

inline RefLinearAxis RefBuildLinear(uint32_t mode, uint32_t in, uint32_t out, float s, float a, float b)
{
    RefLinearAxis axis;
    for (uint32_t i = 0; i < out; ++i) {
        float x = RefTiny(s - 1.0f) ? static_cast<float>(i) : RefCoordinate(mode, i, in, out, s, a, b);
        axis.source.push_back(x);
        const float last = static_cast<float>(in - 1);
        if (!(x >= 0.0f)) {
            x = 0.0f;
        }
        if (x > last) {
            x = last;
        }
        const int64_t low = std::min<int64_t>(static_cast<int64_t>(x), int64_t{in} - 1);
        const int64_t high = std::min<int64_t>(low + 1, int64_t{in} - 1);
        float d1 = std::fabs(x - static_cast<float>(low));
        float d2 = std::fabs(x - static_cast<float>(high));
        if (low == high) {
            d1 = 0.5f;
            d2 = 0.5f;
        }
        axis.low.push_back(low);
        axis.high.push_back(high);
        axis.d1.push_back(d1);
        axis.d2.push_back(d2);
    }
    return axis;
}

inline void RefResizeLinear(LayerParam* param, const float* scales, const float* roi)
{
    auto* attr = static_cast<ResizeAttr*>(param->attr);
    RefDesc in;
    if (!RefParse2(in, 0, param)) {
        return;
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t rank = in.desc.dimNum;
    const uint32_t inH = in.shape[2];
    const uint32_t inW = in.shape[rank - 1];
    const uint32_t outH = out.shape[2];
    const uint32_t outW = out.Width();
    const RefLinearAxis ys =
        RefBuildLinear(attr->coordinateMode, inH, outH, scales[2], roi[rank - 2], roi[2 * rank - 2]);
    const RefLinearAxis xs =
        RefBuildLinear(attr->coordinateMode, inW, outW, scales[3], roi[rank - 1], roi[2 * rank - 1]);
    const int64_t pitchIn = RefPitch(inW, in.desc.stride / 4);
    const int64_t pitchOut = RefPitch(outW, out.AlignNum());
    for (int64_t n = 0; n < in.shape[0]; ++n) {
        for (int64_t c = 0; c < in.shape[1]; ++c) {
            const int64_t compactIn = (n * in.shape[1] + c) * inH * inW;
            const int64_t compactOut = (n * in.shape[1] + c) * outH * outW;
            const float* planeIn = in.data + (compactIn / inW) * pitchIn + compactIn % inW;
            float* planeOut = out.data + (compactOut / outW) * pitchOut + compactOut % outW;
            for (uint32_t y = 0; y < outH; ++y) {
                for (uint32_t x = 0; x < outW; ++x) {
                    if (attr->extrapolate != 0 && (ys.source[y] < 0.0f || ys.source[y] > static_cast<float>(inH - 1) ||
                                                   xs.source[x] < 0.0f || xs.source[x] > static_cast<float>(inW - 1))) {
                        RefMove(planeOut + int64_t{y} * outW + x, &attr->extrapolationValue);
                        continue;
                    }
                    const auto read = [&](int64_t row, int64_t column) {
                        const int64_t q = row * inW + column;
                        return planeIn[(q / inW) * pitchIn + q % inW];
                    };
                    const float x11 = read(ys.low[y], xs.low[x]);
                    const float x12 = read(ys.low[y], xs.high[x]);
                    const float x21 = read(ys.high[y], xs.low[x]);
                    const float x22 = read(ys.high[y], xs.high[x]);
                    const float dy1 = ys.d1[y];
                    const float dy2 = ys.d2[y];
                    const float dx1 = xs.d1[x];
                    const float dx2 = xs.d2[x];
                    planeOut[y * pitchOut + x] =
                        ((((dy2 * dx1) * x12) + ((dx2 * dy2) * x11)) + ((dx2 * dy1) * x21)) + ((dy1 * dx1) * x22);
                }
            }
        }
    }
}

inline uint32_t RefResize(LayerParam* param)
{
    auto* attr = static_cast<ResizeAttr*>(param->attr);
    RefDesc in;
    if (!RefParse2(in, 0, param)) {
        return kAllOnes;
    }
    const int32_t rank = in.desc.dimNum;
    std::vector<float> whole;
    const float* roi = nullptr;
    uint32_t scalesInput = 1;
    if (attr->hasRoi == 1 && attr->roiCount > 10) {
        RefDesc region;
        region.data = attr->roi;
        if (RefTiny(attr->roi[0]) && !RefParse2(region, 1, param)) {
            return kAllOnes;
        }
        roi = region.data;
        scalesInput = region.desc.isOffline != 0 ? 1 : 2;
    } else {
        if (rank == 0) {
            RefReport("ResizeOpkitForward", "Malloc failed!\n\n");
            return kAllOnes;
        }
        whole.assign(static_cast<size_t>(rank), 0.0f);
        whole.resize(static_cast<size_t>(2 * rank), 1.0f);
        roi = whole.data();
    }
    std::vector<float> fromSizes(static_cast<size_t>(rank));
    const float* scales = attr->scales;
    const bool sizes = attr->useSizes == 1 && attr->sizes[0] == -1;
    if (sizes || (attr->useSizes != 1 && RefTiny(1.0f + attr->scales[0]))) {
        RefDesc values;
        if (!RefParse2(values, scalesInput, param)) {
            return kAllOnes;
        }
        scales = values.data;
        if (sizes) {
            for (int32_t i = 0; i < rank; ++i) {
                fromSizes[static_cast<size_t>(i)] = values.data[i] / static_cast<float>(in.shape[i]);
            }
            scales = fromSizes.data();
        }
    }
    if (attr->resizeMode == 0) {
        RefResizeNearest(param, scales, roi);
    } else if (attr->resizeMode == 1) {
        RefResizeLinear(param, scales, roi);
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_RESIZE_H
