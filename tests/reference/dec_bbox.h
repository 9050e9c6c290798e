// Literal form of DecBbox.
#ifndef OPKIT_TESTS_REFERENCE_DEC_BBOX_H
#define OPKIT_TESTS_REFERENCE_DEC_BBOX_H

#include "opkit/attributes/detection.h"
#include "opkit/helpers/detection.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline float RefClip(float v, float limit)
{
    float low = limit;
    if (v < limit) {
        low = v;
    }
    return low > 0.0f ? low : 0.0f;
}

// Every f64 result that is rounded to f32 passes through a volatile, so that the rounding takes place.
inline float RefRound(double value)
{
    volatile float rounded = static_cast<float>(value);
    return rounded;
}

inline void RefDecodeAxis(float lo, float hi, float d, float s, float& newLo, float& newHi)
{
    const float extent = hi - lo;
    const float size = extent + 1.0f;
    const float centre = RefRound(static_cast<double>(lo) + 0.5 * static_cast<double>(size));
    const float moved = size * d;
    const float newCentre = moved + centre;
    const float newSize = RefRound(static_cast<double>(size) * exp(static_cast<double>(s)));
    const double half = 0.5 * static_cast<double>(newSize);
    newLo = RefRound(static_cast<double>(newCentre) - half);
    newHi = RefRound(half + static_cast<double>(newCentre));
}

inline uint32_t RefInitRpn(const float* thresholds, const float* count, uint32_t merge, uint32_t classNum)
{
    g_nmsThresh = thresholds[0];
    g_lowScoreThresh = thresholds[1];
    g_maxHeight = thresholds[2];
    g_maxWidth = thresholds[3];
    if (merge != 0) {
        g_curBoxNum[0] = RefToU32(static_cast<float>(classNum) * count[0]);
        return 0;
    }
    if (static_cast<int32_t>(classNum) < 1 || static_cast<int32_t>(classNum) > 256) {
        RefReport("InitRpn", "classNum(%u) must be in [1, %d]\n\n", classNum, 256);
        return kAllOnes;
    }
    for (uint32_t c = 0; c < classNum; ++c) {
        g_curBoxNum[c] = RefToU32(count[0]);
    }
    return 0;
}

inline uint32_t RefCopyNextClassInfo(float* out, const float* scores, uint32_t classNum, uint32_t n, uint32_t merge,
                                     uint32_t hasClassId, const float* count)
{
    if (classNum < 3) {
        return 0;
    }
    const float p = count[0];
    const uint32_t t = RefToU32(p);
    const uint32_t fields = hasClassId != 0 ? 6 : 5;
    if (merge == 0) {
        for (uint32_t c = 2; c < classNum; ++c) {
            float* const block = out + c * fields * n;
            for (uint32_t k = 0; k < 4; ++k) {
                const int64_t bytes = RefToI64(p * 4.0f);
                if (bytes <= 0) {
                    return kAllOnes;
                }
                std::memcpy(block + k * n, out + fields * n + k * n, static_cast<size_t>(bytes));
            }
            for (uint32_t i = 0; p > static_cast<float>(i); ++i) {
                RefMove(block + 4 * n + i, scores + c + i * classNum);
            }
            for (uint32_t i = 0; hasClassId == 1 && p > static_cast<float>(i); ++i) {
                block[5 * n + i] = static_cast<float>(c);
            }
        }
        return 0;
    }
    for (uint32_t k = 0; k < 5; ++k) {
        for (uint32_t c = 2; c < classNum; ++c) {
            for (uint32_t i = 0; i < t; ++i) {
                RefMove(out + k * classNum * n + c * n + i, out + k * classNum * n + t + i);
            }
        }
    }
    for (uint32_t c = 2; c < classNum; ++c) {
        for (uint32_t i = 0; i < t; ++i) {
            RefMove(out + 4 * classNum * n + c * t + i, scores + c + i * classNum);
        }
        for (uint32_t i = 0; hasClassId == 1 && i < t; ++i) {
            out[5 * classNum * n + c * t + i] = static_cast<float>(c);
        }
    }
    return 0;
}

inline uint32_t RefDecBbox(LayerParam* param)
{
    const char* const name = "DecBboxOpkitForward";
    RefCursor cursor;
    RefTensor in[5];
    for (uint32_t k = 0; k < 5; ++k) {
        if (!RefResolve(param, cursor, in[k])) {
            RefReport(name, "ParseInputInfo failed.\n\n");
            return kAllOnes;
        }
        if (k >= 2 && !RefCompact(name, in[k])) {
            return kAllOnes;
        }
    }
    const uint32_t n = in[4].shape[3];
    in[0].count *= n;
    in[1].count *= n;
    if (!RefCompact(name, in[0]) || !RefCompact(name, in[1])) {
        return kAllOnes;
    }
    const auto& attr = *static_cast<DecBboxAttr*>(param->attr);
    const RefTensor out = RefOutput(param, 0);
    if (RefInitRpn(in[2].data, in[3].data, attr.mergeClasses, attr.classNum) != 0) {
        RefReport(name, "init rpn falied.\n\n");
        return kAllOnes;
    }
    if (out.data == nullptr) {
        RefReport(name, "init outputdata failed!\n");
        return kAllOnes;
    }
    std::memset(out.data, 0, out.size);
    const float p = in[3].data[0];
    const uint32_t fields = attr.hasClassId != 0 ? 6 : 5;
    const uint32_t r = attr.mergeClasses != 0 ? n * attr.classNum : n;
    const float* const props = in[4].data;
    for (uint32_t pass = 0; pass < 2; ++pass) {
        float* const block = out.data + (attr.mergeClasses != 0 ? RefToU32(p) * pass : pass * fields * r);
        for (uint32_t i = 0; p > static_cast<float>(i); ++i) {
            const float* const delta = in[0].data + 8 * i + 4 * pass;
            float x1 = 0, y1 = 0, x2 = 0, y2 = 0;
            RefDecodeAxis(props[i], props[2 * n + i], delta[0], delta[2], x1, x2);
            RefDecodeAxis(props[n + i], props[3 * n + i], delta[1], delta[3], y1, y2);
            if (attr.clipBox != 0) {
                const auto maxX = static_cast<float>(attr.imageWidth - 1);
                const auto maxY = static_cast<float>(attr.imageHeight - 1);
                x1 = RefClip(x1, maxX);
                x2 = RefClip(x2, maxX);
                y1 = RefClip(y1, maxY);
                y2 = RefClip(y2, maxY);
            }
            const float box[] = {x1, y1, x2, y2, in[1].data[i * attr.classNum + pass]};
            for (uint32_t k = 0; k < 5; ++k) {
                RefMove(block + k * r + i, box + k);
            }
            if (attr.hasClassId == 1) {
                block[5 * r + i] = static_cast<float>(pass);
            }
        }
    }
    if (attr.classNum > 2) {
        RefCopyNextClassInfo(out.data, in[1].data, attr.classNum, n, attr.mergeClasses, attr.hasClassId, in[3].data);
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_DEC_BBOX_H
