// The literal frame of the reference twins: resolving inputs, row arithmetic, compacting, expanding, broadcasting, one
// element at a time and without the library's helpers.
#ifndef OPKIT_TESTS_REFERENCE_REFERENCE_FRAME_H
#define OPKIT_TESTS_REFERENCE_REFERENCE_FRAME_H

#include <cmath>
#include <cstdint>
#include <cstring>

#include "opkit/records.h"
#include "tests/support/capture.h"

namespace opkit::reference {

using opkit::test::RefReport;

constexpr uint32_t kAllOnes = 0xFFFFFFFFu;

struct RefTensor {
    float* data = nullptr;
    uint32_t* shape = nullptr;
    int32_t dimNum = 0;
    uint32_t stride = 0;
    uint32_t count = 1;
    uint32_t size = 0;

    uint32_t Width() const { return shape[dimNum - 1]; }
    uint32_t AlignNum() const { return stride / 4; }
};

// One resolved input after the other: pass the same three counters, starting at 0.
struct RefCursor {
    uint32_t logical = 0;
    uint32_t online = 0;
    uint32_t offline = 0;
};

inline bool RefResolve(LayerParam* param, RefCursor& cursor, RefTensor& tensor)
{
    auto* head = static_cast<LayerAttrHead*>(param->attr);
    const uint32_t k = cursor.logical++;
    if (head->inputFlags[k] == '1') {
        const uint32_t j = cursor.offline;
        tensor.data = reinterpret_cast<float*>(static_cast<char*>(param->model) + head->offlineOffset[j]);
        tensor.dimNum = static_cast<int32_t>(head->offlineShape[j].dimNum);
        tensor.shape = head->offlineShape[j].dims;
        if (tensor.dimNum < 1) {
            return false;
        }
        tensor.stride = tensor.shape[tensor.dimNum - 1] * 4;
        cursor.offline += 1;
    } else {
        if (cursor.online >= param->inputNum) {
            return false;
        }
        const TensorInfo& info = param->inputs[cursor.online];
        tensor.data = static_cast<float*>(info.data);
        tensor.dimNum = static_cast<int32_t>(info.dimNum);
        tensor.shape = info.shape;
        tensor.stride = info.stride;
        tensor.size = info.size;
        cursor.online += 1;
    }
    tensor.count = 1;
    for (int32_t i = 0; i < tensor.dimNum; ++i) {
        tensor.count *= tensor.shape[i];
    }
    return true;
}

inline RefTensor RefOutput(LayerParam* param, uint32_t index)
{
    const TensorInfo& info = param->outputs[index];
    RefTensor tensor;
    tensor.data = static_cast<float*>(info.data);
    tensor.shape = info.shape;
    tensor.dimNum = static_cast<int32_t>(info.dimNum);
    tensor.stride = info.stride;
    tensor.size = info.size;
    for (uint32_t i = 0; i < info.dimNum; ++i) {
        tensor.count *= info.shape[i];
    }
    return tensor;
}

inline uint32_t RefPitch(uint32_t width, uint32_t alignNum)
{
    return ((width + alignNum - 1) / alignNum) * alignNum;
}

// Float offset of compact element n.
inline uint32_t RefPadded(uint32_t n, uint32_t width, uint32_t alignNum)
{
    return (n / width) * RefPitch(width, alignNum) + n % width;
}

inline float& RefAt(const RefTensor& tensor, uint32_t n)
{
    return tensor.data[RefPadded(n, tensor.Width(), tensor.AlignNum())];
}

// Bits move as words, so that no NaN changes on the way.
inline void RefMove(float* to, const float* from)
{
    std::memmove(to, from, sizeof(float));
}

inline bool RefDelAlign(float* data, int32_t count, uint32_t width, uint32_t alignNum)
{
    if (data == nullptr) {
        RefReport("DelAlignSpace", "Input data is NULL.\n\n");
        return false;
    }
    if (width == 0 || alignNum == 0) {
        RefReport("DelAlignSpace", "Illegal value, widthIn = %u, alignNumIn = %u\n", width, alignNum);
        return false;
    }
    for (int32_t i = 0; i < count; ++i) {
        RefMove(data + i, data + RefPadded(static_cast<uint32_t>(i), width, alignNum));
    }
    return true;
}

inline bool RefInsertAlign(float* data, uint32_t count, int32_t width, uint32_t rowDistance, uint32_t lastIndex)
{
    if (data == nullptr) {
        RefReport("InsertAlignSpace", "Input data is NULL.\n\n");
        return false;
    }
    if (static_cast<int32_t>(count - 1) < 0) {
        return true;
    }
    uint32_t dst = lastIndex;
    int32_t col = 0;
    for (int64_t src = static_cast<int64_t>(count) - 1; src >= 0; --src) {
        col += 1;
        RefMove(data + dst, data + src);
        if (col == width) {
            dst = dst + static_cast<uint32_t>(width) - rowDistance - 1;
            col = 0;
        } else {
            dst -= 1;
        }
    }
    return true;
}

// Compacts when the width differs from the alignment; false when the row routine fails. Prints in `reporter`'s name.
inline bool RefCompact(const char* reporter, const RefTensor& tensor)
{
    if (tensor.AlignNum() == tensor.Width()) {
        return true;
    }
    if (!RefDelAlign(tensor.data, static_cast<int32_t>(tensor.count), tensor.Width(), tensor.AlignNum())) {
        RefReport(reporter, "DelAlignSpace failed.\n\n");
        return false;
    }
    return true;
}

// Expands an output by its own shape; the width is not 0.
inline uint32_t RefExpand(const char* reporter, const RefTensor& out)
{
    const uint32_t width = out.Width();
    const uint32_t a = out.AlignNum();
    if (!RefInsertAlign(out.data, out.count, static_cast<int32_t>(width), a, (out.count / width) * a + width - a - 1)) {
        RefReport(reporter, "InsertAlignSpace failed.\n\n");
        return kAllOnes;
    }
    return 0;
}

inline uint32_t RefExpandChecked(const char* reporter, const RefTensor& out)
{
    if (out.Width() == 0) {
        RefReport(reporter, "widthOut can't be zero.\n\n");
        return kAllOnes;
    }
    return RefExpand(reporter, out);
}

inline bool RefShapesDiffer(const RefTensor& a, const RefTensor& b)
{
    if (a.dimNum != b.dimNum) {
        return true;
    }
    for (int32_t i = 0; i < a.dimNum; ++i) {
        if (a.shape[i] != b.shape[i]) {
            return true;
        }
    }
    return false;
}

inline void RefSetStride(StrideRecord& record, const uint32_t* shape, int32_t dimNum)
{
    record.count = static_cast<uint32_t>(dimNum);
    uint32_t stride = 1;
    for (int32_t d = dimNum - 1; d >= 0; --d) {
        record.strides[d] = stride;
        stride *= shape[d];
    }
}

// Compact index into `source` for compact output index i.
inline uint32_t RefBroadcast(uint32_t i, const RefTensor& source, const RefTensor& out)
{
    if (source.dimNum > out.dimNum || out.dimNum == 0) {
        return 0;
    }
    uint32_t outStride[16];
    uint32_t srcStride[16];
    uint32_t stride = 1;
    for (int32_t d = out.dimNum - 1; d >= 0; --d) {
        outStride[d] = stride;
        stride *= out.shape[d];
    }
    stride = 1;
    for (int32_t d = source.dimNum - 1; d >= 0; --d) {
        srcStride[d] = stride;
        stride *= source.shape[d];
    }
    uint32_t rest = i;
    uint32_t index = 0;
    const int32_t missing = out.dimNum - source.dimNum;
    for (int32_t d = 0; d < out.dimNum; ++d) {
        const uint32_t q = rest / outStride[d];
        rest %= outStride[d];
        if (d >= missing) {
            index += (q % source.shape[d - missing]) * srcStride[d - missing];
        }
    }
    return index;
}

inline bool RefIsZero(float x)
{
    return std::fabs(static_cast<double>(x)) <= 1e-6;
}

inline bool RefIsEqual(float a, float b)
{
    return RefIsZero(a - b);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_REFERENCE_FRAME_H
