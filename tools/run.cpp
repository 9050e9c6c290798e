// opkit run

#include <fmt/core.h>
#include <algorithm>
#include <memory>

#include "modelkit/check.h"
#include "modelkit/model_file.h"
#include "opkit/opkit.h"
#include "tools/command.h"
#include "tools/layer_dump.h"
#include "tools/npy.h"
#include "tools/profile.h"
#include "tools/progress.h"
#include "tools/report_header.h"
#include "tools/run_data.h"
#include "tools/stream.h"
#include "tools/throughput.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

struct Options {
    std::string model;
    std::vector<std::string> inputs;
    std::vector<std::string> outputs;
    uint32_t batch = 0;  // 0: chosen
    std::optional<uint32_t> segment;
    uint32_t maxPasses = StreamOptions{}.maxPasses;
    uint32_t repeat = 0;
    uint32_t warmup = ThroughputOptions{}.warmup;
    uint32_t threads = 0;
    std::string trace;
    std::string dump;
    std::string compare;
    bool unchecked = false;
};

// The largest batch that divides the items and that the model takes. With several tables it is 1: a segment id is one
// for the whole request, so items that want different ways must not share one.
uint32_t ChooseBatch(const Model& model, uint32_t items, uint32_t wanted)
{
    if (wanted != 0) {
        if (items % wanted != 0) {
            throw ToolError(fmt::format("--batch {} does not divide the {} items of the inputs", wanted, items));
        }
        return wanted;
    }
    uint32_t batch = model.tables.size() > 1 ? 1 : std::min(items, LargestBatch(model));
    while (items % batch != 0) {
        --batch;
    }
    return batch;
}

// A model that would fault must not take the program with it. Where a segment id leads, the run itself finds out.
void RefuseUnsafe(const Model& model, uint32_t batch, const Options& options)
{
    CheckReport report = CheckModel(model, batch);
    std::erase_if(report.refusals, [](const CheckRefusal& refusal) { return refusal.leadsNowhere; });
    if (options.unchecked || report.Accepted()) {
        return;
    }
    const size_t more = report.refusals.size() - 1;
    throw ToolError(fmt::format("{}: {}{} (opkit check tells all, --unchecked runs it nevertheless)",
                                ModelPathsOf(options.model).buffer.string(), report.refusals[0].Text(),
                                more == 0 ? "" : fmt::format("; and {} more", more)));
}

void SaveOutputs(const Model& model, const RunData& outputs, const std::vector<NamedFile>& files)
{
    for (const NamedFile& file : files) {
        const size_t i = model.OutputIndex(file.name);
        SaveNpy(file.file, BatchedShape(model.outputs[i].shape, outputs.items), outputs.tensors[i]);
    }
}

// The run whose outputs are reported, with every layer's outputs where they are wanted.
RunData FirstRun(const Model& model, Stream& stream, const Options& options, std::vector<DumpedTensor>* layers)
{
    if (options.dump.empty() && options.compare.empty()) {
        return stream.RunFresh();
    }
    DumpCollector collector(model, stream);
    stream.OnPass([&](const StreamPass& pass) { collector.EndPass(pass); });
    RunData outputs = stream.RunFresh();
    stream.OnPass(nullptr);
    *layers = collector.Take();
    return outputs;
}

// Tells whether the layers' outputs are those of the dump to compare with, if there is one.
bool UseLayers(const std::vector<DumpedTensor>& layers, const Options& options)
{
    const bool same = options.compare.empty() || CompareWithDump(options.compare, layers);
    if (!options.dump.empty()) {
        SaveDump(options.dump, layers);
    }
    return same;
}

Profile TimedRuns(const Model& model, Stream& stream, const Options& options)
{
    const uint32_t repeat = std::max(options.repeat, 1U);
    Progress progress(options.warmup + repeat);
    for (uint32_t i = 0; i < options.warmup; ++i) {
        stream.RunFresh();
        progress.Advance();
    }
    Profile profile(model);
    stream.Request().EnableProfiling();
    stream.OnPass(
        [&](const StreamPass& pass) { profile.Add(pass, stream.Request().Profile(), stream.Request().Batch()); });
    for (uint32_t i = 0; i < repeat; ++i) {
        stream.RunFresh();
        profile.EndRun();
        progress.Advance();
    }
    return profile;
}

int Run(const Options& options)
{
    const Model model = LoadModel(options.model);
    const std::vector<NamedFile> inputFiles = NamedFiles(options.inputs, model.inputs, "input");
    const std::vector<NamedFile> outputFiles = NamedFiles(options.outputs, model.outputs, "output");
    const RunData inputs = LoadInputs(model, inputFiles);
    const StreamOptions streamOptions = {ChooseBatch(model, inputs.items, options.batch), options.segment,
                                         options.maxPasses};
    Stream stream(model, inputs, streamOptions);
    RefuseUnsafe(model, streamOptions.batch, options);
    PrintEnvironment();
    PrintModelLine(options.model, model);
    PrintTensorLines("input", model.inputs, inputs, inputFiles);

    std::vector<DumpedTensor> layers;
    const RunData outputs = FirstRun(model, stream, options, &layers);
    SaveOutputs(model, outputs, outputFiles);
    PrintTensorLines("output", model.outputs, outputs, outputFiles);
    fmt::print("items   {} in {} request{}\n", inputs.items, stream.RequestCount(),
               stream.RequestCount() == 1 ? "" : "s");
    if (stream.SegId() != kNoSegment) {
        fmt::print("segment {} is what the last layer asked for\n", stream.SegId());
    }
    const bool same = UseLayers(layers, options);
    if (options.threads != 0) {
        const uint32_t repeat = options.repeat != 0 ? options.repeat : ThroughputOptions{}.repeat;
        MeasureThroughput(model, inputs, outputs, streamOptions, {options.threads, repeat, options.warmup});
    } else if (options.repeat != 0 || !options.trace.empty()) {
        const Profile profile = TimedRuns(model, stream, options);
        if (options.repeat != 0) {
            profile.Print();
        }
        if (!options.trace.empty()) {
            profile.SaveTrace(options.trace);
        }
    }
    return same ? kSuccess : kFailure;
}

std::string CheckNamedFile(const std::string& argument)
{
    const size_t equals = argument.find('=');
    const bool whole = equals != std::string::npos && equals != 0 && equals + 1 != argument.size();
    return whole ? "" : "\"" + argument + "\" is not of the form NAME=FILE";
}

// A range that --help does not spell out.
CLI::Validator Between(uint32_t low, uint32_t high)
{
    return CLI::Range(low, high).description("");
}

}  // namespace

Action SetUpRun(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    const CLI::Validator namedFile(CheckNamedFile, "");
    app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->required()->type_name("");
    app.add_option("-i,--input", options->inputs, "an input's data, f32; one item or a batch of them; repeat per input")
        ->check(namedFile)
        ->type_name("NAME=FILE.npy");
    app.add_option("-o,--output", options->outputs, "where an output goes")
        ->check(namedFile)
        ->type_name("NAME=FILE.npy");
    app.add_option("--batch", options->batch, "items per request; must divide the items (default: as many as it takes)")
        ->check(Between(1, OPKIT_MAX_BATCH))
        ->type_name("N");
    app.add_option("--segment", options->segment, "segment that runs first (default: the model's first)")
        ->type_name("ID");
    app.add_option("--max-passes", options->maxPasses, "passes over layer tables before a request is given up")
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--repeat", options->repeat, "time so many runs; print a table of layers")
        ->check(Between(1, 1000000))
        ->type_name("N");
    app.add_option("--warmup", options->warmup, "runs before the timed ones")->capture_default_str()->type_name("N");
    app.add_option("--trace", options->trace, "write the timed runs as a trace for a browser's trace viewer")
        ->type_name("FILE.json");
    app.add_option("--dump", options->dump, "write every layer's outputs into a directory")->type_name("DIR");
    app.add_option("--compare", options->compare, "compare every layer's outputs with an earlier dump")
        ->type_name("DIR");
    app.add_flag("--unchecked", options->unchecked, "run a model that opkit check refuses; it may fault");
    auto* const threads =
        app.add_option("--threads", options->threads, "throughput of so many independent streams against one")
            ->check(Between(1, 1024))
            ->type_name("N");
    threads->excludes("--trace");
    app.footer("Example:\n  opkit run digits --input pixels=pixels.npy --output logits=logits.npy --repeat 20");
    return [options] { return Run(*options); };
}

}  // namespace opkit::tools
