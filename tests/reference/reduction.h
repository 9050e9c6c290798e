// Literal form of Reduction.
#ifndef OPKIT_TESTS_REFERENCE_REDUCTION_H
#define OPKIT_TESTS_REFERENCE_REDUCTION_H

#include <vector>

#include "opkit/attributes/selection.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefReductionFind(const uint32_t* axes, uint32_t axis, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        if (axes[i] == axis) {
            return 1;
        }
    }
    return 0;
}

inline uint32_t RefRealIdx(uint32_t idx, uint32_t align, uint32_t width)
{
    if (align == 0 || width == 0) {
        RefReport("GetReductionRealIdx", "Illegal value, align = %u, width = %u\n", align, width);
        return 0;
    }
    return ((width + align - 1) / align) * ((idx / width) * align) + idx % width;
}

inline uint32_t RefReduction(LayerParam* param)
{
    const auto& attr = *static_cast<const ReductionAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    RefResolve(param, cursor, in);
    const RefTensor out = RefOutput(param, 0);
    const auto dimNum = static_cast<uint32_t>(in.dimNum);
    const uint32_t inWidth = dimNum == 0 ? 0 : in.Width();
    const uint32_t outWidth = out.dimNum == 0 ? 0 : out.Width();
    std::vector<uint32_t> inDistant(dimNum);
    std::vector<uint32_t> outDistant(dimNum);
    if (attr.reduceAll == 0) {
        uint32_t a = 1;
        uint32_t b = 1;
        for (uint32_t k = dimNum; k-- > 0;) {
            inDistant[k] = a;
            outDistant[k] = b;
            a *= in.shape[k];
            if (RefReductionFind(attr.axes, k, static_cast<int32_t>(dimNum)) == 0) {
                b *= in.shape[k];
            }
        }
    }
    const uint32_t inLen = in.count;
    const uint32_t outLen = out.count;
    if (outLen == 0) {
        RefReport("ReductionOpkitForward", "Illegal value, outLen is 0\n");
        return kAllOnes;
    }
    const uint32_t type = attr.reductionType;
    const auto bits = [](uint32_t word) {
        float value = 0;
        std::memcpy(&value, &word, 4);
        return value;
    };
    const float initial = type == 7 ? bits(0xFF7FFFFF) : type == 8 ? bits(0x7F7FFFFF) : type == 9 ? 1.0f : 0.0f;
    for (uint32_t i = 0; i < outLen; ++i) {
        out.data[RefRealIdx(i, out.AlignNum(), outWidth)] = initial;
    }
    for (uint32_t i = 0; i < inLen; ++i) {
        uint32_t o = 0;
        if (attr.reduceAll == 0 && dimNum != 0) {
            uint32_t rem = i;
            for (uint32_t k = 0; k < dimNum; ++k) {
                if (RefReductionFind(attr.axes, k, static_cast<int32_t>(attr.axesNum)) == 0) {
                    o += (rem / inDistant[k]) * outDistant[k];
                }
                rem = rem % inDistant[k];
            }
        }
        const float x = in.data[RefRealIdx(i, in.AlignNum(), inWidth)];
        float& acc = out.data[RefRealIdx(o, out.AlignNum(), outWidth)];
        switch (type) {
            case 0:
            case 3:
            case 5:
                acc = acc + x;
                break;
            case 1:
                acc = acc + std::fabs(x);
                break;
            case 2:
            case 4: {
                const float square = x * x;
                acc = acc + square;
                break;
            }
            case 6:
                acc = static_cast<float>(std::exp(static_cast<double>(x)) + static_cast<double>(acc));
                break;
            case 7:
                if (x > acc) {
                    acc = x;
                }
                break;
            case 8:
                if (x < acc) {
                    acc = x;
                }
                break;
            case 9:
                acc = acc * x;
                break;
            default:
                break;
        }
    }
    for (uint32_t i = 0; type >= 3 && type <= 6 && i < outLen; ++i) {
        float& acc = out.data[RefRealIdx(i, out.AlignNum(), outWidth)];
        if (type == 3) {
            acc = acc / static_cast<float>(inLen / outLen);
        } else if (type == 4) {
            acc = std::sqrt(acc);
        } else {
            acc = static_cast<float>(std::log(static_cast<double>(acc)));
        }
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_REDUCTION_H
