// The request check and the layer parser: whatever the request's numbers and the records of the model buffer say, both
// stay inside buffers of exactly the sizes given. What they take on trust is kept: pointers, the alignment of offsets,
// and a batch of at least 1.

#include <cstdlib>
#include <memory>
#include <vector>

#include "fuzz/words.h"
#include "opkit/helpers.h"
#include "opkit/opkit.h"

using namespace opkit::fuzz;

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed)
{
    return MutateWords(data, size, maxSize, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Silence();
    Words words(data, size);
    const uint32_t shape = words.Next();
    std::vector<TensorInfo> inputs(shape % 4);
    std::vector<TensorInfo> outputs(shape / 4 % 4);
    for (std::vector<TensorInfo>* side : {&inputs, &outputs}) {
        for (TensorInfo& tensor : *side) {
            tensor.size = words.Next();
            tensor.stride = words.Next();
            tensor.batch = words.Next() % 300 + 1;
        }
    }
    std::unique_ptr<ModelOffsets> offsets(new ModelOffsets{});
    offsets->layerTableOffset = words.Next() & ~3u;
    offsets->layerTableSize = words.Next();
    const uint32_t scratchSize = words.Next();
    const uint32_t layerOffset = words.Next() & ~3u;
    const size_t modelSize = words.RestSize();
    std::unique_ptr<uint8_t, decltype(&std::free)> model(static_cast<uint8_t*>(std::malloc(modelSize)), std::free);
    if (modelSize != 0) {
        std::memcpy(model.get(), words.Rest(), modelSize);
    }
    ForwardParam request = {};
    request.inputs = inputs.data();
    request.inputNum = static_cast<uint32_t>(inputs.size());
    request.outputs = outputs.data();
    request.outputNum = static_cast<uint32_t>(outputs.size());
    uint64_t scratch = 0;  // addresses are computed from it, nothing is read
    request.opkitBuf = &scratch;
    request.opkitBufSize = scratchSize;
    request.attr = offsets.get();
    request.attrSize = sizeof(ModelOffsets) + (shape >> 31);
    request.model = model.get();
    request.modelSize = static_cast<uint32_t>(modelSize);
    if (CheckForwardParam(&request) != 0) {
        return 0;
    }
    LayerParam layer = {};
    if (layerOffset <= modelSize - offsets->layerTableOffset &&
        modelSize - offsets->layerTableOffset - layerOffset >= sizeof(LayerRecord)) {
        // The tables of tensors are read as records, which lie on words.
        LayerRecord record;
        uint8_t* const at = model.get() + offsets->layerTableOffset + layerOffset;
        std::memcpy(&record, at, sizeof(record));
        record.inputTableOffset &= ~3u;
        record.outputTableOffset &= ~3u;
        std::memcpy(at, &record, sizeof(record));
    }
    if (ParseLayerParam(&request, layerOffset, &layer, shape >> 8 & 3) == 0) {
        ReleaseLayerParam(&layer);
    }
    return 0;
}
