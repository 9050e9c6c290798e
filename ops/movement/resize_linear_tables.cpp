// The tables of linear resampling: source rows, columns and weights, once per axis.

#include <cstdlib>

#include "common/convert.h"
#include "ops/movement/resize_tables.h"

namespace opkit {
namespace {

static_assert(sizeof(BilinearParams) == 88, "a failing allocation names the size");

constexpr size_t kBytesPerPosition = 2 * sizeof(int64_t) + 2 * sizeof(float);

void* Allocate(size_t bytes, Caller caller = Here())
{
    void* const block = std::malloc(bytes);
    if (block == nullptr) {
        Report(caller, "Malloc %ld failed!\n\n", static_cast<long>(bytes));
    }
    return block;
}

// The tables of one axis; offsets are in units of `pitch`.
void BuildAxis(const ResizeAxis& axis, int64_t pitch, float* source, int64_t* low, int64_t* high, float* toLow,
               float* toHigh)
{
    const bool keep = axis.KeepsPosition();
    const float last = axis.Last();
    const int64_t lastIndex = int64_t{axis.in} - 1;
    for (uint32_t i = 0; i < axis.out; ++i) {
        const float unclamped = keep ? static_cast<float>(i) : SourceCoordinate(axis, i);
        const float x = unclamped > 0.0f ? (unclamped < last ? unclamped : last) : 0.0f;  // NaN goes to 0
        const int64_t truncated = TruncateToI64(x);
        const int64_t first = truncated < lastIndex ? truncated : lastIndex;
        const int64_t second = first < lastIndex ? first + 1 : lastIndex;
        source[i] = unclamped;
        low[i] = first * pitch;
        high[i] = second * pitch;
        toLow[i] = first == second ? 0.5f : __builtin_fabsf(x - static_cast<float>(first));
        toHigh[i] = first == second ? 0.5f : __builtin_fabsf(x - static_cast<float>(second));
    }
}

}  // namespace

BilinearParams* BuildBilinearParams(const ResizeAxis& y, const ResizeAxis& x, uint32_t pitchIn)
{
    BilinearParams* const params = static_cast<BilinearParams*>(Allocate(sizeof(BilinearParams)));
    if (params == nullptr) {
        return nullptr;
    }
    *params = {};
    params->sourceX = static_cast<float*>(Allocate(size_t{x.out} * sizeof(float)));
    if (params->sourceX != nullptr) {
        params->sourceY = static_cast<float*>(Allocate(size_t{y.out} * sizeof(float)));
    }
    if (params->sourceY != nullptr) {
        params->indexBlock = static_cast<uint8_t*>(Allocate((size_t{y.out} + x.out) * kBytesPerPosition));
    }
    if (params->indexBlock == nullptr) {
        FreeBilinearParams(params);
        return nullptr;
    }
    params->inY1 = reinterpret_cast<int64_t*>(params->indexBlock);
    params->inY2 = params->inY1 + y.out;
    params->inX1 = params->inY2 + y.out;
    params->inX2 = params->inX1 + x.out;
    params->dy1 = reinterpret_cast<float*>(params->inX2 + x.out);
    params->dy2 = params->dy1 + y.out;
    params->dx1 = params->dy2 + y.out;
    params->dx2 = params->dx1 + x.out;
    BuildAxis(y, pitchIn, params->sourceY, params->inY1, params->inY2, params->dy1, params->dy2);
    BuildAxis(x, 1, params->sourceX, params->inX1, params->inX2, params->dx1, params->dx2);
    return params;
}

void FreeBilinearParams(BilinearParams* params)
{
    std::free(params->sourceX);
    std::free(params->sourceY);
    std::free(params->indexBlock);
    std::free(params);
}

}  // namespace opkit
