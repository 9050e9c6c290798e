// Turns one layer record of the model buffer into the LayerParam of one batch item.

#include <cstdlib>

#include "common/report.h"
#include "opkit/helpers.h"
#include "runtime/frame.h"
#include "runtime/layer_table.h"

using namespace opkit;

namespace {

// Whether [offset, offset + size) ends by `limit`. The sum wraps in 32 bits: such a range passes.
bool FitsWrapping(uint32_t offset, uint32_t size, uint32_t limit)
{
    return offset <= limit && size <= limit && offset + size <= limit;
}

bool TableFits(uint32_t offset, uint32_t entries, uint32_t limit)
{
    return offset <= limit && uint64_t{offset} + uint64_t{entries} * sizeof(TensorRecord) <= limit;
}

uint32_t ReportBufferSize(Caller caller = Here())
{
    Report(caller, "Check buffer size failed.\n\n");
    return kFailure;
}

// Fills what does not depend on where the tensor lies; false when its dimensions lie outside the layer table.
bool SetShape(const ForwardParam& param, const TensorRecord& record, TensorInfo* tensor)
{
    tensor->reserved = 0;
    tensor->batch = 1;
    tensor->dimNum = record.shapeSize >> 2;
    if (!FitsWrapping(record.shapeOffset, record.shapeSize, LayerTableSize(param))) {
        return false;
    }
    tensor->shape = reinterpret_cast<uint32_t*>(Address(LayerTableBase(param), record.shapeOffset));
    return true;
}

void PlaceInScratch(const ForwardParam& param, const TensorRecord& record, uint32_t batchIndex, TensorInfo* tensor)
{
    uint8_t* data = Address(param.opkitBuf, record.memIndex);
    if (record.memKind == OPKIT_MEM_SCRATCH_BATCHED) {
        data = Address(data, batchIndex * record.size);
    }
    tensor->data = data;
    tensor->size = record.size;
    tensor->stride = record.strideIndex;
}

void PlaceInRequest(const TensorInfo& source, uint32_t stride, uint32_t batchCount, uint32_t batchIndex,
                    TensorInfo* tensor)
{
    const uint32_t slice = source.size / batchCount;
    tensor->data = Address(source.data, batchIndex * slice);
    tensor->size = slice;
    tensor->stride = stride;
}

TensorRecord* TensorTable(const ForwardParam& param, uint32_t offset)
{
    return reinterpret_cast<TensorRecord*>(Address(LayerTableBase(param), offset));
}

// The request's tensors that a table's entries name by index, and what messages call them.
struct RequestSide {
    const TensorInfo* tensors;
    uint32_t count;
    const char* index;
    const char* tensor;
};

// Fills one tensor array of a layer, in the caller's name.
uint32_t ParseTensors(const ForwardParam& param, const RequestSide& side, const TensorRecord* table,
                      TensorInfo* tensors, uint32_t count, uint32_t batchIndex, Caller caller = Here())
{
    const uint32_t batchCount = param.inputs[0].batch;  // the inputs' count divides the outputs as well
    for (uint32_t i = 0; i < count; ++i) {
        const TensorRecord& entry = table[i];
        if (!SetShape(param, entry, &tensors[i])) {
            return ReportBufferSize(caller);
        }
        if (entry.memKind > OPKIT_MEM_REQUEST_1) {
            PlaceInScratch(param, entry, batchIndex, &tensors[i]);
            continue;
        }
        if (entry.strideIndex >= side.count || entry.memIndex >= side.count) {
            // The limit shown is the request's output count, for inputs too.
            Report(caller, "%s stride idx[%u] or mem idx[%u] larger than %u!\n\n", side.index, entry.strideIndex,
                   entry.memIndex, param.outputNum);
            return kFailure;
        }
        const TensorInfo& source = side.tensors[entry.memIndex];
        if (source.size % batchCount != 0) {
            Report(caller, "Invalid %s[%u] size[%u], batch[%u]!\n\n", side.tensor, i, source.size, batchCount);
            return kFailure;
        }
        PlaceInRequest(source, side.tensors[entry.strideIndex].stride, batchCount, batchIndex, &tensors[i]);
    }
    return kSuccess;
}

// One array of a LayerParam. A layer without tensors asks for zero bytes all the same.
TensorInfo* AllocateTensors(uint32_t count, Caller caller = Here())
{
    const size_t bytes = count * sizeof(TensorInfo);
    void* tensors = std::malloc(bytes);
    if (tensors == nullptr) {
        Report(caller, "Malloc %lu failed!\n\n", bytes);
    }
    return static_cast<TensorInfo*>(tensors);
}

}  // namespace

uint32_t CheckLayerParam(ForwardParam* param, uint32_t layerOffset)
{
    const uint32_t tableSize = LayerTableSize(*param);
    if (layerOffset > tableSize || uint64_t{layerOffset} + sizeof(LayerRecord) > tableSize) {
        return ReportBufferSize();
    }
    const LayerRecord& record = LayerRecordAt(*param, layerOffset);
    if (!FitsWrapping(record.nameOffset, record.nameSize, tableSize)) {
        return ReportBufferSize();
    }
    if (record.inputNum > OPKIT_MAX_LAYER_INPUTS) {
        Report(Here(), "Input num %u larger than %d!\n", record.inputNum, OPKIT_MAX_LAYER_INPUTS);
        return kFailure;
    }
    if (!TableFits(record.inputTableOffset, record.inputNum, tableSize)) {
        return ReportBufferSize();
    }
    if (record.outputNum > OPKIT_MAX_LAYER_OUTPUTS) {
        Report(Here(), "Output num %u larger than %d!\n", record.outputNum, OPKIT_MAX_LAYER_OUTPUTS);
        return kFailure;
    }
    if (!TableFits(record.outputTableOffset, record.outputNum, tableSize) ||
        !FitsWrapping(record.bufOffset, record.bufSize, param->opkitBufSize) ||
        !FitsWrapping(record.attrOffset, record.attrSize, tableSize)) {
        return ReportBufferSize();
    }
    return kSuccess;
}

uint32_t ParseLayerInputInfo(ForwardParam* param, LayerRecord* record, LayerParam* layerParam, uint32_t batchIndex)
{
    const RequestSide side = {param->inputs, param->inputNum, "In", "input"};
    return ParseTensors(*param, side, TensorTable(*param, record->inputTableOffset), layerParam->inputs,
                        layerParam->inputNum, batchIndex);
}

uint32_t ParseLayerOutputInfo(ForwardParam* param, LayerRecord* record, LayerParam* layerParam, uint32_t batchIndex)
{
    const RequestSide side = {param->outputs, param->outputNum, "Out", "output"};
    return ParseTensors(*param, side, TensorTable(*param, record->outputTableOffset), layerParam->outputs,
                        layerParam->outputNum, batchIndex);
}

uint32_t ParseLayerParam(ForwardParam* param, uint32_t layerOffset, LayerParam* layerParam, uint32_t batchIndex)
{
    if (CheckLayerParam(param, layerOffset) != kSuccess) {
        Report(Here(), "Layer Param is illegal!\n");
        return kFailure;
    }
    LayerRecord& record = LayerRecordAt(*param, layerOffset);
    uint8_t* base = LayerTableBase(*param);
    layerParam->name = reinterpret_cast<const char*>(Address(base, record.nameOffset));
    layerParam->layerId = record.layerId;
    layerParam->inputNum = record.inputNum;
    layerParam->segId = param->segId;

    layerParam->inputs = AllocateTensors(record.inputNum);
    if (layerParam->inputs == nullptr) {
        ReleaseLayerParam(layerParam);
        return kFailure;
    }
    if (ParseLayerInputInfo(param, &record, layerParam, batchIndex) != kSuccess) {
        Report(Here(), "ParseLayerInputInfo failed!\n\n");
        ReleaseLayerParam(layerParam);
        return kFailure;
    }
    layerParam->outputNum = record.outputNum;
    layerParam->outputs = AllocateTensors(record.outputNum);
    if (layerParam->outputs == nullptr) {
        ReleaseLayerParam(layerParam);
        return kFailure;
    }
    if (ParseLayerOutputInfo(param, &record, layerParam, batchIndex) != kSuccess) {
        Report(Here(), "ParseLayeroutputInfo failed!\n\n");
        ReleaseLayerParam(layerParam);
        return kFailure;
    }
    layerParam->opkitBuf = Address(param->opkitBuf, record.bufOffset);
    layerParam->opkitBufSize = record.bufSize;
    layerParam->attr = Address(base, record.attrOffset);
    layerParam->attrSize = record.attrSize;
    layerParam->model = param->model;
    layerParam->modelSize = param->modelSize;
    return kSuccess;
}

void ReleaseLayerParam(LayerParam* layerParam)
{
    std::free(layerParam->inputs);
    layerParam->inputs = nullptr;
    std::free(layerParam->outputs);
    layerParam->outputs = nullptr;
}
