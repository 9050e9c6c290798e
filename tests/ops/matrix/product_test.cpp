// The matrix product: both walks, the scaling of C, and every size at which a vector or a block ends.

#include <gtest/gtest.h>

#include <cfenv>
#include <limits>
#include <vector>

#include "opkit/helpers.h"
#include "tests/ops/matrix/product_cases.h"
#include "tests/support/float_bits.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;

struct Factors {
    float alpha = 1.0f;
    float beta = 1.0f;
};

Floats Product(Flags flags, Sizes sizes, Factors factors, Floats a, Floats b, Floats c)
{
    Gemm({flags.transA, flags.transB, sizes.M, sizes.N, sizes.K, factors.alpha, a.data(), b.data(), factors.beta,
          c.data()});
    return c;
}

TEST(Gemm, AllFourForms)
{
    // ((1, 2, 3), (4, 5, 6)) * ((1, 0), (2, 1), (0, 3)) = ((5, 11), (14, 23)); doubled, onto half of C
    const Floats a = {1, 2, 3, 4, 5, 6};
    const Floats at = {1, 4, 2, 5, 3, 6};
    const Floats b = {1, 0, 2, 1, 0, 3};
    const Floats bt = {1, 2, 0, 0, 1, 3};
    const Floats c = {2, 4, -2, 8};
    const Floats expected = {11, 24, 27, 50};
    ForEachLevel([&](Level) {
        for (const uint8_t set : {1, 2, 255}) {
            EXPECT_TRUE(SameFloats(Product({0, 0}, {2, 2, 3}, {2, 0.5f}, a, b, c), expected));
            EXPECT_TRUE(SameFloats(Product({set, 0}, {2, 2, 3}, {2, 0.5f}, at, b, c), expected));
            EXPECT_TRUE(SameFloats(Product({0, set}, {2, 2, 3}, {2, 0.5f}, a, bt, c), expected));
            EXPECT_TRUE(SameFloats(Product({set, set}, {2, 2, 3}, {2, 0.5f}, at, bt, c), expected));
        }
    });
}

TEST(Gemm, BetaScalesOrClears)
{
    ForEachLevel([](Level) {
        for (const Flags flags : {Flags{0, 0}, Flags{1, 0}, Flags{0, 1}}) {
            const auto one = [&](float beta, float c) { return Product(flags, {1, 1, 1}, {1, beta}, {2}, {3}, {c}); };
            EXPECT_TRUE(SameFloats(one(0.0f, kNan), Floats{6}));
            EXPECT_TRUE(SameFloats(one(-0.0f, kInf), Floats{6}));
            EXPECT_TRUE(SameFloats(one(1.0f, kNan), Floats{kNan}));
            EXPECT_TRUE(SameFloats(one(1.0f, 5.0f), Floats{11}));
            EXPECT_TRUE(SameFloats(one(kNan, 1.0f), Floats{kNan}));
            EXPECT_TRUE(SameFloats(one(kInf, 0.0f), Floats{kNan}));
            EXPECT_TRUE(SameFloats(one(-2.0f, 1.0f), Floats{4}));
        }
    });
}

// -0.0 * 1 + -0.0 stays -0.0 term by term; a sum that starts from 0.0 does not.
TEST(Gemm, ZerosKeepTheirSigns)
{
    ForEachLevel([](Level) {
        for (uint32_t n = 1; n <= 40; ++n) {
            const Floats a(2, -0.0f);
            const Floats b(n, 1.0f);
            const Floats c(2 * size_t{n}, -0.0f);
            EXPECT_TRUE(SameFloats(Product({0, 0}, {2, n, 1}, {1, 1}, a, b, c), c)) << n;
            EXPECT_TRUE(SameFloats(Product({0, 0}, {2, n, 1}, {3, 1}, a, b, c), c)) << n;
            EXPECT_TRUE(SameFloats(Product({0, 1}, {2, n, 1}, {1, 1}, a, b, c), Floats(c.size(), 0.0f))) << n;
        }
    });
}

TEST(Gemm, WithoutTerms)
{
    ForEachLevel([](Level) {
        // Scaled only; the transposed walk still adds its empty sum, which turns -0.0 into +0.0.
        EXPECT_TRUE(SameFloats(Product({0, 0}, {1, 2, 0}, {1, 1}, {}, {}, {-0.0f, 3}), Floats{-0.0f, 3}));
        EXPECT_TRUE(SameFloats(Product({1, 0}, {1, 2, 0}, {1, 1}, {}, {}, {-0.0f, 3}), Floats{0.0f, 3}));
        EXPECT_TRUE(SameFloats(Product({0, 1}, {2, 1, 0}, {1, 2}, {}, {}, {-0.0f, 3}), Floats{0.0f, 6}));
        EXPECT_TRUE(SameFloats(Product({0, 0}, {1, 2, 0}, {1, 0}, {}, {}, {kNan, 3}), Floats{0, 0}));
        // Nothing to scale.
        EXPECT_TRUE(SameFloats(Product({0, 0}, {0, 2, 1}, {1, 0}, {}, {1, 2}, {7, 8}), Floats{7, 8}));
        EXPECT_TRUE(SameFloats(Product({0, 0}, {2, 0, 1}, {1, 0}, {1, 2}, {}, {7, 8}), Floats{7, 8}));
        EXPECT_TRUE(SameFloats(Product({1, 0}, {0, 2, 1}, {1, 0}, {}, {1, 2}, {7, 8}), Floats{7, 8}));
        EXPECT_TRUE(SameFloats(Product({0, 1}, {2, 0, 1}, {1, 0}, {1, 2}, {}, {7, 8}), Floats{7, 8}));
    });
}

TEST(Gemm, TheTwoWalksRoundDifferently)
{
    const float big = 16777216.0f;  // 2^24: adding 1 is lost, adding 2 is not
    ForEachLevel([&](Level) {
        EXPECT_TRUE(SameFloats(Product({0, 0}, {1, 1, 2}, {}, {1, 1}, {1, 1}, {big}), Floats{big}));
        EXPECT_TRUE(SameFloats(Product({1, 0}, {1, 1, 2}, {}, {1, 1}, {1, 1}, {big}), Floats{big + 2}));
        EXPECT_TRUE(SameFloats(Product({0, 1}, {1, 1, 2}, {}, {1, 1}, {1, 1}, {big}), Floats{big + 2}));
    });
}

TEST(Gemm, ProductRoundsBeforeTheSum)
{
    // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24, which rounds to 1 + 2^-11; a fused step would leave 2^-24.
    const float x = 1.0f + 0x1p-12f;
    const float rounded = 1.0f + 0x1p-11f;
    const uint32_t n = 40;
    ForEachLevel([&](Level) {
        for (const Flags flags : {Flags{0, 0}, Flags{1, 1}}) {
            EXPECT_TRUE(SameFloats(Product(flags, {n, n, 1}, {}, Floats(n, x), Floats(n, x), Floats(n * n, -rounded)),
                                   Floats(n * n, 0.0f)));
        }
    });
}

TEST(Gemm, AlphaMeetsAFirst)
{
    ForEachLevel([](Level) {
        for (const Flags flags : {Flags{0, 0}, Flags{1, 0}}) {
            EXPECT_TRUE(SameFloats(Product(flags, {1, 1, 1}, {1e10f, 0}, {1e30f}, {0}, {0}), Floats{kNan}));
            EXPECT_TRUE(SameFloats(Product(flags, {1, 1, 1}, {1e10f, 0}, {0}, {1e30f}, {0}), Floats{0}));
            // one row or column more than a lane: the operands may trade places, alpha stays with A
            EXPECT_TRUE(SameFloats(Product(flags, {17, 1, 1}, {1e10f, 0}, Floats(17, 1e30f), {0}, Floats(17)),
                                   Floats(17, kNan)));
            EXPECT_TRUE(SameFloats(Product(flags, {1, 17, 1}, {1e10f, 0}, {0}, Floats(17, 1e30f), Floats(17)),
                                   Floats(17, 0.0f)));
        }
    });
}

TEST(Product, AlphaOfZeroAddsNothingToAClearedC)
{
    ForEachLevel([](Level) {
        Problem p = {{7, 9, 5}, Floats(35, -2.5f), Floats(45, 0.3f), Floats(63, kNan), true, 0.0f};
        EXPECT_EQ(RunAsReference(p), kWayZeros);
        p.alpha = -0.0f;
        EXPECT_EQ(RunAsReference(p), kWayZeros);
        p.cleared = false;  // -0.0 and +0.0 make +0.0
        p.start.assign(63, -0.0f);
        EXPECT_EQ(RunAsReference(p), kWayApart);
        p.cleared = true;
        for (const float bad : {kInf, -kInf, kNan}) {
            Problem badA = p;
            badA.a[34] = bad;
            EXPECT_EQ(RunAsReference(badA), kWayApart);
            Problem badB = p;
            badB.b[44] = bad;
            EXPECT_EQ(RunAsReference(badB), kWayApart);
        }
        fesetround(FE_DOWNWARD);  // +0.0 and -0.0 make -0.0
        EXPECT_EQ(RunAsReference(p), kWayApart);
        fesetround(FE_TONEAREST);
        p.alpha = 0x1p-149f;
        EXPECT_EQ(RunAsReference(p), kWayApart);
    });
}

void ExpectAsReference(Random& random, Sizes sizes, Values kind)
{
    const Flags flags = {random.OneOf<uint8_t>({0, 0, 1, 3}), random.OneOf<uint8_t>({0, 0, 1, 128})};
    const float alpha = random.OneOf({1.0f, 1.0f, 0.5f, -3.1f, 0.0f, kInf});
    const float beta = random.OneOf({0.0f, 1.0f, -0.7f, kNan});
    Floats a = random.Floats(uint64_t{sizes.M} * sizes.K, kind);
    Floats b = random.Floats(uint64_t{sizes.K} * sizes.N, kind);
    const Floats c = random.Floats(uint64_t{sizes.M} * sizes.N, kind);
    Floats expected = c;
    RefGemm({flags.transA, flags.transB, sizes.M, sizes.N, sizes.K, alpha, a.data(), b.data(), beta, expected.data()});
    ForEachLevel([&](Level) {
        EXPECT_TRUE(SameFloats(Product(flags, sizes, {alpha, beta}, a, b, c), expected))
            << "M " << sizes.M << " N " << sizes.N << " K " << sizes.K << " transA " << int{flags.transA} << " transB "
            << int{flags.transB} << " alpha " << alpha << " beta " << beta;
    });
}

TEST(Gemm, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const auto size = [&random](int32_t most) { return static_cast<uint32_t>(random.Int(0, most)); };
        const uint32_t few = static_cast<uint32_t>(random.Int(1, 5));
        const Sizes sizes = random.OneOf<Sizes>({{size(30), size(140), size(40)},
                                                 {size(140), few, size(60)},
                                                 {few, size(140), size(60)},
                                                 {size(9), size(35), size(9)}});
        ExpectAsReference(random, sizes, random.OneOf({Values::kPlain, Values::kPlain, Values::kMixed}));
    });
}

// Sizes beyond a block of rows, of columns and of terms, and rows a power of two apart.
TEST(Gemm, LargeAsReference)
{
    ForRandomCases(6, [](Random& random) {
        const auto size = [&random](int32_t least, int32_t most) {
            return static_cast<uint32_t>(random.Int(least, most));
        };
        ExpectAsReference(random, {size(97, 130), size(60, 90), size(190, 600)}, Values::kPlain);
        ExpectAsReference(random, {size(24, 40), size(512, 700), size(20, 40)}, Values::kPlain);
        ExpectAsReference(random, {size(24, 60), random.OneOf({128u, 256u}), size(250, 270)}, Values::kMixed);
        ExpectAsReference(random, {size(90, 300), size(1, 7), size(250, 400)}, Values::kPlain);
        ExpectAsReference(random, {random.OneOf({1u, 2u, 13u}), size(60, 140), size(250, 600)}, Values::kPlain);
        ExpectAsReference(random, {size(240, 260), size(66, 90), size(530, 600)}, Values::kMixed);
    });
}

}  // namespace
}  // namespace opkit
