#include "bench/growth.h"

#include <benchmark/benchmark.h>

#include "bench/one_layer.h"
#include "bench/peers.h"
#include "bench/table.h"
#include "opkit/attributes/selection.h"
#include "opkit/helpers.h"

namespace opkit::bench {
namespace {

struct Matrices {
    explicit Matrices(uint32_t n)
        : a(MakeFloats(size_t{n} * n)), b(MakeFloats(size_t{n} * n)), c(MakeFloats(size_t{n} * n))
    {
        Fill(a->Floats(), -1, 1, 1);
        Fill(b->Floats(), -1, 1, 2);
    }
    std::shared_ptr<modelkit::Buffer> a, b, c;
};

void GemmGrowth(benchmark::State& state)
{
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    const Matrices matrices(n);
    GemmArgs args = {};
    args.M = args.N = args.K = n;
    args.alpha = 1.0f;
    args.A = matrices.a->Floats().data();
    args.B = matrices.b->Floats().data();
    args.C = matrices.c->Floats().data();
    for (auto _ : state) {
        Gemm(args);
    }
    state.SetComplexityN(n);
}

void BlasGrowth(benchmark::State& state)
{
    const int64_t n = state.range(0);
    const Matrices matrices(static_cast<uint32_t>(n));
    const Work sgemm = peers::Sgemm(false, false, n, n, n, matrices.a->Floats().data(), matrices.b->Floats().data(),
                                    matrices.c->Floats().data());
    for (auto _ : state) {
        sgemm();
    }
    state.SetComplexityN(n);
}

void RunLayer(benchmark::State& state, OneLayer& layer)
{
    layer.Run();
    for (auto _ : state) {
        layer.Run();
    }
    state.SetComplexityN(state.range(0));
}

// 64 lanes of the given length.
void TopKGrowth(benchmark::State& state)
{
    const uint32_t length = static_cast<uint32_t>(state.range(0));
    TopKAttr attr = {};
    attr.k = 5;
    attr.axis = 1;
    attr.largest = attr.hasValues = attr.hasIndices = 1;
    OneLayer layer("TopKOpkitForward", {{{64, length}}}, {{{64, 5}}, {{64, 5}}}, attr, length * 8);
    Fill(layer.In());
    RunLayer(state, layer);
}

void UniqueGrowth(benchmark::State& state)
{
    const uint32_t count = static_cast<uint32_t>(state.range(0));
    UniqueAttr attr = {};
    attr.axis = OPKIT_UNIQUE_FLAT;
    attr.sorted = 1;
    const Layout flat = {{count}};
    OneLayer layer("UniqueOpkitForward", {flat}, {flat, flat, flat, flat}, attr);
    Fill(layer.In());
    RunLayer(state, layer);
}

class Collector : public benchmark::BenchmarkReporter {
public:
    explicit Collector(Growth* growth) : growth_(growth) {}

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            const std::string& series = run.run_name.function_name;
            if (run.run_type == Run::RT_Iteration) {
                growth_->points.push_back({series, static_cast<double>(run.complexity_n),
                                           run.cpu_accumulated_time / static_cast<double>(run.iterations)});
            } else if (run.report_rms) {
                growth_->fits.push_back({series, Order(run.complexity), run.GetAdjustedCPUTime()});
            }
        }
    }

private:
    static std::string Order(benchmark::BigO order)
    {
        switch (order) {
            case benchmark::oN:
                return "n";
            case benchmark::oNSquared:
                return "n^2";
            case benchmark::oNCubed:
                return "n^3";
            case benchmark::oNLogN:
                return "n log n";
            case benchmark::oLogN:
                return "log n";
            default:
                return "1";
        }
    }

    Growth* growth_;
};

}  // namespace

Growth MeasureGrowth(bool quick)
{
    const double seconds = quick ? 0.01 : 0.1;
    const auto series = [seconds](const char* name, void (*function)(benchmark::State&), int64_t low, int64_t high,
                                  int step) {
        benchmark::RegisterBenchmark(name, function)
            ->RangeMultiplier(step)
            ->Range(low, high)
            ->MinTime(seconds)
            ->Complexity(benchmark::oAuto);
    };
    series("Gemm/opkit", GemmGrowth, 32, quick ? 512 : 2048, 2);
    if (peers::HaveBlas()) {
        series("Gemm/OpenBLAS", BlasGrowth, 32, quick ? 512 : 2048, 2);
    }
    series("TopK/opkit", TopKGrowth, 16, 65536, 4);
    series("Unique/opkit", UniqueGrowth, 1024, quick ? 262144 : 1048576, 4);
    Growth growth;
    Collector collector(&growth);
    benchmark::RunSpecifiedBenchmarks(&collector);
    return growth;
}

}  // namespace opkit::bench
