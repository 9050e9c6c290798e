// CondEnd: where the paths of a conditional join, or where the body of a loop or a scan ends. Which of the three it is
// is fixed in the model; none of them looks at the condition that If wrote.

#include "opkit/attributes/control.h"
#include "opkit/operators.h"
#include "opkit/opkit.h"
#include "ops/control/pass_tensors.h"

using namespace opkit;

uint32_t IfBranch(LayerParam* param)
{
    param->segId = OPKIT_NO_SEGMENT;  // stands even when a tensor fails
    const uint32_t firstInput = AttrOf<CondEndAttr>(param).ifBranch == 1 ? 0 : param->outputNum;
    return PassTensors(param, firstInput, param->outputNum) ? kSuccess : kFailure;
}

uint32_t LoopBranch(LayerParam* param)
{
    const CondEndAttr& attr = AttrOf<CondEndAttr>(param);
    const bool fromInput = attr.condValue == OPKIT_COND_FROM_INPUT;
    if (fromInput && attr.tensorNum != param->outputNum) {
        Report(Here(), "cond end for loop input size is not equal to output size.\n");
        return kRefused;
    }
    DescribedTensor condition;
    if (!Describe(param, 0, &condition)) {  // needed even where its value is not
        return kFailure;
    }
    // A constant condition takes no input: output 1 then gets input 0.
    const uint32_t shift = fromInput ? 0 : 1;
    *static_cast<float*>(param->outputs[0].data) =
        fromInput ? *condition.data : static_cast<float>(static_cast<int32_t>(attr.condValue));
    for (uint32_t output = 1; output < param->outputNum; ++output) {
        if (!PassTensor(param, output - shift, output)) {
            return kFailure;
        }
    }
    param->segId = attr.nextSegId;
    return kSuccess;
}

uint32_t ScanBranch(LayerParam* param)
{
    if (AttrOf<CondEndAttr>(param).tensorNum != param->outputNum) {
        Report(Here(), "cond end for loop input size is not equal to output size.\n");
        return kRefused;
    }
    return PassTensors(param, 0, param->outputNum) ? kSuccess : kFailure;
}

uint32_t CondEndOpkitForward(LayerParam* param)
{
    const CondEndAttr& attr = AttrOf<CondEndAttr>(param);
    if (attr.ifBranch != 0) {
        return IfBranch(param);
    }
    if (attr.loopBranch != 0) {
        return LoopBranch(param);
    }
    if (attr.scanBranch == 0) {
        Report(Here(), "Unrecong cmp type for if opkit propagation.\n");  // spelt so
        return kRefused;
    }
    return ScanBranch(param);
}
