// What the activations with parameters share: comparing shapes, and walking rows by stepping or by expanding.
#ifndef OPKIT_OPS_ELEMENTWISE_ACTIVATION_FRAME_H
#define OPKIT_OPS_ELEMENTWISE_ACTIVATION_FRAME_H

#include "runtime/frame.h"

namespace opkit {

// How the numbers of the two messages below are shown.
enum class Shown { kSigned, kUnsigned };

// Whether the input has at least one dimension and exactly the output's; otherwise a message in the caller's name.
inline bool SameDimensions(const Input& in, const Output& out, Shown shown, Caller caller = Here())
{
    if (in.dimNum < 1 || in.dimNum != out.dimNum) {
        if (shown == Shown::kSigned) {
            Report(caller, "Invalid dim:%d, %d\n\n", in.dimNum, out.dimNum);
        } else {
            Report(caller, "Invalid dim:%d, %u\n\n", in.dimNum, static_cast<uint32_t>(out.dimNum));
        }
        return false;
    }
    for (int32_t d = 0; d < in.dimNum; ++d) {
        if (in.shape[d] == out.shape[d]) {
            continue;
        }
        if (shown == Shown::kSigned) {
            Report(caller, "Invalid shape:%d, %d, %d\n\n", d, static_cast<int32_t>(out.shape[d]),
                   static_cast<int32_t>(in.shape[d]));
        } else {
            Report(caller, "Invalid shape:%d, %u, %u\n\n", d, out.shape[d], in.shape[d]);
        }
        return false;
    }
    return true;
}

// Stepping: calls run(in, out, length) over the rows of two tensors of one shape. A width of 0 is a division fault.
template <class Run>
void ForEachSteppedRow(const Input& in, const Output& out, Run run)
{
    const uint32_t rows = out.count / out.width;
    if (in.alignNum == out.width && out.alignNum == out.width) {
        RunInOrder(in.data, out.data, rows * out.width, run);
        return;
    }
    for (size_t row = 0; row < rows; ++row) {
        RunInOrder(in.data + row * in.alignNum, out.data + row * out.alignNum, out.width, run);
    }
}

// Expanding: calls run(in, out, length) over the elements of the input in its padded rows, with a compact output.
template <class Run>
void ForEachRunToExpand(const Input& in, const Output& out, Run run)
{
    if (in.count == 0) {
        return;  // before the pitch, which may be a division by zero
    }
    ForEachRowRun(in.count, in.width, in.Pitch(), in.count, in.count, [&](size_t from, size_t to, uint32_t length) {
        RunInOrder(in.data + from, out.data + to, length, run);
    });
}

}  // namespace opkit

#endif  // OPKIT_OPS_ELEMENTWISE_ACTIVATION_FRAME_H
