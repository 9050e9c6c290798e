#include "modelkit/segment_runner.h"

namespace opkit::modelkit {
namespace {

std::string Named(const ModelTable& table)
{
    return "segment " + std::to_string(table.segmentId) + " (" + table.name + ")";
}

}  // namespace

SegmentError::SegmentError(const SegmentPass& errorPass, const std::string& what)
    : std::runtime_error("pass " + std::to_string(errorPass.number) + ", " + Named(*errorPass.table) + ": " + what),
      pass(errorPass.number),
      segmentId(errorPass.table->segmentId)
{
}

SegmentRunner::SegmentRunner(const Model& model)
{
    for (const ModelTable& table : model.tables) {
        if (table.segmentId == kNoSegment) {
            throw BuildError("table " + table.name + " has the segment id 0xFFFFFFFF, which asks for no jump");
        }
        if (!tables_.emplace(table.segmentId, table).second) {
            throw BuildError("two tables have the segment id " + std::to_string(table.segmentId));
        }
    }
    if (model.tables.empty()) {
        throw BuildError("the model has no layer table");
    }
    for (const auto& [id, table] : tables_) {
        if (table.next && Find(*table.next) == nullptr) {
            throw BuildError(Named(table) + " names " + std::to_string(*table.next) +
                             " as its successor, which has no table");
        }
    }
    start_ = model.tables.front().segmentId;
}

SegmentRunner& SegmentRunner::Start(uint32_t segmentId)
{
    if (Find(segmentId) == nullptr) {
        throw BuildError("the model has no segment " + std::to_string(segmentId));
    }
    start_ = segmentId;
    return *this;
}

SegmentRunner& SegmentRunner::MaxPasses(uint32_t count)
{
    maxPasses_ = count;
    return *this;
}

SegmentRunner& SegmentRunner::OnPass(std::function<void(const SegmentPass&)> onPass)
{
    onPass_ = std::move(onPass);
    return *this;
}

const ModelTable* SegmentRunner::Find(uint32_t segmentId) const
{
    const auto found = tables_.find(segmentId);
    return found == tables_.end() ? nullptr : &found->second;
}

const ModelTable* SegmentRunner::Successor(const SegmentPass& pass) const
{
    if (pass.segId == kNoSegment) {
        return pass.table->next ? Find(*pass.table->next) : nullptr;
    }
    const ModelTable* const table = Find(pass.segId);
    if (table == nullptr) {
        throw SegmentError(pass, "it asks for segment " + std::to_string(pass.segId) + ", which has no table");
    }
    return table;
}

uint32_t SegmentRunner::Run(Request& request, uint32_t (*forward)(ForwardParam*)) const
{
    SegmentPass pass = {0, Find(start_), kNoSegment};
    while (pass.table != nullptr) {
        if (pass.number == maxPasses_) {
            throw SegmentError(pass, "given up after " + std::to_string(maxPasses_) + " passes");
        }
        request.SelectSegment(pass.table->segmentId);
        request.SetSegId(kNoSegment);
        if (request.Run(forward) != 0) {
            throw SegmentError(pass, "the request failed");
        }
        pass.segId = request.SegId();
        if (onPass_) {
            onPass_(pass);
        }
        pass.table = Successor(pass);
        ++pass.number;
    }
    return pass.number;
}

}  // namespace opkit::modelkit
