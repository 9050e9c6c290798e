// Literal forms of Scatter and ScatterND.
#ifndef OPKIT_TESTS_REFERENCE_SCATTER_H
#define OPKIT_TESTS_REFERENCE_SCATTER_H

#include <algorithm>
#include <cmath>
#include <vector>

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

// The bounded copy as far as tensors reach it: sizes, identical ranges.
inline int32_t RefBoundedCopy(float* to, uint32_t size, const float* from, uint64_t bytes)
{
    if (size == 0) {
        return 34;
    }
    if (bytes > size) {
        std::memset(to, 0, size);
        return 162;
    }
    std::memmove(to, from, bytes);
    return 0;
}

inline uint32_t RefScatter(LayerParam* param)
{
    const char* const name = "ScatterOpkitForward";
    const int32_t a = static_cast<const ScatterAttr*>(param->attr)->scatterAxis;
    RefCursor cursor;
    RefTensor in[3];
    for (RefTensor& tensor : in) {
        if (!RefResolve(param, cursor, tensor)) {
            return kAllOnes;
        }
    }
    const RefTensor out = RefOutput(param, 0);
    for (const RefTensor& tensor : in) {
        if (!RefCompact(name, tensor)) {
            return kAllOnes;
        }
    }
    const RefTensor& data = in[0];
    const RefTensor& updates = in[2];
    const int32_t extent = static_cast<int32_t>(data.shape[a]);
    std::vector<uint32_t> index;
    for (uint32_t i = 0; i < in[1].count; ++i) {
        const int32_t v = RefToI32(static_cast<double>(roundf(in[1].data[i])));
        if (v >= extent || v < -extent) {
            RefReport(name, "indices element out of data bounds, idx=%d must be within the inclusive range [%d,%d]\n",
                      v, -extent, extent - 1);
            return kAllOnes;
        }
        index.push_back(static_cast<uint32_t>(v < 0 ? v + extent : v));
    }
    const int32_t code = RefBoundedCopy(out.data, out.size, data.data, uint64_t{data.count} * 4);
    if (code != 0) {
        RefReport(name, "memcpy failed, errnum = %d\n", code);
        return kAllOnes;
    }
    const size_t rank = static_cast<size_t>(data.dimNum);
    std::vector<uint32_t> counters(rank, 0);
    std::vector<uint32_t> pitch(rank, 1);
    for (size_t k = rank - 1; k-- > 0;) {
        pitch[k] = pitch[k + 1] * data.shape[k + 1];
    }
    for (size_t i = 0; i < index.size(); ++i) {
        uint32_t offset = 0;
        for (size_t k = 0; k < rank; ++k) {
            offset += pitch[k] * (static_cast<int32_t>(k) == a ? index[i] : counters[k]);
        }
        RefMove(out.data + offset, updates.data + i);
        ++counters[rank - 1];
        for (size_t k = rank; k-- > 0 && counters[k] >= updates.shape[k];) {
            counters[k] = 0;
            if (k > 0) {
                ++counters[k - 1];
            }
        }
    }
    return RefExpand(name, out);
}

inline uint32_t RefScatterNDCheck(const RefTensor (&in)[3])
{
    const char* const name = "ScatterNDOpkitCheck";
    const int32_t R = in[0].dimNum;
    const int32_t Q = in[1].dimNum;
    if (R == 0 || Q == 0) {
        RefReport(name,
                  "data tensor and indices tensor must has rank larger than 0. dataDimNum: %d, indicesDimNum: %d\n\n",
                  R, Q);
        return kAllOnes;
    }
    const int32_t k = static_cast<int32_t>(in[1].Width());
    if (k > R) {
        RefReport(name,
                  "last dimension of indices must not be larger than rank of data tensor. lastIndiceDimension: %d, "
                  "dataDimNum: %d\n\n",
                  k, R);
        return kAllOnes;
    }
    if (in[2].dimNum != Q + R - 1 - k) {
        RefReport(name,
                  "the rank of the update tensor should be: dataDimNum + indicesDimNum - 1 - lastIndiceDimension.\n\n");
        return kAllOnes;
    }
    for (int32_t i = 0; i < Q - 1; ++i) {
        if (in[1].shape[i] != in[2].shape[i]) {
            RefReport(name,
                      "The shape of the update tensor upto (indiceRank - 1) should match the shape of the indices "
                      "tensor upto (indiceRank - 1)).\n\n");
            return kAllOnes;
        }
    }
    for (int32_t i = k, j = Q - 1; i < R && j < in[2].dimNum; ++i, ++j) {
        if (in[0].shape[i] != in[2].shape[j]) {
            RefReport(
                name,
                "The shape of the update tensor after (indiceRank - 1) should match the shape of the input tensor "
                "after lastIndiceDimension.\n\n");
            return kAllOnes;
        }
    }
    return 0;
}

inline uint32_t RefScatterNDInner(LayerParam* param, const RefTensor (&in)[3])
{
    const char* const name = "ScatterNDOpkitForwardInner";
    const RefTensor& data = in[0];
    const RefTensor& indices = in[1];
    const RefTensor& updates = in[2];
    const RefTensor out = RefOutput(param, 0);
    const size_t R = static_cast<size_t>(data.dimNum);
    const uint32_t k = indices.Width();
    const uint32_t u = updates.dimNum > 0 ? updates.Width() : 1;
    const uint32_t pitchData = RefPitch(data.Width(), data.AlignNum());
    const uint32_t pitchIndices = RefPitch(k, indices.AlignNum());
    const uint32_t pitchUpdates = RefPitch(u, updates.AlignNum());
    const uint64_t dataElements = uint64_t{data.count} / data.Width() * pitchData;
    uint32_t slice = 1;
    for (size_t i = k; i < R; ++i) {
        slice *= i == R - 1 ? pitchUpdates : data.shape[i];
    }
    uint32_t tuples = 1;
    for (int32_t i = 0; i < indices.dimNum - 1; ++i) {
        tuples *= indices.shape[i];
    }
    const size_t required = (size_t{tuples} + R) * 4;
    if (required > param->opkitBufSize) {
        RefReport(name, "opkitBuf.size[%u] < required[%zu]\n", param->opkitBufSize, required);
        return kAllOnes;
    }
    int32_t code = RefBoundedCopy(out.data, out.size, data.data, dataElements * 4);
    if (code != 0) {
        RefReport(name, "memcpy_s for dataOut failed, ret = %d\n", code);
        return kAllOnes;
    }
    if (out.AlignNum() > pitchData) {
        const uint32_t w = out.Width();
        const uint32_t s = out.AlignNum();
        if (!RefInsertAlign(out.data, out.count, static_cast<int32_t>(w), s, out.count / w * s + w - s - 1)) {
            RefReport("ProcessAlignSpace", "InsertAlignSpace failed.\n");
            return kAllOnes;
        }
    }
    std::vector<uint32_t> pitch(R, 1);
    for (size_t i = R - 1; i-- > 0;) {
        pitch[i] = i == R - 2 ? out.AlignNum() : pitch[i + 1] * data.shape[i + 1];
    }
    std::vector<int32_t> offset(tuples, 0);
    for (uint32_t t = 0; t < tuples; ++t) {
        for (uint32_t j = 0; j < k; ++j) {
            float v = indices.data[t * pitchIndices + j];
            const float d = static_cast<float>(data.shape[j]);
            if (v < 0.0f) {
                v += d;
            }
            if (v < 0.0f || v >= d) {
                RefReport("ScatterNDGetElementOffsets", "Indice out of range: indiceVal=%f, dim=%d, shape=%d\n\n",
                          static_cast<double>(v), static_cast<int32_t>(j), static_cast<int32_t>(data.shape[j]));
                return kAllOnes;
            }
            offset[t] =
                static_cast<int32_t>(static_cast<uint32_t>(offset[t]) + static_cast<uint32_t>(RefToI32(v)) * pitch[j]);
        }
    }
    const int64_t extentBytes = int64_t{out.count} / out.Width() * RefPitch(out.Width(), out.AlignNum()) * 4;
    const float* cursor = updates.data;
    for (uint32_t t = 0; t < tuples; ++t) {
        const int64_t touched = std::min<int64_t>(int64_t{slice} * 4, out.size);
        if (offset[t] < 0 || int64_t{offset[t]} * 4 + touched > extentBytes) {
            RefReport(name, "ScatterND slice at offset %d leaves the output.\n\n", offset[t]);
            return kAllOnes;
        }
        code = RefBoundedCopy(out.data + offset[t], out.size, cursor, uint64_t{slice} * 4);
        if (code != 0) {
            RefReport(name, "memcpy_s failed at offset %d, ret = %d\n", offset[t], code);
            return kAllOnes;
        }
        cursor += slice;
        if (slice == 1 && (t + 1) % u == 0) {
            cursor += static_cast<int32_t>(updates.AlignNum() - u);
        }
    }
    return 0;
}

inline uint32_t RefScatterND(LayerParam* param)
{
    RefCursor cursor;
    RefTensor in[3];
    for (RefTensor& tensor : in) {
        if (!RefResolve(param, cursor, tensor)) {
            RefReport("ScatterNDOpkitForward", "ParseInputInfo failed.\n\n");
            return kAllOnes;
        }
    }
    return RefScatterNDCheck(in) != 0 || RefScatterNDInner(param, in) != 0 ? kAllOnes : 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_SCATTER_H
