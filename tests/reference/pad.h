// Literal form of Pad.
#ifndef OPKIT_TESTS_REFERENCE_PAD_H
#define OPKIT_TESTS_REFERENCE_PAD_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

// Reflection may read any element of the output tensor, and none outside.
struct RefPadOutput {
    float* data;
    int64_t floats;

    bool Copy(int64_t to, int64_t from, int64_t count) const
    {
        if (from < 0 || from + count > floats) {
            return false;
        }
        for (int64_t i = 0; i < count; ++i) {
            RefMove(data + to + i, data + from + i);
        }
        return true;
    }
    void Fill(int64_t to, int64_t count, float value) const
    {
        for (int64_t i = 0; i < count; ++i) {
            RefMove(data + to + i, &value);
        }
    }
    bool Before(uint32_t mode, float value, int64_t start, int64_t count, int64_t p) const
    {
        for (int64_t k = 0; k < count; ++k) {
            const int64_t to = start - count * p + k * p;
            if (mode == 0) {
                Fill(to, p, value);
            } else if (!Copy(to, mode == 1 ? start + (count - k) * p : start, p)) {
                return false;
            }
        }
        return true;
    }
    bool After(uint32_t mode, float value, int64_t cursor, int64_t count, int64_t p) const
    {
        for (int64_t k = 0; k < count; ++k) {
            if (mode == 0) {
                Fill(cursor + k * p, p, value);
            } else if (!Copy(cursor + k * p, mode == 1 ? cursor - (2 + k) * p : cursor - p, p)) {
                return false;
            }
        }
        return true;
    }
};

inline uint32_t RefPad(LayerParam* param)
{
    auto* attr = static_cast<PadAttr*>(param->attr);
    RefCursor resolver;
    RefTensor in;
    if (!RefResolve(param, resolver, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    if (attr->padCount != attr->padCountCheck) {
        return kAllOnes;
    }
    const int32_t rank = in.dimNum;
    auto* words = static_cast<int32_t*>(param->opkitBuf);
    int32_t* pads = words;
    int32_t* slices = pads + attr->padCount;
    int32_t* outputDims = slices + attr->padCount;
    int32_t* inputDims = outputDims + attr->outputDimsSize;
    int32_t* reshapedOutput = inputDims + attr->reshapedInputDimsSize;
    int32_t* reshapedPads = reshapedOutput + attr->reshapedOutputDimsSize;
    int32_t* reshapedSlices = reshapedPads + attr->reshapedPadsSize;
    int32_t* starts = reshapedSlices + attr->reshapedSlicesSize;
    int32_t* extents = starts + attr->inputStartsSize;
    if (attr->padCount != 2 * static_cast<uint32_t>(rank)) {
        return kAllOnes;
    }
    for (uint32_t i = 0; i < attr->padCount; ++i) {
        pads[i] = attr->padsAttr[i];
        slices[i] = 0;
        if (pads[i] < 0) {
            slices[i] = pads[i];
            pads[i] = 0;
        }
    }
    for (int32_t i = 0; i < rank; ++i) {
        outputDims[i] = static_cast<int32_t>(in.shape[i]);
    }
    // Merge from the inside.
    const uint32_t aligned = ((in.Width() * 4 + 15) / 4) & ~3u;
    int32_t product = 1;
    int32_t a = rank - 1;
    for (;; --a) {
        product *= outputDims[a];
        if (a == 0 || pads[a] != 0 || pads[rank + a] != 0 || slices[a] != 0 || slices[rank + a] != 0 ||
            in.Width() != aligned) {
            break;
        }
    }
    for (int32_t i = 0; i < a; ++i) {
        inputDims[i] = outputDims[i];
    }
    inputDims[a] = product;
    const int32_t r = a + 1;
    if (r > attr->inputExtentsSize || r > attr->inputStartsSize || r > attr->reshapedSlicesSize ||
        2 * r > attr->reshapedPadsSize || r > attr->reshapedOutputDimsSize || attr->outputDimsSize != rank) {
        return kAllOnes;
    }
    const int32_t inner = outputDims[r - 1] > 0 ? inputDims[r - 1] / outputDims[r - 1] : 0;
    for (int32_t i = 0; i < r - 1; ++i) {
        reshapedPads[i] = pads[i];
        reshapedPads[r + i] = pads[rank + i];
    }
    reshapedPads[r - 1] = pads[r - 1] * inner;
    reshapedPads[2 * r - 1] = pads[rank + r - 1] * inner;
    for (int32_t i = 0; i < r - 1; ++i) {
        reshapedSlices[i] = slices[i];
        reshapedSlices[r + i] = slices[rank + i];
    }
    reshapedSlices[r - 1] = slices[r - 1] * inner;
    reshapedSlices[2 * r - 1] = slices[rank + r - 1] * inner;
    for (int32_t i = 0; i < r; ++i) {
        reshapedOutput[i] = inputDims[i];
    }
    for (int32_t i = 0; i < r; ++i) {
        starts[i] = -reshapedSlices[i];
        extents[i] = reshapedSlices[i] + inputDims[i] + reshapedSlices[r + i];
        reshapedOutput[i] += reshapedPads[r + i] + reshapedPads[i] + reshapedSlices[i] + reshapedSlices[r + i];
    }
    for (int32_t i = 0; i < rank; ++i) {
        outputDims[i] += pads[i] + pads[rank + i] + slices[i] + slices[rank + i];
    }
    const uint32_t mode = attr->padMode;
    if (in.count == 0) {
        int32_t total = 1;
        for (int32_t i = 0; i < rank; ++i) {
            if (mode == 2 && in.shape[i] == 0 && outputDims[i] >= 1) {
                return kAllOnes;
            }
            total *= outputDims[i];
        }
        for (int32_t i = 0; mode == 0 && i < total; ++i) {
            RefMove(out.data + i, &attr->padConstant);
        }
        return 0;
    }
    if (mode <= 2) {
        int32_t pitches[16];
        int32_t t = 1;
        for (int32_t i = 0; i < r; ++i) {
            t *= reshapedOutput[i];
        }
        int64_t skip = 0;
        bool empty = false;
        for (int32_t i = 0; i < r; ++i) {
            t /= reshapedOutput[i];
            pitches[i] = t;
            skip += int64_t{reshapedPads[i]} * t;
            empty = empty || extents[i] == 0;
        }
        // The kept rows of the input.
        const int32_t s = static_cast<int32_t>(in.stride / 4);
        int32_t skips[16];
        int64_t read = 0;
        int64_t startPitch = 1;
        int64_t skipPitch = 1;
        for (int32_t i = r - 1; i >= 0; --i) {
            read += starts[i] * startPitch;
            startPitch *= i == r - 1 ? s : inputDims[i];
            const bool byRow = i == r - 1 && inner == 1;
            skips[i] = static_cast<int32_t>(((byRow ? s : inputDims[i]) - extents[i]) * skipPitch);
            skipPitch *= byRow ? s : inputDims[i];
        }
        int32_t positions[16] = {};
        int32_t counters[16] = {};
        const RefPadOutput output = {out.data,
                                     int64_t{out.count / out.Width()} * RefPitch(out.Width(), out.AlignNum())};
        const auto fail = [] {
            RefReport("PadOpkitForward", "reflect pad is larger than the tensor.\n\n");
            return kAllOnes;
        };
        int64_t cursor = 0;
        int32_t axis = r - 1;
        for (bool running = !empty; running;) {
            cursor += skip;
            const int64_t row = cursor;
            for (int32_t i = 0; i < extents[r - 1]; ++i) {
                RefMove(out.data + cursor + i, in.data + read + i);
            }
            cursor += extents[r - 1];
            read += extents[r - 1] + skips[r - 1];
            for (int32_t i = r - 2; i >= 0; --i) {
                positions[i] += 1;
                if (positions[i] != extents[i]) {
                    break;
                }
                positions[i] = 0;
                read += skips[i];
            }
            if (!output.Before(mode, attr->padConstant, row, reshapedPads[r - 1], 1) ||
                !output.After(mode, attr->padConstant, cursor, reshapedPads[2 * r - 1], 1)) {
                return fail();
            }
            cursor += reshapedPads[2 * r - 1];
            skip = reshapedPads[r - 1];
            for (;;) {
                if (axis == 0) {
                    running = false;
                    break;
                }
                axis -= 1;
                counters[axis] += 1;
                if (counters[axis] != extents[axis]) {
                    axis = r - 1;
                    break;
                }
                counters[axis] = 0;
                const int64_t p = pitches[axis];
                if (!output.Before(mode, attr->padConstant, cursor - extents[axis] * p, reshapedPads[axis], p) ||
                    !output.After(mode, attr->padConstant, cursor, reshapedPads[r + axis], p)) {
                    return fail();
                }
                cursor += p * reshapedPads[r + axis];
                skip += p * reshapedPads[axis];
            }
        }
    }
    return RefExpand("PadOpkitForward", out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_PAD_H
