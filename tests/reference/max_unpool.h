// Literal form of MaxUnpool.
#ifndef OPKIT_TESTS_REFERENCE_MAX_UNPOOL_H
#define OPKIT_TESTS_REFERENCE_MAX_UNPOOL_H

#include "tests/reference/pooling.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline uint32_t RefMaxUnpool(LayerParam* param)
{
    const char* const name = "MaxUnpoolOpkitForward";
    RefCursor cursor;
    RefTensor x, index;
    if (!RefResolve(param, cursor, x) || !RefResolve(param, cursor, index)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor y = RefOutput(param, 0);
    for (uint32_t i = 0; i < y.count; ++i) {
        y.data[i] = 0.0f;
    }
    const uint32_t planes = RefDimFromEnd(x, 4) * RefDimFromEnd(x, 3);
    const uint32_t inH = RefDimFromEnd(x, 2), inW = RefDimFromEnd(x, 1);
    const uint32_t plane = RefDimFromEnd(y, 2) * RefDimFromEnd(y, 1);
    for (uint32_t p = 0; p < planes; ++p) {
        for (uint32_t h = 0; h < inH; ++h) {
            for (uint32_t w = 0; w < inW; ++w) {
                const uint32_t row = p * inH + h;
                const float position = index.data[row * RefPitch(index.Width(), index.AlignNum()) + w];
                const uint32_t idx = RefToU32(position);
                if (idx >= plane) {
                    RefReport(name, "Maximum index out-of-range.\n\n");
                    return kAllOnes;
                }
                RefMove(&y.data[p * plane + idx], &x.data[row * RefPitch(x.Width(), x.AlignNum()) + w]);
            }
        }
    }
    return RefExpandChecked(name, y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_MAX_UNPOOL_H
