// Element loops over broadcast operands; see kernels/level.h for the levels.

#include "kernels/binary.h"

#include "common/float_compare.h"
#include "kernels/choose.h"
#include "kernels/contract.h"
#include "kernels/map.h"

namespace opkit::OPKIT_LEVEL {
namespace {

float Add(float a, float b)
{
    return a + b;
}

float Subtract(float a, float b)
{
    return a - b;
}

// Only b is tested.
float Multiply(float a, float b)
{
    return Choose(NearZero(b), 0.0f, a * b);
}

float Divide(float a, float b)
{
    return Choose(NearZero(b), 0.0f, a / b);
}

// b with a NaN on either side, and of two zeros.
float Maximum(float a, float b)
{
    return Choose(a > b, a, b);
}

float Greater(float a, float b)
{
    return Choose(a > b, 1.0f, 0.0f);
}

float Equal(float a, float b)
{
    return Choose(NearlyEqual(a, b), 1.0f, 0.0f);
}

float Less(float a, float b)
{
    return Choose(a < b, 1.0f, 0.0f);
}

float NotEqual(float a, float b)
{
    return Choose(NearlyEqual(a, b), 0.0f, 1.0f);
}

float GreaterEqual(float a, float b)
{
    return Choose(a >= b, 1.0f, 0.0f);
}

float LessEqual(float a, float b)
{
    return Choose(a <= b, 1.0f, 0.0f);
}

// Truth values are combined without short circuits, which would be branches.
float And(float a, float b)
{
    return Choose((int{NearZero(a)} | int{NearZero(b)}) != 0, 0.0f, 1.0f);
}

float Or(float a, float b)
{
    return Choose((int{NearZero(a)} & int{NearZero(b)}) != 0, 0.0f, 1.0f);
}

float Xor(float a, float b)
{
    return Choose(NearZero(a) != NearZero(b), 1.0f, 0.0f);
}

template <size_t StepX, size_t StepY>
void SelectSteps(const float* condition, const float* x, const float* y, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = Choose(NearZero(condition[i]), y[i * StepY], x[i * StepX]);
    }
}

void Select(const float* condition, const float* x, size_t stepX, const float* y, size_t stepY, float* out,
            size_t count)
{
    assert(stepX <= 1 && stepY <= 1);
    assert(Present(condition, count) && Present(x, count) && Present(y, count) && Present(out, count));
    if (stepX != 0 && stepY != 0) {
        SelectSteps<1, 1>(condition, x, y, out, count);
    } else if (stepX != 0) {
        SelectSteps<1, 0>(condition, x, y, out, count);
    } else if (stepY != 0) {
        SelectSteps<0, 1>(condition, x, y, out, count);
    } else {
        SelectSteps<0, 0>(condition, x, y, out, count);
    }
}

}  // namespace

extern const BinaryKernels kBinaryKernels = {
    {MapBinary<Add>, MapBinary<Subtract>, MapBinary<Multiply>, MapBinary<Divide>, MapBinary<Maximum>},
    {MapBinary<Greater>, MapBinary<Equal>, MapBinary<Less>, MapBinary<NotEqual>, MapBinary<GreaterEqual>,
     MapBinary<LessEqual>},
    {MapBinary<And>, MapBinary<Or>, MapBinary<Xor>},
    Select,
};

}  // namespace opkit::OPKIT_LEVEL
