// ThenEnd: the end of a then path. Passes tensors on and leaves the segment that follows the path.

#include "opkit/attributes/control.h"
#include "opkit/operators.h"
#include "ops/control/pass_tensors.h"

using namespace opkit;

uint32_t ThenEndOpkitForward(LayerParam* param)
{
    const ThenEndAttr& attr = AttrOf<ThenEndAttr>(param);
    if (!PassTensors(param, 0, attr.tensorNum)) {
        return kFailure;
    }
    param->segId = attr.nextSegId;
    return kSuccess;
}
