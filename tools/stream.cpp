#include "tools/stream.h"

#include <fmt/core.h>
#include <algorithm>
#include <cstring>

#include "opkit/attributes/control.h"
#include "tools/command.h"

namespace opkit::tools {

using namespace opkit::modelkit;

uint32_t ChooseBatch(const Model& model, uint32_t items, uint32_t wanted)
{
    if (wanted > LargestBatch(model)) {
        throw ToolError(
            fmt::format("--batch {}: the model's scratch is planned for {} batch items", wanted, LargestBatch(model)));
    }
    return std::min(items, wanted != 0 ? wanted : model.tables.size() > 1 ? 1 : LargestBatch(model));
}

Stream::Stream(const Model& model, const RunData& data, const StreamOptions& options)
    : model_(model), data_(data), options_(options), whole_(model, options.batch)
{
    if (data.items % options.batch != 0) {
        rest_.emplace(model, data.items % options.batch);
    }
    if (model.tables.size() > 1) {
        runner_.emplace(model);
        runner_->MaxPasses(options.maxPasses);
        if (options.segment) {
            runner_->Start(*options.segment);
        }
    } else if (options.segment) {
        whole_.SelectSegment(*options.segment);
    }
}

uint32_t Stream::RequestCount() const
{
    return data_.items / options_.batch + (rest_ ? 1 : 0);
}

void Stream::EnableProfiling()
{
    whole_.EnableProfiling();
    if (rest_) {
        rest_->EnableProfiling();
    }
}

void Stream::OnDump(const std::function<void(const DumpRecord&)>& onDump, uint32_t* stopFlag)
{
    for (modelkit::Request* const request : {&whole_, rest_ ? &*rest_ : nullptr}) {
        if (request != nullptr) {
            request->OnDump(onDump);
            request->SetStopFlag(stopFlag);
        }
    }
}

void Stream::Begin(uint32_t index)
{
    current_ = rest_ && index + 1 == RequestCount() ? &*rest_ : &whole_;
}

void Stream::SetInputs(uint32_t index)
{
    for (size_t i = 0; i < data_.tensors.size(); ++i) {
        const size_t itemSize = data_.tensors[i].size() / data_.items;
        current_->SetInput(
            i, std::span(data_.tensors[i]).subspan(index * options_.batch * itemSize, current_->Batch() * itemSize));
    }
}

// A loop that is over has its state as at the beginning, except for a preset condition.
void Stream::RestoreLoops()
{
    for (const uint32_t offset : options_.presetLoops) {
        LoopAttr state;
        std::byte* const record = current_->ModelBytes().data() + offset;
        std::memcpy(&state, record, sizeof(state));
        if (state.iteration == 0 && state.inputCursor == 1 && state.condition == -1) {
            std::memcpy(record + offsetof(LoopAttr, condition),
                        model_.bytes.data() + offset + offsetof(LoopAttr, condition), sizeof(state.condition));
        }
    }
}

void Stream::EndPass(uint32_t index, const SegmentPass& pass)
{
    RestoreLoops();
    if (onPass_) {
        onPass_({index, index * options_.batch, pass});
    }
}

void Stream::RunRequest(uint32_t index)
{
    try {
        if (runner_) {
            runner_->OnPass([&](const SegmentPass& pass) { EndPass(index, pass); }).Run(*current_, options_.forward);
        } else {
            current_->SetSegId(kNoSegment);
            if (current_->Run(options_.forward) != 0) {
                throw SegmentError({0, &model_.tables.front(), kNoSegment}, "the request failed");
            }
            EndPass(index, {0, &model_.tables.front(), current_->SegId()});
        }
    } catch (const SegmentError& error) {
        throw ToolError(fmt::format("request {}, {}; the library's own words, if any, are on standard output", index,
                                    error.what()));
    }
    if (onRequest_) {
        onRequest_();
    }
}

RunData Stream::RunFresh()
{
    RunData outputs;
    outputs.items = data_.items;
    outputs.tensors.resize(model_.outputs.size());
    for (uint32_t index = 0; index < RequestCount(); ++index) {
        Begin(index);
        current_->Reset(model_);
        SetInputs(index);
        RunRequest(index);
        CollectOutputs(&outputs);
    }
    return outputs;
}

void Stream::RunOn()
{
    for (uint32_t index = 0; index < RequestCount(); ++index) {
        Begin(index);
        SetInputs(index);
        RunRequest(index);
    }
}

void Stream::CollectOutputs(RunData* outputs) const
{
    for (size_t i = 0; i < outputs->tensors.size(); ++i) {
        const std::vector<float> values = current_->GetOutput(i);
        outputs->tensors[i].insert(outputs->tensors[i].end(), values.begin(), values.end());
    }
}

}  // namespace opkit::tools
