// The sixteen unary operators: one input, one output, no attributes.
// Rows: in place, but compacting for Acosh.
//
// Precision differs on purpose: acosh, and the formulas of Sigmoid, Softplus and Softsign, run in f64.

#include <cmath>

#include "kernels/exponential_elements.h"
#include "kernels/exponentials.h"
#include "kernels/unary.h"
#include "kernels/unary_elements.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

bool ResolveWith(InputResolver resolver, LayerParam* param, Input* in)
{
    uint32_t online = 0;
    uint32_t offline = 0;
    const bool resolved =
        resolver(&in->data, &in->shape, &in->dimNum, &in->stride, &in->count, 0, &online, &offline, param);
    in->alignNum = in->stride >> 2;
    in->width = LastDimension(in->shape, in->dimNum);
    return resolved;
}

// The row walk of the loop wrapper. Each side is addressed by its own width and pitch.
template <class Run>
uint32_t WalkUnary(InputResolver resolver, LayerParam* param, Run run)
{
    Input in;
    if (!ResolveWith(resolver, param, &in)) {
        return kFailure;
    }
    if (static_cast<int32_t>(in.count) <= 0) {
        return kSuccess;
    }
    const Output out = OutputOf(param, 0);
    ForEachRowRun(in.count, in.width, in.Pitch(), out.width, out.Pitch(), [&](size_t from, size_t to, uint32_t length) {
        RunInOrder(in.data + from, out.data + to, length, run);
    });
    return kSuccess;
}

template <float (*Element)(float)>
uint32_t MapUnary(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, [](const float* in, float* out, uint32_t length) {
        for (uint32_t i = 0; i < length; ++i) {
            out[i] = Element(in[i]);
        }
    });
}

}  // namespace

uint32_t SingleInOutCalcfuncWrapper(CalcFunc calc, InputResolver resolver, LayerParam* param)
{
    Input in;
    ResolveWith(resolver, param, &in);  // what it answers does not count
    if (!CompactInput(in)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    calc(in.data, out.data, param->opkitBuf, in.count);
    return ExpandOutputChecked(out);
}

uint32_t SingleInOutCalcfuncWithLoopWrapper(ElementFunc element, InputResolver resolver, LayerParam* param)
{
    return WalkUnary(resolver, param, [element](const float* in, float* out, uint32_t length) {
        for (uint32_t i = 0; i < length; ++i) {
            out[i] = element(in[i]);
        }
    });
}

void AcoshCalcFunc(float* src, float* dst, void* /*opkitBuf*/, uint32_t count)
{
    RunInOrder(src, dst, count, Kernels<ExponentialKernels>().acosh);
}

float NegCalcFunc(float x)
{
    return NegElement(x);
}

float ReciprocalCalcFunc(float x)
{
    return ReciprocalElement(x);
}

float SigmoidCalcFunc(float x)
{
    return SigmoidElement(x);
}

float SignCalcFunc(float x)
{
    return SignElement(x);
}

float SoftplusCalcFunc(float x)
{
    return SoftplusElement(x);
}

float SoftsignCalcFunc(float x)
{
    return SoftsignElement(x);
}

uint32_t AcosOpkitForward(LayerParam* param)
{
    return MapUnary<acosf>(param);
}

uint32_t AcoshOpkitForward(LayerParam* param)
{
    return SingleInOutCalcfuncWrapper(AcoshCalcFunc, ParseInputInfo, param) != kSuccess ? kFailure : kSuccess;
}

uint32_t AsinOpkitForward(LayerParam* param)
{
    return MapUnary<asinf>(param);
}

uint32_t AsinhOpkitForward(LayerParam* param)
{
    return MapUnary<asinhf>(param);
}

uint32_t AtanOpkitForward(LayerParam* param)
{
    return MapUnary<atanf>(param);
}

uint32_t AtanhOpkitForward(LayerParam* param)
{
    return MapUnary<atanhf>(param);
}

uint32_t CosOpkitForward(LayerParam* param)
{
    return MapUnary<cosf>(param);
}

uint32_t CoshOpkitForward(LayerParam* param)
{
    return MapUnary<coshf>(param);
}

uint32_t NegOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<UnaryKernels>().neg);
}

uint32_t ReciprocalOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<UnaryKernels>().reciprocal);
}

uint32_t SigmoidOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<ExponentialKernels>().sigmoid);
}

uint32_t SignOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<UnaryKernels>().sign);
}

uint32_t SinOpkitForward(LayerParam* param)
{
    return MapUnary<sinf>(param);
}

uint32_t SoftplusOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<ExponentialKernels>().softplus);
}

uint32_t SoftsignOpkitForward(LayerParam* param)
{
    return WalkUnary(ParseInputInfo, param, Kernels<UnaryKernels>().softsign);
}

uint32_t TanOpkitForward(LayerParam* param)
{
    return MapUnary<tanf>(param);
}
