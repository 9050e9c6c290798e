// Comparing arrays of floats bit by bit, NaN with NaN, for tests that call helpers without a layer.
#ifndef OPKIT_TESTS_SUPPORT_FLOAT_BITS_H
#define OPKIT_TESTS_SUPPORT_FLOAT_BITS_H

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <span>

namespace opkit::test {

// Whether both hold the same bits; one NaN is as good as another.
inline testing::AssertionResult SameFloats(std::span<const float> actual, std::span<const float> expected)
{
    if (actual.size() != expected.size()) {
        return testing::AssertionFailure() << actual.size() << " floats instead of " << expected.size();
    }
    for (size_t i = 0; i < actual.size(); ++i) {
        const bool same = std::bit_cast<uint32_t>(actual[i]) == std::bit_cast<uint32_t>(expected[i]);
        if (!same && !(std::isnan(actual[i]) && std::isnan(expected[i]))) {
            return testing::AssertionFailure() << "element " << i << " is " << std::hexfloat << actual[i] << " ("
                                               << actual[i] << ") instead of " << expected[i];
        }
    }
    return testing::AssertionSuccess();
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_FLOAT_BITS_H
