// Eyelike: zeros of the input's two extents with ones down a single column; the walk never moves sideways, so this is
// no diagonal.
// Rows: compacting, although the input's values do not count.

#include "common/bounded_memory.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

uint32_t EyelikeOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kCompacting, Messages::kOfRows)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    if (in.dimNum != 2) {
        Report(Here(), "eye like input shape0 size[%d] error.\n\n", in.dimNum);
        return kFailure;
    }
    const uint32_t rows = in.shape[0];
    const uint32_t columns = in.shape[1];
    if (memset_s(out.data, out.size, 0, size_t{rows} * columns * sizeof(float)) != 0) {
        Report(Here(), "eyelike memset error.\n\n");
        return kFailure;
    }
    const int32_t k = AttrOf<EyelikeAttr>(param).eyeK;
    const uint32_t column = k < 0 ? 0 : static_cast<uint32_t>(k);
    const uint32_t firstRow = k < 0 ? 0u - static_cast<uint32_t>(k) : 0;
    if (column < columns) {
        for (uint32_t row = firstRow; row < rows; ++row) {
            out.data[size_t{row} * columns + column] = 1.0f;
        }
    }
    return ExpandOutput(out);
}
