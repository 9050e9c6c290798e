// DepthToSpace: [N, C, H, W] becomes [N, C / b^2, H * b, W * b]; each block of b x b outputs takes its elements from
// b^2 channels. The input's stride is that of the first online tensor even when the data is offline.
// Rows: in place.

#include "common/move_floats.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// out[w * block + i] = in[i * step + w]: one output row takes from `block` source rows in turn.
template <uint32_t kBlock>
void InterleaveRows(const float* in, size_t step, float* out, uint32_t width)
{
    for (uint32_t w = 0; w < width; ++w) {
        for (uint32_t i = 0; i < kBlock; ++i) {
            out[size_t{w} * kBlock + i] = in[i * step + w];
        }
    }
}

void InterleaveRows(const float* in, size_t step, float* out, uint32_t width, uint32_t block)
{
    switch (block) {
        case 1:
            return MoveFloats(out, in, width);
        case 2:
            return InterleaveRows<2>(in, step, out, width);
        case 3:
            return InterleaveRows<3>(in, step, out, width);
        case 4:
            return InterleaveRows<4>(in, step, out, width);
        default:
            for (uint32_t i = 0; i < block; ++i) {
                for (uint32_t w = 0; w < width; ++w) {
                    out[size_t{w} * block + i] = in[i * step + w];
                }
            }
    }
}

// Which channel an element comes from: bh * ofRow + bw * ofColumn + c * ofDepth.
struct ChannelSteps {
    size_t ofRow;
    size_t ofColumn;
    size_t ofDepth;
};

struct Block {
    uint32_t N, C, H, W, size, depth;
    bool Empty() const { return N == 0 || depth == 0 || H == 0 || W == 0; }
};

// `depth` channels of output; a block size of 0 is a division fault.
Block BlockOf(uint32_t N, uint32_t C, uint32_t H, uint32_t W, uint32_t size)
{
    return {N, C, H, W, size, C / (size * size)};
}

void MoveBlocks(uint32_t strideIn, uint32_t strideOut, const float* in, float* out, const Block& block,
                const ChannelSteps& channel)
{
    const size_t pitchIn = RowPitch(block.W, strideIn);
    const size_t pitchOut = RowPitch(block.W * block.size, strideOut);
    const size_t plane = block.H * pitchIn;
    for (uint32_t n = 0; n < block.N; ++n, in += block.C * plane) {
        for (uint32_t c = 0; c < block.depth; ++c) {
            for (uint32_t h = 0; h < block.H; ++h) {
                const float* const from = in + c * channel.ofDepth * plane + h * pitchIn;
                for (uint32_t bh = 0; bh < block.size; ++bh, out += pitchOut) {
                    InterleaveRows(from + bh * channel.ofRow * plane, channel.ofColumn * plane, out, block.W,
                                   block.size);
                }
            }
        }
    }
}

}  // namespace

uint32_t DepthToSpaceOpkitForwardDCR(uint32_t strideIn, uint32_t strideOut, float* in, float* out, uint32_t N,
                                     uint32_t C, uint32_t H, uint32_t W, uint32_t block)
{
    const Block blocks = BlockOf(N, C, H, W, block);
    if (!blocks.Empty()) {
        const size_t depth = blocks.depth;
        MoveBlocks(strideIn, strideOut, in, out, blocks, {.ofRow = block * depth, .ofColumn = depth, .ofDepth = 1});
    }
    return kSuccess;
}

uint32_t DepthToSpaceOpkitForwardCRD(uint32_t strideIn, uint32_t strideOut, float* in, float* out, uint32_t N,
                                     uint32_t C, uint32_t H, uint32_t W, uint32_t block)
{
    const Block blocks = BlockOf(N, C, H, W, block);
    if (!blocks.Empty()) {
        const size_t perDepth = size_t{block} * block;
        MoveBlocks(strideIn, strideOut, in, out, blocks, {.ofRow = block, .ofColumn = 1, .ofDepth = perDepth});
    }
    return kSuccess;
}

uint32_t DepthToSpaceOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kInPlace, Messages::kNone)) {
        return kFailure;
    }
    const DepthToSpaceAttr& attr = AttrOf<DepthToSpaceAttr>(param);
    if (attr.depthToSpaceMode > OPKIT_DEPTH_TO_SPACE_CRD) {
        return kSuccess;
    }
    const auto move =
        attr.depthToSpaceMode == OPKIT_DEPTH_TO_SPACE_DCR ? DepthToSpaceOpkitForwardDCR : DepthToSpaceOpkitForwardCRD;
    const TensorInfo& out = param->outputs[0];
    return move(param->inputs[0].stride >> 2, out.stride >> 2, in.data, static_cast<float*>(out.data),
                GetImgNum(in.shape, in.dimNum), GetChannels(in.shape, in.dimNum), GetHeight(in.shape, in.dimNum),
                GetWidth(in.shape, in.dimNum), attr.blockSize);
}
