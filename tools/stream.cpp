#include "tools/stream.h"

#include <fmt/core.h>

#include "opkit/opkit.h"
#include "tools/command.h"

namespace opkit::tools {

using namespace opkit::modelkit;

Stream::Stream(const Model& model, const RunData& data, const StreamOptions& options)
    : model_(model), data_(data), options_(options), request_(model, options.batch)
{
    if (model.tables.size() > 1) {
        runner_.emplace(model);
        runner_->MaxPasses(options.maxPasses);
        if (options.segment) {
            runner_->Start(*options.segment);
        }
    } else if (options.segment) {
        request_.SelectSegment(*options.segment);
    }
}

void Stream::SetInputs(uint32_t index)
{
    for (size_t i = 0; i < data_.tensors.size(); ++i) {
        const size_t count = data_.tensors[i].size() / RequestCount();
        request_.SetInput(i, std::span(data_.tensors[i]).subspan(index * count, count));
    }
}

void Stream::RunRequest(uint32_t index)
{
    const auto report = [&](const SegmentPass& pass) {
        if (onPass_) {
            onPass_({index, pass});
        }
    };
    try {
        if (runner_) {
            runner_->OnPass(report).Run(request_, OpkitForward);
            return;
        }
        request_.SetSegId(kNoSegment);
        if (request_.Run(OpkitForward) != 0) {
            throw SegmentError({0, &model_.tables.front(), kNoSegment}, "the request failed");
        }
        report({0, &model_.tables.front(), request_.SegId()});
    } catch (const SegmentError& error) {
        throw ToolError(fmt::format("request {}, {}; the library's own words, if any, are on standard output", index,
                                    error.what()));
    }
}

RunData Stream::RunFresh()
{
    RunData outputs;
    outputs.items = data_.items;
    outputs.tensors.resize(model_.outputs.size());
    for (uint32_t index = 0; index < RequestCount(); ++index) {
        request_.Reset(model_);
        SetInputs(index);
        RunRequest(index);
        CollectOutputs(&outputs);
    }
    return outputs;
}

void Stream::RunOn()
{
    for (uint32_t index = 0; index < RequestCount(); ++index) {
        SetInputs(index);
        RunRequest(index);
    }
}

void Stream::CollectOutputs(RunData* outputs) const
{
    for (size_t i = 0; i < outputs->tensors.size(); ++i) {
        const std::vector<float> values = request_.GetOutput(i);
        outputs->tensors[i].insert(outputs->tensors[i].end(), values.begin(), values.end());
    }
}

}  // namespace opkit::tools
