// A stream of requests over the same data, on a model buffer of its own.
#ifndef OPKIT_TOOLS_STREAM_H
#define OPKIT_TOOLS_STREAM_H

#include <functional>
#include <optional>
#include <vector>

#include "modelkit/request.h"
#include "modelkit/segment_runner.h"
#include "opkit/opkit.h"
#include "tools/run_data.h"

namespace opkit::tools {

struct StreamOptions {
    uint32_t batch = 1;  // items per request; the last one has what is left
    std::optional<uint32_t> segment;
    uint32_t maxPasses = 100000;
    uint32_t (*forward)(ForwardParam*) = OpkitForward;
    std::vector<uint32_t> presetLoops;  // LoopAttr records, by their place in the model buffer, whose preset condition
                                        // counts each time that the loop begins
};

// Items per request: `wanted`, or, where that is 0, as many as there are and as the model takes. With several tables it
// is 1: a segment id is one for the whole request, so items that want different ways must not share one. Throws
// ToolError for more than the model takes.
uint32_t ChooseBatch(const modelkit::Model& model, uint32_t items, uint32_t wanted);

// A pass of one of the data's requests.
struct StreamPass {
    uint32_t request = 0;
    uint32_t firstItem = 0;
    modelkit::SegmentPass pass;
};

class Stream {
public:
    // The model and the data must outlive the stream.
    Stream(const modelkit::Model& model, const RunData& data, const StreamOptions& options);

    // The request in progress.
    modelkit::Request& Request() { return *current_; }
    void EnableProfiling();
    void OnDump(const std::function<void(const DumpRecord&)>& onDump, uint32_t* stopFlag);
    void OnPass(std::function<void(const StreamPass&)> onPass) { onPass_ = std::move(onPass); }
    // Called after each request.
    void OnRequest(std::function<void()> onRequest) { onRequest_ = std::move(onRequest); }

    // Runs all the data, each request as on a model just loaded. Returns the outputs. Throws ToolError.
    RunData RunFresh();
    // Runs all the data as a server would: the model and the scratch stay as the last request left them.
    void RunOn();

    uint32_t RequestCount() const;
    // What the last request left in segId.
    uint32_t SegId() const { return current_->SegId(); }

private:
    void Begin(uint32_t index);
    void SetInputs(uint32_t index);
    void RunRequest(uint32_t index);
    void EndPass(uint32_t index, const modelkit::SegmentPass& pass);
    void RestoreLoops();
    void CollectOutputs(RunData* outputs) const;

    const modelkit::Model& model_;
    const RunData& data_;
    StreamOptions options_;
    modelkit::Request whole_;
    std::optional<modelkit::Request> rest_;  // the last one, where it has fewer items
    modelkit::Request* current_ = &whole_;
    std::optional<modelkit::SegmentRunner> runner_;  // absent where there is nothing to follow
    std::function<void(const StreamPass&)> onPass_;
    std::function<void()> onRequest_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_STREAM_H
