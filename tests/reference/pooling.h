// Literal forms of the three poolings, one output element after the other.
#ifndef OPKIT_TESTS_REFERENCE_POOLING_H
#define OPKIT_TESTS_REFERENCE_POOLING_H

#include <algorithm>
#include <bit>

#include "opkit/attributes/pooling.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

// Dimension `place` from the end, 1 when the shape is shorter.
inline uint32_t RefDimFromEnd(const RefTensor& tensor, int32_t place)
{
    return tensor.dimNum < place ? 1 : tensor.shape[tensor.dimNum - place];
}

struct RefWindow {
    int32_t hstart, wstart;     // raw
    uint32_t hrawEnd, wrawEnd;  // compared unsigned
    int32_t hfirst, wfirst;     // clipped starts

    template <class Attr>
    RefWindow(const Attr& attr, uint32_t oh, uint32_t ow)
    {
        hstart = static_cast<int32_t>(0u - attr.padTop + oh * attr.strideH);
        wstart = static_cast<int32_t>(0u - attr.padLeft + ow * attr.strideW);
        hrawEnd = static_cast<uint32_t>(hstart) + attr.kernelH;
        wrawEnd = static_cast<uint32_t>(wstart) + attr.kernelW;
        hfirst = std::max(hstart, 0);
        wfirst = std::max(wstart, 0);
    }
};

inline int32_t RefPoolingAveCore(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport("PoolingAveOpkitForwardCore", "ParseInputInfo failed.\n\n");
        return -1;
    }
    const auto& attr = *static_cast<PoolingAveAttr*>(param->attr);
    const RefTensor out = RefOutput(param, 0);
    const uint32_t images = RefDimFromEnd(in, 4), channels = RefDimFromEnd(in, 3);
    const uint32_t inH = RefDimFromEnd(in, 2), inW = RefDimFromEnd(in, 1);
    const uint32_t outH = RefDimFromEnd(out, 2), outW = RefDimFromEnd(out, 1);
    for (uint32_t n = 0; n < images; ++n) {
        for (uint32_t c = 0; c < channels; ++c) {
            const uint32_t plane = n * channels + c;
            for (uint32_t oh = 0; oh < outH; ++oh) {
                for (uint32_t ow = 0; ow < outW; ++ow) {
                    const RefWindow w(attr, oh, ow);
                    const uint32_t hend = std::min(w.hrawEnd, inH + attr.padBottom);
                    const uint32_t wend = std::min(w.wrawEnd, inW + attr.padRight);
                    const uint32_t poolArea =
                        (hend - static_cast<uint32_t>(w.hstart)) * (wend - static_cast<uint32_t>(w.wstart));
                    float& element = RefAt(out, plane * (outH * outW) + oh * outW + ow);
                    element = 0.0f;
                    const auto hlast = static_cast<int32_t>(std::min(hend, inH));
                    const auto wlast = static_cast<int32_t>(std::min(wend, inW));
                    uint32_t count = 0;
                    for (int32_t h = w.hfirst; h < hlast; ++h) {
                        for (int32_t x = w.wfirst; x < wlast; ++x) {
                            element += RefAt(
                                in, plane * (inH * inW) + static_cast<uint32_t>(h) * inW + static_cast<uint32_t>(x));
                            ++count;
                        }
                    }
                    if (attr.countIncludePad == 0) {
                        if (count == 0) {
                            RefReport("PoolingAveOpkitForwardCore", "PoolAve Layer: divisor is zero.\n\n");
                            return -1;
                        }
                        element = element / static_cast<float>(count);
                    } else {
                        const auto padded = static_cast<float>(static_cast<int32_t>(poolArea - count));
                        const float pads = padded * attr.padValue;
                        element = (pads + element) / static_cast<float>(static_cast<int32_t>(poolArea));
                    }
                }
            }
        }
    }
    return 0;
}

inline uint32_t RefPoolingAve(LayerParam* param)
{
    RefPoolingAveCore(param);
    return 0;
}

inline uint32_t RefPoolingMaxCore(LayerParam* param)
{
    const RefTensor out = RefOutput(param, 0);
    const uint32_t outH = RefDimFromEnd(out, 2), outW = RefDimFromEnd(out, 1);
    if (outW == 0) {
        return 0;
    }
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport("PoolingMaxOpkitForwardCore", "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const auto& attr = *static_cast<PoolingMaxAttr*>(param->attr);
    const uint32_t images = RefDimFromEnd(in, 4), channels = RefDimFromEnd(in, 3);
    const uint32_t inH = RefDimFromEnd(in, 2), inW = RefDimFromEnd(in, 1);
    const uint32_t fill = ((images * channels * outH * outW) / outW) * out.AlignNum();
    for (uint32_t i = 0; i < fill; ++i) {
        out.data[i] = std::bit_cast<float>(0xFF7FFFFFu);
    }
    if (images == 0 || channels == 0) {
        return 0;
    }
    uint32_t running = 0;
    for (uint32_t plane = 0; plane < images * channels; ++plane) {
        for (uint32_t oh = 0; oh < outH; ++oh) {
            for (uint32_t ow = 0; ow < outW; ++ow, ++running) {
                const RefWindow w(attr, oh, ow);
                const auto hend = static_cast<int32_t>(std::min(w.hrawEnd, inH));
                const auto wend = static_cast<int32_t>(std::min(w.wrawEnd, inW));
                float* const element = &RefAt(out, plane * (outH * outW) + oh * outW + ow);
                for (int32_t h = w.hfirst; h < hend; ++h) {
                    for (int32_t x = w.wfirst; x < wend; ++x) {
                        const auto position = static_cast<uint32_t>(h) * inW + static_cast<uint32_t>(x);
                        const float* const value = &RefAt(in, plane * (inH * inW) + position);
                        if (*value > *element) {
                            RefMove(element, value);
                            if (param->outputNum >= 2) {
                                RefAt(RefOutput(param, 1), running) = static_cast<float>(position);
                            }
                        }
                    }
                }
                if ((w.hstart < 0 || w.wstart < 0) && attr.padValue > *element) {
                    RefMove(element, &attr.padValue);
                }
            }
        }
    }
    return 0;
}

inline uint32_t RefPoolingMax(LayerParam* param)
{
    RefPoolingMaxCore(param);
    return 0;
}

inline int32_t RefPoolingLpCore(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in) || !RefCompact("PoolingLpOpkitForwardCore", in)) {
        return -1;
    }
    const auto& attr = *static_cast<PoolingLpAttr*>(param->attr);
    const RefTensor out = RefOutput(param, 0);
    const uint32_t images = RefDimFromEnd(in, 4), channels = RefDimFromEnd(in, 3);
    const uint32_t inH = RefDimFromEnd(in, 2), inW = RefDimFromEnd(in, 1);
    const uint32_t outH = RefDimFromEnd(out, 2), outW = RefDimFromEnd(out, 1);
    if (images == 0 || channels == 0) {
        return 0;
    }
    for (uint32_t plane = 0; plane < images * channels; ++plane) {
        for (uint32_t oh = 0; oh < outH; ++oh) {
            for (uint32_t ow = 0; ow < outW; ++ow) {
                const RefWindow w(attr, oh, ow);
                const auto hend = static_cast<int32_t>(std::min(w.hrawEnd, inH));
                const auto wend = static_cast<int32_t>(std::min(w.wrawEnd, inW));
                float& element = out.data[plane * (outH * outW) + oh * outW + ow];
                element = 0.0f;
                for (int32_t h = w.hfirst; h < hend; ++h) {
                    for (int32_t c = w.wfirst; c < wend; ++c) {
                        const double acc = element;
                        const double x =
                            in.data[plane * (inH * inW) + static_cast<uint32_t>(h) * inW + static_cast<uint32_t>(c)];
                        element = static_cast<float>(attr.normP == 1 ? acc + std::fabs(x) : x * x + acc);
                    }
                }
                if (attr.normP == 2) {
                    element = sqrtf(element);
                }
            }
        }
    }
    return 0;
}

inline uint32_t RefPoolingLp(LayerParam* param)
{
    if (RefPoolingLpCore(param) != 0) {
        return kAllOnes;
    }
    return RefExpand("PoolingLpOpkitForward", RefOutput(param, 0));
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_POOLING_H
