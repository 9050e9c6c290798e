// Where the windows of a pooling lie, shared by its three operators.
#ifndef OPKIT_OPS_POOLING_POOLING_WINDOW_H
#define OPKIT_OPS_POOLING_POOLING_WINDOW_H

#include "kernels/pooling.h"
#include "runtime/frame.h"

namespace opkit {

// Input rows or columns of one window, clipped to the input.
struct PoolRange {
    int32_t begin;
    int32_t end;

    uint32_t Length() const { return end > begin ? static_cast<uint32_t>(end) - static_cast<uint32_t>(begin) : 0; }
};

// One axis: window i of the output begins at i * stride - pad.
struct PoolAxis {
    uint32_t limit;  // input elements that windows may cover
    uint32_t kernel;
    uint32_t stride;
    uint32_t pad;

    int32_t Start(uint32_t i) const { return static_cast<int32_t>(i * stride - pad); }

    // Ends are compared unsigned: a window that ends before the input counts as endless.
    uint32_t End(uint32_t i) const { return i * stride - pad + kernel; }

    PoolRange Clip(uint32_t i) const
    {
        const int32_t start = Start(i);
        const uint32_t end = End(i);
        return {start > 0 ? start : 0, static_cast<int32_t>(end < limit ? end : limit)};
    }

    // Whether window i lies inside the input as a whole. An empty one does not: it may lie behind the padding.
    bool Whole(uint32_t i) const { return kernel != 0 && Start(i) >= 0 && Clip(i).Length() == kernel; }
};

// Windows of one output row side by side. Those from `firstWhole` to `endWhole` run together, the others, cut at the
// left or right edge, one by one.
struct PoolColumns {
    PoolAxis axis;
    uint32_t count;
    uint32_t firstWhole = 0;
    uint32_t endWhole = 0;

    PoolColumns(const PoolAxis& columnAxis, uint32_t columnCount) : axis(columnAxis), count(columnCount)
    {
        while (firstWhole < count && !axis.Whole(firstWhole)) {
            ++firstWhole;
        }
        endWhole = firstWhole;
        while (endWhole < count && axis.Whole(endWhole)) {
            ++endWhole;
        }
    }

    // End of the run of windows of one size that begins at window i, among the first `columns` ones.
    uint32_t RunEnd(uint32_t i, uint32_t columns) const
    {
        return i == firstWhole ? (endWhole < columns ? endWhole : columns) : i + 1;
    }

    // Calls run(windows, first) for runs of windows of the first `columns` columns, `first` being a run's first column.
    template <class Run>
    void ForEachRun(const float* plane, size_t pitch, PoolRange rows, uint32_t columns, Run run) const
    {
        PoolWindows windows = {};
        windows.pitch = pitch;
        windows.rows = rows.Length();
        windows.step = static_cast<int32_t>(axis.stride);
        for (uint32_t i = 0; i < columns && windows.rows != 0;) {
            const uint32_t end = RunEnd(i, columns);
            const PoolRange range = axis.Clip(i);
            windows.columns = range.Length();
            windows.count = end - i;
            if (windows.columns != 0) {
                windows.in = plane + static_cast<uint32_t>(rows.begin) * pitch + static_cast<uint32_t>(range.begin);
                run(windows, i);
            }
            i = end;
        }
    }
};

// What the three operators read off the input and the output.
struct PoolShape {
    uint32_t images;
    uint32_t channels;
    uint32_t inH;
    uint32_t inW;
    uint32_t outH;
    uint32_t outW;

    PoolShape(const Input& in, const TensorInfo& out)
        : images(GetImgNum(in.shape, in.dimNum)),
          channels(GetChannels(in.shape, in.dimNum)),
          inH(GetHeight(in.shape, in.dimNum)),
          inW(GetWidth(in.shape, in.dimNum)),
          outH(GetHeight(out.shape, static_cast<int32_t>(out.dimNum))),
          outW(GetWidth(out.shape, static_cast<int32_t>(out.dimNum)))
    {
    }

    uint32_t Planes() const { return images * channels; }
};

}  // namespace opkit

#endif  // OPKIT_OPS_POOLING_POOLING_WINDOW_H
