// The claim of `opkit check`: a model that is accepted without conditions runs, for any tensor data, without reading or
// writing outside its tensors, scratch and model buffer. All of these are heap blocks of exactly their size.

#include <cstdlib>
#include <memory>
#include <vector>

#include "fuzz/seed_format.h"
#include "fuzz/words.h"
#include "modelkit/check.h"
#include "opkit/opkit.h"

using namespace opkit;
using namespace opkit::fuzz;

namespace {

using Block = std::unique_ptr<uint8_t, decltype(&std::free)>;

// Words of every kind: small whole numbers that serve as indices, plain values, infinities and NaN.
Block FilledBlock(size_t size, uint64_t seed)
{
    Block block(static_cast<uint8_t*>(std::malloc(size)), std::free);
    uint64_t state = seed | 1;
    for (size_t i = 0; i + 4 <= size; i += 4) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        const uint32_t random = static_cast<uint32_t>(state >> 32);
        float value = static_cast<float>(static_cast<int32_t>(random % 19) - 6);
        if (random % 5 == 0) {
            value = static_cast<float>(static_cast<int32_t>(random)) * 0x1p-29f;
        }
        std::memcpy(block.get() + i, &value, 4);
        if (random % 31 == 0) {
            std::memcpy(block.get() + i, &random, 4);
        }
    }
    return block;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed)
{
    return MutateWords(data, size, maxSize, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Silence();
    Words words(data, size);
    modelkit::ModelTable table;
    table.layerTableOffset = words.Next();
    table.layerTableSize = words.Next();
    modelkit::CheckRequest request;
    request.scratchSize = words.Next();
    request.batch = words.Next() % (kMaxBatch + 1);
    request.inputs.resize(words.Next() % (kMaxTensors + 1));
    request.outputs.resize(words.Next() % (kMaxTensors + 1));
    uint64_t total = request.scratchSize;
    for (std::vector<modelkit::CheckTensor>* side : {&request.inputs, &request.outputs}) {
        for (modelkit::CheckTensor& tensor : *side) {
            tensor.size = words.Next();
            tensor.stride = words.Next();
            total = tensor.size > kMaxBytes ? UINT32_MAX : total + tensor.size;
        }
    }
    const size_t modelSize = words.RestSize();
    const Block model(static_cast<uint8_t*>(std::malloc(modelSize)), std::free);
    if (modelSize != 0) {
        std::memcpy(model.get(), words.Rest(), modelSize);
    }
    const auto* const bytes = reinterpret_cast<const std::byte*>(model.get());
    const modelkit::CheckReport report = modelkit::CheckBuffer({bytes, modelSize}, {&table, 1}, request);
    if (!report.Unconditional() || total > 4 * kMaxBytes) {
        return 0;
    }

    std::vector<Block> blocks;
    std::vector<TensorInfo> tensors[2];
    int sideIndex = 0;
    for (const std::vector<modelkit::CheckTensor>* side : {&request.inputs, &request.outputs}) {
        for (const modelkit::CheckTensor& tensor : *side) {
            blocks.push_back(FilledBlock(tensor.size, modelSize * 31 + blocks.size()));
            TensorInfo info = {};
            info.data = blocks.back().get();
            info.size = static_cast<uint32_t>(tensor.size);
            info.stride = tensor.stride;
            info.batch = request.batch;
            tensors[sideIndex].push_back(info);
        }
        ++sideIndex;
    }
    const Block scratch = FilledBlock(request.scratchSize, 5);
    ModelOffsets offsets = {};
    offsets.layerTableOffset = table.layerTableOffset;
    offsets.layerTableSize = table.layerTableSize;
    ForwardParam param = {};
    param.inputs = tensors[0].data();
    param.inputNum = static_cast<uint32_t>(tensors[0].size());
    param.outputs = tensors[1].data();
    param.outputNum = static_cast<uint32_t>(tensors[1].size());
    param.opkitBuf = scratch.get();
    param.opkitBufSize = static_cast<uint32_t>(request.scratchSize);
    param.attr = &offsets;
    param.attrSize = sizeof(offsets);
    param.model = model.get();
    param.modelSize = static_cast<uint32_t>(modelSize);
    OpkitForward(&param);
    return 0;
}
