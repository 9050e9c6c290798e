// The frame of the operators that broadcast one to three inputs against output 0: resolving them, leaving stride
// records in the attribute block, walking.
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

inline auto RunOf(BinaryKernel kernel)
{
    return [kernel](const float* const(&in)[2], const uint32_t(&steps)[2], float* out, uint32_t length) {
        kernel(in[0], steps[0], in[1], steps[1], out, length);
    };
}

inline void MapRuns(const Operands<2>& operands, Rows rows, BinaryKernel kernel)
{
    const Layout outputLayout = rows == Rows::kInPlace ? Layout::kPadded : Layout::kCompact;
    ForEachRun(operands, Layout::kPadded, outputLayout, RunOf(kernel));
}

// Whether a compacting layer may take each row once, as its walk comes to it: output rows are long and lie apart, and
// no tensor reaches into another.
template <uint32_t N>
bool MayPassOnce(const Operands<N>& operands)
{
    constexpr uint32_t kLongRow = 32;
    const Output& out = operands.out;
    bool may = out.data != nullptr && out.count != 0 && out.width >= kLongRow && out.alignNum > out.width;
    for (const Input& in : operands.in) {
        may = may && in.data != nullptr && in.width != 0 && in.alignNum != 0 && !TensorsOverlap(in, out);
        for (const Input* other = operands.in; other != &in; ++other) {
            may = may && !TensorsOverlap(in, *other);
        }
    }
    return may;
}

// Compacts, runs and expands in one pass. Inputs of the output's shape are compacted row by row, others before, and
// what an expansion would leave in the output's gaps is filled in at the end.
template <uint32_t N, class Run>
void ForEachRowOnce(const Operands<N>& operands, Run run)
{
    const Output& out = operands.out;
    bool onTheWay[N];
    for (uint32_t i = 0; i < N; ++i) {
        const Input& in = operands.in[i];
        onTheWay[i] = in.alignNum > in.width &&
                      JudgeBroadCast(out.shape, static_cast<uint32_t>(out.dimNum), in.shape, in.dimNum) == 0;
        if (!onTheWay[i]) {
            CompactRows(in.data, in.count, in.width, in.alignNum);
        }
    }
    ForEachRun(operands, Layout::kCompact, Layout::kPadded,
               [&](const float* const(&at)[N], const uint32_t(&steps)[N], float* to, uint32_t length) {
                   for (uint32_t i = 0; i < N; ++i) {
                       const Input& in = operands.in[i];
                       if (onTheWay[i]) {
                           const size_t n = static_cast<size_t>(at[i] - in.data);
                           MoveFloats(in.data + n, in.data + n / in.width * in.alignNum + n % in.width, length);
                       }
                   }
                   run(at, steps, to, length);
               });
    FillSpreadGaps(out.data, out.count, out.width, out.alignNum);
}

// The whole of a compacting operator, its messages in the caller's name. run(inputs[N], steps[N], out, length) has
// compact inputs.
template <uint32_t N, class Attr, class Run>
uint32_t RunCompacting(LayerParam* param, Attr& attr, Run run, Caller caller = Here())
{
    Operands<N> operands;
    if (Resolve(param, &operands, Rows::kInPlace, Messages::kNone) && MayPassOnce(operands)) {
        RecordStrides(attr, operands);
        ForEachRowOnce(operands, run);
        return kSuccess;
    }
    if (!Resolve(param, &operands, Rows::kCompacting, Messages::kAll, caller)) {
        return kFailure;
    }
    RecordStrides(attr, operands);
    ForEachRun(operands, Layout::kCompact, Layout::kCompact, run);
    return ExpandOutputChecked(operands.out, caller);
}

// The same for one input and an element function. An input that stands still is mapped once.
template <class Attr>
uint32_t MapCompacting(LayerParam* param, Attr& attr, MapKernel kernel, Caller caller = Here())
{
    const auto run = [kernel](const float* const(&in)[1], const uint32_t(&steps)[1], float* out, uint32_t length) {
        const uint32_t mapped = steps[0] != 0 ? length : 1;
        kernel(in[0], out, mapped);
        RepeatFloat(out + mapped, *out, length - mapped);
    };
    return RunCompacting<1>(param, attr, run, caller);
}

}  // namespace opkit

#endif  // OPKIT_OPS_ELEMENTWISE_BINARY_FRAME_H
