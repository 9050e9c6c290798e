// Element loops of the quantised products; see kernels/level.h for the levels.

#include "kernels/quantized.h"

#include "kernels/contract.h"
#include "kernels/round_elements.h"

namespace opkit::OPKIT_LEVEL {
namespace {

void Correct(float* c, size_t count, const float* columnTerms, float rowTerm, float scale, float zero)
{
    assert(Present(c, count) && Present(columnTerms, count) && Apart(c, count, columnTerms, count));
    for (size_t j = 0; j < count; ++j) {
        c[j] = (c[j] - (columnTerms[j] + rowTerm)) * scale - zero;
    }
}

void Dequantize(float* data, size_t count, float scale, float zero)
{
    assert(Present(data, count));
    for (size_t i = 0; i < count; ++i) {
        data[i] = (data[i] - zero) * scale;
    }
}

// The sum is defined in f64 and narrowed; two floats add to the same float either way.
void Quantize(float* data, size_t count, float scale, float zero)
{
    assert(Present(data, count));
    for (size_t i = 0; i < count; ++i) {
        data[i] = RoundHalfAwayElement(data[i] / scale) + zero;
    }
}

}  // namespace

extern const QuantizedKernels kQuantizedKernels = {Correct, Dequantize, Quantize};

}  // namespace opkit::OPKIT_LEVEL
