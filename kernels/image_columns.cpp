// A part of the column matrix is filled by stretches: output positions of one row, side by side. One stretch under one
// place of the kernel looks the same in every channel, so what of it is padding is found once for all of them.

#include "kernels/image_columns.h"

#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

size_t Smaller(size_t a, size_t b)
{
    return a < b ? a : b;
}

// How many steps lead from 0 to `distance` or beyond.
size_t StepsTo(int64_t distance, int64_t step)
{
    return static_cast<size_t>(step == 1 ? distance : (distance + step - 1) / step);
}

// `rows` rows of `count` floats.
struct Rows {
    float* to;
    size_t step;
    size_t rows;
    size_t count;
};

void Copy(const Rows& target, const float* from, size_t fromStep)
{
    const size_t whole = target.count / kLanes * kLanes;
    const size_t tail = target.count - whole;
    float* to = target.to;
    for (size_t r = 0; r < target.rows; ++r, from += fromStep, to += target.step) {
        for (size_t i = 0; i < whole; i += kLanes) {
            Store(to + i, Load(from + i));
        }
        if (tail != 0) {
            StoreTail(to + whole, LoadTail(from + whole, tail), tail);
        }
    }
}

void CopyEvery(const Rows& target, const float* from, size_t fromStep, size_t step)
{
    for (size_t r = 0; r < target.rows; ++r) {
        for (size_t i = 0; i < target.count; ++i) {
            target.to[r * target.step + i] = from[r * fromStep + i * step];
        }
    }
}

void Fill(const Rows& target, float value)
{
    for (size_t r = 0; r < target.rows; ++r) {
        for (size_t i = 0; i < target.count; ++i) {
            target.to[r * target.step + i] = value;
        }
    }
}

struct Stretch {
    int64_t row;
    int64_t column;
    size_t count;
};

// Rows of the matrix, one for each of `channels` channels, all of the same place (kh, kw) of the kernel.
void FillStretch(const ImageColumns& c, const float* channel, size_t channels, int64_t kh, int64_t kw, Stretch stretch,
                 float* to, size_t step)
{
    const int64_t h = stretch.row * c.strideH + kh * c.dilationH - c.padTop;
    const int64_t w = stretch.column * c.strideW + kw * c.dilationW - c.padLeft;
    if (h < 0 || h >= c.height) {
        Fill({to, step, channels, stretch.count}, c.padding);
        return;
    }
    const size_t before = w < 0 ? Smaller(StepsTo(-w, c.strideW), stretch.count) : 0;
    const int64_t first = w + static_cast<int64_t>(before) * c.strideW;
    const size_t inside = first < c.width ? Smaller(StepsTo(c.width - first, c.strideW), stretch.count - before) : 0;
    const size_t after = stretch.count - before - inside;
    const size_t plane = static_cast<size_t>(c.height * c.width);
    const float* const from = channel + h * c.width + first;
    if (before != 0) {
        Fill({to, step, channels, before}, c.padding);
    }
    if (c.strideW == 1) {
        Copy({to + before, step, channels, inside}, from, plane);
    } else {
        CopyEvery({to + before, step, channels, inside}, from, plane, static_cast<size_t>(c.strideW));
    }
    if (after != 0) {
        Fill({to + before + inside, step, channels, after}, c.padding);
    }
}

void FillColumns(const void* context, size_t k0, size_t depth, size_t j0, size_t count, float* to, size_t step)
{
    const ImageColumns& c = *static_cast<const ImageColumns*>(context);
    const size_t places = size_t{c.kernelH} * c.kernelW;
    const size_t plane = static_cast<size_t>(c.height * c.width);
    Stretch stretch = {static_cast<int64_t>(j0 / c.outWidth), static_cast<int64_t>(j0 % c.outWidth), 0};
    for (size_t done = 0; done < count; done += stretch.count, ++stretch.row, stretch.column = 0) {
        stretch.count = Smaller(count - done, c.outWidth - static_cast<size_t>(stretch.column));
        size_t channel = k0 / places;
        size_t place = k0 % places;
        for (size_t k = 0; k < places && k < depth; ++k) {
            FillStretch(c, c.image + channel * plane, (depth - k + places - 1) / places,
                        static_cast<int64_t>(place / c.kernelW), static_cast<int64_t>(place % c.kernelW), stretch,
                        to + k * step + done, places * step);
            if (++place == places) {
                place = 0;
                ++channel;
            }
        }
    }
}

bool AreWithin(const float* values, size_t count, float limit)
{
    uint32_t beyond = 0;
    for (size_t i = 0; i < count; ++i) {
        beyond |= __builtin_fabsf(values[i]) <= limit ? 0 : 1;
    }
    return beyond == 0;
}

}  // namespace

extern const ImageColumnKernels kImageColumnKernels = {FillColumns, AreWithin};

}  // namespace opkit::OPKIT_LEVEL
