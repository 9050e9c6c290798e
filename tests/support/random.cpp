#include "tests/support/random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <limits>

namespace opkit::test {
namespace {

bool NarrowRows()
{
    return std::getenv("OPKIT_TEST_NARROW_ROWS") != nullptr;
}

}  // namespace

uint64_t Random::Next()
{
    uint64_t x = state_ += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

uint32_t Random::Word()
{
    return static_cast<uint32_t>(Next() >> 32);
}

int32_t Random::Int(int32_t low, int32_t high)
{
    const uint64_t span = static_cast<uint64_t>(int64_t{high} - low) + 1;
    return static_cast<int32_t>(low + static_cast<int64_t>(Next() % span));
}

bool Random::Chance(double probability)
{
    return static_cast<double>(Next() >> 11) * 0x1p-53 < probability;
}

float Random::Float(Values kind)
{
    const auto unit = [this] { return static_cast<float>(Word() >> 8) * 0x1p-24f; };
    const auto sign = [this](float x) { return Word() & 1 ? -x : x; };
    switch (kind) {
        case Values::kPlain:
            return (unit() - 0.5f) * 8.0f;
        case Values::kUnit:
            return unit();
        case Values::kIntegers:
            return static_cast<float>(Int(-8, 8));
        case Values::kBits:
            return Chance(0.7) ? std::bit_cast<float>(Word()) : Float(Values::kMixed);
        case Values::kMixed:
            break;
    }
    switch (Int(0, 15)) {
        case 0:  // quiet NaN of several payloads, the default one among them
            return std::bit_cast<float>((Word() & 0x80000000) | 0x7fc00000 | (Chance(0.5) ? Word() & 0x3fffff : 0));
        case 1:
            return sign(std::numeric_limits<float>::infinity());
        case 2:
            return sign(0.0f);
        case 3:
            return sign(std::bit_cast<float>(Word() & 0x7fffff));
        case 4:  // within 1e-6 of a small whole number, on both sides of the tolerance
            return static_cast<float>(Int(-2, 2)) + sign(unit() * 2e-6f);
        case 5:
            return sign(OneOf({1e-6f, 9.9999e-7f, 1.0001e-6f, 1.1920929e-7f, 0.5f, 1.5f, 2.5f}));
        case 6:
            return sign(std::bit_cast<float>(0x4b000000 + Word() % 0x34000000));  // 2^23 and beyond, to the largest
        case 7:
        case 8:
            return static_cast<float>(Int(-8, 8));
        case 9:
            return (unit() - 0.5f) * 200.0f;
        default:
            return Float(Values::kPlain);
    }
}

std::vector<float> Random::Floats(uint64_t count, Values kind)
{
    std::vector<float> values(count);
    std::generate(values.begin(), values.end(), [&] { return Float(kind); });
    if (kind == Values::kMixed && Chance(0.1)) {  // so many zeros that sums come to nothing else, and show their signs
        for (float& value : values) {
            value = Chance(0.8) ? OneOf({0.0f, -0.0f, -0.0f}) : value;
        }
    }
    return values;
}

std::vector<uint32_t> Random::Shape(uint32_t minRank, uint32_t maxRank, uint32_t maxCount)
{
    const auto rank = static_cast<size_t>(Int(static_cast<int32_t>(minRank), static_cast<int32_t>(maxRank)));
    std::vector<uint32_t> shape(rank);
    uint32_t left = std::max(maxCount, 1U);
    for (size_t i = rank; i-- > 0;) {
        const uint32_t most =
            std::min(left, i + 1 == rank ? OneOf({2U, 4U, 18U, 70U}) : OneOf({1U, 2U, 3U, 5U, 9U, 17U}));
        shape[i] = static_cast<uint32_t>(Int(1, static_cast<int32_t>(most)));
        left /= shape[i];
    }
    return shape;
}

uint32_t Random::Stride(uint32_t width)
{
    if (NarrowRows() && Chance(0.5)) {
        return 4 * static_cast<uint32_t>(Int(1, 7));
    }
    const uint32_t row = std::max(width, 1U) * 4;
    const uint32_t align = OneOf({4U, 16U, 32U, 64U});
    return (row + align - 1) / align * align + (Chance(0.2) ? 4 * static_cast<uint32_t>(Int(1, 9)) : 0);
}

uint64_t TestSeed()
{
    const char* const text = std::getenv("OPKIT_TEST_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : 20240917;
}

void ForRandomCases(int count, const std::function<void(Random&)>& body)
{
    const bool failedBefore = testing::Test::HasFailure();
    Random seeds(TestSeed());
    uint64_t seed = TestSeed();
    for (int i = 0; i < count; ++i) {
        Random random(seed);
        SCOPED_TRACE("random case " + std::to_string(i) + "; OPKIT_TEST_SEED=" + std::to_string(seed) +
                     (NarrowRows() ? " OPKIT_TEST_NARROW_ROWS=1" : "") + " makes it the first one");
        body(random);
        if (!failedBefore && testing::Test::HasFailure()) {
            return;
        }
        seed = (uint64_t{seeds.Word()} << 32) | seeds.Word();
    }
}

}  // namespace opkit::test
