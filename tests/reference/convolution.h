// Literal form of Convolution.
#ifndef OPKIT_TESTS_REFERENCE_CONVOLUTION_H
#define OPKIT_TESTS_REFERENCE_CONVOLUTION_H

#include "opkit/attributes/matrix.h"
#include "tests/reference/matrix_core.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline float RefByte(float value)
{
    return static_cast<float>(static_cast<uint32_t>(RefToI32(value)) & 0xffu);
}

inline bool RefConvCompact(const char* name, const RefTensor& tensor)
{
    if (tensor.AlignNum() == tensor.Width()) {
        return true;
    }
    if (!RefDelAlign(tensor.data, static_cast<int32_t>(tensor.count), tensor.Width(), tensor.AlignNum())) {
        RefReport(name, "DelAlignSpace failed.\n");
        return false;
    }
    return true;
}

// Both forms: logical indices of W and of the single values, -1 where there is none.
struct RefConvForm {
    const char* name;
    uint32_t inputs;
    int w, xScale, xZero, wScale, wZero, yScale, yZero;
    bool bias;
};

inline int32_t RefConvForward(LayerParam* param, const RefConvForm& form)
{
    const auto* g = static_cast<const ConvolutionAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in[9];
    for (uint32_t k = 0; k < form.inputs; ++k) {
        if (!RefResolve(param, cursor, in[k])) {
            return -1;
        }
    }
    const RefTensor& x = in[0];
    const RefTensor& w = in[form.w];
    const RefTensor y = RefOutput(param, 0);
    const uint32_t plane = g->outHeight * g->outWidth;
    float* columns = static_cast<float*>(param->opkitBuf);
    float* ones = columns + plane * g->colChannels;
    for (uint32_t i = 0; i < plane && ones != nullptr; ++i) {  // the bounded fill refuses null
        reinterpret_cast<unsigned char*>(ones)[i] = 1;
    }
    if (!RefConvCompact(form.name, x)) {
        return -1;
    }
    if (!RefConvCompact(form.name, w)) {
        return -1;
    }
    const auto value = [&in](int k, float absent) { return k < 0 ? absent : in[k].data[0]; };
    const float xZero = value(form.xZero, 0.0f);
    const float wZero = value(form.wZero, 0.0f);
    const float xScale = value(form.xScale, 1.0f);
    const float wScale = value(form.wScale, 1.0f);
    const float yScale = value(form.yScale, 1.0f);
    const float yZero = value(form.yZero, 0.0f);
    for (uint32_t n = 0; n < x.shape[0]; ++n) {
        float* result = y.data + plane * g->outChannels * n;
        RefIm2col({x.data + g->channels * g->height * g->width * n, g->channels, g->height, g->width, g->kernelH,
                   g->kernelW, g->padTop, g->padBottom, g->padLeft, g->padRight, g->strideH, g->strideW, g->dilationH,
                   g->dilationW, RefToI32(xZero), columns});
        for (uint32_t group = 0; group < g->groupNum; ++group) {
            RefQGemm(w.data + static_cast<int32_t>(group * g->weightGroupOffset),
                     columns + static_cast<int32_t>(group * g->colGroupOffset),
                     result + static_cast<int32_t>(group * g->outGroupOffset), static_cast<int32_t>(g->gemmM),
                     static_cast<int32_t>(g->gemmN), static_cast<int32_t>(g->gemmK), RefByte(wScale), RefByte(wZero),
                     RefByte(xScale), RefByte(xZero), RefByte(yScale), RefByte(yZero));
        }
        if (form.bias) {
            for (uint32_t i = 0; i < g->gemmN; ++i) {
                const float scaled = yScale * w.data[i];
                w.data[i] = scaled - yZero;
            }
            RefProduct(w.data, ones, result, g->outChannels, g->gemmN, 1, 1.0f, 1.0f);
        }
    }
    const uint32_t width = y.Width();
    const uint32_t a = y.AlignNum();
    if (!RefInsertAlign(y.data, y.count, static_cast<int32_t>(width), a, (y.count / width) * a + width - a - 1)) {
        RefReport(form.name, "InsertAlignSpace failed.\n");
        return -1;
    }
    return 0;
}

inline uint32_t RefConvolution(LayerParam* param)
{
    const auto* g = static_cast<const ConvolutionAttr*>(param->attr);
    if (g->inputCount < 5) {
        RefConvForm form = {"ConvIntegerForward", 2, 1, -1, -1, -1, -1, -1, -1, false};
        if (g->inputCount > 2) {
            form.inputs += 1;
            form.xZero = 2;
        }
        if (g->inputCount > 3) {
            form.inputs += 1;
            form.wZero = 3;
        }
        if (RefConvForward(param, form) < 0) {
            RefReport("ConvolutionOpkitForward", "ConvIntegerForward calc failed.\n");
            return kAllOnes;
        }
        return 0;
    }
    RefConvForm form = {"QLinearConvForward", 8, 3, 1, 2, 4, 5, 6, 7, g->hasBias != 0};
    form.inputs += g->hasBias != 0 ? 1 : 0;
    if (RefConvForward(param, form) < 0) {
        RefReport("ConvolutionOpkitForward", "QLinearConvForward calc failed.\n");
        return kAllOnes;
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_CONVOLUTION_H
