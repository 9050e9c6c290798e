// A part of the column matrix is filled by stretches: output positions of one row, side by side. One stretch under one
// place of the kernel looks the same in every channel, so what of it is padding is found once for all of them.

#include "kernels/image_columns.h"

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// How many steps lead from 0 to `distance` or beyond.
size_t StepsTo(int64_t distance, uint32_t step)
{
    return step == 1 ? static_cast<size_t>(distance) : (static_cast<uint32_t>(distance) - 1) / step + 1;
}

// `rows` rows of `count` floats to be written.
struct Block {
    float* to;
    size_t step;
    size_t rows;
    size_t count;
};

void Copy(const Block& target, const float* from, size_t fromStep)
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

// Four floats, `step` apart. Of steps of 2, one more is read.
__m128 LoadFour(const float* from, size_t step)
{
    if (step == 2) {
        return _mm_shuffle_ps(_mm_loadu_ps(from), _mm_loadu_ps(from + 4), _MM_SHUFFLE(2, 0, 2, 0));
    }
    return _mm_setr_ps(from[0], from[step], from[2 * step], from[3 * step]);
}

void CopyEvery(const Block& target, const float* from, size_t fromStep, size_t step)
{
    float* to = target.to;
    for (size_t r = 0; r < target.rows; ++r, from += fromStep, to += target.step) {
        size_t i = 0;
        for (; i + 4 < target.count; i += 4) {
            _mm_storeu_ps(to + i, LoadFour(from + i * step, step));
        }
        for (; i < target.count; ++i) {
            to[i] = from[i * step];
        }
    }
}

void Fill(const Block& target, float value)
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
void FillStretch(const Im2colArgs& a, const float* channel, size_t channels, int64_t kh, int64_t kw, Stretch stretch,
                 float* to, size_t step)
{
    const float padding = static_cast<float>(a.padValue);
    const int64_t h = stretch.row * a.strideH + kh * a.dilationH - a.padTop;
    const int64_t w = stretch.column * a.strideW + kw * a.dilationW - a.padLeft;
    if (h < 0 || h >= a.height) {
        Fill({to, step, channels, stretch.count}, padding);
        return;
    }
    const size_t before = w < 0 ? Smaller(StepsTo(-w, a.strideW), stretch.count) : 0;
    const int64_t first = w + static_cast<int64_t>(before) * a.strideW;
    const size_t inside = first < a.width ? Smaller(StepsTo(a.width - first, a.strideW), stretch.count - before) : 0;
    const size_t after = stretch.count - before - inside;
    const size_t plane = size_t{a.height} * a.width;
    const float* const from = channel + h * a.width + first;
    if (before != 0) {
        Fill({to, step, channels, before}, padding);
    }
    if (a.strideW == 1) {
        Copy({to + before, step, channels, inside}, from, plane);
    } else {
        CopyEvery({to + before, step, channels, inside}, from, plane, a.strideW);
    }
    if (after != 0) {
        Fill({to + before + inside, step, channels, after}, padding);
    }
}

void FillColumns(const void* context, size_t k0, size_t depth, size_t j0, size_t count, float* to, size_t step)
{
    const ImageColumns& c = *static_cast<const ImageColumns*>(context);
    const size_t places = size_t{c.args.kernelH} * c.args.kernelW;
    const size_t plane = size_t{c.args.height} * c.args.width;
    assert(c.args.strideH != 0 && c.args.strideW != 0 && Present(to, depth * count) && Present(c.args.src, plane));
    assert(k0 + depth <= c.args.channels * places && j0 + count <= c.outHeight * c.outWidth && count <= step);
    const int64_t firstRow = static_cast<int64_t>(j0 / c.outWidth);
    const int64_t firstColumn = static_cast<int64_t>(j0 % c.outWidth);
    for (size_t k = 0; k < places && k < depth; ++k) {
        const float* const channel = c.args.src + (k0 + k) / places * plane;
        const size_t channels = (depth - k + places - 1) / places;
        const int64_t place = static_cast<int64_t>((k0 + k) % places);
        Stretch stretch = {firstRow, firstColumn, 0};
        for (size_t done = 0; done < count; done += stretch.count, ++stretch.row, stretch.column = 0) {
            stretch.count = Smaller(count - done, c.outWidth - static_cast<size_t>(stretch.column));
            FillStretch(c.args, channel, channels, place / c.args.kernelW, place % c.args.kernelW, stretch,
                        to + k * step + done, places * step);
        }
    }
}

bool AreWithin(const float* values, size_t count, float limit)
{
    assert(Present(values, count));
    uint32_t beyond = 0;
    for (size_t i = 0; i < count; ++i) {
        beyond |= __builtin_fabsf(values[i]) <= limit ? 0 : 1;
    }
    return beyond == 0;
}

}  // namespace

extern const ImageColumnKernels kImageColumnKernels = {FillColumns, AreWithin};

}  // namespace opkit::OPKIT_LEVEL
