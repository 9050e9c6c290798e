// A stream of requests over the same data, on a model buffer of its own.
#ifndef OPKIT_TOOLS_STREAM_H
#define OPKIT_TOOLS_STREAM_H

#include <functional>
#include <optional>
#include <vector>

#include "modelkit/request.h"
#include "modelkit/segment_runner.h"
#include "tools/run_data.h"

namespace opkit::tools {

struct StreamOptions {
    uint32_t batch = 1;  // items per request; divides the items of the data
    std::optional<uint32_t> segment;
    uint32_t maxPasses = 100000;
};

// A pass of one of the data's requests.
struct StreamPass {
    uint32_t request = 0;
    modelkit::SegmentPass pass;
};

class Stream {
public:
    // The model and the data must outlive the stream.
    Stream(const modelkit::Model& model, const RunData& data, const StreamOptions& options);

    modelkit::Request& Request() { return request_; }
    void OnPass(std::function<void(const StreamPass&)> onPass) { onPass_ = std::move(onPass); }

    // Runs all the data, each request as on a model just loaded. Returns the outputs. Throws ToolError.
    RunData RunFresh();
    // Runs all the data as a server would: the model and the scratch stay as the last request left them.
    void RunOn();

    uint32_t RequestCount() const { return data_.items / options_.batch; }
    // What the last request left in segId.
    uint32_t SegId() const { return request_.SegId(); }

private:
    void SetInputs(uint32_t index);
    void RunRequest(uint32_t index);
    void CollectOutputs(RunData* outputs) const;

    const modelkit::Model& model_;
    const RunData& data_;
    StreamOptions options_;
    modelkit::Request request_;
    std::optional<modelkit::SegmentRunner> runner_;  // absent where there is nothing to follow
    std::function<void(const StreamPass&)> onPass_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_STREAM_H
