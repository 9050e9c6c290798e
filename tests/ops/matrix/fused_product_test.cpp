// Products of which every single one is exact: these fuse, where that is faster, and leave the bits of the plain loop.
// The tests take it as faster on any processor.

#include <gtest/gtest.h>

#include <cfenv>

#include "tests/ops/matrix/product_cases.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;

class FusedProduct : public testing::Test {
protected:
    FusedProduct() : before_(FusesAtTwiceTheRate()) { OverrideFusing(true); }
    ~FusedProduct() override { OverrideFusing(before_); }

private:
    bool before_;
};

Ways FusedHere()
{
    return ActiveLevel() != Level::kBaseline ? kWayFused : kWayApart;
}

// Values of so many significant bits, times `unit`; not whole numbers where the unit is not.
Floats Values(Random& random, size_t count, int bits, float unit)
{
    Floats values(count);
    const int32_t most = (1 << bits) - 1;
    for (float& value : values) {
        value = static_cast<float>(random.Int(-most, most)) * unit;
    }
    values[count / 2] = static_cast<float>(most) * unit;
    return values;
}

Problem MakeProblem(Random& random, Sizes s, int bitsA, float unitA, int bitsB, float unitB)
{
    return {s, Values(random, size_t{s.M} * s.K, bitsA, unitA), Values(random, size_t{s.K} * s.N, bitsB, unitB),
            Floats(size_t{s.M} * s.N, 0.1f)};
}

TEST_F(FusedProduct, OnlyWhereItIsFaster)
{
    const LevelScope scope(Level::kBaseline);
    EXPECT_EQ(FusedKernelsInUse(), nullptr);
    OverrideFusing(false);
    ForEachLevel([](Level) { EXPECT_EQ(FusedKernelsInUse(), nullptr); });
}

TEST_F(FusedProduct, UpTo24BitsInBoth)
{
    ForRandomCases(20, [](Random& random) {
        const Sizes sizes = {static_cast<uint32_t>(random.Int(6, 120)), static_cast<uint32_t>(random.Int(16, 140)),
                             static_cast<uint32_t>(random.Int(700, 900))};
        const int bits = random.Int(4, 20);
        Problem p = MakeProblem(random, sizes, bits, 0x1p-3f, 24 - bits, 0x1p-21f);
        p.cleared = random.Chance(0.5);
        if (p.cleared) {
            p.flags = {random.OneOf<uint8_t>({0, 1}), random.OneOf<uint8_t>({0, 1})};
        }
        ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), FusedHere()) << bits; });
        p = MakeProblem(random, sizes, bits, 0x1p-3f, 25 - bits, 0x1p-21f);
        ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), kWayApart) << bits; });
    });
}

// Each product must neither vanish below the smallest float nor exceed the largest.
TEST_F(FusedProduct, WithinTheRangeOfFloats)
{
    constexpr Sizes kSizes = {20, 40, 100};
    ForRandomCases(1, [&kSizes](Random& random) {
        const auto expect = [&](float unitA, float unitB, bool fuses) {
            const Problem p = MakeProblem(random, kSizes, 8, unitA, 8, unitB);
            ForEachLevel(
                [&](Level) { EXPECT_EQ(RunAsReference(p), fuses ? FusedHere() : kWayApart) << unitA << " " << unitB; });
        };
        expect(0x1p-60f, 0x1p-70f, true);
        expect(0x1p-75f, 0x1p-60f, true);  // 2^-135, less the 14 bits of the bound
        expect(0x1p-75f, 0x1p-75f, false);
        expect(0x1p-130f, 0x1p10f, false);  // subnormal ones among them
        expect(0x1p56f, 0x1p56f, true);     // the largest have 8 bits more each
        expect(0x1p57f, 0x1p57f, false);
    });
}

TEST_F(FusedProduct, OneOtherValue)
{
    constexpr Sizes kSizes = {20, 40, 100};
    ForRandomCases(1, [&kSizes](Random& random) {
        const Problem good = MakeProblem(random, kSizes, 8, 0x1p-4f, 12, 0x1p-8f);
        ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(good), FusedHere()); });
        for (const float bad : {kNan, kInf, -kInf, 1.0f / 3.0f, 1 + 0x1p-20f, 0x1p-130f, 3e38f}) {
            for (const size_t at : {size_t{0}, size_t{1001}, size_t{1999}}) {
                Problem p = good;
                p.a[at] = bad;
                ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), kWayApart) << bad << " " << at; });
                p = good;
                p.b[2 * at] = bad;
                ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), kWayApart) << bad << " " << at; });
            }
        }
        for (const float c : {kNan, kInf, -0.0f, 1.0f / 3.0f, 3e38f}) {  // the sum rounds as ever
            Problem p = good;
            p.cleared = false;
            p.start.assign(p.start.size(), c);
            ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), FusedHere()) << c; });
        }
        Problem p = good;
        p.alpha = 3;
        ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(p), kWayApart); });
        fesetround(FE_UPWARD);
        ForEachLevel([&](Level) { EXPECT_EQ(RunAsReference(good), kWayApart); });
        fesetround(FE_TONEAREST);
    });
}

}  // namespace
}  // namespace opkit
