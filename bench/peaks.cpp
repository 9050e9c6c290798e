// The limits of the machine.

#include <cstring>
#include <vector>

#include "bench/plain_loops.h"
#include "bench/table.h"

namespace opkit::bench {
namespace {

#if defined(__AVX512F__)
constexpr int kLanes = 16;
#elif defined(__AVX__)
constexpr int kLanes = 8;
#else
constexpr int kLanes = 4;
#endif
typedef float Vec __attribute__((vector_size(kLanes * sizeof(float))));

constexpr int kChains = 12;  // enough to hide the latency
constexpr long kSteps = 200000;

// One multiplication and one addition a step and chain, fused or apart, all in registers. Apart, the product feeds the
// sum and depends on nothing before it, as in a matrix product.
#if defined(__AVX512F__)
#define OPKIT_BENCH_REGISTER "v"
#else
#define OPKIT_BENCH_REGISTER "x"
#endif

template <bool kFused>
__attribute__((noinline)) Vec Run(Vec x)
{
    Vec a = x, b = x, c = x, d = x, e = x, f = x, g = x, h = x, i = x, j = x, k = x, l = x;
    const auto step = [x](Vec & sum) __attribute__((always_inline))
    {
#if defined(__FMA__)
        if constexpr (kFused) {
            __asm__ volatile("vfmadd213ps %1, %1, %0" : "+" OPKIT_BENCH_REGISTER(sum) : OPKIT_BENCH_REGISTER(x));
            return;
        }
#endif
#if defined(__AVX__)
        Vec product;
        __asm__ volatile("vmulps %2, %2, %1\n\tvaddps %1, %0, %0"
                         : "+" OPKIT_BENCH_REGISTER(sum), "=&" OPKIT_BENCH_REGISTER(product)
                         : OPKIT_BENCH_REGISTER(x));
#else
        Vec product = x;
        __asm__ volatile("mulps %1, %1\n\taddps %1, %0" : "+x"(sum), "+x"(product));
#endif
    };
    for (long n = 0; n < kSteps; ++n) {
        step(a), step(b), step(c), step(d), step(e), step(f);
        step(g), step(h), step(i), step(j), step(k), step(l);
    }
    return a + b + c + d + e + f + g + h + i + j + k + l;
}

template <class Body>
double BestSeconds(Body body)
{
    double best = 1e9;
    for (int i = 0; i < 7; ++i) {
        const double start = CpuSeconds();
        body();
        const double seconds = CpuSeconds() - start;
        best = seconds < best ? seconds : best;
    }
    return best;
}

template <bool kFused>
double Gigaflops()
{
    const Vec x = Vec{} + 1e-3f;
    const double seconds = BestSeconds([&] {
        const Vec total = Run<kFused>(x);
        Keep(&total);
    });
    return 2.0 * kChains * kSteps * kLanes / seconds * 1e-9;
}

double CopyRate(size_t bytes)
{
    std::vector<char> from(bytes, 1);
    std::vector<char> to(bytes, 2);
    const int calls = static_cast<int>((size_t{64} << 20) / bytes);
    const double seconds = BestSeconds([&] {
        for (int i = 0; i < calls; ++i) {
            std::memcpy(to.data(), from.data(), bytes);
            Keep(to.data());
        }
    });
    return 2.0 * static_cast<double>(bytes) * calls / seconds * 1e-9;
}

}  // namespace

Peaks MeasurePeaks()
{
    Peaks peaks;
    peaks.separate = Gigaflops<false>();
    peaks.fused = Gigaflops<true>();
    peaks.copyCached = CopyRate(size_t{512} << 10);
    peaks.copyLarge = CopyRate(size_t{64} << 20);
    const std::vector<float> memory(1000000, 1.0f);
    const double seconds = BestSeconds([&] {
        for (int i = 0; i < 20; ++i) {
            const float sum = plain::Read(memory.data(), memory.size());
            Keep(&sum);
        }
    });
    peaks.readCached = 20 * 4e6 / seconds * 1e-9;
    return peaks;
}

}  // namespace opkit::bench
