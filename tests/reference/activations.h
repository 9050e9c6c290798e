// Literal forms of the activations with parameters, of Round, Sqrt and Sinh.
#ifndef OPKIT_TESTS_REFERENCE_ACTIVATIONS_H
#define OPKIT_TESTS_REFERENCE_ACTIVATIONS_H

#include "tests/reference/binary_frame.h"

namespace opkit::reference {

inline float RefCeluElement(float x, float alpha)
{
    const float quotient = x / alpha;
    const float t = static_cast<float>((std::exp(static_cast<double>(quotient)) - 1.0) * static_cast<double>(alpha));
    const float p = x >= 0 ? x : 0;
    return t < 0 ? t + p : p + 0;
}

inline float RefSeluElement(float x, float alpha, float gamma)
{
    if (x > 0 || std::isnan(x)) {
        return x * gamma;
    }
    const float exponent = x - alpha;
    return static_cast<float>(std::exp(static_cast<double>(exponent)) * static_cast<double>(alpha) *
                              static_cast<double>(gamma));
}

inline float RefShrinkElement(float x, float bias, float lambd)
{
    if (x < -lambd) {
        return x + bias;
    }
    if (x > lambd) {
        return x - bias;
    }
    return 0.0f;
}

inline float RefHardSigmoidElement(float x, float alpha, float beta)
{
    const float product = x * alpha;
    const float t = product + beta;
    if (t > 1.0f) {
        return 1.0f;
    }
    return t < 0 ? 0.0f : t;
}

inline float RefOrSign(float y, float x)
{
    uint32_t bits = 0;
    uint32_t sign = 0;
    std::memcpy(&bits, &y, 4);
    std::memcpy(&sign, &x, 4);
    bits |= sign & 0x80000000u;
    std::memcpy(&y, &bits, 4);
    return y;
}

inline bool RefUnrounded(float x)
{
    return std::fabs(x) >= 8388608.0f || std::isnan(x);
}

inline float RefCeil(float x)
{
    if (RefUnrounded(x)) {
        return x;
    }
    const float t = static_cast<float>(static_cast<int32_t>(x));
    return RefOrSign(x > t ? t + 1.0f : t, x);
}

inline float RefFloor(float x)
{
    if (RefUnrounded(x)) {
        return x;
    }
    const float t = static_cast<float>(static_cast<int32_t>(x));
    return RefOrSign(t > x ? t - 1.0f : t, x);
}

inline int32_t RefIsEqualToHalf(float x)
{
    const float floor = std::fabs(x) < 8388608.0f ? RefFloor(x) : x;
    const float d = static_cast<float>(static_cast<double>(x) - static_cast<double>(floor));
    return std::fabs(static_cast<double>(std::fabs(d)) - 0.5) <= 1e-6 ? 1 : 0;
}

inline float RefRoundEven(float x)
{
    if (RefUnrounded(x)) {
        return x;
    }
    if (RefIsEqualToHalf(x) == 0) {
        return ::roundf(x);
    }
    int32_t n = static_cast<int32_t>(static_cast<double>(x) - 0.5);
    if (n % 2 != 0) {
        n += 1;
    }
    return static_cast<float>(n);
}

inline float RefRoundElement(uint32_t mode, float x)
{
    return mode == 0 ? RefCeil(x) : mode == 1 ? RefFloor(x) : RefRoundEven(x);
}

// Stepping; isSigned: how the messages show numbers.
template <class Check, class Element>
uint32_t RefStepping(LayerParam* param, const char* reporter, bool isSigned, Check check, Element element)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    if (in.dimNum < 1 || in.dimNum != out.dimNum) {
        RefReport(reporter, isSigned ? "Invalid dim:%d, %d\n\n" : "Invalid dim:%d, %u\n\n", in.dimNum, out.dimNum);
        return kAllOnes;
    }
    for (int32_t d = 0; d < in.dimNum; ++d) {
        if (in.shape[d] != out.shape[d]) {
            RefReport(reporter, isSigned ? "Invalid shape:%d, %d, %d\n\n" : "Invalid shape:%d, %u, %u\n\n", d,
                      out.shape[d], in.shape[d]);
            return kAllOnes;
        }
    }
    if (!check()) {
        return kAllOnes;
    }
    const uint32_t width = out.Width();
    for (uint32_t row = 0; row < out.count / width; ++row) {
        for (uint32_t i = 0; i < width; ++i) {
            const float y = element(in.data[row * in.AlignNum() + i]);
            RefMove(out.data + row * out.AlignNum() + i, &y);
        }
    }
    return 0;
}

inline uint32_t RefCelu(LayerParam* param)
{
    const float alpha = RefAttrAt<float>(param, 3928);
    const auto check = [alpha] {
        if (std::fpclassify(alpha) != FP_ZERO && std::fpclassify(alpha) != FP_SUBNORMAL) {
            return true;
        }
        RefReport("CeluOpkitForward", "alpha is zero! \n\n");
        return false;
    };
    return RefStepping(param, "CeluOpkitForward", true, check, [alpha](float x) { return RefCeluElement(x, alpha); });
}

inline uint32_t RefThresholdedRelu(LayerParam* param)
{
    const float alpha = RefAttrAt<float>(param, 3928);
    return RefStepping(
        param, "ThresholdedReluOpkitForward", false, [] { return true; },
        [alpha](float x) { return x > alpha ? x : 0.0f; });
}

// Expanding.
template <class Element>
uint32_t RefExpanding(LayerParam* param, const char* reporter, Element element)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(reporter, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    for (uint32_t i = 0; i < in.count; ++i) {
        const float y = element(RefAt(in, i));
        RefMove(out.data + i, &y);
    }
    return RefExpandChecked(reporter, out);
}

inline uint32_t RefSelu(LayerParam* param)
{
    return RefExpanding(param, "SeluOpkitForward", [param](float x) {
        return RefSeluElement(x, RefAttrAt<float>(param, 3928), RefAttrAt<float>(param, 3932));
    });
}

inline uint32_t RefShrink(LayerParam* param)
{
    return RefExpanding(param, "ShrinkOpkitForward", [param](float x) {
        return RefShrinkElement(x, RefAttrAt<float>(param, 3928), RefAttrAt<float>(param, 3932));
    });
}

inline uint32_t RefHardSigmoid(LayerParam* param)
{
    return RefExpanding(param, "HardSigmoidOpkitForward", [param](float x) {
        return RefHardSigmoidElement(x, RefAttrAt<float>(param, 3928), RefAttrAt<float>(param, 3932));
    });
}

inline uint32_t RefRound(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport("RoundOpkitForward", "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    if (in.count != out.count || in.dimNum != out.dimNum) {
        return kAllOnes;
    }
    const uint32_t mode = RefAttrAt<uint32_t>(param, 3928);
    if (mode > 2) {
        return RefExpandChecked("RoundOpkitForward", out);
    }
    return RefExpanding(param, "RoundOpkitForward", [mode](float x) { return RefRoundElement(mode, x); });
}

inline uint32_t RefSqrt(LayerParam* param)
{
    RefOperands operands;
    if (!RefOperandsOf(param, 1, "SqrtOpkitForward", true, operands)) {
        return kAllOnes;
    }
    RefStrideRecords(param, 1, 3928, 7448, operands);
    for (uint32_t i = 0; i < operands.out.count; ++i) {
        operands.out.data[i] = ::sqrtf(RefOperand(operands, 0, i, false));
    }
    return RefExpandChecked("SqrtOpkitForward", operands.out);
}

inline uint32_t RefSinh(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    RefResolve(param, cursor, in);
    if (in.AlignNum() != in.Width()) {
        for (uint32_t i = 0; i < in.count; ++i) {
            RefMove(in.data + i, &RefAt(in, i));
        }
    }
    const RefTensor out = RefOutput(param, 0);
    for (uint32_t i = 0; i < in.count; ++i) {
        out.data[i] = static_cast<float>(std::sinh(static_cast<double>(in.data[i])));
    }
    const uint32_t w = out.Width();
    const uint32_t s = out.AlignNum();
    uint32_t to = out.count == 0 ? 0 : (out.count / w) * s + w - s - 1;
    uint32_t column = 0;
    for (uint32_t from = out.count; from > 0; --from) {
        RefMove(out.data + to, out.data + from - 1);
        to -= 1;
        if (++column == w) {
            to -= s - w;
            column = 0;
        }
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_ACTIVATIONS_H
