// Products of whole numbers: which of them go in integers, and that all leave the bits of the plain loop.

#include <gtest/gtest.h>

#include <cfenv>
#include <string>
#include <vector>

#include "tests/ops/matrix/product_cases.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;

// The way of values that fit bytes, and of those that fit shorts.
Ways BytesAt(Level level)
{
    return level == Level::kVnni ? kWayBytes : level == Level::kAvx2 ? kWayShorts : kWayApart;
}

Ways ShortsAt(Level level)
{
    return level == Level::kVnni || level == Level::kAvx2 ? kWayShorts : kWayApart;
}

constexpr Ways kInIntegers = kWayBytes | kWayShorts;

bool HasIntegers(Level level)
{
    return ShortsAt(level) == kWayShorts;
}

// The ways but for fusing, which is a matter of the processor.
Ways RunWithoutFusing(const Problem& p)
{
    const Ways ways = RunAsReference(p);
    return (ways & kWayFused) != 0 ? (ways & ~kWayFused) | kWayApart : ways;
}

Floats Whole(Random& random, size_t count, int32_t low, int32_t high)
{
    Floats values(count);
    for (float& value : values) {
        value = static_cast<float>(random.Int(low, high));
    }
    return values;
}

struct Bounds {
    int32_t low;
    int32_t high;
};

Problem MakeProblem(Random& random, Sizes s, Bounds a, Bounds b)
{
    return {s, Whole(random, size_t{s.M} * s.K, a.low, a.high), Whole(random, size_t{s.K} * s.N, b.low, b.high),
            Floats(size_t{s.M} * s.N, kNan)};
}

TEST(WholeProduct, GoesInBytesOrShorts)
{
    struct Kind {
        Bounds a;
        Bounds b;
        bool bytes;
    };
    const Kind kinds[] = {
        {{-128, 127}, {0, 255}, true},     {{0, 255}, {-128, 127}, true},    {{0, 255}, {0, 255}, true},
        {{-128, 127}, {-128, 127}, true},  {{-255, 0}, {-255, 0}, true},     {{-200, 55}, {-3, 252}, true},
        {{0, 0}, {0, 255}, true},          {{5, 5}, {0, 0}, true},           {{0, 256}, {0, 100}, false},
        {{-129, 127}, {0, 100}, false},    {{0, 1}, {-129, 127}, false},     {{-1, 0}, {-32766, 32766}, false},
        {{-32766, 32766}, {-1, 1}, false}, {{-300, 300}, {-200, 200}, false}};
    ForRandomCases(4, [&kinds](Random& random) {
        for (const Kind& kind : kinds) {
            const Sizes sizes = {static_cast<uint32_t>(random.Int(12, 30)), static_cast<uint32_t>(random.Int(32, 150)),
                                 static_cast<uint32_t>(random.Int(180, 250))};
            Problem p = MakeProblem(random, sizes, kind.a, kind.b);
            // both ends occur, whatever the draw
            p.a[0] = static_cast<float>(kind.a.low);
            p.a[1] = static_cast<float>(kind.a.high);
            p.b[0] = static_cast<float>(kind.b.low);
            p.b[1] = static_cast<float>(kind.b.high);
            p.flags = {random.OneOf<uint8_t>({0, 1}), random.OneOf<uint8_t>({0, 1})};
            ForEachLevel([&](Level level) {
                EXPECT_EQ(RunWithoutFusing(p), kind.bytes ? BytesAt(level) : ShortsAt(level))
                    << kind.a.low << " to " << kind.a.high << " times " << kind.b.low << " to " << kind.b.high;
            });
        }
    });
}

TEST(WholeProduct, EveryDepth)
{
    ForRandomCases(1, [](Random& random) {
        for (uint32_t k = 1; k <= 5000; k += k < 600 ? 1 : static_cast<uint32_t>(random.Int(1, 60))) {
            const uint32_t columns = std::max(17u, (1u << 16) / (7 * k) + 1);
            Problem p = MakeProblem(random, {7, columns, k}, {-9, 9}, {0, 50});
            p.flags = {random.OneOf<uint8_t>({0, 1}), random.OneOf<uint8_t>({0, 1})};
            ForEachLevel([&](Level level) { EXPECT_EQ(RunWithoutFusing(p), k < 8 ? kWayApart : BytesAt(level)) << k; });
        }
    });
}

TEST(WholeProduct, EverySize)
{
    ForRandomCases(40, [](Random& random) {
        const Sizes sizes = {static_cast<uint32_t>(random.Int(6, random.Chance(0.2) ? 420 : 20)),
                             static_cast<uint32_t>(random.Int(16, 150)), static_cast<uint32_t>(random.Int(690, 800))};
        const bool bytes = random.Chance(0.5);
        Problem p = bytes ? MakeProblem(random, sizes, {-20, 100}, {-60, 100})
                          : MakeProblem(random, sizes, {-90, 180}, {-80, 80});
        p.flags = {random.OneOf<uint8_t>({0, 1}), random.OneOf<uint8_t>({0, 1})};
        if (random.Chance(0.4)) {
            p.flags = {};
            p.cleared = false;
            p.start = Whole(random, p.start.size(), -1000, 1000);
        }
        ForEachLevel([&](Level level) { EXPECT_EQ(RunWithoutFusing(p), bytes ? BytesAt(level) : ShortsAt(level)); });
    });
}

// Rows that alone reach the limit, and a C that lets them pass it.
TEST(WholeProduct, GoesInIntegersUpTo2To24)
{
    constexpr Sizes kSizes = {200, 33, 1600};
    struct Place {
        uint32_t k;
        bool first;
    };
    for (const Place place : {Place{0, true}, Place{700, false}, Place{1597, false}}) {
        for (const uint32_t row : {0u, 100u, 199u}) {
            for (const float above : {-1.0f, 0.0f, 1.0f}) {
                Problem p = {kSizes, Floats(200 * 1600, 0.0f), Floats(1600 * 33, 1.0f), Floats(200 * 33, above + 1),
                             false};
                const float terms[] = {32766, 32766, 261};  // times 255: 2^24 - 1
                for (uint32_t i = 0; i < 3; ++i) {
                    p.a[size_t{row} * 1600 + place.k + i] = terms[i];
                    p.b[(place.k + i) * size_t{33} + 32] = 255;
                }
                p.a[size_t{row} * 1600 + 1599] += above == 1.0f ? 3.0f : 0.0f;  // where a lost 1 would show
                ForEachLevel([&](Level level) {
                    const Ways ways = RunWithoutFusing(p);
                    EXPECT_EQ((ways & kWayApart) != 0, above == 1.0f || !HasIntegers(level)) << place.k << " " << row;
                    EXPECT_EQ((ways & kInIntegers) != 0,
                              HasIntegers(level) && (above < 1.0f || !place.first || row > 191))
                        << place.k << " " << row;
                });
            }
        }
    }
}

// The same limit reached by many small terms, also of products that are negative, where |C| and not C counts.
TEST(WholeProduct, KeepsTheBoundAcrossBlocks)
{
    ForRandomCases(3, [](Random& random) {
        for (const bool negative : {false, true}) {
            Problem p =
                MakeProblem(random, {6, 32, 3000}, {200, 255}, negative ? Bounds{-255, -200} : Bounds{200, 255});
            for (const uint8_t transB : {0, 1}) {
                p.flags.transB = transB;
                ForEachLevel([&](Level level) {
                    const Ways ways = RunWithoutFusing(p);
                    EXPECT_NE(ways & kWayApart, 0u);
                    EXPECT_EQ(ways & kInIntegers, HasIntegers(level) && level != Level::kVnni ? kWayShorts : 0u);
                });
            }
            // half as large: the first block of bytes keeps the bound, a later one does not
            p = MakeProblem(random, {6, 32, 3000}, {100, 127}, negative ? Bounds{-127, -100} : Bounds{100, 127});
            ForEachLevel([&](Level level) {
                EXPECT_EQ(RunWithoutFusing(p), kWayApart | (HasIntegers(level) ? BytesAt(level) : 0));
            });
        }
    });
}

constexpr float kBad[] = {0.5f, kNan, kInf, -kInf, 32767, -32767, 16777216, 3e9f, -3e9f, 0x1p-149f, -0.5f};

TEST(WholeProduct, OneOtherValueInAOrB)
{
    constexpr Sizes kSizes = {200, 40, 1100};
    ForRandomCases(1, [&kSizes](Random& random) {
        const Problem good = MakeProblem(random, kSizes, {-8, 7}, {0, 15});
        for (const float bad : kBad) {
            for (const uint32_t row : {0u, 199u}) {
                for (const uint32_t k : {0u, 600u, 1099u}) {
                    const bool atOnce = k == 0 && row == 0;
                    Problem p = good;
                    p.a[size_t{row} * kSizes.K + k] = bad;
                    ForEachLevel([&](Level level) {
                        EXPECT_EQ(RunWithoutFusing(p), kWayApart | (atOnce ? 0 : BytesAt(level))) << bad << " " << k;
                    });
                    p = good;
                    p.b[size_t{k} * kSizes.N + row / 5] = bad;
                    ForEachLevel([&](Level level) {
                        EXPECT_EQ(RunWithoutFusing(p), kWayApart | (k == 0 ? 0 : BytesAt(level))) << bad << " " << k;
                    });
                }
            }
        }
    });
}

TEST(WholeProduct, OneOtherValueInC)
{
    constexpr Sizes kSizes = {20, 50, 100};
    ForRandomCases(1, [](Random& random) {
        Problem p = MakeProblem(random, kSizes, {-8, 7}, {0, 15});
        p.cleared = false;
        for (const size_t at : {size_t{0}, size_t{500}, size_t{999}}) {
            for (const float bad : {0.5f, kNan, kInf, -kInf, 16777218.0f, -16777218.0f, 3e9f, -0.0f, 0x1p-149f}) {
                p.start = Whole(random, 1000, -5, 5);
                p.start[at] = bad;
                ForEachLevel([&](Level) { EXPECT_EQ(RunWithoutFusing(p), kWayApart) << bad; });
            }
            p.start[at] = 16000000.0f;
            ForEachLevel([&](Level level) { EXPECT_EQ(RunWithoutFusing(p), BytesAt(level)); });
        }
    });
}

// -0.0 in A and B does no harm; where all terms are -0.0, only a C of -0.0 would stay -0.0.
TEST(WholeProduct, ZerosOfBothSigns)
{
    constexpr Sizes kSizes = {20, 50, 100};
    for (const float a : {0.0f, -0.0f}) {
        for (const float b : {0.0f, -0.0f, 3.0f, -3.0f}) {
            Problem p = {kSizes, Floats(2000, a), Floats(5000, b), Floats(1000, kNan)};
            ForEachLevel([&](Level level) { EXPECT_EQ(RunWithoutFusing(p), BytesAt(level)); });
            p.cleared = false;
            p.start.assign(1000, 0.0f);
            ForEachLevel([&](Level level) { EXPECT_EQ(RunWithoutFusing(p), BytesAt(level)); });
            p.start.assign(1000, -0.0f);
            ForEachLevel([&](Level) { EXPECT_EQ(RunWithoutFusing(p), kWayApart); });
        }
    }
}

// Rows and columns of zeros among others, and rows that end in other blocks of rows.
TEST(WholeProduct, ValuesThatGrowFromBlockToBlock)
{
    ForRandomCases(8, [](Random& random) {
        Problem p = MakeProblem(random, {390, 70, 1100}, {0, 0}, {-3, 3});
        const uint32_t wide = static_cast<uint32_t>(random.Int(1, 389));
        for (uint32_t i = 0; i < 390; ++i) {
            for (uint32_t k = random.Chance(0.5) ? 0 : 520; k < 1100; ++k) {
                p.a[size_t{i} * 1100 + k] = static_cast<float>(i < wide ? random.Int(-50, 100) : random.Int(-400, 400));
            }
        }
        ForEachLevel([&](Level level) {
            const Ways ways = RunWithoutFusing(p);
            EXPECT_EQ(ways & kWayShorts, ShortsAt(level) & kWayShorts);
            EXPECT_EQ(ways & kWayApart, ShortsAt(level) & kWayApart);
        });
    });
}

TEST(WholeProduct, OtherRoundingsGoApart)
{
    ForRandomCases(1, [](Random& random) {
        const Problem p = MakeProblem(random, {20, 50, 100}, {-8, 7}, {0, 15});
        for (const int mode : {FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO}) {
            fesetround(mode);
            ForEachLevel([&](Level) { EXPECT_EQ(RunWithoutFusing(p), kWayApart); });
            fesetround(FE_TONEAREST);
        }
    });
}

TEST(WholeProduct, OtherProductsGoApart)
{
    ForRandomCases(1, [](Random& random) {
        Problem p = MakeProblem(random, {20, 50, 100}, {-8, 7}, {0, 15});
        p.alpha = 2;
        ForEachLevel([&](Level) { EXPECT_EQ(RunWithoutFusing(p), kWayApart); });
        for (const Sizes small : {Sizes{5, 500, 100}, Sizes{500, 15, 100}, Sizes{100, 200, 7}, Sizes{16, 16, 255}}) {
            p = MakeProblem(random, small, {-8, 7}, {0, 15});
            ForEachLevel([&](Level) { EXPECT_EQ(RunWithoutFusing(p), kWayApart); });
        }
        Floats both(20 * 100 + 20 * 50, 1.0f);
        const Floats b(100 * 50, 1.0f);
        ForEachLevel([&](Level level) {
            const auto run = [&](size_t at) {
                return RunProduct({20,
                                   50,
                                   100,
                                   1.0f,
                                   {both.data(), 100, 1},
                                   {b.data(), 50, 1},
                                   nullptr,
                                   Start::kCleared,
                                   both.data() + at});
            };
            EXPECT_EQ(run(20 * 100 - 1), kWayApart);
            both.assign(both.size(), 1.0f);
            EXPECT_EQ(run(20 * 100), BytesAt(level));
        });
    });
}

struct Matrix {
    const Floats& values;
    size_t columns;
};

void FillFromMatrix(const void* context, size_t k0, size_t depth, size_t j0, size_t columns, float* to, size_t step)
{
    const Matrix& matrix = *static_cast<const Matrix*>(context);
    for (size_t k = 0; k < depth; ++k) {
        for (size_t j = 0; j < columns; ++j) {
            to[k * step + j] = matrix.values[(k0 + k) * matrix.columns + j0 + j];
        }
    }
}

// B from a source: the same ways, and the f32 kernel goes on in the middle of it.
TEST(WholeProduct, TakesColumnsFromASource)
{
    ForRandomCases(10, [](Random& random) {
        const Sizes s = {static_cast<uint32_t>(random.Int(6, 220)), static_cast<uint32_t>(random.Int(16, 140)), 1100};
        const uint32_t last = s.M * s.K - 1;
        for (const float a : {1.0f, 300.0f, 0.5f}) {
            Problem p = MakeProblem(random, s, {-8, 7}, {0, 15});
            p.a[last] = a;
            Floats expected(p.start.size());
            reference::RefGemm({0, 0, s.M, s.N, s.K, 1, p.a.data(), p.b.data(), 0, expected.data()});
            const Matrix matrix = {p.b, s.N};
            const PanelSource source = {FillFromMatrix, &matrix};
            ForEachLevel([&](Level level) {
                Floats c(expected.size(), kNan);
                const auto run = [&](WholeRange range) {
                    return RunProduct(
                        {s.M, s.N, s.K, 1, {p.a.data(), s.K, 1}, {}, &source, Start::kCleared, c.data(), range});
                };
                const Ways then = a == 0.5f ? kWayApart : a == 300.0f ? ShortsAt(level) : 0;
                EXPECT_EQ(run({true, 0, 15}), BytesAt(level) | then);
                EXPECT_TRUE(SameFloats(c, expected));
                c.assign(c.size(), kNan);
                EXPECT_EQ(run({false, 0, 0}), kWayApart);
                EXPECT_TRUE(SameFloats(c, expected));
            });
        }
    });
}

TEST(WholeKernels, ExamineFindsTheRange)
{
    ForEachLevel([](Level) {
        const WholeKernels* const kernels = WholeKernelsInUse();
        if (kernels == nullptr) {
            return;
        }
        const auto examine = [kernels](const Floats& values) { return kernels->examine(values.data(), values.size()); };
        for (size_t count = 0; count < 300; ++count) {
            Floats values(count, 3.0f);
            EXPECT_TRUE(examine(values).whole);
            for (const size_t at : {count / 2, count - 1}) {
                if (at >= count) {
                    continue;
                }
                values[at] = -7.0f;
                EXPECT_TRUE(examine(values).whole);
                EXPECT_EQ(examine(values).lowest, -7);
                EXPECT_EQ(examine(values).highest, count > 1 ? 3 : 0);
                values[at] = 32766.0f;
                EXPECT_EQ(examine(values).highest, 32766);
                for (const float bad : kBad) {
                    values[at] = bad;
                    EXPECT_FALSE(examine(values).whole) << count << " " << at << " " << bad;
                }
                values[at] = 3.0f;
            }
        }
    });
}

}  // namespace
}  // namespace opkit
