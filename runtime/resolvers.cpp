// Resolvers that keep no running indices, and the tensor copy between row layouts that control-flow operators share.

#include <cstring>

#include "opkit/helpers.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

int32_t Count(const uint32_t* shape, int32_t dimNum)
{
    return static_cast<int32_t>(dimNum > 0 ? ElementCount(shape, static_cast<uint32_t>(dimNum)) : 1);
}

// How many of the first `end` logical inputs are constants of the model.
uint32_t OfflineBefore(const LayerAttrHead& head, uint32_t end)
{
    uint32_t count = 0;
    for (uint32_t k = 0; k < end; ++k) {
        count += head.inputFlags[k] == '1' ? 1 : 0;
    }
    return count;
}

// Compact element i goes to compact element i, as many as the output has and in ascending order: a smaller output
// takes a prefix of the input, and an output that begins inside the input's row repeats what lies before it.
void CopyRows(const Input& in, const Output& out)
{
    const int32_t count = static_cast<int32_t>(out.count);
    if (count <= 0) {
        return;
    }
    if (count == 1) {  // stands at offset 0 of every layout, also of a scalar, which has no rows
        std::memmove(out.data, in.data, sizeof(float));
        return;
    }
    ForEachRowRun(out.count, in.width, in.Pitch(), out.width, out.Pitch(),
                  [&](size_t from, size_t to, uint32_t length) { Copy(length, in.data + from, out.data + to); });
}

}  // namespace

bool ParseInputInfo2(TensorDesc* desc, float** data, uint32_t** shape, uint32_t index, LayerParam* param)
{
    LayerAttrHead& head = AttrOf<LayerAttrHead>(param);
    if (index >= OPKIT_MAX_LAYER_INPUTS) {
        return false;  // there is no flag for it
    }
    const uint32_t offline = OfflineBefore(head, index);
    if (head.inputFlags[index] == '1') {
        OfflineShape& record = head.offlineShape[offline];
        *data = reinterpret_cast<float*>(Address(param->model, head.offlineOffset[offline]));
        *shape = record.dims;
        desc->dimNum = static_cast<int32_t>(record.dimNum);
        // Without dimensions this reads the word before the record.
        desc->stride = (*shape)[int64_t{desc->dimNum} - 1] * sizeof(float);
        desc->isOffline = 1;
    } else {
        const uint32_t online = index - offline;
        if (online >= param->inputNum) {
            return false;
        }
        const TensorInfo& tensor = param->inputs[online];
        *data = static_cast<float*>(tensor.data);
        *shape = tensor.shape;
        desc->dimNum = static_cast<int32_t>(tensor.dimNum);
        desc->stride = tensor.stride;
        desc->isOffline = 0;
    }
    desc->count = Count(*shape, desc->dimNum);
    return true;
}

void ParseOutputInfo(TensorInfo** outputs, float** data, uint32_t** shape, TensorDesc* desc, int32_t index)
{
    const TensorInfo& tensor = (*outputs)[index];
    *data = static_cast<float*>(tensor.data);
    *shape = tensor.shape;
    desc->dimNum = static_cast<int32_t>(tensor.dimNum);
    desc->stride = tensor.stride;
    desc->count = Count(*shape, desc->dimNum);
}

void ParseInputToOutput(TensorInfo** outputs, uint32_t index, uint32_t* inShape, TensorDesc* inDesc, float* inData)
{
    DescribedTensor out;
    ParseOutputInfo(outputs, &out.data, &out.shape, &out.desc, static_cast<int32_t>(index));
    InputToOutput(inDesc, &out.desc, inData, out.data, {inShape, out.shape});
}

void InputToOutput(TensorDesc* inDesc, TensorDesc* outDesc, float* in, float* out, ShapePair shapes)
{
    CopyRows(TensorOf({*inDesc, in, shapes.in}), TensorOf({*outDesc, out, shapes.out}));
}

bool ParseOnlineInputInfoLoop(TensorDesc* desc, float** data, uint32_t** shape, uint32_t onlineIndex, LayerParam* param)
{
    if (onlineIndex >= param->inputNum) {
        return false;
    }
    const TensorInfo& tensor = param->inputs[onlineIndex];
    *data = static_cast<float*>(tensor.data);
    *shape = tensor.shape;
    desc->dimNum = static_cast<int32_t>(tensor.dimNum);
    desc->stride = tensor.stride;
    desc->count = static_cast<int32_t>(static_cast<uint32_t>(desc->count) *
                                       static_cast<uint32_t>(Count(tensor.shape, desc->dimNum)));
    return true;
}
