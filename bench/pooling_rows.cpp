// Pooling and resampling against oneDNN, normalisation against literal loops.

#include <cfloat>

#include "bench/one_layer.h"
#include "bench/peers.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/movement.h"
#include "opkit/attributes/pooling.h"

namespace opkit::bench {
namespace {

constexpr uint32_t kChannels = 64;
constexpr uint32_t kSize = 112;

template <class Attr>
Row Pool(const char* name, Attr attr, bool average)
{
    attr.kernelH = attr.kernelW = 3;
    attr.strideH = attr.strideW = 2;
    attr.padTop = attr.padLeft = 1;
    const auto layer = MakeLayer(name, std::vector<Layout>{{{1, kChannels, kSize, kSize}}},
                                 std::vector<Layout>{{{1, kChannels, kSize / 2, kSize / 2}}}, attr);
    Fill(layer->In());
    const auto other = MakeFloats(size_t{kChannels} * kSize * kSize / 4);
    Row row;
    row.work = kChannels * kSize * kSize * 1.25 * 4;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    const Work dnnl = peers::Pooling({average, kChannels, kSize, 3, 2, 1}, layer->In().data(), other->Floats().data());
    row.peers = {{"oneDNN",
                  dnnl ? Work([=] {
                      (void)other;
                      dnnl();
                  })
                       : Work(),
                  Ratio::kTime, 1.0}};
    if (dnnl && !average) {
        row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    }
    return row;
}

Row Resample(bool linear)
{
    constexpr uint32_t kFrom = 56;
    ResizeAttr attr = {};
    attr.resizeMode = linear ? OPKIT_RESIZE_LINEAR : OPKIT_RESIZE_NEAREST;
    attr.scales[0] = attr.scales[1] = 1;
    attr.scales[2] = attr.scales[3] = 2;
    const auto layer = MakeLayer("ResizeOpkitForward", std::vector<Layout>{{{1, kChannels, kFrom, kFrom}}},
                                 std::vector<Layout>{{{1, kChannels, 2 * kFrom, 2 * kFrom}}}, attr);
    Fill(layer->In());
    const auto other = MakeFloats(size_t{kChannels} * kFrom * kFrom * 4);
    Row row;
    row.work = kChannels * kFrom * kFrom * 5.0 * 4;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    const Work dnnl = peers::Resample(linear, kChannels, kFrom, layer->In().data(), other->Floats().data());
    row.peers = {{"oneDNN",
                  dnnl ? Work([=] {
                      (void)other;
                      dnnl();
                  })
                       : Work(),
                  Ratio::kTime, linear ? 0.5 : 0.8}};
    if (!linear) {
        row.peers.push_back({"memset of the output", ClearOf(layer->Out().size()), Ratio::kTime});
    }
    if (dnnl && !linear) {
        row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    }
    return row;
}

Row AgainstLiteral(const std::shared_ptr<OneLayer>& layer, const Work& loop,
                   const std::shared_ptr<modelkit::Buffer>& other, double bytes)
{
    Row row;
    row.work = bytes;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"literal loop", loop, Ratio::kSpeed, 4.0}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

Row InstanceNorm()
{
    constexpr uint32_t kPlane = 56;
    InstanceNormalizationAttr attr = {};
    attr.epsilon = 1;
    const Layout image = {{1, kChannels, kPlane, kPlane}};
    const auto layer =
        MakeLayer("InstanceNormalizationOpkitForward", std::vector<Layout>{image, {{kChannels}}, {{kChannels}}},
                  std::vector<Layout>{image}, attr, kPlane * kPlane * 4);
    for (size_t k = 0; k < 3; ++k) {
        Fill(layer->In(k), -1, 1, static_cast<uint32_t>(k + 1));
    }
    const auto other = MakeFloats(layer->Out().size());
    return AgainstLiteral(
        layer,
        [=] {
            plain::InstanceNormalization(layer->In(0).data(), layer->In(1).data(), layer->In(2).data(),
                                         other->Floats().data(), kChannels, kPlane * kPlane);
        },
        other, kChannels * kPlane * kPlane * 8.0);
}

Row LpNorm(Shape shape, int32_t axis)
{
    LpNormAttr attr = {};
    attr.axis = axis;
    attr.p = 2;
    const auto layer =
        MakeLayer("LpNormOpkitForward", std::vector<Layout>{{shape}}, std::vector<Layout>{{shape}}, attr);
    Fill(layer->In(), -100, 100);
    const auto other = MakeFloats(layer->Out().size());
    const size_t a = static_cast<size_t>(axis);
    size_t outer = 1;
    size_t inner = 1;
    for (size_t d = 0; d < shape.size(); ++d) {
        outer *= d < a ? shape[d] : 1;
        inner *= d > a ? shape[d] : 1;
    }
    return AgainstLiteral(
        layer, [=] { plain::LpNorm(layer->In().data(), other->Floats().data(), outer, shape[a], inner); }, other,
        static_cast<double>(layer->Out().size()) * 8);
}

Row Unpool()
{
    constexpr uint32_t kIn = 56;
    const Layout pooled = {{1, kChannels, kIn, kIn}};
    const auto layer = MakeLayer("MaxUnpoolOpkitForward", std::vector<Layout>{pooled, pooled},
                                 std::vector<Layout>{{{1, kChannels, 2 * kIn, 2 * kIn}}});
    Fill(layer->In(0));
    // As a pooling of 2 x 2 leaves them: one place in each window.
    for (size_t i = 0; i < layer->In(1).size(); ++i) {
        const size_t row = i / kIn % kIn * 2 + (i * 7 / 3) % 2;
        const size_t column = i % kIn * 2 + (i * 5 / 2) % 2;
        layer->In(1)[i] = static_cast<float>(row * 2 * kIn + column);
    }
    const auto other = MakeFloats(layer->Out().size());
    Row row = AgainstLiteral(
        layer,
        [=] {
            plain::MaxUnpool(layer->In(0).data(), layer->In(1).data(), other->Floats().data(), kChannels, kIn * kIn,
                             4 * kIn * kIn);
        },
        other, kChannels * kIn * kIn * 6 * 4.0);
    row.peers.push_back({"memset of the output", ClearOf(layer->Out().size()), Ratio::kTime});
    return row;
}

}  // namespace

std::vector<RowMaker> PoolingRows()
{
    return {
        {"Pooling", "maximum 3x3 stride 2, 64x112x112",
         [] {
             PoolingMaxAttr attr = {};
             attr.padValue = -FLT_MAX;
             return Pool("PoolingMaxOpkitForward", attr, false);
         }},
        {"Pooling", "average 3x3 stride 2, 64x112x112",
         [] { return Pool("PoolingAveOpkitForward", PoolingAveAttr(), true); }},
        {"Resize", "linear 2x, 64x56x56", [] { return Resample(true); }},
        {"Resize", "nearest 2x, 64x56x56", [] { return Resample(false); }},
        {"Normalisation", "InstanceNormalization 64x56x56", InstanceNorm},
        {"Normalisation", "LpNorm, columns of 256x4x256",
         [] {
             return LpNorm({4, 256, 256}, 1);
         }},
        {"Normalisation", "LpNorm, rows of 1000x256",
         [] {
             return LpNorm({1000, 256}, 1);
         }},
        {"Normalisation", "MaxUnpool 64x56x56", Unpool},
    };
}

}  // namespace opkit::bench
