// Rounding over every float: the loops use no conversion to integer, the reference does.

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <vector>

#include "kernels/activation.h"
#include "tests/reference/activations.h"
#include "tests/support/levels.h"

namespace opkit {
namespace {

using namespace opkit::reference;

constexpr size_t kBlock = 1 << 16;

// Blocks of consecutive bit patterns whose results differ, NaN by its bits as well.
template <uint32_t Mode>
uint32_t DifferingBlocks()
{
    std::vector<float> in(kBlock);
    std::vector<float> expected(kBlock);
    std::vector<float> actual(kBlock);
    uint32_t differing = 0;
    for (uint32_t block = 0; block < 0x10000; ++block) {
        for (uint32_t i = 0; i < kBlock; ++i) {
            in[i] = std::bit_cast<float>(block << 16 | i);
            expected[i] = RefRoundElement(Mode, in[i]);
        }
        test::ForEachLevel([&](Level) {
            Kernels<ActivationKernels>().round[Mode](in.data(), actual.data(), kBlock);
            differing += std::memcmp(actual.data(), expected.data(), kBlock * sizeof(float)) != 0;
        });
    }
    return differing;
}

TEST(RoundExhaustive, Ceiling)
{
    EXPECT_EQ(DifferingBlocks<0>(), 0u);
}

TEST(RoundExhaustive, Floor)
{
    EXPECT_EQ(DifferingBlocks<1>(), 0u);
}

TEST(RoundExhaustive, Nearest)
{
    EXPECT_EQ(DifferingBlocks<2>(), 0u);
}

}  // namespace
}  // namespace opkit
