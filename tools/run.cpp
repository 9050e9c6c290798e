// opkit run

#include <fmt/core.h>
#include <algorithm>
#include <memory>

#include "modelkit/model_file.h"
#include "opkit/opkit.h"
#include "tools/command.h"
#include "tools/comparison.h"
#include "tools/dump_writer.h"
#include "tools/layer_dump.h"
#include "tools/level_library.h"
#include "tools/npy.h"
#include "tools/profile.h"
#include "tools/progress.h"
#include "tools/report_header.h"
#include "tools/run_data.h"
#include "tools/selftest.h"
#include "tools/show.h"
#include "tools/soundness.h"
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
    std::vector<std::string> compare;
    double tolerance = 0;
    std::string level;
    bool show = false;
    bool selftest = false;
    bool unchecked = false;
};

// What the run is compared with: dumps, and files for outputs.
struct References {
    std::vector<NamedFile> outputs;
    std::vector<DumpComparison> dumps;
};

References OpenReferences(const Model& model, const Options& options)
{
    References references;
    std::vector<std::string> named;
    for (const std::string& argument : options.compare) {
        if (IsNamedFile(argument) && !std::filesystem::exists(argument)) {
            named.push_back(argument);
        } else {
            references.dumps.emplace_back(argument, options.tolerance);
        }
    }
    references.outputs = NamedFiles(named, model.outputs, "output to compare");
    for (const NamedFile& file : references.outputs) {
        NpyReader tried(file.file);
    }
    return references;
}

// What only shows in the end must not cost the run.
void TryDestinations(const std::vector<NamedFile>& outputs, const Options& options)
{
    for (const NamedFile& output : outputs) {
        CheckWritable(output.file);
    }
    if (!options.trace.empty()) {
        CheckWritable(options.trace);
    }
}

void SaveOutputs(const Model& model, const RunData& outputs, const std::vector<NamedFile>& files)
{
    for (const NamedFile& file : files) {
        const size_t i = model.OutputIndex(file.name);
        SaveNpy(file.file, BatchedShape(model.outputs[i].shape, outputs.items), outputs.tensors[i]);
    }
}

// The run whose outputs are reported, with every layer's outputs where they are wanted.
RunData FirstRun(const Model& model, Stream& stream, DumpWriter* dump, std::vector<DumpComparison>* comparisons)
{
    Progress progress("requests", stream.RequestCount());
    stream.OnRequest([&] { progress.Advance(); });
    std::optional<DumpCollector> collector;
    if (dump != nullptr || !comparisons->empty()) {
        collector.emplace(model, stream, [&](const DumpedTensor& tensor) {
            if (dump != nullptr) {
                dump->Add(tensor);
            }
            for (DumpComparison& comparison : *comparisons) {
                comparison.Add(tensor);
            }
        });
    }
    RunData outputs = stream.RunFresh();
    stream.OnRequest(nullptr);
    return outputs;
}

bool Same(const Model& model, const RunData& outputs, const References& references, const Options& options)
{
    bool same = CompareOutputs(model, outputs, references.outputs, options.tolerance);
    for (const DumpComparison& comparison : references.dumps) {
        same = comparison.Finish() && same;
    }
    return same;
}

// Times layers or streams, as asked.
void Measure(const Model& model, const RunData& inputs, const RunData& outputs, Stream& stream,
             const StreamOptions& streamOptions, const Options& options)
{
    if (options.threads != 0) {
        const uint32_t repeat = options.repeat != 0 ? options.repeat : ThroughputOptions{}.repeat;
        MeasureThroughput(model, inputs, outputs, streamOptions, {options.threads, repeat, options.warmup});
    } else if (options.repeat != 0 || !options.trace.empty()) {
        const Profile profile = TimedRuns(model, stream, std::max(options.repeat, 1U), options.warmup);
        if (options.repeat != 0) {
            profile.Print();
        }
        if (!options.trace.empty()) {
            profile.SaveTrace(options.trace);
        }
    }
}

int RunSelftest()
{
    PrintEnvironment();
    return Selftest(SelftestLayers(), OpkitForwardAtLevel) ? kSuccess : kFailure;
}

int Run(const Options& options)
{
    if (options.selftest) {
        return RunSelftest();
    }
    if (options.model.empty()) {
        throw UsageError("MODEL is required (opkit run --help tells)");
    }
    const Model model = LoadModel(options.model);
    const std::vector<NamedFile> inputFiles = NamedFiles(options.inputs, model.inputs, "input");
    const std::vector<NamedFile> outputFiles = NamedFiles(options.outputs, model.outputs, "output");
    const RunData inputs = LoadInputs(model, inputFiles);
    StreamOptions streamOptions;
    streamOptions.batch = ChooseBatch(model, inputs.items, options.batch);
    streamOptions.segment = options.segment;
    streamOptions.maxPasses = options.maxPasses;
    const std::optional<Level> level = ChooseLevel(options.level, DetectedLevel());
    if (level) {
        OverrideLevel(*level);
        streamOptions.forward = OpkitForwardAtLevel;
    }
    if (!options.unchecked) {
        streamOptions.presetLoops = RequireSound(options.model, model, streamOptions.batch);
    }
    if (options.threads != 0) {
        RefuseUnique(model);
    }
    Stream stream(model, inputs, streamOptions);
    References references = OpenReferences(model, options);
    TryDestinations(outputFiles, options);
    std::optional<DumpWriter> dump;
    if (!options.dump.empty()) {
        dump.emplace(options.dump);
    }
    PrintEnvironment(level);
    PrintModelLine(options.model, model);
    PrintTensorLines("input", model.inputs, inputs, inputFiles);

    const RunData outputs = FirstRun(model, stream, dump ? &*dump : nullptr, &references.dumps);
    SaveOutputs(model, outputs, outputFiles);
    PrintTensorLines("output", model.outputs, outputs, outputFiles);
    fmt::print("items   {} in {} request{}\n", inputs.items, stream.RequestCount(),
               stream.RequestCount() == 1 ? "" : "s");
    if (stream.SegId() != kNoSegment) {
        fmt::print("segment {} is what the last layer asked for\n", stream.SegId());
    }
    for (size_t i = 0; options.show && i < model.outputs.size(); ++i) {
        ShowTensor(model.outputs[i].name, BatchedShape(model.outputs[i].shape, outputs.items), outputs.tensors[i]);
    }
    const bool same = Same(model, outputs, references, options);
    if (dump) {
        dump->Finish();
        dump.reset();
    }
    Measure(model, inputs, outputs, stream, streamOptions, options);
    return same ? kSuccess : kFailure;
}

std::string CheckNamedFile(const std::string& argument)
{
    return IsNamedFile(argument) ? "" : "\"" + argument + "\" is not of the form NAME=FILE";
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
    auto* const model =
        app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->type_name("");
    app.add_option("-i,--input", options->inputs, "an input's data, f32; one item or a batch of them; repeat per input")
        ->check(namedFile)
        ->allow_extra_args(false)
        ->type_name("NAME=FILE.npy");
    app.add_option("-o,--output", options->outputs, "where an output goes")
        ->check(namedFile)
        ->allow_extra_args(false)
        ->type_name("NAME=FILE.npy");
    app.add_option("--batch", options->batch, "items per request (default: as many as the model takes)")
        ->check(Between(1, OPKIT_MAX_BATCH))
        ->type_name("N");
    app.add_option("--segment", options->segment, "segment that runs first (default: the model's first)")
        ->type_name("ID");
    app.add_option("--max-passes", options->maxPasses, "passes over layer tables before a request is given up")
        ->check(Between(1, UINT32_MAX))
        ->capture_default_str()
        ->type_name("N");
    auto* const repeat = app.add_option("--repeat", options->repeat, "time so many runs; print a table of layers")
                             ->check(Between(1, 1000000))
                             ->type_name("N");
    app.add_option("--warmup", options->warmup, "runs before the timed ones")
        ->needs(repeat)
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--trace", options->trace, "write the timed runs as a trace for a browser's trace viewer")
        ->type_name("FILE.json");
    app.add_option("--dump", options->dump, "write every layer's outputs into a directory")->type_name("DIR");
    auto* const compare = app.add_option("--compare", options->compare,
                                         "compare every layer's outputs with a dump, or an output with a file")
                              ->allow_extra_args(false)
                              ->type_name("DIR|NAME=FILE.npy");
    app.add_option("--tolerance", options->tolerance, "distance that --compare lets pass; relative above 1")
        ->needs(compare)
        ->check(CLI::NonNegativeNumber.description(""))
        ->type_name("T");
    app.add_flag("--show", options->show, "print the outputs, with minimum, maximum, mean and counts");
    auto* const level = app.add_option("--level", options->level, "instruction set to run at (default: the highest)")
                            ->check(CLI::IsMember({"baseline", "avx2", "avx512"}).description(""))
                            ->type_name("baseline|avx2|avx512");
    app.add_flag("--selftest", options->selftest, "run built-in layers at every level; print a hash per operator")
        ->excludes(model)
        ->excludes(level);
    app.add_flag("--unchecked", options->unchecked,
                 "run a model that opkit check refuses or sets conditions for; it may fault");
    auto* const threads =
        app.add_option("--threads", options->threads, "throughput of so many independent streams against one")
            ->check(Between(1, 1024))
            ->type_name("N");
    threads->excludes("--trace");
    app.footer("Example:\n  opkit run digits --input pixels=pixels.npy --output logits=logits.npy --repeat 20");
    return [options] { return Run(*options); };
}

}  // namespace opkit::tools
