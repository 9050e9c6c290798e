// GatherND: slices of the data by tuples of indices, behind a number of batch dimensions that data and indices share.
// Rows: stepping, one tuple per row of the indices; slices are packed into the output with the data's own gaps.
//
// Indices out of range are clipped in the index tensor, with a message each: to D - 1 above, but to 0 below. The
// position is one running sum that is truncated after every component, and both additions are f32. A tuple that covers
// all remaining dimensions counts single elements and leaves the last dimension out of the step between batches.

#include "common/convert.h"
#include "opkit/attributes/movement.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

void CheckIndex(float* index, int32_t extent)
{
    if (*index >= static_cast<float>(extent)) {
        *index = static_cast<float>(extent - 1);
    } else if (static_cast<float>(-extent) > *index) {
        *index = 0.0f;
    } else {
        return;
    }
    Report(Here(), "GatherND index should be in [%d, %d]. Clip it to [%f]\n\n", -extent, extent - 1,
           static_cast<double>(*index));
}

// The slice that a tuple selects within its batch item.
uint32_t SliceOf(float* tuple, uint32_t length, const uint32_t* shape)
{
    uint32_t slice = 0;
    for (uint32_t i = 0; i < length; ++i) {
        CheckIndex(&tuple[i], static_cast<int32_t>(shape[i]));
        const float before = static_cast<float>(shape[i] * slice);
        float position = tuple[i];
        if (position < 0.0f) {
            position += static_cast<float>(shape[i]);
        }
        slice = TruncateToU32(position + before);
    }
    return slice;
}

}  // namespace

uint32_t GatherNDOpkitForward(LayerParam* param)
{
    Input data;
    Input indices;
    if (!Resolve(param, {&data, &indices}, Rows::kStepping, Messages::kAll)) {
        return kFailure;
    }
    const int32_t batchDims = AttrOf<GatherNDAttr>(param).gatherAxis;
    const int32_t last = data.dimNum - 1;
    const int32_t length = static_cast<int32_t>(indices.width);
    const uint32_t tuples = ShapeCount(indices.shape, indices.dimNum, batchDims, indices.dimNum - 1);
    const uint32_t batches = ShapeCount(indices.shape, indices.dimNum, 0, batchDims);
    uint32_t slice = 1;
    uint32_t batchStep = ShapeCount(data.shape, data.dimNum, batchDims, last);
    if (data.dimNum != batchDims + length) {
        slice = ShapeCount(data.shape, data.dimNum, batchDims + length, last) * data.alignNum;
        batchStep *= data.alignNum;
    }
    if (static_cast<int32_t>(batches) < 1 || static_cast<int32_t>(tuples) < 1) {
        return kSuccess;
    }
    const int64_t span = static_cast<int64_t>(data.Span());
    float* tuple = indices.data;
    float* to = static_cast<float*>(param->outputs[0].data);
    for (uint32_t b = 0; b < batches; ++b) {
        for (uint32_t t = 0; t < tuples; ++t) {
            const uint32_t position = SliceOf(tuple, indices.width, data.shape + batchDims);
            const int64_t from = int64_t{b} * batchStep + static_cast<int32_t>(position * slice);
            if (from < 0 || from + slice > span) {
                Report(Here(), "GatherND index %f reads outside the data.\n\n",
                       length > 0 ? static_cast<double>(tuple[length - 1]) : 0.0);
                return kFailure;
            }
            if (slice == 1) {
                *to = data.data[from];
            } else {
                Copy(slice, data.data + from, to);
            }
            to += slice;
            tuple += indices.alignNum;
        }
    }
    return kSuccess;
}
