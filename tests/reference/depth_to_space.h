// Literal form of DepthToSpace.
#ifndef OPKIT_TESTS_REFERENCE_DEPTH_TO_SPACE_H
#define OPKIT_TESTS_REFERENCE_DEPTH_TO_SPACE_H

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline void RefDepthToSpaceWalk(bool crd, uint32_t strideIn, uint32_t strideOut, const float* in, float* out,
                                uint32_t N, uint32_t C, uint32_t H, uint32_t W, uint32_t b)
{
    const uint32_t depth = C / (b * b);
    for (uint32_t n = 0; n < N; ++n) {
        for (uint32_t c = 0; c < depth; ++c) {
            for (uint32_t h = 0; h < H; ++h) {
                for (uint32_t w = 0; w < W; ++w) {
                    for (uint32_t bh = 0; bh < b; ++bh) {
                        for (uint32_t bw = 0; bw < b; ++bw) {
                            const uint32_t channel = crd ? c * b * b + bh * b + bw : (bh * b + bw) * depth + c;
                            const uint32_t from = ((n * C + channel) * H + h) * W + w;
                            const uint32_t to = ((n * depth + c) * H * b + h * b + bh) * W * b + w * b + bw;
                            RefMove(out + RefPadded(to, W * b, strideOut), in + RefPadded(from, W, strideIn));
                        }
                    }
                }
            }
        }
    }
}

inline uint32_t RefDepthToSpace(LayerParam* param)
{
    const auto* attr = static_cast<const DepthToSpaceAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        return kAllOnes;
    }
    if (attr->depthToSpaceMode > 1) {
        return 0;
    }
    const uint32_t* const last = in.shape + in.dimNum;
    RefDepthToSpaceWalk(attr->depthToSpaceMode == 1, param->inputs[0].stride / 4, param->outputs[0].stride / 4, in.data,
                        static_cast<float*>(param->outputs[0].data), last[-4], last[-3], last[-2], last[-1],
                        attr->blockSize);
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_DEPTH_TO_SPACE_H
