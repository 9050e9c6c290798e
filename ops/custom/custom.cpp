// Custom: hands a layer's tensors and parameter bytes to a function of a library of the user's own, which is found on
// the loader's search path and is opened and closed again for every run. Tensors go as they lie, padded rows included.

#include <dlfcn.h>

#include "opkit/attributes/custom.h"
#include "opkit/helpers.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr char kLibrary[] = "libtvr_opkit_custom_x86.so";

// The words that the record leaves out stay as they are.
void SetTensor(CustomTensor* tensor, uint32_t stride, uint32_t dimNum, uint32_t* shape, void* data, uint32_t size)
{
    tensor->reserved = 0;
    tensor->stride = stride;
    tensor->dimNum = dimNum;
    tensor->shape = shape;
    tensor->data = data;
    tensor->size = size;
}

void SetTensor(CustomTensor* tensor, const TensorInfo& info)
{
    SetTensor(tensor, info.stride, info.dimNum, info.shape, info.data, info.size);
}

// Any flag but '0' marks a constant here, where every other operator looks for '1'.
void GatherInputs(const LayerParam& param, CustomAttr* attr, CustomTensor* inputs)
{
    LayerAttrHead& head = attr->head;
    uint32_t online = 0;
    uint32_t offline = 0;
    for (uint32_t k = 0; k < attr->totalInputNum; ++k) {
        if (head.inputFlags[k] == '0') {
            SetTensor(&inputs[k], param.inputs[online++]);
            continue;
        }
        OfflineShape& record = head.offlineShape[offline];
        const uint32_t width = LastDimension(record.dims, static_cast<int32_t>(record.dimNum));
        SetTensor(&inputs[k], width * sizeof(float), record.dimNum, record.dims,
                  Address(param.model, head.offlineOffset[offline]),
                  ElementCount(record.dims, record.dimNum) * sizeof(float));
        ++offline;
    }
}

void SetParams(CustomCall* call, CustomAttr* attr)
{
    CustomSizedParams& sized = attr->params.sized;
    if (sized.marker == OPKIT_CUSTOM_SIZED_MARKER) {
        call->params = sized.params;
        call->paramSize = sized.sizedSize - static_cast<uint32_t>(sizeof(sized.marker));
    } else {
        call->params = attr->params.fixed;
        call->paramSize = attr->fixedSize;
    }
}

}  // namespace

uint32_t CustomOpkitForward(LayerParam* param)
{
    CustomAttr& attr = AttrOf<CustomAttr>(param);
    const uint32_t offlineNum = attr.head.offlineInputNum;
    const uint32_t total = attr.totalInputNum;
    if (total != offlineNum + param->inputNum) {
        Report(Here(), "error: onlineinputNum(%u) plus offlineinputNum(%u) must equal to total input num(%d)\n\n",
               param->inputNum, offlineNum, static_cast<int32_t>(total));
        return kFailure;
    }
    if (total > OPKIT_MAX_LAYER_INPUTS || param->outputNum > OPKIT_MAX_LAYER_OUTPUTS) {
        Report(Here(), "Custom input num %u or output num %u larger than %d and %d!\n\n", total, param->outputNum,
               OPKIT_MAX_LAYER_INPUTS, OPKIT_MAX_LAYER_OUTPUTS);
        return kFailure;
    }
    CustomTensor inputs[OPKIT_MAX_LAYER_INPUTS];
    CustomTensor outputs[OPKIT_MAX_LAYER_OUTPUTS];
    GatherInputs(*param, &attr, inputs);
    for (uint32_t i = 0; i < param->outputNum; ++i) {
        SetTensor(&outputs[i], param->outputs[i]);
    }
    void* const library = dlopen(kLibrary, RTLD_LAZY);
    if (library == nullptr) {
        Report(Here(), "Get handle error.Not found %s in default library path, please set it in LD_LIBRARY_PATH\n\n",
               kLibrary);
        return kFailure;
    }
    CustomCall call = {inputs, total, outputs, param->outputNum, nullptr, 0};
    SetParams(&call, &attr);
    const CustomFunc function = reinterpret_cast<CustomFunc>(dlsym(library, attr.funcName));
    if (function == nullptr) {
        Report(Here(), "error: Not found function(%s) in %s.\n\n", attr.funcName, kLibrary);
        dlclose(library);
        return kFailure;
    }
    function(&call);
    dlclose(library);
    return kSuccess;
}
