// Matrix products against OpenBLAS, convolutions against oneDNN.

#include <cmath>
#include <memory>

#include "bench/one_layer.h"
#include "bench/peers.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/matrix.h"
#include "opkit/helpers.h"

namespace opkit::bench {
namespace {

struct Size {
    uint32_t m, n, k;
};

// A product to time, and a second result for a peer.
struct Trial {
    GemmArgs args = {};
    std::shared_ptr<modelkit::Buffer> c;
    std::shared_ptr<modelkit::Buffer> other;
    Row row;  // without peers

    Work Blas() const
    {
        return peers::Sgemm(args.transA, args.transB, args.M, args.N, args.K, args.A, args.B, other->Floats().data());
    }
};

Trial MakeTrial(Size size, bool transA, bool transB)
{
    const auto a = MakeFloats(size_t{size.m} * size.k);
    const auto b = MakeFloats(size_t{size.k} * size.n);
    const auto c = MakeFloats(size_t{size.m} * size.n);
    Fill(a->Floats(), -1, 1, 1);
    Fill(b->Floats(), -1, 1, 2);
    Trial trial;
    trial.c = c;
    trial.other = MakeFloats(size_t{size.m} * size.n);
    trial.args.transA = transA;
    trial.args.transB = transB;
    trial.args.M = size.m;
    trial.args.N = size.n;
    trial.args.K = size.k;
    trial.args.alpha = 1.0f;
    trial.args.A = a->Floats().data();
    trial.args.B = b->Floats().data();
    trial.args.C = c->Floats().data();
    trial.row.work = 2.0 * size.m * size.n * size.k;
    trial.row.unit = "GFLOP/s";
    trial.row.ours = [a, b, c, args = trial.args] { Gemm(args); };
    return trial;
}

// Sums in another order differ in the last bits; a wrong product differs by far more.
bool NearlySame(std::span<const float> a, std::span<const float> b, uint32_t k)
{
    for (size_t i = 0; i < a.size(); ++i) {
        if (!(std::fabs(a[i] - b[i]) <= 1e-6f * static_cast<float>(k))) {
            return false;
        }
    }
    return true;
}

Row Product(Size size, bool transA, bool transB, double target)
{
    Trial trial = MakeTrial(size, transA, transB);
    trial.row.peers = {{"OpenBLAS", trial.Blas(), Ratio::kSpeed, target}};
    trial.row.same = [c = trial.c, other = trial.other, k = size.k] {
        return !peers::HaveBlas() || NearlySame(c->Floats(), other->Floats(), k);
    };
    return trial.row;
}

using PlainGemm = void (*)(const float*, const float*, float*, size_t, size_t, size_t);

Row Vector(Size size, bool transB, PlainGemm plain)
{
    Trial trial = MakeTrial(size, false, transB);
    const Work literal = [=, args = trial.args, other = trial.other] {
        std::fill(other->Floats().begin(), other->Floats().end(), 0.0f);
        plain(args.A, args.B, other->Floats().data(), size.m, size.n, size.k);
    };
    trial.row.peers = {{"literal loop", literal, Ratio::kSpeed, 4.0}, {"OpenBLAS", trial.Blas(), Ratio::kSpeed, 0}};
    trial.row.same = [literal, c = trial.c, other = trial.other] {
        literal();
        return SameBits(c->Floats(), other->Floats());
    };
    return trial.row;
}

Row ConvolutionLayer(peers::Conv conv)
{
    const uint32_t inC = static_cast<uint32_t>(conv.inChannels);
    const uint32_t outC = static_cast<uint32_t>(conv.outChannels);
    const uint32_t size = static_cast<uint32_t>(conv.size);
    const uint32_t kernel = static_cast<uint32_t>(conv.kernel);
    const uint32_t pad = static_cast<uint32_t>(conv.pad);
    ConvolutionAttr attr = {};
    attr.inputCount = 2;
    attr.channels = inC;
    attr.height = attr.width = attr.outHeight = attr.outWidth = size;
    attr.kernelH = attr.kernelW = kernel;
    attr.padTop = attr.padBottom = attr.padLeft = attr.padRight = pad;
    attr.strideH = attr.strideW = attr.dilationH = attr.dilationW = 1;
    attr.colChannels = attr.gemmK = inC * kernel * kernel;
    attr.groupNum = 1;
    attr.outChannels = attr.gemmM = outC;
    attr.gemmN = size * size;
    const auto layer =
        MakeLayer("ConvolutionOpkitForward", std::vector<Layout>{{{1, inC, size, size}}, {{outC, inC, kernel, kernel}}},
                  std::vector<Layout>{{{1, outC, size, size}}}, attr, size * size * attr.colChannels * 4 + size * size);
    Fill(layer->In(0), -1, 1, 1);
    Fill(layer->In(1), -1, 1, 2);
    const auto other = MakeFloats(size_t{outC} * size * size);
    Row row;
    row.work = 2.0 * outC * size * size * attr.gemmK;
    row.unit = "GFLOP/s";
    row.ours = [=] { layer->Run(); };
    const Work dnnl = peers::Convolution(conv, layer->In(0).data(), layer->In(1).data(), other->Floats().data());
    row.peers = {{"oneDNN", dnnl, Ratio::kTime, 0.8}};
    row.same = [=] { return !dnnl || NearlySame(layer->Out(), other->Floats(), attr.gemmK); };
    return row;
}

}  // namespace

std::vector<RowMaker> MatrixRows()
{
    std::vector<RowMaker> rows;
    const auto product = [&rows](const char* name, Size size, bool transA, bool transB, double target) {
        rows.push_back({"Gemm", name, [=] { return Product(size, transA, transB, target); }});
    };
    product("64 cubed", {64, 64, 64}, false, false, 0.9);
    product("128 cubed", {128, 128, 128}, false, false, 1.0);
    product("256 cubed", {256, 256, 256}, false, false, 1.0);
    product("512 cubed", {512, 512, 512}, false, false, 1.0);
    product("1024 cubed", {1024, 1024, 1024}, false, false, 0.9);
    product("64 x 3136 x 576", {64, 3136, 576}, false, false, 1.0);
    product("256 x 196 x 2304", {256, 196, 2304}, false, false, 1.0);
    product("512 cubed, transB", {512, 512, 512}, false, true, 0.9);
    product("512 cubed, transA", {512, 512, 512}, true, false, 0.9);
    product("512 cubed, both", {512, 512, 512}, true, true, 0.9);
    rows.push_back({"Gemm", "2048 x 1 x 2048", [] { return Vector({2048, 1, 2048}, false, plain::Gemm); }});
    rows.push_back({"Gemm", "1 x 2048 x 2048, transB", [] {
                        return Vector({1, 2048, 2048}, true, plain::GemmTransB);
                    }});
    rows.push_back({"Convolution", "3x3, 64 to 64, 56x56", [] { return ConvolutionLayer({64, 64, 56, 3, 1}); }});
    rows.push_back({"Convolution", "1x1, 256 to 256, 14x14", [] { return ConvolutionLayer({256, 256, 14, 1, 0}); }});
    return rows;
}

}  // namespace opkit::bench
