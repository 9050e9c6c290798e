// The frame of the operators that broadcast one to three inputs against output 0: resolving them, leaving stride
// records in the attribute block, walking.
//
// Large padded tensors are compacted, computed and written in one pass, which leaves the same in memory.
#ifndef OPKIT_OPS_ELEMENTWISE_BINARY_FRAME_H
#define OPKIT_OPS_ELEMENTWISE_BINARY_FRAME_H

#include "common/broadcast.h"
#include "common/move_floats.h"
#include "kernels/activation.h"
#include "kernels/binary.h"
#include "runtime/frame.h"

namespace opkit {

template <uint32_t N>
struct Operands {
    Input in[N];
    Output out;
};

// Resolves inputs 0 to N - 1 and output 0.
template <uint32_t N>
bool Resolve(LayerParam* param, Operands<N>* operands, Rows rows, Messages messages, Caller caller = Here())
{
    if (!Resolve(param, operands->in, N, rows, messages, caller)) {
        return false;
    }
    operands->out = OutputOf(param, 0);
    return true;
}

// Leaves the strides of the output, and of every input whose shape differs from it, in the attribute block.
template <class Attr, uint32_t N>
void RecordStrides(Attr& attr, const Operands<N>& operands)
{
    const Output& out = operands.out;
    const uint32_t outDims = static_cast<uint32_t>(out.dimNum);
    StrideRecord& outRecord = attr.outputStrides[0];
    SetStride(outRecord.strides, &outRecord.count, out.shape, outDims);
    for (uint32_t i = 0; i < N; ++i) {
        const Input& in = operands.in[i];
        if (JudgeBroadCast(out.shape, outDims, in.shape, in.dimNum) != 0) {
            StrideRecord& record = attr.inputStrides[i];
            SetStride(record.strides, &record.count, in.shape, static_cast<uint32_t>(in.dimNum));
        }
    }
}

enum class Layout { kPadded, kCompact };

inline RowShape RowsOf(const Tensor& tensor, Layout layout)
{
    return {tensor.shape, static_cast<uint32_t>(tensor.dimNum),
            layout == Layout::kPadded ? tensor.Pitch() : tensor.width};
}

// Whether elements of the input may be overwritten before their last turn: it shares memory with the output, and not
// just each element with its own result.
inline bool IsOverwritten(const Input& in, const RowShape& rows, const Output& out, const RowShape& outRows)
{
    const bool inPlace = in.data == out.data && rows.rowPitch == outRows.rowPitch &&
                         JudgeBroadCast(out.shape, static_cast<uint32_t>(out.dimNum), in.shape, in.dimNum) == 0;
    return !inPlace && TensorsOverlap(in, out);
}

// Calls run(inputs[N], steps[N], out, length) over the whole output in ascending order; a step is 0 or 1.
template <uint32_t N, class Run>
void ForEachRun(const Operands<N>& operands, Layout inputLayout, Layout outputLayout, Run run)
{
    if (operands.out.count == 0) {
        return;  // before any pitch, which may be a division by zero
    }
    const RowShape output = RowsOf(operands.out, outputLayout);
    RowShape inputs[N];
    bool overwritten = false;
    for (uint32_t i = 0; i < N; ++i) {
        inputs[i] = RowsOf(operands.in[i], inputLayout);
        overwritten = overwritten || IsOverwritten(operands.in[i], inputs[i], operands.out, output);
    }
    const auto runAt = [&](size_t to, const size_t(&from)[N], const uint32_t(&steps)[N], uint32_t length) {
        const float* at[N];
        for (uint32_t i = 0; i < N; ++i) {
            at[i] = operands.in[i].data + from[i];
        }
        run(at, steps, operands.out.data + to, length);
    };
    if (overwritten) {
        ForEachBroadcastElement(output, inputs, runAt);
    } else {
        ForEachBroadcastRun(output, inputs, runAt);
    }
}

// Whether an input's rows are compacted one by one as the walk comes to them: it has the output's shape and rows apart.
inline bool CompactsOnTheWay(const Input& in, const Output& out)
{
    return in.alignNum > in.width &&
           JudgeBroadCast(out.shape, static_cast<uint32_t>(out.dimNum), in.shape, in.dimNum) == 0;
}

// Whether a layer that compacts its inputs and expands its output may take each row on its way once: output rows are
// long and lie apart, and no tensor reaches into another.
template <uint32_t N>
bool MayPassOnce(const Operands<N>& operands)
{
    constexpr uint32_t kLongRow = 32;
    const Output& out = operands.out;
    if (out.data == nullptr || out.count == 0 || out.width < kLongRow || out.alignNum <= out.width) {
        return false;
    }
    for (const Input& in : operands.in) {
        if (in.data == nullptr || in.width == 0 || in.alignNum == 0 || TensorsOverlap(in, out)) {
            return false;
        }
        for (const Input* other = operands.in; other != &in; ++other) {
            if (TensorsOverlap(in, *other)) {
                return false;
            }
        }
    }
    return true;
}

// Calls run(inputs[N], steps[N], out, length) as ForEachRun does for compact inputs. Inputs of the output's shape are
// compacted row by row on the way, others before, and the output ends up as an expansion would leave it.
template <uint32_t N, class Run>
void ForEachRowOnce(const Operands<N>& operands, Run run)
{
    bool onTheWay[N];
    for (uint32_t i = 0; i < N; ++i) {
        const Input& in = operands.in[i];
        onTheWay[i] = CompactsOnTheWay(in, operands.out);
        if (!onTheWay[i]) {
            CompactRows(in.data, in.count, in.width, in.alignNum);
        }
    }
    ForEachRun(operands, Layout::kCompact, Layout::kPadded,
               [&](const float* const(&at)[N], const uint32_t(&steps)[N], float* out, uint32_t length) {
                   for (uint32_t i = 0; i < N; ++i) {
                       const Input& in = operands.in[i];
                       if (onTheWay[i]) {
                           const size_t to = static_cast<size_t>(at[i] - in.data);
                           MoveFloats(in.data + to, in.data + to / in.width * in.alignNum + to % in.width, length);
                       }
                   }
                   run(at, steps, out, length);
               });
    FillSpreadGaps(operands.out.data, operands.out.count, operands.out.width, operands.out.alignNum);
}

inline void MapRuns(const Operands<2>& operands, Rows rows, BinaryKernel kernel)
{
    const Layout inputLayout = rows == Rows::kCompacting ? Layout::kCompact : Layout::kPadded;
    const Layout outputLayout = rows == Rows::kInPlace ? Layout::kPadded : Layout::kCompact;
    ForEachRun(operands, inputLayout, outputLayout,
               [kernel](const float* const(&in)[2], const uint32_t(&steps)[2], float* out, uint32_t length) {
                   kernel(in[0], steps[0], in[1], steps[1], out, length);
               });
}

// One compact input and a compact output. An input that stands still is mapped once.
inline void MapCompactRuns(const Operands<1>& operands, MapKernel kernel)
{
    ForEachRun(operands, Layout::kCompact, Layout::kCompact,
               [kernel](const float* const(&in)[1], const uint32_t(&steps)[1], float* out, uint32_t length) {
                   if (steps[0] != 0) {
                       kernel(in[0], out, length);
                       return;
                   }
                   float value;
                   kernel(in[0], &value, 1);
                   for (uint32_t i = 0; i < length; ++i) {
                       out[i] = value;
                   }
               });
}

}  // namespace opkit

#endif  // OPKIT_OPS_ELEMENTWISE_BINARY_FRAME_H
