// Seeded test data. OPKIT_TEST_SEED overrides the seed; a failing random case prints the seed that makes it the first.
//
//     ForRandomCases(200, [](Random& random) {
//         const Shape shape = random.Shape(1, 4);
//         LayerCase layer("AcosOpkitForward");
//         layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
//         ...
//     });
#ifndef OPKIT_TESTS_SUPPORT_RANDOM_H
#define OPKIT_TESTS_SUPPORT_RANDOM_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

namespace opkit::test {

enum class Values {
    kPlain,     // -4 to 4
    kUnit,      // 0 to 1
    kIntegers,  // whole numbers from -8 to 8, so that ties and equal values abound
    kMixed,     // plain, whole, quiet NaN, infinities, signed zeros, denormals, near-equal, huge; at times mostly zeros
    kBits,      // any bit pattern, signalling NaN included: for operators that move values
};

class Random {
public:
    explicit Random(uint64_t seed) : state_(seed), seed_(seed) {}

    uint64_t Seed() const { return seed_; }
    uint32_t Word();
    // From low to high, both included.
    int32_t Int(int32_t low, int32_t high);
    bool Chance(double probability);
    float Float(Values kind);
    std::vector<float> Floats(uint64_t count, Values kind);
    template <class T>
    T OneOf(std::initializer_list<T> choices)
    {
        return choices.begin()[Word() % choices.size()];
    }
    // minRank to maxRank dimensions of at least 1; at most maxCount elements; the last dimension from 1 to 70, so that
    // every tail of a vector loop occurs, and small ones more often.
    std::vector<uint32_t> Shape(uint32_t minRank, uint32_t maxRank, uint32_t maxCount = 4096);
    // A row stride in bytes that holds `width` floats: compact, a multiple of 16, 32 or 64 bytes, or wider. Always at
    // least one row, as valid tensors have it; with OPKIT_TEST_NARROW_ROWS in the environment half of them are small
    // numbers instead. Then a row takes several strides, and operators that do not round write rows over each other.
    uint32_t Stride(uint32_t width);

private:
    uint64_t Next();

    uint64_t state_;
    uint64_t seed_;
};

// OPKIT_TEST_SEED, or a fixed number.
uint64_t TestSeed();

// Runs `body` with `count` generators of their own seeds and stops after the first that failed, whose seed it traces.
void ForRandomCases(int count, const std::function<void(Random&)>& body);

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_RANDOM_H
