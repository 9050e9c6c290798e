// Compares the vector forms of the exponential formulas with the formulas over libm, at every level.
#ifndef OPKIT_TESTS_KERNELS_EXPONENTIALS_CHECK_H
#define OPKIT_TESTS_KERNELS_EXPONENTIALS_CHECK_H

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "kernels/exponentials.h"
#include "tests/support/float_bits.h"
#include "tests/support/levels.h"

namespace opkit::test {

using Loop = std::function<void(const float*, float*, size_t)>;
using Element = std::function<float(float)>;

// Through a volatile, so that the rounding takes place.
inline float RoundedToFloat(double value)
{
    volatile float rounded = static_cast<float>(value);
    return rounded;
}

struct Formula {
    const char* name;
    Loop loop;
    Element element;
};

inline std::vector<Formula> Formulas()
{
    const auto celu = [](float alpha) {
        return Formula{
            "Celu",
            [alpha](const float* in, float* out, size_t n) { Kernels<ExponentialKernels>().celu(in, out, n, alpha); },
            [alpha](float x) {
                const double growth = std::exp(static_cast<double>(x / alpha)) - 1.0;
                const float term = RoundedToFloat(growth * static_cast<double>(alpha));
                return (x >= 0.0f ? x : 0.0f) + (term < 0.0f && !(x >= 0.0f) ? term : 0.0f);
            }};
    };
    const auto selu = [](float alpha, float gamma) {
        return Formula{
            "Selu",
            [=](const float* in, float* out, size_t n) {
                Kernels<ExponentialKernels>().selu(in, out, n, alpha, gamma);
            },
            [=](float x) {
                const double exponential = std::exp(static_cast<double>(x - alpha));
                return x <= 0.0f ? RoundedToFloat(exponential * static_cast<double>(alpha) * static_cast<double>(gamma))
                                 : x * gamma;
            }};
    };
    return {
        {"Sigmoid", [](const float* in, float* out, size_t n) { Kernels<ExponentialKernels>().sigmoid(in, out, n); },
         [](float x) { return RoundedToFloat(1.0 / (std::exp(static_cast<double>(-x)) + 1.0)); }},
        {"Softplus", [](const float* in, float* out, size_t n) { Kernels<ExponentialKernels>().softplus(in, out, n); },
         [](float x) { return RoundedToFloat(std::log(std::exp(static_cast<double>(x)) + 1.0)); }},
        {"Sinh", [](const float* in, float* out, size_t n) { Kernels<ExponentialKernels>().sinh(in, out, n); },
         [](float x) { return RoundedToFloat(std::sinh(static_cast<double>(x))); }},
        {"Acosh", [](const float* in, float* out, size_t n) { Kernels<ExponentialKernels>().acosh(in, out, n); },
         [](float x) { return RoundedToFloat(std::acosh(static_cast<double>(x))); }},
        celu(1.0f),
        celu(-0.75f),
        selu(1.67326f, 1.0507f),
        selu(-3.0f, 0.25f),
    };
}

// Every `stride`-th bit pattern from 0 on.
inline void ExpectSameForPatterns(const Formula& formula, uint32_t stride)
{
    constexpr size_t kBlock = 4096 + 13;  // the last vectors of a block are not whole
    std::vector<float> in;
    std::vector<float> expected;
    std::vector<float> actual(kBlock);
    for (uint64_t pattern = 0; pattern < (uint64_t{1} << 32);) {
        in.clear();
        expected.clear();
        for (; in.size() < kBlock && pattern < (uint64_t{1} << 32); pattern += stride) {
            in.push_back(std::bit_cast<float>(static_cast<uint32_t>(pattern)));
            expected.push_back(formula.element(in.back()));
        }
        bool same = true;
        ForEachLevel([&](Level) {
            formula.loop(in.data(), actual.data(), in.size());
            const auto result = SameFloats({actual.data(), in.size()}, expected);
            EXPECT_TRUE(result) << formula.name << ", patterns up to " << pattern;
            same = same && result;
        });
        if (!same) {
            return;
        }
    }
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_KERNELS_EXPONENTIALS_CHECK_H
