// The frame of every operator: tensors as an operator sees them, resolving inputs, the four ways to treat padded rows.
//
// An operator resolves its inputs, computes, and ends by expanding its output or by kSuccess. Helpers that print do it
// in the name of the function that calls them.
#ifndef OPKIT_RUNTIME_FRAME_H
#define OPKIT_RUNTIME_FRAME_H

#include "common/overlap.h"
#include "common/report.h"
#include "common/row_layout.h"
#include "common/shape.h"
#include "opkit/helpers.h"
#include "opkit/records.h"
#include "runtime/layer_table.h"

namespace opkit {

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kFailure = 0xFFFFFFFFu;

// One input or output of a layer.
struct Tensor {
    float* data = nullptr;
    uint32_t* shape = nullptr;
    int32_t dimNum = 0;
    uint32_t stride = 0;    // bytes
    uint32_t alignNum = 0;  // stride / 4
    uint32_t width = 0;     // last dimension; 0 without dimensions
    uint32_t count = 1;     // product of the dimensions, u32
    uint32_t size = 0;      // bytes; outputs only

    uint32_t Pitch() const { return RowPitch(width, alignNum); }

    // Floats up to the end of the last row, its gap included: what the tensor occupies. Without an alignment, which not
    // every operator needs, rows have no gaps.
    size_t Span() const
    {
        const size_t rows = dimNum > 0 ? ElementCount(shape, static_cast<uint32_t>(dimNum) - 1) : 0;
        return rows * (alignNum != 0 ? Pitch() : width);
    }
};
using Input = Tensor;
using Output = Tensor;

inline bool TensorsOverlap(const Tensor& a, const Tensor& b)
{
    return RangesOverlap(a.data, a.Span(), b.data, b.Span());
}

// Calls run(in, out, length) once, or, where the output begins inside the input, for one element after the other: then
// later elements are read as results of earlier ones, whatever the kernel behind `run` does at once.
template <class Run>
void RunInOrder(const float* in, float* out, uint32_t length, Run run)
{
    if (in >= out || !RangesOverlap(in, length, out, length)) {
        run(in, out, length);
        return;
    }
    for (uint32_t i = 0; i < length; ++i) {
        run(in + i, out + i, 1U);
    }
}

// The attribute record of a layer, head included. Operators write stride records and state into it.
template <class Attr>
Attr& AttrOf(const LayerParam* param)
{
    return *static_cast<Attr*>(param->attr);
}

// How an operator treats padded rows. It is part of its interface, since callers find different memory afterwards.
enum class Rows {
    kInPlace,     // rows are read and written where they lie, by the row layout; gaps stay untouched
    kCompacting,  // an input whose width differs from its alignment loses its padding, in its own memory and for good;
                  // the output is written compactly and expanded
    kExpanding,   // inputs are read where they lie; the output is written compactly and expanded
    kStepping,    // rows are read and written one unrounded alignment after the other; gaps stay untouched
};

// What is printed when an input does not resolve, and when its rows cannot be compacted.
enum class Messages {
    kAll,     // "ParseInputInfo failed." and "DelAlignSpace failed."
    kOfRows,  // the second only
    kNone,    // neither, and rows are compacted without a check
};

// What stands behind Resolve() and ResolveThenCompact().
bool ResolveEach(LayerParam* param, Input* const* inputs, uint32_t count, Rows rows, Messages messages, Caller caller);
bool CompactEach(Input* const* inputs, uint32_t count, Caller caller);

// Resolves logical inputs 0, 1, ... in turn. False at the first that fails: one that is offline without dimensions, or
// online and not there, or whose rows cannot be compacted. With Rows::kCompacting each input is compacted before the
// next is resolved, and what was compacted before a failure stays so.
template <uint32_t N>
bool Resolve(LayerParam* param, Input* const (&inputs)[N], Rows rows, Messages messages, Caller caller = Here())
{
    return ResolveEach(param, inputs, N, rows, messages, caller);
}

// The same for the first `count` records of an array.
bool Resolve(LayerParam* param, Input* inputs, uint32_t count, Rows rows, Messages messages, Caller caller = Here());

// Resolves all inputs, silently, before it compacts the first one.
template <uint32_t N>
bool ResolveThenCompact(LayerParam* param, Input* const (&inputs)[N], Caller caller = Here())
{
    return ResolveEach(param, inputs, N, Rows::kInPlace, Messages::kNone, caller) && CompactEach(inputs, N, caller);
}

// The place among a layer's inputs, for operators that resolve in an order of their own.
struct InputCursor {
    LayerParam* param;
    uint32_t logical = 0;
    uint32_t online = 0;
    uint32_t offline = 0;
};

// Resolves the next logical input.
bool ResolveNext(InputCursor* cursor, Input* input, Rows rows, Messages messages, Caller caller = Here());

// A tensor as ParseInputInfo2 and its kin describe it.
struct DescribedTensor {
    TensorDesc desc = {};
    float* data = nullptr;
    uint32_t* shape = nullptr;
};

// Resolves logical input `index` by itself, silently.
bool Describe(LayerParam* param, uint32_t index, DescribedTensor* input);
Tensor TensorOf(const DescribedTensor& described);

Output OutputOf(const LayerParam* param, uint32_t index);

// What follows the text of a message about rows.
enum class MessageEnd { kBlankLine, kNewline };

// Compacts an input in place if its width differs from its alignment; it stays compact. On failure false, with
// "DelAlignSpace failed." in the caller's name.
bool CompactInput(const Input& input, MessageEnd end = MessageEnd::kBlankLine, Caller caller = Here());

// Expands an output that was computed compactly. Returns the operator's result: kSuccess, or kFailure with
// "InsertAlignSpace failed." in the caller's name. The width must not be 0: a division fault otherwise.
uint32_t ExpandOutput(const Output& output, MessageEnd end = MessageEnd::kBlankLine, Caller caller = Here());

// The same, with "widthOut can't be zero." for a width of 0.
uint32_t ExpandOutputChecked(const Output& output, Caller caller = Here());

// The same without a check or a message.
void ExpandOutputUnchecked(const Output& output);

}  // namespace opkit

#endif  // OPKIT_RUNTIME_FRAME_H
