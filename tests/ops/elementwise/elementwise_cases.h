// What the tests of the element-wise operators share.
#ifndef OPKIT_TESTS_OPS_ELEMENTWISE_ELEMENTWISE_CASES_H
#define OPKIT_TESTS_OPS_ELEMENTWISE_ELEMENTWISE_CASES_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "opkit/opkit.h"
#include "tests/support/broadcast_shapes.h"
#include "tests/support/twin.h"

namespace opkit::test {

inline constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kInf = std::numeric_limits<float>::infinity();

// For comparisons that tell zeros apart; all NaN are alike.
inline std::vector<uint32_t> Bits(const std::vector<float>& values)
{
    std::vector<uint32_t> bits;
    for (const float value : values) {
        bits.push_back(std::bit_cast<uint32_t>(std::isnan(value) ? kNan : value));
    }
    return bits;
}

// Runs a case through OpkitForward and gives its output.
inline std::vector<float> RunCase(const LayerCase& layer)
{
    World world(layer);
    EXPECT_EQ(world.RunRequest(), 0u);
    return world.Output();
}

inline void ExpectRun(const LayerCase& layer, ForwardFunc function, uint32_t result, const std::string& messages)
{
    World world(layer);
    const RunResult run = RunCaptured(world, function);
    EXPECT_EQ(run.result, result);
    EXPECT_EQ(run.messages, messages);
}

// The case fails, printing `messages`, and leaves all memory as it was.
inline void ExpectUntouchedFailure(const LayerCase& layer, ForwardFunc function, const std::string& messages)
{
    World world(layer);
    const World before = world.Clone();
    const RunResult run = RunCaptured(world, function);
    EXPECT_EQ(run.result, OPKIT_FAILURE);
    EXPECT_EQ(run.messages, messages);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

inline std::vector<uint32_t> StridesOf(const StrideRecord& record)
{
    return {record.strides, record.strides + record.count};
}

// Both ways in which an input of a one-input operator fails to resolve.
inline void ExpectUnresolved(const char* name, ForwardFunc function, const std::string& messages)
{
    LayerCase missing(name);
    missing.Output({2});
    ExpectUntouchedFailure(missing, function, messages);
    LayerCase offline(name);
    offline.Offline({2}, {1, 1}).Output({2}).Tamper([](World& world) {
        world.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0;
    });
    ExpectUntouchedFailure(offline, function, messages);
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_OPS_ELEMENTWISE_ELEMENTWISE_CASES_H
