#include "tools/profile.h"

#include <fmt/core.h>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "modelkit/file_io.h"
#include "tools/layer_names.h"
#include "tools/progress.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

double Median(std::vector<uint64_t> values)
{
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? static_cast<double>(values[half])
                                  : static_cast<double>(values[half - 1] + values[half]) / 2;
}

}  // namespace

Profile::Profile(const Model& model) : tables_(model.tables), runs_(1)
{
    for (size_t t = 0; t < model.tables.size(); ++t) {
        layers_.push_back(ReadLayerTable(model, t));
    }
}

void Profile::Add(const StreamPass& pass, std::span<const ProfilingSlot> slots, uint32_t batch)
{
    const auto found = std::find(tables_.begin(), tables_.end(), *pass.pass.table);
    const auto table = static_cast<uint32_t>(found - tables_.begin());
    const auto layerCount = static_cast<uint32_t>(layers_[table].layers.size());
    for (uint32_t slot = 0; slot < layerCount * batch; ++slot) {
        runs_.back().push_back({table, slot % layerCount, slot / layerCount, pass.request, pass.pass.number,
                                slots[slot].startTime, slots[slot].endTime});
    }
}

// One sum per run.
std::vector<uint64_t> Profile::TimesOf(uint32_t table, uint32_t layer) const
{
    std::vector<uint64_t> times;
    for (size_t r = 0; r + 1 < runs_.size(); ++r) {
        uint64_t time = 0;
        for (const Span& span : runs_[r]) {
            // The wall clock may be set back while a layer runs.
            time += span.table == table && span.layer == layer && span.end > span.begin ? span.end - span.begin : 0;
        }
        times.push_back(time);
    }
    return times;
}

size_t Profile::CallsOf(uint32_t table, uint32_t layer) const
{
    return static_cast<size_t>(std::count_if(runs_.front().begin(), runs_.front().end(), [&](const Span& span) {
        return span.table == table && span.layer == layer;
    }));
}

LayerTime Profile::TimeOf(uint32_t table, uint32_t layer) const
{
    const std::vector<uint64_t> times = TimesOf(table, layer);
    return {CallsOf(table, layer), *std::min_element(times.begin(), times.end()), Median(times)};
}

void Profile::PrintTable(uint32_t table, double medians) const
{
    for (uint32_t i = 0; i < layers_[table].layers.size(); ++i) {
        const ReadLayer& layer = layers_[table].layers[i];
        const LayerTime time = TimeOf(table, i);
        const double share = medians == 0 ? 0 : 100 * time.median / medians;
        fmt::print("{:>5}  {:<21} {:<18} {:>6} {:>9} {:>9.1f} {:>6.1f} %\n", i, ShortName(layer.name),
                   layer.outputs.empty() ? "" : ShapeText(layer.outputs[0].shape), time.calls, time.shortest,
                   time.median, share);
    }
}

void Profile::Print() const
{
    std::vector<uint64_t> totals(runs_.size() - 1);
    double medians = 0;
    for (uint32_t t = 0; t < tables_.size(); ++t) {
        for (uint32_t i = 0; i < layers_[t].layers.size(); ++i) {
            const std::vector<uint64_t> times = TimesOf(t, i);
            std::transform(times.begin(), times.end(), totals.begin(), totals.begin(), std::plus<>());
            medians += Median(times);
        }
    }
    fmt::print("\n{:>5}  {:<21} {:<18} {:>6} {:>9} {:>9} {:>8}\n", "layer", "operator", "output", "calls", "min us",
               "median us", "share");
    for (uint32_t t = 0; t < tables_.size(); ++t) {
        if (tables_.size() > 1) {
            fmt::print("segment {} ({})\n", tables_[t].segmentId, tables_[t].name);
        }
        PrintTable(t, medians);
    }
    fmt::print("{:>5}  {:<21} {:<18} {:>6} {:>9} {:>9.1f} {:>6.1f} %\n", "", "all layers", "", runs_.front().size(),
               *std::min_element(totals.begin(), totals.end()), Median(totals), 100.0);
    fmt::print("{} runs; times of one run, all its items and passes together, from a clock of 1 us\n", totals.size());
}

void Profile::SaveTrace(const std::filesystem::path& file) const
{
    using nlohmann::ordered_json;
    ordered_json events = ordered_json::array();
    events.push_back({{"name", "process_name"}, {"ph", "M"}, {"pid", 1}, {"args", {{"name", "opkit"}}}});
    // The wall clock may be set back: nothing takes less than no time, or begins before the first layer.
    const auto between = [](uint64_t begin, uint64_t end) { return end > begin ? end - begin : 0; };
    for (size_t r = 0; r + 1 < runs_.size(); ++r) {
        for (const Span& span : runs_[r]) {
            const ReadLayer& layer = layers_[span.table].layers[span.layer];
            events.push_back({{"name", ShortName(layer.name)},
                              {"cat", "layer"},
                              {"ph", "X"},
                              {"ts", between(runs_.front().front().begin, span.begin)},
                              {"dur", between(span.begin, span.end)},
                              {"pid", 1},
                              {"tid", 1},
                              {"args",
                               {{"run", r},
                                {"request", span.request},
                                {"pass", span.pass},
                                {"segment", tables_[span.table].segmentId},
                                {"item", span.item},
                                {"layer", span.layer},
                                {"layerId", layer.record.layerId}}}});
        }
    }
    WriteFile(file, ordered_json({{"displayTimeUnit", "ms"}, {"traceEvents", std::move(events)}}).dump() + "\n");
}

Profile TimedRuns(const Model& model, Stream& stream, uint32_t repeat, uint32_t warmup)
{
    Progress progress("requests", uint64_t{stream.RequestCount()} * (warmup + repeat));
    stream.OnRequest([&] { progress.Advance(); });
    for (uint32_t i = 0; i < warmup; ++i) {
        stream.RunFresh();
    }
    Profile profile(model);
    stream.EnableProfiling();
    stream.OnPass(
        [&](const StreamPass& pass) { profile.Add(pass, stream.Request().Profile(), stream.Request().Batch()); });
    for (uint32_t i = 0; i < repeat; ++i) {
        stream.RunFresh();
        profile.EndRun();
    }
    stream.OnRequest(nullptr);
    return profile;
}

}  // namespace opkit::tools
