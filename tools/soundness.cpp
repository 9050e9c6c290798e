#include "tools/soundness.h"

#include <fmt/core.h>
#include <algorithm>

#include "modelkit/check.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

[[noreturn]] void Refuse(const std::filesystem::path& path, const std::string& finding, size_t more)
{
    throw ToolError(fmt::format("{}: {}{} (opkit check tells all, --unchecked runs it nevertheless)",
                                ModelPathsOf(path).buffer.string(), finding,
                                more == 0 ? "" : fmt::format("; and {} more", more)));
}

uint32_t AttrOffset(const Model& model, const CheckPlace& place)
{
    const auto table = std::find_if(model.tables.begin(), model.tables.end(), [&](const ModelTable& candidate) {
        return candidate.segmentId == static_cast<uint64_t>(place.segment);
    });
    return ReadLayerTable(model, static_cast<size_t>(table - model.tables.begin()))
        .layers.at(static_cast<size_t>(place.layer))
        .attrOffset;
}

}  // namespace

std::vector<uint32_t> RequireSound(const std::filesystem::path& path, const Model& model, uint32_t batch)
{
    CheckReport report = CheckModel(model, batch);
    // Where a segment id leads, the run itself finds out.
    std::erase_if(report.refusals, [](const CheckRefusal& refusal) { return refusal.leadsNowhere; });
    if (!report.Accepted()) {
        Refuse(path, report.refusals.front().Text(), report.refusals.size() - 1);
    }
    // A loop's only condition is that its preset condition is there when it begins.
    std::vector<uint32_t> presetLoops;
    std::erase_if(report.conditions, [&](const CheckCondition& condition) {
        if (condition.place.operatorName != "LoopOpkitForward") {
            return false;
        }
        presetLoops.push_back(AttrOffset(model, condition.place));
        return true;
    });
    if (!report.conditions.empty()) {
        Refuse(path, report.conditions.front().Text() + ", which a run does not test", report.conditions.size() - 1);
    }
    return presetLoops;
}

}  // namespace opkit::tools
