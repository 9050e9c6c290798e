// Literal forms of Gather, GatherElements and GatherND.
#ifndef OPKIT_TESTS_REFERENCE_GATHER_H
#define OPKIT_TESTS_REFERENCE_GATHER_H

#include <cmath>
#include <vector>

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

// Product of dimensions first to end - 1.
inline uint32_t RefProduct(const RefTensor& tensor, int32_t first, int32_t end)
{
    uint32_t product = 1;
    for (int32_t d = first; d < end; ++d) {
        product *= tensor.shape[d];
    }
    return product;
}

inline uint32_t RefExtent(const RefTensor& tensor)
{
    return RefProduct(tensor, 0, tensor.dimNum - 1) * RefPitch(tensor.Width(), tensor.AlignNum());
}

inline bool RefResolveTwo(LayerParam* param, const char* name, RefTensor& data, RefTensor& indices)
{
    RefCursor cursor;
    if (RefResolve(param, cursor, data) && RefResolve(param, cursor, indices)) {
        return true;
    }
    RefReport(name, "ParseInputInfo failed.\n\n");
    return false;
}

inline uint32_t RefGather(LayerParam* param)
{
    const char* const name = "GatherOpkitForward";
    const int32_t a = static_cast<int32_t>(static_cast<const GatherAttr*>(param->attr)->gatherAxis);
    RefTensor data;
    RefTensor indices;
    if (!RefResolveTwo(param, name, data, indices)) {
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t rank = data.dimNum;
    const uint32_t outer = RefProduct(data, 0, a);
    const uint32_t inner = RefProduct(data, a + 1, rank - 1);
    const uint32_t lastDim = data.shape[rank - 1];
    const uint32_t count = indices.count;
    const uint32_t work = outer * count;
    if (work == 0) {
        return 0;
    }
    const uint32_t m = indices.Width();
    const bool lastAxis = a + 1 == rank;
    const uint32_t inPitch = lastAxis ? 1 : data.AlignNum() * inner;
    const uint32_t outBlockPitch = lastAxis ? 1 : out.AlignNum() * inner;
    const uint32_t inOuterPitch = lastAxis ? data.AlignNum() : data.AlignNum() * RefProduct(data, a, rank - 1);
    const uint32_t outOuterPitch = lastAxis ? count / m * out.AlignNum() : outBlockPitch * count;
    const uint64_t extent = RefExtent(data);
    for (uint32_t w = 0; w < work; ++w) {
        const uint32_t o = w / count;
        const uint32_t f = w % count;
        const float index = indices.data[indices.AlignNum() * (f / m) + f % m];
        const uint32_t v = RefToU32(index) * inPitch + inOuterPitch * o;
        const uint32_t block = lastAxis ? 1 : inner * lastDim;
        for (uint32_t e = 0; e < block; ++e) {
            const uint64_t r = lastAxis ? 0 : e / lastDim;
            const uint64_t c = lastAxis ? 0 : e % lastDim;
            const uint64_t last = lastAxis ? v : uint64_t{v} + data.AlignNum() * (inner - 1) + lastDim - 1;
            if (last >= extent) {
                RefReport(name, "Gather index %f reads outside the data.\n\n", static_cast<double>(index));
                return kAllOnes;
            }
            float* const to = lastAxis ? out.data + o * outOuterPitch + f / m * out.AlignNum() + f % m
                                       : out.data + r * out.AlignNum() + c + o * outOuterPitch + f * outBlockPitch;
            RefMove(to, data.data + data.AlignNum() * r + v + c);
        }
    }
    return 0;
}

inline uint32_t RefGatherElements(LayerParam* param)
{
    const char* const name = "GatherElementsOpkitForward";
    const int32_t a = static_cast<const GatherElementsAttr*>(param->attr)->gatherAxis;
    RefTensor data;
    RefTensor indices;
    if (!RefResolveTwo(param, name, data, indices)) {
        return kAllOnes;
    }
    if (indices.count == 0) {
        return 0;
    }
    const RefTensor out = RefOutput(param, 0);
    const int32_t extentAtAxis = static_cast<int32_t>(data.shape[a]);
    const float low = static_cast<float>(-extentAtAxis);
    const float high = static_cast<float>(extentAtAxis - 1);
    for (uint32_t i = 0; i < indices.count; ++i) {
        float& value = RefAt(indices, i);
        if (low > value) {
            value = low;
        }
        if (value > high) {
            value = high;
        }
    }
    std::vector<uint32_t> counters(static_cast<size_t>(std::max(indices.dimNum, data.dimNum)), 0);
    const uint32_t rowLength = indices.Width();
    uint32_t f = 0;
    for (uint32_t row = 0; row < RefProduct(indices, 0, indices.dimNum - 1); ++row) {
        uint32_t base = 0;
        for (int32_t i = 0; i < data.dimNum - 1; ++i) {
            base += i == a ? 0 : counters[static_cast<size_t>(i)] * RefProduct(data, i + 1, data.dimNum);
        }
        for (uint32_t j = 0; j < rowLength; ++j) {
            const float value = RefAt(indices, f + j);
            const double rounded = static_cast<double>(roundf(value));
            const uint32_t idx = static_cast<uint32_t>(RefToI32(value < 0.0f ? rounded + extentAtAxis : rounded));
            const uint32_t source =
                a == indices.dimNum - 1 ? idx + base : idx * RefProduct(data, a + 1, data.dimNum) + base + j;
            const uint64_t from =
                uint64_t{source / data.Width()} * RefPitch(data.Width(), data.AlignNum()) + source % data.Width();
            if (from >= RefExtent(data)) {
                RefReport(name, "GatherElements index %f reads outside the data.\n\n", static_cast<double>(value));
                return kAllOnes;
            }
            RefMove(&RefAt(out, f + j), data.data + from);
        }
        f += rowLength;
        for (int32_t i = indices.dimNum - 2; i >= 0; --i) {
            if (++counters[static_cast<size_t>(i)] < indices.shape[i]) {
                break;
            }
            counters[static_cast<size_t>(i)] = 0;
        }
    }
    return 0;
}

inline void RefCheckIndex(float* value, uint32_t extent)
{
    const int32_t d = static_cast<int32_t>(extent);
    const char* const text = "GatherND index should be in [%d, %d]. Clip it to [%f]\n\n";
    if (*value >= static_cast<float>(d)) {
        *value = static_cast<float>(d - 1);
        RefReport("CheckIndex", text, -d, d - 1, static_cast<double>(d - 1));
    } else if (static_cast<float>(-d) > *value) {
        *value = 0.0f;
        RefReport("CheckIndex", text, -d, d - 1, 0.0);
    }
}

inline uint32_t RefGatherND(LayerParam* param)
{
    const char* const name = "GatherNDOpkitForward";
    const int32_t b = static_cast<const GatherNDAttr*>(param->attr)->gatherAxis;
    RefTensor data;
    RefTensor indices;
    if (!RefResolveTwo(param, name, data, indices)) {
        return kAllOnes;
    }
    const int32_t rank = data.dimNum;
    const int32_t k = static_cast<int32_t>(indices.Width());
    const uint32_t tuples = RefProduct(indices, b, indices.dimNum - 1);
    const uint32_t batches = RefProduct(indices, 0, b);
    const bool full = rank == b + k;
    const uint32_t slice = full ? 1 : RefProduct(data, b + k, rank - 1) * data.AlignNum();
    const uint32_t batchPitch = RefProduct(data, b, rank - 1) * (full ? 1 : data.AlignNum());
    float* out = static_cast<float*>(param->outputs[0].data);
    float* cursor = indices.data;
    float* start = data.data;
    for (uint32_t batch = 0; batch < batches && tuples > 0; ++batch) {
        for (uint32_t t = 0; t < tuples; ++t) {
            uint32_t L = 0;
            float shown = 0.0f;
            for (int32_t i = 0; i < k; ++i) {
                const uint32_t d = data.shape[b + i];
                RefCheckIndex(cursor + i, d);
                const float value = cursor[i];
                shown = value;
                const float offset = static_cast<float>(d * L);
                if (value < 0.0f) {
                    const float lifted = value + static_cast<float>(d);
                    L = RefToU32(lifted + offset);
                } else {
                    L = RefToU32(value + offset);
                }
            }
            const int64_t first = (start - data.data) + static_cast<int32_t>(L * slice);
            if (first < 0 || first + slice > RefExtent(data)) {
                RefReport(name, "GatherND index %f reads outside the data.\n\n", static_cast<double>(shown));
                return kAllOnes;
            }
            for (uint32_t e = 0; e < slice; ++e) {
                RefMove(out + e, data.data + first + e);
            }
            out += slice;
            cursor += indices.AlignNum();
        }
        start += batchPitch;
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_GATHER_H
