// The quantised product in floats: the correction by row and column sums, and what stays of the old result.

#include <gtest/gtest.h>

#include <vector>

#include "opkit/helpers.h"
#include "tests/reference/matrix_core.h"
#include "tests/support/float_bits.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using Floats = std::vector<float>;

// A = ((1, 2), (3, 4)), B = ((5, 6), (7, 8)): A * B = ((19, 22), (43, 50)), row sums 3 and 7, column sums 12 and 14.
struct Row {
    float aScale, aZero, bScale, bZero, cScale, cZero;
    Floats c;
    Floats expected;
};

TEST(QGemmWithoutEigen, ByHand)
{
    const Row rows[] = {
        {1, 0, 1, 0, 1, 0, {NAN, INFINITY, 5, -7}, {19, 22, 43, 50}},
        {2, 0, 3, 0, 1, 0, {1, 1, 1, 1}, {114, 132, 258, 300}},
        {1, 0, 1, 0, 0.5f, 3, {1, 1, 1, 1}, {6.5f, 8, 18.5f, 22}},
        // only A's zero point: minus the column sums; C is cleared since the product of the zero points is 0
        {1, 2, 1, 0, 1, 0, {9, 9, 9, 9}, {-5, -6, 19, 22}},
        {1, 2, 3, 0, 1, 0, {9, 9, 9, 9}, {57 - 72, 66 - 84, 129 - 72, 150 - 84}},
        // only B's: minus the row sums
        {1, 0, 1, 3, 1, 0, {9, 9, 9, 9}, {10, 13, 22, 29}},
        {2, 0, 1, 3, 1, 0, {9, 9, 9, 9}, {38 - 18, 44 - 18, 86 - 42, 100 - 42}},
        // both: the old result stays in, 4 * 2 * 3 = 24 times
        {1, 2, 1, 3, 1, 0, {1, 0, -1, 10}, {19 + 24 - 24 - 9, 22 - 28 - 9, 43 - 24 - 24 - 21, 50 + 240 - 28 - 21}},
        {1, 2, 1, 3, 2, 5, {1, 0, -1, 10}, {2 * 10 - 5, 2 * -15 - 5, 2 * -26 - 5, 2 * 241 - 5}},
    };
    ForEachLevel([&](Level) {
        for (const Row& row : rows) {
            Floats a = {1, 2, 3, 4};
            Floats b = {5, 6, 7, 8};
            Floats c = row.c;
            EXPECT_EQ(QGemmWithoutEigen(a.data(), b.data(), c.data(), 2, 2, 2, row.aScale, row.aZero, row.bScale,
                                        row.bZero, row.cScale, row.cZero),
                      0);
            EXPECT_TRUE(SameFloats(c, row.expected)) << "aZero " << row.aZero << " bZero " << row.bZero;
        }
    });
}

TEST(QGemmWithoutEigen, EmptySizes)
{
    Floats a = {1, 2};
    Floats b = {3, 4};
    Floats c = {5, 6};
    EXPECT_EQ(QGemmWithoutEigen(a.data(), b.data(), c.data(), 0, 2, 1, 1, 2, 1, 3, 1, 0), 0);
    EXPECT_EQ(QGemmWithoutEigen(a.data(), b.data(), c.data(), 2, 0, 1, 1, 2, 1, 3, 1, 0), 0);
    EXPECT_EQ(QGemmWithoutEigen(a.data(), nullptr, c.data(), -1, 0, 1, 1, 2, 1, 3, 1, 0), 0);
    EXPECT_TRUE(SameFloats(c, Floats{5, 6}));
    // Without terms the sums are 0 and the scaling of C and the output step remain.
    EXPECT_EQ(QGemmWithoutEigen(a.data(), b.data(), c.data(), 1, 2, 0, 1, 2, 1, 3, 0.5f, 1), 0);
    EXPECT_TRUE(SameFloats(c, Floats{59, 71}));
}

TEST(QGemm, BytesAreUnsigned)
{
    ForEachLevel([](Level) {
        Floats a = {1, 2, 3, 4};
        Floats b = {5, 6, 7, 8};
        Floats c = {9, 9, 9, 9};
        EXPECT_EQ(QGemm({2, 2, 2, {a.data(), 1, 253}, {b.data(), 200, 0}, {c.data(), 2, 255}}), 0);
        // (200 * product - column sum * 200 * 253) * 2 - 255
        EXPECT_TRUE(SameFloats(c, Floats{(3800 - 607200) * 2 - 255, (4400 - 708400) * 2 - 255,
                                         (8600 - 607200) * 2 - 255, (10000 - 708400) * 2 - 255}));
    });
}

void ExpectAsReference(Random& random, int32_t M, int32_t N, int32_t K, Values kind)
{
    const auto factor = [&random] {
        return random.Chance(0.3)   ? 0.0f
               : random.Chance(0.5) ? static_cast<float>(random.Int(0, 255))
                                    : random.Float(Values::kPlain);
    };
    const float q[6] = {factor(), factor(), factor(), factor(), factor(), factor()};
    Floats a = random.Floats(static_cast<uint64_t>(M * K), kind);
    Floats b = random.Floats(static_cast<uint64_t>(K * N), kind);
    const Floats c = random.Floats(static_cast<uint64_t>(M * N), kind);
    Floats expected = c;
    RefQGemm(a.data(), b.data(), expected.data(), M, N, K, q[0], q[1], q[2], q[3], q[4], q[5]);
    ForEachLevel([&](Level) {
        Floats result = c;
        EXPECT_EQ(QGemmWithoutEigen(a.data(), b.data(), result.data(), M, N, K, q[0], q[1], q[2], q[3], q[4], q[5]), 0);
        EXPECT_TRUE(SameFloats(result, expected)) << "M " << M << " N " << N << " K " << K;
    });
}

TEST(QGemmWithoutEigen, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        ExpectAsReference(random, random.Int(0, 40), random.Int(0, 70), random.Int(0, 40),
                          random.OneOf({Values::kPlain, Values::kIntegers, Values::kMixed}));
    });
}

TEST(QGemmWithoutEigen, LargeAsReference)
{
    ForRandomCases(3, [](Random& random) {
        ExpectAsReference(random, random.Int(250, 270), random.Int(1, 20), random.Int(1, 20), Values::kPlain);
        ExpectAsReference(random, random.Int(1, 20), random.Int(1020, 1060), random.Int(1, 20), Values::kPlain);
    });
}

}  // namespace
}  // namespace opkit
