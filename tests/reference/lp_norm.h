// Literal form of LpNorm.
#ifndef OPKIT_TESTS_REFERENCE_LP_NORM_H
#define OPKIT_TESTS_REFERENCE_LP_NORM_H

#include "opkit/attributes/pooling.h"
#include "tests/reference/reference_frame.h"
#include "tests/reference/reference_index.h"

namespace opkit::reference {

inline uint32_t RefLpNorm(LayerParam* param)
{
    const char* const name = "LpNormOpkitForward";
    RefCursor cursor;
    RefTensor x;
    if (!RefResolve(param, cursor, x)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    if (!RefCompact(name, x)) {
        return kAllOnes;
    }
    const RefTensor y = RefOutput(param, 0);
    const auto& attr = *static_cast<LpNormAttr*>(param->attr);
    const int32_t axis = attr.axis < 0 ? attr.axis + x.dimNum : attr.axis;
    const auto axisLen = static_cast<int32_t>(x.shape[axis]);
    const int32_t vectors = static_cast<int32_t>(x.count) / axisLen;
    int32_t distance = 1;
    for (int32_t d = axis + 1; d < x.dimNum; ++d) {
        distance *= static_cast<int32_t>(x.shape[d]);
    }
    if (distance == 0) {
        RefReport(name, "Illegal value, distant is 0\n");
        return kAllOnes;
    }
    for (int32_t v = 0; v < vectors; ++v) {
        y.data[v] = 0.0f;
    }
    // Called through volatile, so that no compiler puts something else in the place of libm's pow.
    double (*volatile power)(double, double) = pow;
    for (int32_t v = 0; v < vectors; ++v) {
        const int32_t base = (v / distance) * distance * axisLen + v % distance;
        float sum = 0.0f;
        for (int32_t j = 0; j < axisLen; ++j) {
            int64_t n = RefToI32(x.data[base + j * distance]);
            if (n < 0 && n != INT32_MIN) {
                n = -n;
            }
            const auto magnitude = static_cast<float>(n);
            sum = static_cast<float>(static_cast<double>(sum) +
                                     power(static_cast<double>(magnitude), static_cast<double>(attr.p)));
        }
        const auto norm = static_cast<float>(power(static_cast<double>(sum), 1.0 / static_cast<double>(attr.p)));
        for (int32_t j = 0; j < axisLen; ++j) {
            y.data[base + j * distance] = x.data[base + j * distance] / norm;
        }
    }
    return RefExpandChecked(name, y);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_LP_NORM_H
