// What control operators share. At a branch's border logical input first + i goes to output i.
#ifndef OPKIT_OPS_CONTROL_PASS_TENSORS_H
#define OPKIT_OPS_CONTROL_PASS_TENSORS_H

#include "runtime/frame.h"

namespace opkit {

// What a control operator returns besides its message, when it is told to do what it does not know.
constexpr uint32_t kRefused = 1;

// Copies one tensor with row conversion; false, silently, when the input does not resolve.
inline bool PassTensor(LayerParam* param, uint32_t input, uint32_t output)
{
    DescribedTensor tensor;
    if (!Describe(param, input, &tensor)) {
        return false;
    }
    ParseInputToOutput(&param->outputs, output, tensor.shape, &tensor.desc, tensor.data);
    return true;
}

// Copies `count` tensors in turn and stops at the first input that does not resolve.
inline bool PassTensors(LayerParam* param, uint32_t firstInput, int64_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (!PassTensor(param, firstInput + i, i)) {
            return false;
        }
    }
    return true;
}

}  // namespace opkit

#endif  // OPKIT_OPS_CONTROL_PASS_TENSORS_H
