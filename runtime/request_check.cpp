// The request check: arrays and buffers are there, and the layer table lies inside the model buffer.

#include "common/report.h"
#include "opkit/helpers.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Sums marked wrapping are computed in 32 bits and so may pass where the true sum would not.
bool LayerTableFits(const ForwardParam& param)
{
    const ModelOffsets& offsets = *static_cast<const ModelOffsets*>(param.attr);
    const uint32_t size = param.modelSize;
    const uint32_t wrappingEnd = offsets.layerTableOffset + offsets.layerTableSize;
    return size <= OPKIT_MAX_MODEL_SIZE && size >= offsets.layerTableOffset &&
           uint64_t{offsets.layerTableOffset} + sizeof(uint32_t) <= size && size >= offsets.layerTableSize &&
           wrappingEnd <= size;
}

}  // namespace

uint32_t CheckForwardParam(ForwardParam* param)
{
    if (param == nullptr) {
        Report(Here(), "Null ptr.\n\n");
        return kFailure;
    }
    if (param->inputNum == 0 || param->inputs == nullptr) {
        Report(Here(), "Input error!\n\n");
        return kFailure;
    }
    if (param->outputNum == 0 || param->outputs == nullptr) {
        Report(Here(), "Output error!\n\n");
        return kFailure;
    }
    const bool scratchMissing = param->opkitBufSize != 0 && param->opkitBuf == nullptr;
    const bool offsetsMissing = param->attrSize != sizeof(ModelOffsets) || param->attr == nullptr;
    const bool modelMissing = param->modelSize == 0 || param->model == nullptr;
    if (scratchMissing || offsetsMissing || modelMissing) {
        Report(Here(), "Null ptr!\n\n");
        return kFailure;
    }
    if (param->inputs[0].batch > OPKIT_MAX_BATCH) {
        Report(Here(), "Batch num should less than 256!\n\n");
        return kFailure;
    }
    if (!LayerTableFits(*param)) {
        Report(Here(), "Check buffer size failed.\n\n");
        return kFailure;
    }
    return kSuccess;
}
