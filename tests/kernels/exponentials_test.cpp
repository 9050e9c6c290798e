// The exponential formulas over a sample of all floats, and sums of exponentials.

#include <gtest/gtest.h>

#include <limits>

#include "tests/kernels/exponentials_check.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;

TEST(Exponentials, SameAsLibm)
{
    for (const Formula& formula : Formulas()) {
        ExpectSameForPatterns(formula, 16411);
    }
}

// Where values usually lie, and where the formulas change sides.
TEST(Exponentials, SameAsLibmAroundZero)
{
    std::vector<float> in;
    for (int i = -200000; i <= 200000; ++i) {
        in.push_back(static_cast<float>(i) * 6.1e-4f);
    }
    std::vector<float> actual(in.size());
    for (const Formula& formula : Formulas()) {
        std::vector<float> expected;
        for (const float x : in) {
            expected.push_back(formula.element(x));
        }
        ForEachLevel([&](Level) {
            formula.loop(in.data(), actual.data(), in.size());
            EXPECT_TRUE(SameFloats(actual, expected)) << formula.name;
        });
    }
}

float AddExp(float acc, float x)
{
    return RoundedToFloat(std::exp(static_cast<double>(x)) + static_cast<double>(acc));
}

float Term(Random& random, float spread)
{
    if (random.Chance(0.003)) {
        constexpr float kInf = std::numeric_limits<float>::infinity();
        return random.OneOf({kInf, -kInf, std::numeric_limits<float>::quiet_NaN(), 121.0f, -121.0f, -1e9f, 700.0f});
    }
    return (random.Float(Values::kUnit) - 0.5f) * spread;
}

TEST(Exponentials, Sums)
{
    ForRandomCases(60, [](Random& random) {
        const size_t rows = static_cast<size_t>(random.Int(1, 40));
        const size_t columns = static_cast<size_t>(random.Int(1, 300));
        const size_t pitch = columns + static_cast<size_t>(random.Int(0, 5));
        const float spread = random.OneOf({1.0f, 20.0f, 100.0f, 240.0f});
        std::vector<float> x(rows * pitch);
        for (float& value : x) {
            value = Term(random, spread);
        }
        std::vector<float> rowSums(rows, 0.0f);
        std::vector<float> columnSums(columns, 0.0f);
        for (size_t r = 0; r < rows; ++r) {
            for (size_t c = 0; c < columns; ++c) {
                rowSums[r] = AddExp(rowSums[r], x[r * pitch + c]);
                columnSums[c] = AddExp(columnSums[c], x[r * pitch + c]);
            }
        }
        ForEachLevel([&](Level) {
            std::vector<float> actual(rows, 0.0f);
            Kernels<ExponentialKernels>().sum.rows(actual.data(), x.data(), rows, pitch, columns);
            EXPECT_TRUE(SameFloats(actual, rowSums)) << "rows";
            actual.assign(columns, 0.0f);
            Kernels<ExponentialKernels>().sum.columns(actual.data(), x.data(), columns, rows, pitch);
            EXPECT_TRUE(SameFloats(actual, columnSums)) << "columns";
        });
    });
}

}  // namespace
}  // namespace opkit
