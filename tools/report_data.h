// What a report page is about, as one JSON object.
#ifndef OPKIT_TOOLS_REPORT_DATA_H
#define OPKIT_TOOLS_REPORT_DATA_H

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "modelkit/model_reader.h"
#include "tools/comparison.h"
#include "tools/profile.h"
#include "tools/report_tensor.h"
#include "tools/stream.h"

namespace opkit::tools {

class ReportData {
public:
    // The model, its graph, its constants, and what opkit check says of it.
    ReportData(const std::filesystem::path& path, const modelkit::Model& model);

    // Takes the tensors of a run as they come, and how one differs from the dump it is compared with.
    void Add(const DumpedTensor& tensor);
    void Add(const DumpedTensor& tensor, const Difference& difference);

    // What else is known once the run is over.
    void SetRun(const RunData& inputs, const RunData& outputs, const Stream& stream, uint32_t batch);
    void SetTimes(const Profile& profile, uint32_t runs, uint32_t warmup);
    void SetComparison(const std::filesystem::path& directory, double tolerance, const std::string& firstDifference);

    nlohmann::ordered_json ToJson() const;

private:
    struct Entry {
        DumpEntry place;  // of the first pass that had it
        uint32_t table = 0;
        TensorSummary summary;
        bool compared = false;
        Difference difference;
        std::string firstDifference;  // where it is
    };
    Entry& EntryOf(const DumpEntry& place);
    nlohmann::ordered_json ConstantsJson() const;
    nlohmann::ordered_json EdgesJson() const;
    nlohmann::ordered_json TensorsJson() const;
    nlohmann::ordered_json SummariesOf(const std::vector<modelkit::TensorSpec>& specs, const RunData& data) const;

    const modelkit::Model& model_;
    std::vector<modelkit::ReadTable> tables_;
    uint32_t side_;  // of pictures
    nlohmann::ordered_json json_;
    std::vector<Entry> entries_;                                         // in the order of execution
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, size_t> places_;  // segment, layer, output
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_REPORT_DATA_H
