// Shapes of operands that broadcast, one way or another, to a given output.
#ifndef OPKIT_TESTS_SUPPORT_BROADCAST_SHAPES_H
#define OPKIT_TESTS_SUPPORT_BROADCAST_SHAPES_H

#include "tests/support/layer_case.h"
#include "tests/support/random.h"

namespace opkit::test {

// Mostly the output's dimensions and ones, with leading dimensions missing at times; now and then a dimension that
// wraps around, a longer one, or a rank above the output's, of which only element 0 is read.
inline Shape OperandShape(Random& random, const Shape& out)
{
    if (random.Chance(0.25)) {
        return out;
    }
    if (random.Chance(0.04) && out.size() < OPKIT_MAX_DIMS) {
        Shape shape = out;
        shape.insert(shape.begin(), static_cast<uint32_t>(random.Int(1, 3)));
        return shape;
    }
    const int32_t rank = static_cast<int32_t>(out.size());
    const size_t missing = random.Chance(0.5) ? 0 : static_cast<size_t>(random.Int(0, rank - 1));
    Shape shape(out.begin() + static_cast<std::ptrdiff_t>(missing), out.end());
    const bool odd = random.Chance(0.3);
    const double ones = random.OneOf({0.2, 0.5, 0.8});
    for (uint32_t& dim : shape) {
        if (random.Chance(ones)) {
            dim = 1;
        } else if (odd && random.Chance(0.4)) {
            dim = static_cast<uint32_t>(random.Int(1, static_cast<int32_t>(dim) + 2));
        }
    }
    return shape;
}

// Adds it as the next logical input, online or offline, padded or compact.
inline void AddOperand(Random& random, LayerCase& layer, const Shape& shape, Values values)
{
    std::vector<float> data = random.Floats(ElementCount(shape), values);
    if (random.Chance(0.3)) {
        layer.Offline(shape, std::move(data));
    } else {
        // Below the width the pitch is a multiple of the alignment.
        const uint32_t stride = random.Chance(0.1) ? 16 : random.Stride(shape.back());
        layer.Online(shape, std::move(data), stride);
    }
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_BROADCAST_SHAPES_H
