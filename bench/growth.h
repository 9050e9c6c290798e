// How cost grows with size: series that Google Benchmark runs and fits.
#ifndef OPKIT_BENCH_GROWTH_H
#define OPKIT_BENCH_GROWTH_H

#include <string>
#include <vector>

namespace opkit::bench {

struct GrowthPoint {
    std::string series;  // "Gemm/opkit"
    double size = 0;
    double seconds = 0;  // per call
};

struct GrowthFit {
    std::string series;
    std::string order;  // "NlgN"
    double rms = 0;     // of the fit, relative
};

struct Growth {
    std::vector<GrowthPoint> points;
    std::vector<GrowthFit> fits;
};

Growth MeasureGrowth(bool quick);

}  // namespace opkit::bench

#endif  // OPKIT_BENCH_GROWTH_H
