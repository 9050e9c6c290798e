// Literal form of InstanceNormalization.
#ifndef OPKIT_TESTS_REFERENCE_INSTANCE_NORMALIZATION_H
#define OPKIT_TESTS_REFERENCE_INSTANCE_NORMALIZATION_H

#include <vector>

#include "opkit/attributes/pooling.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

// The bounded copy between buffers that do not overlap.
inline int32_t RefBoundedCopy(void* to, int64_t room, const void* from, uint64_t bytes)
{
    if (room <= 0) {
        return 34;
    }
    if (to == nullptr) {
        return 22;
    }
    if (from == nullptr || bytes > static_cast<uint64_t>(room)) {
        std::memset(to, 0, static_cast<size_t>(room));
        return from == nullptr ? 150 : 162;
    }
    if (to != from && bytes != 0) {
        std::memcpy(to, from, bytes);
    }
    return 0;
}

inline uint32_t RefInstanceNormalization(LayerParam* param)
{
    const char* const name = "InstanceNormalizationOpkitForward";
    RefCursor cursor;
    RefTensor x, scale, bias;
    if (!RefResolve(param, cursor, x) || !RefResolve(param, cursor, scale) || !RefResolve(param, cursor, bias)) {
        return kAllOnes;
    }
    const RefTensor y = RefOutput(param, 0);
    if (!RefCompact(name, x) || !RefCompact(name, scale) || !RefCompact(name, bias)) {
        return kAllOnes;
    }
    uint32_t instances = 1, plane = 1, channels = 1;
    const int32_t last = x.dimNum - 1;
    if (x.dimNum >= 4) {
        instances = x.shape[last - 3] * x.shape[last - 2];
        plane = x.shape[last - 1] * x.shape[last];
        channels = x.shape[last - 2];
    } else if (x.dimNum == 3) {
        instances = x.shape[0] * x.shape[1];
        plane = x.shape[2];
        channels = x.shape[1];
    } else if (x.dimNum == 2) {
        plane = x.shape[0] * x.shape[1];
    } else if (x.dimNum == 1) {
        plane = x.shape[0];
    }
    const int32_t epsilon = static_cast<InstanceNormalizationAttr*>(param->attr)->epsilon;
    auto* const copy = static_cast<float*>(param->opkitBuf);
    for (uint32_t i = 0; i < instances; ++i) {
        const uint32_t offset = i * plane;
        int32_t error = RefBoundedCopy(copy, param->opkitBufSize, x.data + offset, plane * 4);
        if (error != 0) {
            RefReport(name, "memcpy failed, errnum = %d\n", error);
            return kAllOnes;
        }
        float sum = 0.0f;
        for (uint32_t k = 0; k < plane; ++k) {
            sum += copy[k];
        }
        const float mean = sum / static_cast<float>(plane);
        for (uint32_t k = 0; k < plane; ++k) {
            copy[k] -= mean;
        }
        for (uint32_t k = 0; k < plane; ++k) {
            copy[k] *= copy[k];
        }
        float squares = 0.0f;
        for (uint32_t k = 0; k < plane; ++k) {
            squares += copy[k];
        }
        const float variance = squares / static_cast<float>(plane);
        const float v = variance + static_cast<float>(epsilon);
        const auto inv = static_cast<float>(1.0 / sqrt(static_cast<double>(v)));
        const uint32_t c = i % channels;
        const float a = inv * scale.data[c];
        const float product = mean * a;
        const float shift = bias.data[c] - product;
        error = RefBoundedCopy(y.data + offset, static_cast<int64_t>(y.size) - static_cast<int64_t>(offset) * 4,
                               x.data + offset, plane * 4);
        if (error != 0) {
            RefReport(name, "memcpy failed, errnum = %d\n", error);
            return kAllOnes;
        }
        for (uint32_t k = 0; k < plane; ++k) {
            y.data[offset + k] *= a;
        }
        for (uint32_t k = 0; k < plane; ++k) {
            y.data[offset + k] += shift;
        }
    }
    return RefExpand(name, y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_INSTANCE_NORMALIZATION_H
