// Literal forms of Eyelike and OneHot.
#ifndef OPKIT_TESTS_REFERENCE_ONE_HOT_H
#define OPKIT_TESTS_REFERENCE_ONE_HOT_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline uint32_t RefEyelike(LayerParam* param)
{
    const char* const name = "EyelikeOpkitForward";
    const int32_t k = static_cast<const EyelikeAttr*>(param->attr)->eyeK;
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    if (!RefCompact(name, in)) {
        return kAllOnes;
    }
    if (in.dimNum != 2) {
        RefReport(name, "eye like input shape0 size[%d] error.\n\n", in.dimNum);
        return kAllOnes;
    }
    const int64_t rows = in.shape[0];
    const int64_t cols = in.shape[1];
    if (rows * cols * 4 > out.size) {
        for (uint32_t i = 0; i < out.size; ++i) {
            reinterpret_cast<char*>(out.data)[i] = 0;
        }
        RefReport(name, "eyelike memset error.\n\n");
        return kAllOnes;
    }
    for (int64_t i = 0; i < rows * cols; ++i) {
        out.data[i] = 0.0f;
    }
    const int64_t row = k < 0 ? -int64_t{k} : 0;
    const int64_t col = k < 0 ? 0 : k;
    if (col < cols && row < rows) {
        for (int64_t r = row; r < rows; ++r) {
            out.data[r * cols + col] = 1.0f;
        }
    }
    return RefExpand(name, out);
}

inline uint32_t RefOneHot(LayerParam* param)
{
    const char* const name = "OneHotOpkitForward";
    const int32_t a = static_cast<const OneHotAttr*>(param->attr)->oneHotAxis;
    RefCursor cursor;
    RefTensor in[2];
    for (uint32_t i = 0; i < 2; ++i) {
        cursor.logical = 2 * i;
        if (!RefResolve(param, cursor, in[i])) {
            RefReport(name, "ParseInputInfo failed.\n\n");
            return kAllOnes;
        }
        if (!RefCompact(name, in[i])) {
            return kAllOnes;
        }
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t depth = static_cast<int32_t>(out.shape[a]);
    int32_t inner = 1;
    for (int32_t d = a + 1; d < out.dimNum; ++d) {
        inner *= static_cast<int32_t>(out.shape[d]);
    }
    const int32_t depthInner = inner * depth;
    const int32_t indexCount = static_cast<int32_t>(out.count) / depth;
    if (inner == 0) {
        RefReport(name, "Illegal value, inOffset is 0\n");
        return kAllOnes;
    }
    float values[2];
    RefMove(&values[0], &in[1].data[0]);
    RefMove(&values[1], &in[1].data[1]);
    for (uint32_t i = 0; i < out.count; ++i) {
        RefMove(&out.data[i], &values[0]);
    }
    const int64_t extent = int64_t{out.count} / out.Width() * RefPitch(out.Width(), out.AlignNum());
    for (int32_t i = 0; i < indexCount; ++i) {
        float v = in[0].data[i];
        if (v < 0.0f) {
            v += static_cast<float>(depth);
            in[0].data[i] = v;
        }
        const int64_t position = int64_t{i % inner} + int64_t{i / inner} * depthInner + int64_t{RefToI32(v)} * inner;
        const int32_t at = static_cast<int32_t>(static_cast<uint64_t>(position));
        if (v >= static_cast<float>(depth) || at < 0 || at >= extent) {
            RefReport(name, "Invalid input idx : %f\n\n", static_cast<double>(v));
            return kAllOnes;
        }
        RefMove(&out.data[at], &values[1]);
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_ONE_HOT_H
