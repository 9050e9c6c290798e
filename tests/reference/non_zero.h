// Literal form of NonZero, for outputs that hold all coordinates.
#ifndef OPKIT_TESTS_REFERENCE_NON_ZERO_H
#define OPKIT_TESTS_REFERENCE_NON_ZERO_H

#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefNonZero(LayerParam* param)
{
    const char* const name = "NonZeroOpkitForward";
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    const auto dimNum = static_cast<uint32_t>(in.dimNum);
    uint32_t count = 0;
    for (uint32_t i = 0; i < in.count; ++i) {
        count += RefIsZero(RefAt(in, i)) ? 0 : 1;
    }
    for (uint32_t i = dimNum * count; i < out.count; ++i) {
        out.data[i] = 0.0f;
    }
    uint32_t u = 0;
    for (uint32_t n = 0; n < in.count; ++n) {
        if (RefIsZero(RefAt(in, n))) {
            continue;
        }
        uint32_t rem = n;
        uint32_t block = in.count;
        for (uint32_t k = 0; k < dimNum; ++k) {
            block = block / in.shape[k];
            out.data[k * count + u] = static_cast<float>(rem / block);
            rem = rem % block;
        }
        u += 1;
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_NON_ZERO_H
