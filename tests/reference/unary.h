// Literal forms of the sixteen unary operators.
#ifndef OPKIT_TESTS_REFERENCE_UNARY_H
#define OPKIT_TESTS_REFERENCE_UNARY_H

#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline float RefNeg(float x)
{
    uint32_t bits = 0;
    std::memcpy(&bits, &x, 4);
    bits ^= 0x80000000u;
    std::memcpy(&x, &bits, 4);
    return x;
}

inline float RefReciprocal(float x)
{
    if (std::fabs(x) <= 1.1920929e-7f) {
        return x < 0.0f ? -8388608.0f : 8388608.0f;
    }
    return 1.0f / x;
}

inline float RefSigmoid(float x)
{
    const float negated = -x;
    return static_cast<float>(1.0 / (std::exp(static_cast<double>(negated)) + 1.0));
}

inline float RefSign(float x)
{
    if (x > 0.0f) {
        return 1.0f;
    }
    if (x < 0.0f) {
        return -1.0f;
    }
    return 0.0f;
}

inline float RefSoftplus(float x)
{
    return static_cast<float>(std::log(std::exp(static_cast<double>(x)) + 1.0));
}

inline float RefSoftsign(float x)
{
    return static_cast<float>(static_cast<double>(x) / (static_cast<double>(std::fabs(x)) + 1.0));
}

template <float (*Element)(float)>
uint32_t RefUnary(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    for (int32_t i = 0; i < static_cast<int32_t>(in.count); ++i) {
        const float y = Element(RefAt(in, static_cast<uint32_t>(i)));
        RefMove(&RefAt(out, static_cast<uint32_t>(i)), &y);
    }
    return 0;
}

inline uint32_t RefAcosh(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in;
    RefResolve(param, cursor, in);
    if (!RefCompact("SingleInOutCalcfuncWrapper", in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    for (uint32_t i = 0; i < in.count; ++i) {
        out.data[i] = static_cast<float>(std::acosh(static_cast<double>(in.data[i])));
    }
    return RefExpandChecked("SingleInOutCalcfuncWrapper", out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_UNARY_H
