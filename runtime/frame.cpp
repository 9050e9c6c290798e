// Resolving inputs, and the in-place row handling around an operator's own work.

#include "runtime/frame.h"

using namespace opkit;

bool ParseInputInfo(float** data, uint32_t** shape, int32_t* dimNum, uint32_t* stride, uint32_t* count, uint32_t index,
                    uint32_t* onlineIndex, uint32_t* offlineIndex, LayerParam* param)
{
    LayerAttrHead& head = AttrOf<LayerAttrHead>(param);
    if (head.inputFlags[index] == '1') {
        OfflineShape& record = head.offlineShape[*offlineIndex];
        *data = reinterpret_cast<float*>(Address(param->model, head.offlineOffset[*offlineIndex]));
        *dimNum = static_cast<int32_t>(record.dimNum);
        *shape = record.dims;
        if (*dimNum < 1) {
            return false;
        }
        *stride = record.dims[*dimNum - 1] * sizeof(float);
        ++*offlineIndex;
    } else {
        if (*onlineIndex >= param->inputNum) {
            return false;
        }
        const TensorInfo& tensor = param->inputs[*onlineIndex];
        *data = static_cast<float*>(tensor.data);
        *dimNum = static_cast<int32_t>(tensor.dimNum);
        *shape = tensor.shape;
        *stride = tensor.stride;
        ++*onlineIndex;
    }
    for (int32_t i = 0; i < *dimNum; ++i) {
        *count *= (*shape)[i];
    }
    return true;
}

namespace opkit {
namespace {

constexpr const char* After(MessageEnd end)
{
    return end == MessageEnd::kBlankLine ? "\n\n" : "\n";
}

}  // namespace

bool ResolveNext(InputCursor* cursor, Input* input, Rows rows, Messages messages, Caller caller)
{
    *input = Input();
    const bool resolved = ParseInputInfo(&input->data, &input->shape, &input->dimNum, &input->stride, &input->count,
                                         cursor->logical++, &cursor->online, &cursor->offline, cursor->param);
    input->alignNum = input->stride >> 2;
    input->width = LastDimension(input->shape, input->dimNum);
    if (!resolved) {
        if (messages == Messages::kAll) {
            Report(caller, "ParseInputInfo failed.\n\n");
        }
        return false;
    }
    if (rows != Rows::kCompacting) {
        return true;
    }
    if (messages != Messages::kNone) {
        return CompactInput(*input, MessageEnd::kBlankLine, caller);
    }
    if (input->width != input->alignNum && input->count != 0) {
        CompactRows(input->data, input->count, input->width, input->alignNum);
    }
    return true;
}

bool ResolveEach(LayerParam* param, Input* const* inputs, uint32_t count, Rows rows, Messages messages, Caller caller)
{
    InputCursor cursor = {param};
    for (uint32_t k = 0; k < count; ++k) {
        if (!ResolveNext(&cursor, inputs[k], rows, messages, caller)) {
            return false;
        }
    }
    return true;
}

bool Resolve(LayerParam* param, Input* inputs, uint32_t count, Rows rows, Messages messages, Caller caller)
{
    InputCursor cursor = {param};
    for (uint32_t k = 0; k < count; ++k) {
        if (!ResolveNext(&cursor, &inputs[k], rows, messages, caller)) {
            return false;
        }
    }
    return true;
}

bool CompactEach(Input* const* inputs, uint32_t count, Caller caller)
{
    for (uint32_t k = 0; k < count; ++k) {
        if (!CompactInput(*inputs[k], MessageEnd::kBlankLine, caller)) {
            return false;
        }
    }
    return true;
}

bool Describe(LayerParam* param, uint32_t index, DescribedTensor* input)
{
    return ParseInputInfo2(&input->desc, &input->data, &input->shape, index, param);
}

Tensor TensorOf(const DescribedTensor& described)
{
    const TensorDesc& desc = described.desc;
    Tensor tensor;
    tensor.data = described.data;
    tensor.shape = described.shape;
    tensor.dimNum = desc.dimNum;
    tensor.stride = desc.stride;
    tensor.alignNum = desc.stride >> 2;
    tensor.width = LastDimension(described.shape, desc.dimNum);
    tensor.count = static_cast<uint32_t>(desc.count);
    return tensor;
}

Output OutputOf(const LayerParam* param, uint32_t index)
{
    const TensorInfo& tensor = param->outputs[index];
    Output output;
    output.data = static_cast<float*>(tensor.data);
    output.shape = tensor.shape;
    output.dimNum = static_cast<int32_t>(tensor.dimNum);
    output.stride = tensor.stride;
    output.alignNum = tensor.stride >> 2;
    output.width = LastDimension(tensor.shape, output.dimNum);
    output.count = ElementCount(tensor.shape, tensor.dimNum);
    output.size = tensor.size;
    return output;
}

bool CompactInput(const Input& input, MessageEnd end, Caller caller)
{
    if (input.width == input.alignNum) {
        return true;
    }
    const bool compacted = DelAlignSpace(input.data, static_cast<int32_t>(input.count), input.width, input.alignNum);
    if (!compacted) {
        Report(caller, "DelAlignSpace failed.%s", After(end));
    }
    return compacted;
}

uint32_t ExpandOutput(const Output& output, MessageEnd end, Caller caller)
{
    const uint32_t lastIndex = LastIndex(output.count, output.width, output.alignNum);
    if (!InsertAlignSpace(output.data, output.count, static_cast<int32_t>(output.width), output.alignNum, lastIndex)) {
        Report(caller, "InsertAlignSpace failed.%s", After(end));
        return kFailure;
    }
    return kSuccess;
}

uint32_t ExpandOutputChecked(const Output& output, Caller caller)
{
    if (output.width == 0) {
        Report(caller, "widthOut can't be zero.\n\n");
        return kFailure;
    }
    return ExpandOutput(output, MessageEnd::kBlankLine, caller);
}

void ExpandOutputUnchecked(const Output& output)
{
    if (output.count != 0) {
        SpreadRows(output.data, output.count, static_cast<int32_t>(output.width), output.alignNum,
                   LastIndex(output.count, output.width, output.alignNum));
    }
}

}  // namespace opkit
