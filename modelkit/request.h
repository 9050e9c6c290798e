// One request on a model: owns the tensors, the scratch and a private writable copy of the model buffer, each exactly
// as large as the request says, and fills the ForwardParam.
//
//     Request request(model, batch);
//     request.SetInput("x", pixels);                       // compact floats of all batch items
//     if (request.Run(OpkitForward) == 0) {
//         std::vector<float> scores = request.GetOutput("scores");
//     }
#ifndef OPKIT_MODELKIT_REQUEST_H
#define OPKIT_MODELKIT_REQUEST_H

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::modelkit {

// Most batch items that a request on the model may have: its maxBatch while it has batched scratch tensors, else 256.
uint32_t LargestBatch(const Model& model);

class Request {
public:
    // Throws BuildError when batch is 0 or above LargestBatch.
    explicit Request(const Model& model, uint32_t batch = 1);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    uint32_t Batch() const { return batch_; }
    // Compact elements of all batch items, one item after the other; rows are padded to the tensor's stride.
    void SetInput(size_t index, std::span<const float> values);
    void SetInput(std::string_view name, std::span<const float> values);
    std::vector<float> GetOutput(size_t index) const;
    std::vector<float> GetOutput(std::string_view name) const;
    // The same memory with its padded rows.
    std::span<float> InputRows(size_t index) { return inputBuffers_.at(index).Floats(); }
    std::span<float> OutputRows(size_t index) { return outputBuffers_.at(index).Floats(); }
    std::span<std::byte> ModelBytes() { return modelBytes_.Span(); }

    // Back to the state after construction: scratch and tensors zeroed, and the model buffer as `model` has it, which
    // is the model the request was made from. Operators leave notes and compacted inputs behind; this removes them.
    void Reset(const Model& model);
    // The layer table that the next Run executes; the first one at the beginning.
    void SelectSegment(uint32_t segmentId);
    // Room for the timing of every layer of every batch item of the longest table.
    void EnableProfiling();
    std::span<const ProfilingSlot> Profile() const { return slots_; }
    // Calls `onDump` for every output of the given layers; of all layers when ids is empty.
    void OnDump(std::function<void(const DumpRecord&)> onDump, std::vector<uint32_t> layerIds = {});
    void SetStopFlag(uint32_t* flag) { param_.stopFlag = flag; }
    uint32_t SegId() const { return param_.segId; }
    void SetSegId(uint32_t segId) { param_.segId = segId; }

    ForwardParam& Param() { return param_; }
    // Runs the request through OpkitForward, or whatever has its signature.
    uint32_t Run(uint32_t (*forward)(ForwardParam*));

private:
    static int32_t DumpTrampoline(DumpRecord* record);
    void BindTensors(const std::vector<TensorSpec>& specs, std::vector<Buffer>* buffers,
                     std::vector<TensorInfo>* infos);

    uint32_t batch_;
    std::vector<TensorSpec> inputSpecs_;
    std::vector<TensorSpec> outputSpecs_;
    std::vector<ModelTable> tables_;
    Buffer modelBytes_;
    Buffer scratch_;
    std::vector<Buffer> inputBuffers_;
    std::vector<Buffer> outputBuffers_;
    std::vector<TensorInfo> inputs_;
    std::vector<TensorInfo> outputs_;
    ModelOffsets offsets_ = {};
    std::vector<ProfilingSlot> slots_;
    std::vector<uint32_t> dumpIds_;
    std::function<void(const DumpRecord&)> onDump_;
    ForwardParam param_ = {};
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_REQUEST_H
