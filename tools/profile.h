// What the profiling slots said, run by run: a table per layer, and a trace.
#ifndef OPKIT_TOOLS_PROFILE_H
#define OPKIT_TOOLS_PROFILE_H

#include <filesystem>
#include <map>
#include <vector>

#include "modelkit/model_reader.h"
#include "tools/stream.h"

namespace opkit::tools {

// Of one run, all its items and passes together, in microseconds.
struct LayerTime {
    size_t calls = 0;
    uint64_t shortest = 0;
    double median = 0;
};

class Profile {
public:
    explicit Profile(const modelkit::Model& model);

    // Takes the slots of the pass that has just ended.
    void Add(const StreamPass& pass, std::span<const ProfilingSlot> slots, uint32_t batch);
    void EndRun() { runs_.emplace_back(); }

    // Over the runs that have ended; at least one has.
    LayerTime TimeOf(uint32_t table, uint32_t layer) const;
    // Layer, operator, output shape, calls per run, shortest and median time of a run, share of the medians.
    void Print() const;
    // Chrome's trace event format.
    void SaveTrace(const std::filesystem::path& file) const;

private:
    struct Span {
        uint32_t table = 0;
        uint32_t layer = 0;
        uint32_t item = 0;
        uint32_t request = 0;
        uint32_t pass = 0;
        uint64_t begin = 0;  // microseconds
        uint64_t end = 0;
    };
    using Run = std::vector<Span>;

    std::vector<uint64_t> TimesOf(uint32_t table, uint32_t layer) const;
    size_t CallsOf(uint32_t table, uint32_t layer) const;
    void PrintTable(uint32_t table, double medians) const;

    std::vector<modelkit::ModelTable> tables_;
    std::vector<modelkit::ReadTable> layers_;  // of each table
    std::vector<Run> runs_;                    // the last one is in progress
};

// Runs the data `warmup` times, then `repeat` times with the clock on.
Profile TimedRuns(const modelkit::Model& model, Stream& stream, uint32_t repeat, uint32_t warmup);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_PROFILE_H
