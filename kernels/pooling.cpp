// Pooling windows; see kernels/level.h for the levels.
//
// Neighbouring windows are different result elements, so they run as vector lanes: element (row, column) of every
// window in a block, then the next element. Each window still sees its own elements in their order.

#include "kernels/pooling.h"

#include <string.h>

#include "common/convert.h"
#include "kernels/contract.h"
#include "kernels/fold_steps.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// In f64, narrowed by the caller's guard: see KeepRounding.
struct AddSquareInF64 {
    static float Step(float sum, float x)
    {
        const double wide = x;
        return static_cast<float>(wide * wide + static_cast<double>(sum));
    }
};

template <class Kind>
constexpr bool kWorksInF64 = false;
template <>
constexpr bool kWorksInF64<AddSquareInF64> = true;

// kCount windows whose accumulators stay in registers or the first cache.
template <class Kind, int kCount>
inline __attribute__((always_inline)) void Block(const PoolWindows& windows, const float* in, ptrdiff_t step,
                                                 float* accumulators)
{
    float values[kCount];
    memcpy(values, accumulators, sizeof(values));
    for (uint32_t row = 0; row < windows.rows; ++row) {
        const float* x = in + row * windows.pitch;
        for (uint32_t column = 0; column < windows.columns; ++column, ++x) {
            for (int i = 0; i < kCount; ++i) {
                values[i] = Kind::Step(values[i], x[i * step]);
            }
            if constexpr (kWorksInF64<Kind>) {
                KeepRounding(values);
            }
        }
    }
    memcpy(accumulators, values, sizeof(values));
}

// Every second of 2 * kLanes - 1 floats.
template <int... kLane>
inline Vec LoadEverySecond(const float* from, LaneNumbers<kLane...>)
{
    constexpr int kHalf = static_cast<int>(kLanes) / 2;
    return __builtin_shufflevector(Load(from), Load(from + kLanes - 1), (kLane < kHalf ? 2 * kLane : 2 * kLane + 1)...);
}

inline Vec LoadSteps(const float* from, ptrdiff_t step)
{
    if (step == 1) {
        return Load(from);
    }
    if (step == 2) {
        return LoadEverySecond(from, CountLanes<kLanes>::Numbers());
    }
    Vec values;
    for (size_t lane = 0; lane < kLanes; ++lane) {
        values[lane] = from[static_cast<ptrdiff_t>(lane) * step];
    }
    return values;
}

constexpr int kManyWindows = 32;

// kManyWindows windows, their accumulators in registers; called with a constant step.
template <class Kind>
inline __attribute__((always_inline)) void VectorBlock(const PoolWindows& windows, const float* in, ptrdiff_t step,
                                                       float* accumulators)
{
    constexpr size_t kVectors = kManyWindows / kLanes;
    Vec values[kVectors];
    for (size_t v = 0; v < kVectors; ++v) {
        values[v] = Load(accumulators + v * kLanes);
    }
    for (uint32_t row = 0; row < windows.rows; ++row) {
        const float* x = in + row * windows.pitch;
        for (uint32_t column = 0; column < windows.columns; ++column, ++x) {
#pragma GCC unroll 8
            for (size_t v = 0; v < kVectors; ++v) {
                values[v] = Kind::Step(values[v], LoadSteps(x + static_cast<ptrdiff_t>(v * kLanes) * step, step));
            }
        }
    }
    for (size_t v = 0; v < kVectors; ++v) {
        Store(accumulators + v * kLanes, values[v]);
    }
}

template <class Kind>
void ManyWindows(const PoolWindows& windows, const float* in, float* accumulators)
{
    if constexpr (kWorksInF64<Kind>) {
        Block<Kind, kManyWindows>(windows, in, windows.step, accumulators);
    } else if (windows.step == 1) {
        VectorBlock<Kind>(windows, in, 1, accumulators);
    } else if (windows.step == 2) {
        VectorBlock<Kind>(windows, in, 2, accumulators);
    } else {
        VectorBlock<Kind>(windows, in, windows.step, accumulators);
    }
}

template <int kCount>
void PositionBlock(const PoolWindows& windows, const float* in, float* best, float* positions, uint32_t position,
                   uint32_t width)
{
    float values[kCount];
    float places[kCount];
    memcpy(values, best, sizeof(values));
    memcpy(places, positions, sizeof(places));
    for (uint32_t row = 0; row < windows.rows; ++row) {
        const float* x = in + row * windows.pitch;
        uint32_t first = position + row * width;
        for (uint32_t column = 0; column < windows.columns; ++column, ++x, ++first) {
            for (int i = 0; i < kCount; ++i) {
                const float value = x[i * windows.step];
                const uint32_t place = first + static_cast<uint32_t>(i) * static_cast<uint32_t>(windows.step);
                const bool wins = value > values[i];
                values[i] = wins ? value : values[i];
                places[i] = wins ? static_cast<float>(static_cast<int32_t>(place)) : places[i];
            }
        }
    }
    memcpy(best, values, sizeof(values));
    memcpy(positions, places, sizeof(places));
}

// Calls block(in, accumulators, done) with kCount windows until all are done, at least kCount of them. The last call
// may overlap the one before: it then runs first, on a copy of what its accumulators hold at the beginning.
template <int kCount, int kArrays, class Block>
inline __attribute__((always_inline)) void ForEachFullBlock(const PoolWindows& windows, float* const (&arrays)[kArrays],
                                                            Block block)
{
    const auto in = [&windows](size_t i) { return windows.in + static_cast<ptrdiff_t>(i) * windows.step; };
    const size_t last = windows.count - kCount;
    float copies[kArrays][kCount];
    float* at[kArrays];
    const bool overlaps = windows.count % kCount != 0;
    if (overlaps) {
        for (int k = 0; k < kArrays; ++k) {
            memcpy(copies[k], arrays[k] + last, sizeof(copies[k]));
            at[k] = copies[k];
        }
        block(in(last), at, last);
    }
    for (size_t done = 0; windows.count - done >= kCount; done += kCount) {
        for (int k = 0; k < kArrays; ++k) {
            at[k] = arrays[k] + done;
        }
        block(in(done), at, done);
    }
    for (int k = 0; overlaps && k < kArrays; ++k) {
        memcpy(arrays[k] + last, copies[k], sizeof(copies[k]));
    }
}

inline bool MayReduce(const PoolWindows& windows, const float* accumulators)
{
    const size_t window = FloatsSpanned(windows.rows, windows.pitch, windows.columns);
    const size_t step = static_cast<size_t>(windows.step < 0 ? -windows.step : windows.step);
    const size_t span = FloatsSpanned(windows.count, step, window);
    const ptrdiff_t last = static_cast<ptrdiff_t>(windows.count) - 1;
    const float* const first = windows.step < 0 && last > 0 ? windows.in + last * windows.step : windows.in;
    return Present(first, span) && Present(accumulators, windows.count) &&
           Apart(first, span, accumulators, windows.count);
}

template <class Kind>
void Reduce(const PoolWindows& windows, float* accumulators)
{
    assert(MayReduce(windows, accumulators));
    float* const arrays[] = {accumulators};
    if (windows.count >= kManyWindows) {
        ForEachFullBlock<kManyWindows>(windows, arrays, [&](const float* in, float* const(&at)[1], size_t) {
            ManyWindows<Kind>(windows, in, at[0]);
        });
    } else if (windows.count >= 8) {
        ForEachFullBlock<8>(windows, arrays, [&](const float* in, float* const(&at)[1], size_t) {
            Block<Kind, 8>(windows, in, windows.step, at[0]);
        });
    } else {
        for (size_t i = 0; i < windows.count; ++i) {
            Block<Kind, 1>(windows, windows.in + static_cast<ptrdiff_t>(i) * windows.step, 0, accumulators + i);
        }
    }
}

void MaxPosition(const PoolWindows& windows, float* best, float* positions, uint32_t position, uint32_t width)
{
    assert(MayReduce(windows, best) && MayReduce(windows, positions));
    const auto place = [&](size_t i) {
        return position + static_cast<uint32_t>(i) * static_cast<uint32_t>(windows.step);
    };
    float* const arrays[] = {best, positions};
    if (windows.count >= kManyWindows) {
        ForEachFullBlock<kManyWindows>(windows, arrays, [&](const float* in, float* const(&at)[2], size_t i) {
            PositionBlock<kManyWindows>(windows, in, at[0], at[1], place(i), width);
        });
    } else if (windows.count >= 8) {
        ForEachFullBlock<8>(windows, arrays, [&](const float* in, float* const(&at)[2], size_t i) {
            PositionBlock<8>(windows, in, at[0], at[1], place(i), width);
        });
    } else {
        for (size_t i = 0; i < windows.count; ++i) {
            PositionBlock<1>(windows, windows.in + static_cast<ptrdiff_t>(i) * windows.step, best + i, positions + i,
                             place(i), width);
        }
    }
}

}  // namespace

extern const PoolingKernels kPoolingKernels = {Reduce<Add>, Reduce<AddMagnitude>, Reduce<AddSquareInF64>,
                                               Reduce<TakeLarger>, MaxPosition};

}  // namespace opkit::OPKIT_LEVEL
