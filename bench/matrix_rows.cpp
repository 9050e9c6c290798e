// Matrix products against OpenBLAS, convolutions against oneDNN.

#include <cmath>

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

GemmArgs Arguments(Size size, bool transA, bool transB, modelkit::Buffer& a, modelkit::Buffer& b, modelkit::Buffer& c)
{
    GemmArgs args = {};
    args.transA = transA;
    args.transB = transB;
    args.M = size.m;
    args.N = size.n;
    args.K = size.k;
    args.alpha = 1.0f;
    args.A = a.Floats().data();
    args.B = b.Floats().data();
    args.C = c.Floats().data();
    return args;
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
    const auto a = MakeFloats(size_t{size.m} * size.k);
    const auto b = MakeFloats(size_t{size.k} * size.n);
    const auto c = MakeFloats(size_t{size.m} * size.n);
    const auto other = MakeFloats(size_t{size.m} * size.n);
    Fill(a->Floats(), -1, 1, 1);
    Fill(b->Floats(), -1, 1, 2);
    const GemmArgs args = Arguments(size, transA, transB, *a, *b, *c);
    Row row;
    row.work = 2.0 * size.m * size.n * size.k;
    row.unit = "GFLOP/s";
    row.ours = [=] {
        (void)a, (void)b, (void)c;
        Gemm(args);
    };
    row.peers = {{"OpenBLAS",
                  peers::Sgemm(transA, transB, size.m, size.n, size.k, args.A, args.B, other->Floats().data()),
                  Ratio::kSpeed, target}};
    row.same = [=] { return !peers::HaveBlas() || NearlySame(c->Floats(), other->Floats(), size.k); };
    return row;
}

using PlainGemm = void (*)(const float*, const float*, float*, size_t, size_t, size_t);

Row Vector(Size size, bool transB, PlainGemm plain)
{
    const auto a = MakeFloats(size_t{size.m} * size.k);
    const auto b = MakeFloats(size_t{size.k} * size.n);
    const auto c = MakeFloats(size_t{size.m} * size.n);
    const auto other = MakeFloats(size_t{size.m} * size.n);
    Fill(a->Floats(), -1, 1, 1);
    Fill(b->Floats(), -1, 1, 2);
    const GemmArgs args = Arguments(size, false, transB, *a, *b, *c);
    Row row;
    row.work = 2.0 * size.m * size.n * size.k;
    row.unit = "GFLOP/s";
    row.ours = [=] {
        (void)a, (void)b, (void)c;
        Gemm(args);
    };
    const Work literal = [=] {
        std::fill(other->Floats().begin(), other->Floats().end(), 0.0f);
        plain(args.A, args.B, other->Floats().data(), size.m, size.n, size.k);
    };
    row.peers = {
        {"literal loop", literal, Ratio::kSpeed, 4.0},
        {"OpenBLAS", peers::Sgemm(false, transB, size.m, size.n, size.k, args.A, args.B, other->Floats().data()),
         Ratio::kSpeed, 0}};
    row.same = [=] {
        literal();
        return SameBits(c->Floats(), other->Floats());
    };
    return row;
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
