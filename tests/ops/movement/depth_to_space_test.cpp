#include "tests/reference/depth_to_space.h"
#include "tests/ops/movement/movement_cases.h"

namespace opkit::test {
namespace {

using reference::RefDepthToSpace;
using ::testing::Each;
using ::testing::ElementsAre;

LayerCase DepthToSpace(uint32_t block, uint32_t mode)
{
    LayerCase layer("DepthToSpaceOpkitForward");
    layer.Attr<DepthToSpaceAttr>().blockSize = block;
    layer.Attr<DepthToSpaceAttr>().depthToSpaceMode = mode;
    return layer;
}

// Channel c holds 10 * c and 10 * c + 1.
const std::vector<float> kEightChannels = {0, 1, 10, 11, 20, 21, 30, 31, 40, 41, 50, 51, 60, 61, 70, 71};

TEST(DepthToSpace, Orders)
{
    LayerCase dcr = DepthToSpace(2, 0);
    dcr.Online({1, 8, 1, 2}, kEightChannels, 16).Output({1, 2, 2, 4}, 32);
    EXPECT_THAT(RunOutput(dcr, DepthToSpaceOpkitForward),
                ElementsAre(0, 20, 1, 21, 40, 60, 41, 61, 10, 30, 11, 31, 50, 70, 51, 71));
    LayerCase crd = DepthToSpace(2, 1);
    crd.Online({1, 8, 1, 2}, kEightChannels, 16).Output({1, 2, 2, 4}, 32);
    EXPECT_THAT(RunOutput(crd, DepthToSpaceOpkitForward),
                ElementsAre(0, 10, 1, 11, 20, 30, 21, 31, 40, 50, 41, 51, 60, 70, 61, 71));
}

TEST(DepthToSpace, WritesNothing)
{
    const auto run = [](LayerCase layer, const Shape& in) {
        CaseTensor out;
        out.shape = {1, 2, 2, 4};
        out.data.assign(16, -1.0f);
        layer.Online(in, {}, 16).Output(out);
        EXPECT_THAT(RunOutput(layer, DepthToSpaceOpkitForward), Each(-1.0f));
    };
    run(DepthToSpace(2, 2), {1, 8, 1, 2});    // an unknown order
    run(DepthToSpace(0, 259), {1, 8, 1, 2});  // before the block size is looked at
    run(DepthToSpace(3, 0), {1, 8, 1, 2});    // 8 channels make no block of 9
    run(DepthToSpace(2, 1), {0, 8, 1, 2});
    run(DepthToSpace(2, 1), {1, 8, 0, 2});
    run(DepthToSpace(2, 0), {1, 8, 1, 0});
}

TEST(DepthToSpace, MissingInputFailsSilently)
{
    LayerCase missing = DepthToSpace(1, 0);
    missing.Output({1, 1, 1, 1});
    ExpectRun(missing, DepthToSpaceOpkitForward, ~0u, "");
}

TEST(DepthToSpace, OfflineDataTakesTheStrideOfTheFirstTensor)
{
    LayerCase layer = DepthToSpace(1, 0);
    layer.Offline({1, 1, 4, 2}, Iota(8)).Online({1, 2}, {0, 0}, 16).Output({1, 1, 2, 2});
    layer.Tamper([](World& world) { world.Attr<LayerAttrHead>().offlineShape[0].dims[2] = 2; });
    EXPECT_THAT(RunOutput(layer, DepthToSpaceOpkitForward), ElementsAre(0, 1, 4, 5));
}

TEST(DepthToSpace, WalksCalledDirectly)
{
    std::vector<float> in = kEightChannels;
    std::vector<float> out(16);
    EXPECT_EQ(DepthToSpaceOpkitForwardDCR(2, 4, in.data(), out.data(), 1, 8, 1, 2, 2), 0u);
    EXPECT_THAT(out, ElementsAre(0, 20, 1, 21, 40, 60, 41, 61, 10, 30, 11, 31, 50, 70, 51, 71));
    EXPECT_EQ(DepthToSpaceOpkitForwardCRD(2, 4, in.data(), out.data(), 1, 8, 1, 2, 2), 0u);
    EXPECT_THAT(out, ElementsAre(0, 10, 1, 11, 20, 30, 21, 31, 40, 50, 41, 51, 60, 70, 61, 71));
    std::vector<float> padded(8, -1.0f);  // rows of two in four floats each
    EXPECT_EQ(DepthToSpaceOpkitForwardCRD(2, 4, in.data(), padded.data(), 2, 1, 1, 2, 1), 0u);
    EXPECT_THAT(padded, ElementsAre(0, 1, -1, -1, 10, 11, -1, -1));
    EXPECT_EQ(DepthToSpaceOpkitForwardDCR(2, 4, in.data(), padded.data(), 0, 8, 1, 2, 2), 0u);
    EXPECT_THAT(padded, ElementsAre(0, 1, -1, -1, 10, 11, -1, -1));
}

TEST(DepthToSpace, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const uint32_t block = static_cast<uint32_t>(random.Int(1, 6));
        const uint32_t depth = static_cast<uint32_t>(random.Int(0, 3));
        const uint32_t surplus = static_cast<uint32_t>(random.Int(0, 3)) % (block * block);
        const uint32_t n = static_cast<uint32_t>(random.Int(1, 2));
        const uint32_t h = static_cast<uint32_t>(random.Int(1, 4));
        const uint32_t w = static_cast<uint32_t>(random.Int(1, 40));
        Shape in = {n, std::max(depth * block * block + surplus, 1u), h, w};
        const Shape out = {n, std::max(depth, 1u), h * block, w * block};
        if (random.Chance(0.2)) {
            in.insert(in.begin(), static_cast<uint32_t>(random.Int(1, 2)));  // left out of account
        }
        LayerCase layer = DepthToSpace(block, static_cast<uint32_t>(random.Int(0, 2)));
        const bool offline = random.Chance(0.2);
        AddInput(layer, random, in, Values::kBits, offline ? 1 : 0);
        if (offline) {
            layer.Online({1, w}, random.Floats(w, Values::kBits), 4 * w);
        }
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, DepthToSpaceOpkitForward, RefDepthToSpace);
    });
}

TEST(DepthToSpace, BlockOfOneOutputIsTheInput)
{
    for (const uint32_t mode : {0u, 1u}) {
        LayerCase layer = DepthToSpace(1, mode);
        layer.Online({1, 2, 2, 3}, Iota(12), 16).OutputInPlace(0, {1, 2, 2, 3});
        ExpectSameAsReference(layer, DepthToSpaceOpkitForward, RefDepthToSpace);
    }
}

}  // namespace
}  // namespace opkit::test
