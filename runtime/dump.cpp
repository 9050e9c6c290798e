// Dumping: which layers the caller wants to see, and handing over their outputs.

#include "opkit/helpers.h"

uint32_t IsDumpLayer(uint32_t layerId, DumpHook* dumpHook)
{
    if (dumpHook->dumpFunc == nullptr) {
        return 0;
    }
    if (dumpHook->dumpAll != 0) {
        return 1;
    }
    if (dumpHook->layerIds == nullptr) {
        return 0;
    }
    for (uint32_t i = 0; i < dumpHook->layerIdNum; ++i) {
        if (dumpHook->layerIds[i] == layerId) {
            return 1;
        }
    }
    return 0;
}

void DumpLayer(OutputsView* outputs, uint32_t layerId, DumpHook* dumpHook)
{
    if (IsDumpLayer(layerId, dumpHook) == 0) {
        return;
    }
    DumpRecord& record = dumpHook->record;
    record.layerId = layerId;
    for (uint32_t i = 0; i < outputs->count; ++i) {
        const TensorInfo& output = outputs->data[i];
        record.data = output.data;
        record.size = output.size;
        record.stride = output.stride;
        record.outputIndex = static_cast<uint16_t>(i);
        dumpHook->dumpFunc(&record);
    }
}
