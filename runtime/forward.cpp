// The driver: every layer of the table, in order, for every batch item. It never steers by the segment id.

#include <sys/time.h>

#include <cstring>

#include "common/report.h"
#include "opkit/opkit.h"
#include "runtime/frame.h"
#include "runtime/layer_table.h"

using namespace opkit;

namespace {

timeval WallClock()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

bool StopRequested(const ForwardParam& request)
{
    return request.stopFlag != nullptr && __atomic_load_n(request.stopFlag, __ATOMIC_RELAXED) != 0;
}

// A loop head that asks for no jump is in mid-loop: its outputs are not dumped yet.
bool IsLoopInProgress(const LayerParam& layer)
{
    return layer.segId == OPKIT_NO_SEGMENT && std::strcmp(layer.name, "LoopOpkitForward") == 0;
}

}  // namespace

uint32_t OpkitForward(ForwardParam* param)
{
    LayerParam layer = {};
    if (CheckForwardParam(param) != kSuccess) {
        return kFailure;
    }
    const uint32_t layerCount = LayerCount(*param);
    if (layerCount > OPKIT_MAX_LAYERS) {
        return kFailure;
    }
    const uint64_t offsetsEnd = uint64_t{OffsetsOf(*param).layerTableOffset} + layerCount * sizeof(uint32_t) + 4;
    if (offsetsEnd > param->modelSize) {
        Report(Here(), "Check buffer size failed.\n\n");
        return kFailure;
    }
    for (uint32_t batch = 0; batch < param->inputs[0].batch; ++batch) {
        for (uint32_t i = 0; i < layerCount; ++i) {
            timeval start = {};
            if (param->profiling.slots != nullptr) {
                start = WallClock();
            }
            if (ParseLayerParam(param, LayerOffset(*param, i), &layer, batch) != kSuccess) {
                Report(Here(), "Parse layer %u failed.\n\n", i);
                return kFailure;
            }
            const ForwardFunc forward = GetForwardFunc(layer.name);
            if (forward == nullptr) {
                Report(Here(), "Get %s func failed.\n\n", layer.name);
                ReleaseLayerParam(&layer);
                return kFailure;
            }
            layer.dumpHook.dumpAll = IsDumpLayer(layer.layerId, &param->dumpHook);
            if (StopRequested(*param)) {
                return kFailure;  // the layer's two tensor arrays stay allocated on this path
            }
            if (forward(&layer) != kSuccess) {
                Report(Here(), "%s failed.\n\n", layer.name);
                ReleaseLayerParam(&layer);
                return kFailure;
            }
            param->segId = layer.segId;
            if (!IsLoopInProgress(layer)) {
                OutputsView outputs = {layer.outputs, layer.outputNum};
                DumpLayer(&outputs, layer.layerId, &param->dumpHook);
            }
            ReleaseLayerParam(&layer);
            if (param->profiling.slots != nullptr) {  // a dump function may have changed it
                ProfilingLayer(&param->profiling, batch * layerCount + i, start, WallClock());
            }
        }
    }
    return kSuccess;
}
