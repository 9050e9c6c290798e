// What the tests of the matrix operators share.
#ifndef OPKIT_TESTS_OPS_MATRIX_MATRIX_CASES_H
#define OPKIT_TESTS_OPS_MATRIX_MATRIX_CASES_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "opkit/opkit.h"
#include "tests/support/float_bits.h"
#include "tests/support/twin.h"

namespace opkit::test {

using Floats = std::vector<float>;

constexpr uint32_t kAll = 0xFFFFFFFFu;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

inline std::string Message(const std::string& function, const std::string& text)
{
    return "[" + function + ":#]" + text;
}

inline void ExpectSuccess(const RunResult& run)
{
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
}

inline void ExpectFailure(const RunResult& run, const std::string& messages)
{
    EXPECT_EQ(run.result, kAll);
    EXPECT_EQ(run.messages, messages);
}

inline void ExpectFailure(const LayerCase& layer, ForwardFunc function, const std::string& messages)
{
    World world(layer);
    ExpectFailure(RunCaptured(world, function), messages);
}

// Runs the layer at every level; output 0 of item 0, compactly, and its rows must hold `expected`.
inline void ExpectOutput(const LayerCase& layer, ForwardFunc function, const Floats& expected)
{
    ForEachLevel([&](Level) {
        World world(layer);
        ExpectSuccess(RunCaptured(world, function));
        EXPECT_TRUE(SameFloats(world.Output(0), expected));
    });
}

// An online input takes a null pointer for its data.
inline void NullInput(LayerCase& layer, uint32_t index)
{
    layer.Tamper([index](World& world) { world.Param().inputs[index].data = nullptr; });
}

inline void NullOutput(LayerCase& layer)
{
    layer.Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
}

// Adds an input of this shape, online with some stride or offline.
inline void AddInput(Random& random, LayerCase& layer, const Shape& shape, Values kind)
{
    Floats data = random.Floats(ElementCount(shape), kind);
    if (random.Chance(0.4)) {
        layer.Offline(shape, std::move(data));
    } else {
        layer.Online(shape, std::move(data), random.Stride(shape.back()));
    }
}

// An output that holds `data` beforehand; the fill pattern when there is none.
inline CaseTensor Holding(Shape shape, Floats data, uint32_t strideBytes = 0)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.data = std::move(data);
    tensor.strideBytes = strideBytes;
    return tensor;
}

inline Shape Stacked(const Shape& stack, uint32_t rows, uint32_t columns)
{
    Shape shape = stack;
    shape.push_back(rows);
    shape.push_back(columns);
    return shape;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_OPS_MATRIX_MATRIX_CASES_H
