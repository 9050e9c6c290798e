// What the tests of the data-moving operators share.
#ifndef OPKIT_TESTS_OPS_MOVEMENT_MOVEMENT_CASES_H
#define OPKIT_TESTS_OPS_MOVEMENT_MOVEMENT_CASES_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>
#include <vector>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit::test {

inline constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kInf = std::numeric_limits<float>::infinity();

// Offline with the given probability, else online with a random row stride.
inline void AddInput(LayerCase& layer, Random& random, const Shape& shape, std::vector<float> data,
                     double offline = 0.3)
{
    if (random.Chance(offline)) {
        layer.Offline(shape, std::move(data));
    } else {
        layer.Online(shape, std::move(data), random.Stride(shape.back()));
    }
}

inline void AddInput(LayerCase& layer, Random& random, const Shape& shape, Values values, double offline = 0.3)
{
    AddInput(layer, random, shape, random.Floats(modelkit::ElementCount(shape), values), offline);
}

inline uint32_t RandomBatch(Random& random)
{
    return static_cast<uint32_t>(random.Int(1, 2));
}

inline void ExpectRun(const LayerCase& layer, ForwardFunc function, uint32_t result, const std::string& messages)
{
    World world(layer);
    const RunResult run = RunCaptured(world, function);
    EXPECT_EQ(run.result, result);
    EXPECT_EQ(run.messages, messages);
}

inline std::vector<float> RunOutput(const LayerCase& layer, ForwardFunc function)
{
    World world(layer);
    const RunResult run = RunCaptured(world, function);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    return world.Output();
}

inline void NoDimensions(World& world)
{
    world.Attr<LayerAttrHead>().offlineShape[0].dimNum = 0;
}

inline void NoInputData(World& world)
{
    world.Param().inputs[0].data = nullptr;
}

inline void NoOutputData(World& world)
{
    world.Param().outputs[0].data = nullptr;
}

// A row alignment of 0 floats, for operators that never divide by it.
inline void NoInputStride(World& world)
{
    world.Param().inputs[0].stride = 0;
}

inline void NoOutputStride(World& world)
{
    world.Param().outputs[0].stride = 0;
}

inline const std::string kNullDelAlign = "[DelAlignSpace:#]Input data is NULL.\n\n";
inline const std::string kNullInsertAlign = "[InsertAlignSpace:#]Input data is NULL.\n\n";

inline std::vector<float> Iota(uint32_t count, float first = 0)
{
    std::vector<float> values(count);
    for (uint32_t i = 0; i < count; ++i) {
        values[i] = first + static_cast<float>(i);
    }
    return values;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_OPS_MOVEMENT_MOVEMENT_CASES_H
