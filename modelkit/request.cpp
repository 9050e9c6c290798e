#include "modelkit/request.h"

#include <algorithm>

#include "modelkit/model_reader.h"

namespace opkit::modelkit {
namespace {

// The hook's function gets no argument of the caller's, so the request in progress is kept here.
thread_local Request* running = nullptr;

bool IsBatched(const ReadTensor& tensor)
{
    return tensor.record.memKind == OPKIT_MEM_SCRATCH_BATCHED;
}

bool HasBatchedScratch(const ReadLayer& layer)
{
    return std::any_of(layer.inputs.begin(), layer.inputs.end(), IsBatched) ||
           std::any_of(layer.outputs.begin(), layer.outputs.end(), IsBatched);
}

}  // namespace

uint32_t LargestBatch(const Model& model)
{
    for (size_t t = 0; t < model.tables.size(); ++t) {
        const std::vector<ReadLayer> layers = ReadLayerTable(model, t).layers;
        if (std::any_of(layers.begin(), layers.end(), HasBatchedScratch)) {
            return std::min<uint32_t>(model.maxBatch, OPKIT_MAX_BATCH);
        }
    }
    return OPKIT_MAX_BATCH;
}

Request::Request(const Model& model, uint32_t batch)
    : batch_(batch),
      inputSpecs_(model.inputs),
      outputSpecs_(model.outputs),
      tables_(model.tables),
      modelBytes_(model.bytes),
      scratch_(model.scratchSize)
{
    if (batch == 0 || batch > OPKIT_MAX_BATCH) {
        throw BuildError("a request has 1 to 256 batch items, not " + std::to_string(batch));
    }
    if (model.tables.empty() || model.inputs.empty() || model.outputs.empty()) {
        throw BuildError("a request needs a layer table, an input and an output");
    }
    if (batch > LargestBatch(model)) {
        throw BuildError("the model's scratch is planned for " + std::to_string(model.maxBatch) + " batch items, not " +
                         std::to_string(batch));
    }
    BindTensors(inputSpecs_, &inputBuffers_, &inputs_);
    BindTensors(outputSpecs_, &outputBuffers_, &outputs_);
    param_.inputs = inputs_.data();
    param_.inputNum = static_cast<uint32_t>(inputs_.size());
    param_.outputs = outputs_.data();
    param_.outputNum = static_cast<uint32_t>(outputs_.size());
    param_.opkitBuf = scratch_.data();
    param_.opkitBufSize = model.scratchSize;
    param_.attr = &offsets_;
    param_.attrSize = sizeof(ModelOffsets);
    param_.model = modelBytes_.data();
    param_.modelSize = static_cast<uint32_t>(modelBytes_.size());
    SelectSegment(tables_.front().segmentId);
}

void Request::BindTensors(const std::vector<TensorSpec>& specs, std::vector<Buffer>* buffers,
                          std::vector<TensorInfo>* infos)
{
    for (const TensorSpec& tensorSpec : specs) {
        const uint64_t size = uint64_t{PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes)} * batch_;
        if (size > UINT32_MAX) {
            throw BuildError("tensor \"" + tensorSpec.name + "\" takes more than 4 GiB for " + std::to_string(batch_) +
                             " items");
        }
        buffers->emplace_back(size);
        TensorInfo info = {};
        info.stride = StrideOf(tensorSpec.shape, tensorSpec.strideBytes);
        info.batch = batch_;
        info.dimNum = static_cast<uint32_t>(tensorSpec.shape.size());
        info.shape = const_cast<uint32_t*>(tensorSpec.shape.data());
        info.data = buffers->back().data();
        info.size = static_cast<uint32_t>(size);
        infos->push_back(info);
    }
}

void Request::SetInput(size_t index, std::span<const float> values)
{
    const TensorSpec& tensorSpec = inputSpecs_.at(index);
    const uint64_t count = ElementCount(tensorSpec.shape);
    if (values.size() != count * batch_) {
        throw BuildError("input \"" + tensorSpec.name + "\" takes " + std::to_string(count * batch_) +
                         " elements, not " + std::to_string(values.size()));
    }
    const size_t pitch = PaddedFloats(tensorSpec.shape, tensorSpec.strideBytes);
    for (uint32_t item = 0; item < batch_; ++item) {
        PadRows(values.subspan(item * count, count), tensorSpec.shape, tensorSpec.strideBytes,
                InputRows(index).subspan(item * pitch, pitch));
    }
}

void Request::SetInput(std::string_view name, std::span<const float> values)
{
    for (size_t i = 0; i < inputSpecs_.size(); ++i) {
        if (inputSpecs_[i].name == name) {
            SetInput(i, values);
            return;
        }
    }
    throw BuildError("the model has no input named \"" + std::string(name) + "\"");
}

std::vector<float> Request::GetOutput(size_t index) const
{
    const TensorSpec& tensorSpec = outputSpecs_.at(index);
    const size_t pitch = PaddedFloats(tensorSpec.shape, tensorSpec.strideBytes);
    std::vector<float> values;
    for (uint32_t item = 0; item < batch_; ++item) {
        const auto rows = outputBuffers_[index].Floats().subspan(item * pitch, pitch);
        const std::vector<float> compact = CompactRows(rows, tensorSpec.shape, tensorSpec.strideBytes);
        values.insert(values.end(), compact.begin(), compact.end());
    }
    return values;
}

std::vector<float> Request::GetOutput(std::string_view name) const
{
    for (size_t i = 0; i < outputSpecs_.size(); ++i) {
        if (outputSpecs_[i].name == name) {
            return GetOutput(i);
        }
    }
    throw BuildError("the model has no output named \"" + std::string(name) + "\"");
}

void Request::Reset(const Model& model)
{
    const auto clear = [](Buffer& buffer) { std::fill_n(buffer.data(), buffer.size(), std::byte{0}); };
    clear(scratch_);
    std::for_each(inputBuffers_.begin(), inputBuffers_.end(), clear);
    std::for_each(outputBuffers_.begin(), outputBuffers_.end(), clear);
    std::copy_n(model.bytes.data(), modelBytes_.size(), modelBytes_.data());
    param_.segId = 0;
    SelectSegment(tables_.front().segmentId);
}

void Request::SelectSegment(uint32_t segmentId)
{
    for (const ModelTable& table : tables_) {
        if (table.segmentId == segmentId) {
            offsets_ = {table.layerTableOffset, table.layerTableSize};
            return;
        }
    }
    throw BuildError("the model has no segment " + std::to_string(segmentId));
}

void Request::EnableProfiling()
{
    uint32_t layers = 0;
    for (const ModelTable& table : tables_) {
        uint32_t count = 0;
        std::memcpy(&count, modelBytes_.data() + table.layerTableOffset, sizeof(count));
        layers = std::max(layers, std::min<uint32_t>(count, OPKIT_MAX_LAYERS));
    }
    slots_.assign(size_t{layers} * batch_, ProfilingSlot{});
    param_.profiling.slots = slots_.data();
    param_.profiling.size = static_cast<uint32_t>(slots_.size() * sizeof(ProfilingSlot));
}

void Request::OnDump(std::function<void(const DumpRecord&)> onDump, std::vector<uint32_t> layerIds)
{
    onDump_ = std::move(onDump);
    dumpIds_ = std::move(layerIds);
    param_.dumpHook.dumpFunc = onDump_ ? DumpTrampoline : nullptr;
    param_.dumpHook.layerIds = dumpIds_.empty() ? nullptr : dumpIds_.data();
    param_.dumpHook.layerIdNum = static_cast<uint32_t>(dumpIds_.size());
    param_.dumpHook.dumpAll = dumpIds_.empty() ? 1 : 0;
}

int32_t Request::DumpTrampoline(DumpRecord* record)
{
    running->onDump_(*record);
    return 0;
}

uint32_t Request::Run(uint32_t (*forward)(ForwardParam*))
{
    Request* const outer = std::exchange(running, this);
    const uint32_t result = forward(&param_);
    running = outer;
    return result;
}

}  // namespace opkit::modelkit
