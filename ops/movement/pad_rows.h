// The two halves of Pad: shapes and counts are worked out in the work space, then the rows are walked.
#ifndef OPKIT_OPS_MOVEMENT_PAD_ROWS_H
#define OPKIT_OPS_MOVEMENT_PAD_ROWS_H

#include "opkit/attributes/movement.h"
#include "runtime/frame.h"

namespace opkit {

// The arrays of the layer's work space, of 32-bit words.
struct PadScratch {
    uint32_t* pads;
    uint32_t* slices;  // what crops, negative numbers as they wrap
    uint32_t* outputDims;
    uint32_t* inputDims;  // this and the next four after merging
    uint32_t* reshapedOutputDims;
    uint32_t* reshapedPads;
    uint32_t* reshapedSlices;
    int32_t* starts;
    uint32_t* extents;  // r entries; the walk's own arrays follow
};

// Writes the whole output compactly: r axes are left after merging, and innerNoPadSize elements of the input make one
// step on the innermost of the unmerged ones. Returns false when a mirrored block lies outside the output.
bool PadRows(const Input& in, const Output& out, const PadAttr& attr, const PadScratch& scratch, int32_t r,
             int32_t innerNoPadSize);

}  // namespace opkit

#endif  // OPKIT_OPS_MOVEMENT_PAD_ROWS_H
