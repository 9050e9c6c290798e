// opkit report

#include <fmt/core.h>
#include <memory>

#include "modelkit/model_file.h"
#include "tools/command.h"
#include "tools/comparison.h"
#include "tools/layer_dump.h"
#include "tools/progress.h"
#include "tools/report_data.h"
#include "tools/report_page.h"
#include "tools/run_data.h"
#include "tools/soundness.h"
#include "tools/throughput.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

struct Options {
    std::string model;
    std::vector<std::string> inputs;
    std::string output;
    uint32_t batch = 0;  // 0: chosen
    std::optional<uint32_t> segment;
    uint32_t repeat = 0;
    uint32_t warmup = ThroughputOptions{}.warmup;
    std::string compare;
    double tolerance = 0;
};

RunData RunOnce(const Model& model, Stream& stream, std::optional<DumpComparison>* comparison, ReportData* data)
{
    Progress progress("requests", stream.RequestCount());
    stream.OnRequest([&] { progress.Advance(); });
    const DumpCollector collector(model, stream, [&](const DumpedTensor& tensor) {
        data->Add(tensor);
        if (*comparison) {
            if (const std::optional<Difference> difference = (*comparison)->Add(tensor)) {
                data->Add(tensor, *difference);
            }
        }
    });
    RunData outputs = stream.RunFresh();
    stream.OnRequest(nullptr);
    return outputs;
}

// Returns whether the run is what it is compared with.
bool AddRun(const Model& model, const Options& options, ReportData* data)
{
    const RunData inputs = LoadInputs(model, NamedFiles(options.inputs, model.inputs, "input"));
    StreamOptions streamOptions;
    streamOptions.batch = ChooseBatch(model, inputs.items, options.batch);
    streamOptions.segment = options.segment;
    streamOptions.presetLoops = RequireSound(options.model, model, streamOptions.batch);
    std::optional<DumpComparison> comparison;
    if (!options.compare.empty()) {
        comparison.emplace(options.compare, options.tolerance);
    }
    Stream stream(model, inputs, streamOptions);
    const RunData outputs = RunOnce(model, stream, &comparison, data);
    data->SetRun(inputs, outputs, stream, streamOptions.batch);
    if (options.repeat != 0) {
        data->SetTimes(TimedRuns(model, stream, options.repeat, options.warmup), options.repeat, options.warmup);
    }
    if (comparison) {
        data->SetComparison(options.compare, options.tolerance, comparison->FirstDifference());
    }
    return !comparison || comparison->Finish();
}

int Report(const Options& options)
{
    const Model model = LoadModel(options.model);
    CheckWritable(options.output);
    ReportData data(options.model, model);
    const bool same = options.inputs.empty() || AddRun(model, options, &data);
    const std::string page = ReportPage(data.ToJson());
    WriteFile(options.output, page);
    fmt::print("{}: {} bytes\n", options.output, page.size());
    return same ? kSuccess : kFailure;
}

std::string CheckNamedFile(const std::string& argument)
{
    return IsNamedFile(argument) ? "" : "\"" + argument + "\" is not of the form NAME=FILE";
}

}  // namespace

Action SetUpReport(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->required()->type_name("");
    app.add_option("-o,--output", options->output, "where the page goes")->required()->type_name("FILE.html");
    auto* const input =
        app.add_option("-i,--input", options->inputs, "an input's data, as for run; without any, the model is not run")
            ->check(CLI::Validator(CheckNamedFile, ""))
            ->allow_extra_args(false)
            ->type_name("NAME=FILE.npy");
    app.add_option("--batch", options->batch, "items per request (default: as many as the model takes)")
        ->needs(input)
        ->check(CLI::Range(1U, uint32_t{OPKIT_MAX_BATCH}).description(""))
        ->type_name("N");
    app.add_option("--segment", options->segment, "segment that runs first (default: the model's first)")
        ->needs(input)
        ->type_name("ID");
    auto* const repeat = app.add_option("--repeat", options->repeat, "time the layers in so many runs")
                             ->needs(input)
                             ->check(CLI::Range(1U, 1000000U).description(""))
                             ->type_name("N");
    app.add_option("--warmup", options->warmup, "runs before the timed ones")
        ->needs(repeat)
        ->capture_default_str()
        ->type_name("N");
    auto* const compare = app.add_option("--compare", options->compare, "show where the run differs from a dump")
                              ->needs(input)
                              ->type_name("DIR");
    app.add_option("--tolerance", options->tolerance, "distance that --compare lets pass; relative above 1")
        ->needs(compare)
        ->check(CLI::NonNegativeNumber.description(""))
        ->type_name("T");
    app.footer("Example:\n  opkit report digits --input pixels=pixels.npy --repeat 20 --output digits.html");
    return [options] { return Report(*options); };
}

}  // namespace opkit::tools
