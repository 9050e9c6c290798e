// Tensors that share memory.
#ifndef OPKIT_TESTS_SUPPORT_OVERLAP_H
#define OPKIT_TESTS_SUPPORT_OVERLAP_H

#include <cstring>

#include "tests/support/layer_case.h"

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

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_OVERLAP_H
