// The outputs of every layer of a run, through the library's dump hook, pass by pass.
#ifndef OPKIT_TOOLS_LAYER_DUMP_H
#define OPKIT_TOOLS_LAYER_DUMP_H

#include <functional>
#include <vector>

#include "modelkit/model_reader.h"
#include "tools/dump_index.h"
#include "tools/stream.h"

namespace opkit::tools {

// Listens to a stream while it lives.
class DumpCollector {
public:
    using Taker = std::function<void(const DumpedTensor&)>;

    // `take` gets each pass's tensors once the pass is over. What it throws ends the run, and so does an interrupt that
    // is held back.
    DumpCollector(const modelkit::Model& model, Stream& stream, Taker take);
    ~DumpCollector();
    DumpCollector(const DumpCollector&) = delete;
    DumpCollector& operator=(const DumpCollector&) = delete;

private:
    struct Raw {
        uint32_t layerId;
        uint32_t output;
        uint32_t stride;
        std::vector<float> rows;
    };
    void Keep(const DumpRecord& record);
    void EndPass(const StreamPass& pass);
    bool TakeNext(const modelkit::ReadLayer& layer, uint32_t output, Raw* raw);
    DumpedTensor& TensorOf(const DumpEntry& entry);

    const modelkit::Model& model_;
    Stream& stream_;
    Taker take_;
    uint32_t stop_ = 0;
    std::vector<Raw> raw_;  // of the pass in progress, and what becomes of it
    size_t taken_ = 0;
    std::vector<DumpedTensor> tensors_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_LAYER_DUMP_H
