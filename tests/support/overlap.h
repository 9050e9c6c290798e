// Tensors that share memory.
#ifndef OPKIT_TESTS_SUPPORT_OVERLAP_H
#define OPKIT_TESTS_SUPPORT_OVERLAP_H

#include <cstring>

#include "tests/support/layer_case.h"
#include "tests/support/random.h"

namespace opkit::test {

// Moves a request input into the memory of another one, `room`, from its float `at` on, and output 0 `shift` floats
// behind that. For LayerCase::Tamper.
inline void PlaceOutputOver(World& world, uint32_t input, uint32_t room, uint32_t at, int32_t shift)
{
    TensorInfo* const inputs = world.Param().inputs;
    float* const place = static_cast<float*>(inputs[room].data) + at;
    std::memcpy(place, inputs[input].data, inputs[input].size);
    inputs[input].data = place;
    world.Param().outputs[0].data = place + shift;
}

// Adds the inputs and the output of a layer with one input, `data`, whose output begins anywhere near it in the same
// memory: before it, in its midst or just behind it, but not in its place.
inline void AddOverlapping(LayerCase& layer, Random& random, const Shape& shape, std::vector<float> data)
{
    constexpr uint32_t kRoom = 8000;
    layer.Online(shape, std::move(data), random.Stride(shape.back())).Online({kRoom}, std::vector<float>(kRoom, 1.0f));
    layer.Output(shape, random.Stride(shape.back()));
    const int32_t near = random.Chance(0.5) ? 20 : 600;
    const int32_t shift = random.Int(1, near) * random.OneOf({-1, 1, 1});
    layer.Tamper([shift](World& world) { PlaceOutputOver(world, 0, 1, 2000, shift); });
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_OVERLAP_H
