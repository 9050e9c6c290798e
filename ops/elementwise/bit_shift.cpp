// BitShift: shifts input 0, cut to an unsigned 64-bit number, by input 1 modulo 64, and rounds the result to f32.
// A negative operand is warned of, element by element, and computed like any other: -1.0 is 2^64 - 1.
// Rows: in place.

#include "common/convert.h"
#include "kernels/shift.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

namespace {

void WarnIfNegative(float a, float b, Caller caller = Here())
{
    if (a < 0.0f || b < 0.0f) {
        Report(caller, "bit_shift op input[%f, %f] is neg number.\n\n", static_cast<double>(a), static_cast<double>(b));
    }
}

uint32_t Distance(float b)
{
    return static_cast<uint32_t>(TruncateToU64(b) & 63);
}

float BitShiftLeft(float a, float b)
{
    WarnIfNegative(a, b);
    return static_cast<float>(TruncateToU64(a) << Distance(b));
}

float BitShiftRight(float a, float b)
{
    WarnIfNegative(a, b);
    return static_cast<float>(TruncateToU64(a) >> Distance(b));
}

// Every element is computed, also where both operands stand still: each has its warning. Blocks without a reason for
// one go through the kernel.
template <float (*Shift)(float, float)>
void ShiftRun(ShiftKernel kernel, const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count)
{
    for (size_t i = 0; i < count;) {
        i += kernel(a + i * stepA, stepA, b + i * stepB, stepB, out + i, count - i);
        const size_t end = count - i < kShiftBlock ? count : i + kShiftBlock;
        for (; i < end; ++i) {
            out[i] = Shift(a[i * stepA], b[i * stepB]);
        }
    }
}

void ShiftLeftRun(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count)
{
    ShiftRun<BitShiftLeft>(Kernels<ShiftKernels>().left, a, stepA, b, stepB, out, count);
}

void ShiftRightRun(const float* a, size_t stepA, const float* b, size_t stepB, float* out, size_t count)
{
    ShiftRun<BitShiftRight>(Kernels<ShiftKernels>().right, a, stepA, b, stepB, out, count);
}

}  // namespace

uint32_t BitShiftOpkitForward(LayerParam* param)
{
    Operands<2> operands;
    if (!Resolve(param, &operands, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    BitShiftAttr& attr = AttrOf<BitShiftAttr>(param);
    RecordStrides(attr, operands);
    MapRuns(operands, Rows::kInPlace, attr.shiftLeft != 0 ? ShiftLeftRun : ShiftRightRun);
    return kSuccess;
}
