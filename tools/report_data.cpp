#include "tools/report_data.h"

#include <fmt/core.h>
#include <algorithm>
#include <cstring>

#include "modelkit/check.h"
#include "modelkit/model_file.h"
#include "tools/inspect_json.h"
#include "tools/layer_names.h"
#include "tools/model_graph.h"
#include "tools/report_header.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::ordered_json;

constexpr uint32_t kPictureSide = 128;
constexpr uint32_t kSmallPictureSide = 64;
constexpr size_t kManyTensors = 128;

size_t TensorCount(const Model& model, const std::vector<ReadTable>& tables)
{
    size_t count = model.constants.size() + model.inputs.size() + model.outputs.size();
    for (const ReadTable& table : tables) {
        for (const ReadLayer& layer : table.layers) {
            count += layer.outputs.size();
        }
    }
    return count;
}

ordered_json CheckJson(const Model& model)
{
    const CheckReport report = CheckModel(model);
    ordered_json json = {
        {"batch", report.batch}, {"refusals", ordered_json::array()}, {"conditions", ordered_json::array()}};
    for (const CheckRefusal& refusal : report.refusals) {
        json["refusals"].push_back(refusal.Text());
    }
    for (const CheckCondition& condition : report.conditions) {
        json["conditions"].push_back(condition.Text());
    }
    return json;
}

// As the page names nodes: ["layer", table, index], ["input", index].
ordered_json NodeJson(const GraphNode& node)
{
    switch (node.kind) {
        case GraphNode::Kind::kInput:
            return {"input", node.index};
        case GraphNode::Kind::kOutput:
            return {"output", node.index};
        case GraphNode::Kind::kConstant:
            return {"constant", node.index};
        case GraphNode::Kind::kLayer:
            break;
    }
    return {"layer", node.table, node.index};
}

}  // namespace

ReportData::ReportData(const std::filesystem::path& path, const Model& model)
    : model_(model),
      tables_(ReadTables(model)),
      side_(TensorCount(model, tables_) > kManyTensors ? kSmallPictureSide : kPictureSide)
{
    json_ = {{"format", "opkit-report"},
             {"formatVersion", 1},
             {"opkit", EnvironmentText()},
             {"file", ModelPathsOf(path).manifest.filename().string()},
             {"crc32", fmt::format("{:08x}", Crc32(model.bytes.Span()))},
             {"pictureSide", side_},
             {"check", CheckJson(model)},
             {"model", InspectionJson(model)},
             {"edges", EdgesJson()},
             {"constants", ConstantsJson()}};
    for (size_t t = 0; t < tables_.size(); ++t) {
        for (size_t i = 0; i < tables_[t].layers.size(); ++i) {
            json_["model"]["tables"][t]["layers"][i]["shortName"] = ShortName(tables_[t].layers[i].name);
        }
    }
}

ordered_json ReportData::EdgesJson() const
{
    ordered_json edges = ordered_json::array();
    for (const GraphEdge& edge : EdgesOf(model_, tables_)) {
        edges.push_back(
            {{"from", NodeJson(edge.from)}, {"to", NodeJson(edge.to)}, {"label", edge.label}, {"jump", edge.jump}});
    }
    return edges;
}

ordered_json ReportData::ConstantsJson() const
{
    ordered_json constants = ordered_json::array();
    for (const ModelConstant& constant : model_.constants) {
        ordered_json json = {{"name", constant.name},
                             {"offset", constant.offset},
                             {"bytes", ElementCount(constant.shape) * sizeof(float)},
                             {"shape", constant.shape}};
        const std::span<const std::byte> bytes = model_.bytes.Span();
        const uint64_t size = ElementCount(constant.shape) * sizeof(float);
        if (constant.offset <= bytes.size() && size <= bytes.size() - constant.offset) {
            std::vector<float> values(ElementCount(constant.shape));
            if (!values.empty()) {
                std::memcpy(values.data(), bytes.data() + constant.offset, size);
            }
            TensorSummary summary;
            summary.Add(values, constant.shape, side_);
            json["summary"] = summary.ToJson();
        }
        constants.push_back(std::move(json));
    }
    return constants;
}

ReportData::Entry& ReportData::EntryOf(const DumpEntry& place)
{
    const auto [found, isNew] = places_.try_emplace({place.segment, place.layer, place.output}, entries_.size());
    if (isNew) {
        const auto table = std::find_if(model_.tables.begin(), model_.tables.end(),
                                        [&](const ModelTable& t) { return t.segmentId == place.segment; });
        entries_.push_back({place, static_cast<uint32_t>(table - model_.tables.begin()), {}, false, {}, {}});
    }
    return entries_[found->second];
}

void ReportData::Add(const DumpedTensor& tensor)
{
    EntryOf(tensor.entry).summary.Add(tensor.values, tensor.entry.shape, side_);
}

void ReportData::Add(const DumpedTensor& tensor, const Difference& difference)
{
    Entry& entry = EntryOf(tensor.entry);
    entry.compared = true;
    if (difference.elements != 0 && entry.difference.elements == 0) {
        entry.firstDifference =
            fmt::format("request {}, pass {}, element {}", tensor.entry.request, tensor.entry.pass,
                        ElementText(BatchedShape(tensor.entry.shape, tensor.entry.items), difference.firstElement));
    }
    entry.difference.Add(difference);
}

ordered_json ReportData::SummariesOf(const std::vector<TensorSpec>& specs, const RunData& data) const
{
    ordered_json summaries = ordered_json::array();
    for (size_t i = 0; i < specs.size(); ++i) {
        TensorSummary summary;
        summary.Add(data.tensors[i], specs[i].shape, side_);
        summaries.push_back(summary.ToJson());
    }
    return summaries;
}

void ReportData::SetRun(const RunData& inputs, const RunData& outputs, const Stream& stream, uint32_t batch)
{
    json_["run"] = {{"items", inputs.items},
                    {"requests", stream.RequestCount()},
                    {"batch", batch},
                    {"inputs", SummariesOf(model_.inputs, inputs)},
                    {"outputs", SummariesOf(model_.outputs, outputs)}};
}

void ReportData::SetTimes(const Profile& profile, uint32_t runs, uint32_t warmup)
{
    ordered_json layers = ordered_json::array();
    for (uint32_t t = 0; t < tables_.size(); ++t) {
        for (uint32_t i = 0; i < tables_[t].layers.size(); ++i) {
            const LayerTime time = profile.TimeOf(t, i);
            layers.push_back({{"table", t},
                              {"layer", i},
                              {"calls", time.calls},
                              {"shortest", time.shortest},
                              {"median", time.median}});
        }
    }
    json_["times"] = {{"runs", runs}, {"warmup", warmup}, {"layers", std::move(layers)}};
}

void ReportData::SetComparison(const std::filesystem::path& directory, double tolerance,
                               const std::string& firstDifference)
{
    json_["comparison"] = {{"directory", directory.string()}, {"tolerance", tolerance}, {"first", firstDifference}};
}

ordered_json ReportData::TensorsJson() const
{
    ordered_json tensors = ordered_json::array();
    for (const Entry& entry : entries_) {
        ordered_json tensor = {{"table", entry.table},
                               {"layer", entry.place.layer},
                               {"output", entry.place.output},
                               {"shape", entry.place.shape},
                               {"summary", entry.summary.ToJson()}};
        if (entry.compared) {
            tensor["difference"] = {{"elements", entry.difference.elements},
                                    {"ulps", entry.difference.ulps},
                                    {"distance", entry.difference.distance},
                                    {"nan", entry.difference.nan},
                                    {"first", entry.firstDifference}};
        }
        tensors.push_back(std::move(tensor));
    }
    return tensors;
}

ordered_json ReportData::ToJson() const
{
    ordered_json json = json_;
    if (json.contains("run")) {
        json["run"]["tensors"] = TensorsJson();
    }
    return json;
}

}  // namespace opkit::tools
