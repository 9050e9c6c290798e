// The frame of every operator: tensors as an operator sees them, resolving inputs, compacting and expanding rows.
//
// Helpers that print do it in the name of the function that calls them.
#ifndef OPKIT_RUNTIME_FRAME_H
#define OPKIT_RUNTIME_FRAME_H

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
    size_t Extent() const
    {
        const size_t rows = dimNum > 0 ? ElementCount(shape, static_cast<uint32_t>(dimNum) - 1) : 0;
        return rows * (alignNum != 0 ? Pitch() : width);
    }
};
using Input = Tensor;
using Output = Tensor;

inline bool TensorsOverlap(const Tensor& a, const Tensor& b)
{
    return a.data < b.data + b.Extent() && b.data < a.data + a.Extent();
}

// The attribute record of a layer, head included. Operators write stride records and state into it.
template <class Attr>
Attr& AttrOf(const LayerParam* param)
{
    return *static_cast<Attr*>(param->attr);
}

// Resolves a layer's logical inputs from 0 upward.
struct InputCursor {
    LayerParam* param;
    uint32_t logical = 0;
    uint32_t online = 0;
    uint32_t offline = 0;
};

// Resolves the next logical input; false when it is offline without dimensions, or online and there is none left.
bool NextInput(InputCursor* cursor, Input* input);

// The same, with "ParseInputInfo failed." in the caller's name.
bool NextInputOrReport(InputCursor* cursor, Input* input, Caller caller = Here());

// Resolves logical input 0.
bool ResolveOnlyInput(LayerParam* param, Input* input);

Output OutputOf(const LayerParam* param, uint32_t index);

// Compacts an input in place if its width differs from its alignment; it stays compact. On failure false, with
// "DelAlignSpace failed." in the caller's name.
bool CompactInput(const Input& input, Caller caller = Here());

// Expands an output that was computed compactly. Returns the operator's result: kSuccess, or kFailure with
// "InsertAlignSpace failed." in the caller's name. The width must not be 0: a division fault otherwise.
uint32_t ExpandOutput(const Output& output, Caller caller = Here());

// The same, with "widthOut can't be zero." for a width of 0.
uint32_t ExpandOutputChecked(const Output& output, Caller caller = Here());

}  // namespace opkit

#endif  // OPKIT_RUNTIME_FRAME_H
