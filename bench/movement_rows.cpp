// Data movement against oneDNN's reorder, a blocked loop and memcpy of the same rows.

#include <cstring>

#include "bench/one_layer.h"
#include "bench/peers.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/movement.h"

namespace opkit::bench {
namespace {

PermuteAttr PermutationOf(const std::vector<uint32_t>& perm)
{
    PermuteAttr attr = {};
    attr.permDimCount = attr.permOutDimCount = attr.permLength = static_cast<uint32_t>(perm.size());
    std::copy(perm.begin(), perm.end(), attr.perm);
    return attr;
}

// The walk of the permutation is a transposition of [rows, columns].
Row Transposition(const std::shared_ptr<OneLayer>& layer, size_t rows, size_t columns, const Work& dnnl,
                  const std::shared_ptr<modelkit::Buffer>& other)
{
    Row row;
    row.work = static_cast<double>(rows * columns) * 8;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    const Work blocks = [=] { plain::TransposeBlocks(layer->In().data(), other->Floats().data(), rows, columns); };
    row.peers = {{"oneDNN reorder", dnnl, Ratio::kTime, 1.0}, {"blocks of 16x16", blocks, Ratio::kTime, 1.0}};
    row.same = [=] {
        blocks();
        return SameBits(layer->Out(), other->Floats());
    };
    return row;
}

Row ToNhwc()
{
    constexpr uint32_t kChannels = 64;
    constexpr uint32_t kSize = 112;
    const auto layer = MakeLayer("PermuteOpkitForward", std::vector<Layout>{{{1, kChannels, kSize, kSize}}},
                                 std::vector<Layout>{{{1, kSize, kSize, kChannels}}}, PermutationOf({0, 2, 3, 1}), 32u);
    Fill(layer->In());
    const auto other = MakeFloats(layer->Out().size());
    return Transposition(layer, kChannels, kSize * kSize,
                         peers::ToNhwc(kChannels, kSize, layer->In().data(), other->Floats().data()), other);
}

Row Transpose()
{
    const Layout square = {{1024, 1024}};
    const auto layer = MakeLayer("PermuteOpkitForward", std::vector<Layout>{square}, std::vector<Layout>{square},
                                 PermutationOf({1, 0}), 16u);
    Fill(layer->In());
    const auto other = MakeFloats(layer->Out().size());
    return Transposition(layer, 1024, 1024, peers::Transpose(1024, 1024, layer->In().data(), other->Floats().data()),
                         other);
}

// The same rows moved by memcpy: `rows` rows of `length` floats, from row (i * step) % rowsThere.
Work CopyRows(const std::shared_ptr<OneLayer>& layer, size_t rows, size_t length, size_t step = 1)
{
    const auto to = MakeFloats(rows * length);
    return [=] {
        const float* const from = layer->In().data();
        const size_t there = layer->In().size() / length;
        for (size_t r = 0; r < rows; ++r) {
            std::memcpy(to->Floats().data() + r * length, from + r * step % there * length, length * sizeof(float));
        }
        Keep(to->data());
    };
}

Row AgainstCopy(const std::shared_ptr<OneLayer>& layer, const Work& copy)
{
    Row row;
    row.work = static_cast<double>(layer->Out().size()) * 8;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"memcpy of the same rows", copy, Ratio::kTime, 1.5}};
    return row;
}

Row DepthToSpace()
{
    DepthToSpaceAttr attr = {};
    attr.blockSize = 2;
    const auto layer = MakeLayer("DepthToSpaceOpkitForward", std::vector<Layout>{{{1, 64, 112, 112}}},
                                 std::vector<Layout>{{{1, 16, 224, 224}}}, attr);
    Fill(layer->In());
    Row row = AgainstCopy(layer, CopyRows(layer, 64 * 112, 112));
    const auto other = MakeFloats(layer->Out().size());
    row.peers.push_back({"literal loop",
                         [=] { plain::DepthToSpace(layer->In().data(), other->Floats().data(), 64, 112, 112); },
                         Ratio::kSpeed, 0});
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

Row Concat()
{
    ConcatAttr attr = {};
    attr.concatInputCount = 4;
    attr.concatAxis = 1;
    const Layout part = {{100, 10, 250}};
    const auto layer = MakeLayer("ConcatOpkitForward", std::vector<Layout>{part, part, part, part},
                                 std::vector<Layout>{{{100, 40, 250}}}, attr);
    for (size_t k = 0; k < 4; ++k) {
        Fill(layer->In(k), -1, 1, static_cast<uint32_t>(k));
    }
    const auto to = MakeFloats(1000000);
    return AgainstCopy(layer, [=] {
        for (size_t k = 0; k < 4; ++k) {
            for (size_t o = 0; o < 100; ++o) {
                std::memcpy(to->Floats().data() + (o * 4 + k) * 2500, layer->In(k).data() + o * 2500, 10000);
            }
        }
        Keep(to->data());
    });
}

Row Expand()
{
    const auto layer = MakeLayer("ExpandOpkitForward", std::vector<Layout>{{{10, 1, 1000}}},
                                 std::vector<Layout>{{{10, 100, 1000}}}, ExpandAttr{});
    Fill(layer->In());
    const auto to = MakeFloats(1000000);
    return AgainstCopy(layer, [=] {
        for (size_t r = 0; r < 1000; ++r) {
            std::memcpy(to->Floats().data() + r * 1000, layer->In().data() + r / 100 * 1000, 4000);
        }
        Keep(to->data());
    });
}

Row Pad(uint32_t mode)
{
    constexpr int32_t kRank = 4;
    PadAttr attr = {};
    attr.padCount = attr.padCountCheck = 2 * kRank;
    attr.outputDimsSize = attr.reshapedInputDimsSize = attr.reshapedOutputDimsSize = kRank;
    attr.reshapedPadsSize = attr.reshapedSlicesSize = 2 * kRank;
    attr.inputStartsSize = attr.inputExtentsSize = kRank;
    attr.padMode = mode;
    for (const int axis : {2, 3}) {
        attr.padsAttr[axis] = attr.padsAttr[kRank + axis] = 2;
    }
    const auto layer = MakeLayer("PadOpkitForward", std::vector<Layout>{{{1, 64, 112, 112}}},
                                 std::vector<Layout>{{{1, 64, 116, 116}}}, attr, uint32_t{17 * kRank * 4});
    Fill(layer->In());
    return AgainstCopy(layer, CopyRows(layer, 64 * 112, 112));
}

Row Gather()
{
    constexpr uint32_t kRows = 4000;
    const auto layer = MakeLayer("GatherOpkitForward", std::vector<Layout>{{{kRows, 256}}, {{kRows}}},
                                 std::vector<Layout>{{{kRows, 256}}}, GatherAttr{});
    Fill(layer->In());
    for (size_t i = 0; i < kRows; ++i) {
        layer->In(1)[i] = static_cast<float>(i * 1237 % kRows);
    }
    Row row = AgainstCopy(layer, CopyRows(layer, kRows, 256, 1237));
    return row;
}

Row ScatterNdSlices()
{
    constexpr uint32_t kRows = 4000;
    constexpr uint32_t kUpdates = 1000;
    const auto layer =
        MakeLayer("ScatterNDOpkitForward", std::vector<Layout>{{{kRows, 256}}, {{kUpdates, 1}}, {{kUpdates, 256}}},
                  std::vector<Layout>{{{kRows, 256}}}, LayerAttrHead{}, uint32_t{(kUpdates + 2) * 4});
    Fill(layer->In());
    Fill(layer->In(2), -1, 1, 3);
    for (size_t i = 0; i < kUpdates; ++i) {
        layer->In(1)[i] = static_cast<float>(i * 1237 % kRows);
    }
    const auto to = MakeFloats(size_t{kRows} * 256);
    return AgainstCopy(layer, [=] {
        std::memcpy(to->data(), layer->In().data(), size_t{kRows} * 1024);
        for (size_t i = 0; i < kUpdates; ++i) {
            std::memcpy(to->Floats().data() + i * 1237 % kRows * 256, layer->In(2).data() + i * 256, 1024);
        }
        Keep(to->data());
    });
}

Row ScatterNdElements()
{
    constexpr uint32_t kRows = 1000;
    constexpr uint32_t kColumns = 100;
    constexpr uint32_t kUpdates = 100000;
    const auto layer =
        MakeLayer("ScatterNDOpkitForward", std::vector<Layout>{{{kRows, kColumns}}, {{kUpdates, 2}}, {{kUpdates}}},
                  std::vector<Layout>{{{kRows, kColumns}}}, LayerAttrHead{}, uint32_t{(kUpdates + 2) * 4});
    Fill(layer->In(0));
    Fill(layer->In(2), -1, 1, 3);
    for (size_t i = 0; i < kUpdates; ++i) {
        layer->In(1)[2 * i] = static_cast<float>(i * 379 % kRows);
        layer->In(1)[2 * i + 1] = static_cast<float>(i * 41 % kColumns);
    }
    const auto other = MakeFloats(layer->Out().size());
    Row row;
    row.work = kUpdates;
    row.unit = "G updates/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"literal loop",
                  [=] {
                      plain::ScatterNd(layer->In(0).data(), layer->In(1).data(), layer->In(2).data(),
                                       other->Floats().data(), kRows, kColumns, kUpdates);
                  },
                  Ratio::kSpeed, 0}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

Row Reshape()
{
    ReshapeAttr attr = {};
    attr.reshapeDims[0] = 500;
    attr.reshapeDims[1] = 2000;
    attr.reshapeDimCount = 2;
    const auto layer = MakeLayer("ReshapeOpkitForward", std::vector<Layout>{{{1000, 1000}, 4096}},
                                 std::vector<Layout>{{{500, 2000}, 8192}}, attr);
    Fill(layer->In());
    const auto to = MakeFloats(500 * 2048);
    Row row = AgainstCopy(layer, [=] {
        for (size_t r = 0; r < 1000; ++r) {
            std::memcpy(to->Floats().data() + r / 2 * 2048 + r % 2 * 1000, layer->In().data() + r * 1024, 4000);
        }
        Keep(to->data());
    });
    row.work = 8e6;
    return row;
}

}  // namespace

std::vector<RowMaker> MovementRows()
{
    return {
        {"Permute", "NCHW to NHWC, 64x112x112", ToNhwc},
        {"Permute", "transpose 1024x1024", Transpose},
        {"Movement", "DepthToSpace 2x2, 64x112x112", DepthToSpace},
        {"Movement", "Concat, middle axis, 1 M", Concat},
        {"Movement", "Expand 10x1x1000 to 10x100x1000", Expand},
        {"Movement", "Pad by 2, constant, 64x112x112", [] { return Pad(OPKIT_PAD_CONSTANT); }},
        {"Movement", "Pad by 2, reflect", [] { return Pad(OPKIT_PAD_REFLECT); }},
        {"Movement", "Pad by 2, edge", [] { return Pad(OPKIT_PAD_EDGE); }},
        {"Movement", "Gather 4000 rows of 256", Gather},
        {"Movement", "ScatterND 1000 rows of 256 into 4000", ScatterNdSlices},
        {"Movement", "ScatterND 100,000 elements", ScatterNdElements},
        {"Movement", "Reshape 1000x1000 to 500x2000, padded", Reshape},
    };
}

}  // namespace opkit::bench
