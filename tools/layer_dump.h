// The outputs of every layer of a run: collected through the library's dump hook, saved as .npy files with an index,
// and compared with what another run saved.
#ifndef OPKIT_TOOLS_LAYER_DUMP_H
#define OPKIT_TOOLS_LAYER_DUMP_H

#include <filesystem>
#include <string>
#include <vector>

#include "modelkit/model_reader.h"
#include "tools/stream.h"

namespace opkit::tools {

// One output of one layer in one pass, of all batch items.
struct DumpedTensor {
    uint32_t request = 0;
    uint32_t pass = 0;
    uint32_t segment = 0;
    uint32_t layer = 0;  // position in its table
    uint32_t layerId = 0;
    std::string operatorName;
    uint32_t output = 0;
    uint32_t items = 0;
    modelkit::Shape shape;      // of one item
    std::vector<float> values;  // without padding
};

// Listens to a stream while it lives.
class DumpCollector {
public:
    DumpCollector(const modelkit::Model& model, Stream& stream);
    ~DumpCollector() { stream_.Request().OnDump(nullptr); }
    DumpCollector(const DumpCollector&) = delete;
    DumpCollector& operator=(const DumpCollector&) = delete;

    // To be called after each pass. Throws ToolError where a layer's output does not hold what its shape says.
    void EndPass(const StreamPass& pass);
    std::vector<DumpedTensor> Take() { return std::move(tensors_); }

private:
    struct Raw {
        uint32_t layerId;
        uint32_t output;
        uint32_t stride;
        std::vector<float> rows;
    };
    void Keep(const DumpRecord& record);
    bool TakeNext(const modelkit::ReadLayer& layer, uint32_t output, Raw* raw);
    void Append(const StreamPass& pass, uint32_t layerIndex, const modelkit::ReadLayer& layer, uint32_t output,
                const Raw& raw);

    const modelkit::Model& model_;
    Stream& stream_;
    std::vector<Raw> raw_;  // of the pass in progress
    size_t taken_ = 0;
    std::vector<DumpedTensor> tensors_;
};

// Replaces a dump that lies there; refuses a directory that holds anything else.
void SaveDump(const std::filesystem::path& directory, const std::vector<DumpedTensor>& tensors);

// Prints what differs, and tells whether nothing does.
bool CompareWithDump(const std::filesystem::path& directory, const std::vector<DumpedTensor>& tensors);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_LAYER_DUMP_H
