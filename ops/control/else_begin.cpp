// ElseBegin: the start of an else path. Passes tensors on; unlike ThenEnd it asks for no jump, so the segment id stays
// what the layer before left.

#include "opkit/attributes/control.h"
#include "opkit/operators.h"
#include "ops/control/pass_tensors.h"

using namespace opkit;

uint32_t ElseBeginOpkitForward(LayerParam* param)
{
    return PassTensors(param, 0, AttrOf<ElseBeginAttr>(param).tensorNum) ? kSuccess : kFailure;
}
