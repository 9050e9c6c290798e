// Windows of pooling, many side by side: each of `count` windows covers rows x columns floats, its rows `pitch` floats
// apart, and the next window begins `step` floats further. Every window is walked row by row, left to right, on top of
// what its accumulator holds.
#ifndef OPKIT_KERNELS_POOLING_H
#define OPKIT_KERNELS_POOLING_H

#include "kernels/level.h"

namespace opkit {

struct PoolWindows {
    const float* in;  // first element of the first window
    size_t pitch;
    uint32_t rows;
    uint32_t columns;
    ptrdiff_t step;  // also backward
    size_t count;
};

// Every window has an accumulator: sums[i], or best[i] and positions[i]. They share no memory with the input.
struct PoolingKernels {
    void (*sum)(const PoolWindows& windows, float* sums);
    void (*sumMagnitudes)(const PoolWindows& windows, float* sums);
    void (*sumSquares)(const PoolWindows& windows, float* sums);  // each step in f64, rounded to f32
    void (*max)(const PoolWindows& windows, float* best);         // a strictly greater element wins, NaN never does
    // The same, and the winner's position, as a float. `position` is that of windows.in; image rows are `width` apart.
    void (*maxPosition)(const PoolWindows& windows, float* best, float* positions, uint32_t position, uint32_t width);
};
OPKIT_KERNEL_TABLE(PoolingKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_POOLING_H
