// opkit check

#include <fmt/core.h>
#include <memory>

#include "modelkit/check.h"
#include "modelkit/model_file.h"
#include "opkit/records.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

struct Options {
    std::string model;
    uint32_t batch = 0;
    uint64_t maxWork = 0;  // 0: no limit
    bool strict = false;
};

std::string Counted(size_t count, const char* word)
{
    return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

int Check(const Options& options)
{
    const Model model = LoadModel(options.model);
    const CheckReport report = CheckModel(model, options.batch);
    for (const CheckRefusal& refusal : report.refusals) {
        fmt::print("refused    {}\n", refusal.Text());
    }
    for (const CheckCondition& condition : report.conditions) {
        fmt::print("{}  {}\n", options.strict ? "refused  " : "condition", condition.Text());
    }
    const bool tooMuch = options.maxWork != 0 && report.work > options.maxWork;
    if (report.Accepted()) {
        fmt::print("{} up to {} element operations, {} of them in {}\n", tooMuch ? "refused    work of" : "work      ",
                   report.work, report.mostWork.operations, report.mostWork.place.Text());
    }
    const std::string items = report.batch == 1 ? "1 batch item" : fmt::format("1 to {} batch items", report.batch);
    const std::string scope = fmt::format("{} for {}", ModelPathsOf(options.model).manifest.string(), items);
    const size_t refusals =
        report.refusals.size() + (options.strict ? report.conditions.size() : 0) + (tooMuch ? 1 : 0);
    if (refusals != 0) {
        fmt::print("{}: refused, {}\n", scope, Counted(refusals, "finding"));
        return kFailure;
    }
    if (report.conditions.empty()) {
        fmt::print("{}: accepted, safe for any data\n", scope);
    } else {
        fmt::print("{}: accepted with {}\n", scope, Counted(report.conditions.size(), "condition"));
    }
    return kSuccess;
}

}  // namespace

Action SetUpCheck(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->required()->type_name("");
    app.add_option("--batch", options->batch, "batch items of the largest request; by default what the model takes")
        ->check(CLI::Range(1, static_cast<int>(OPKIT_MAX_BATCH)));
    app.add_option("--max-work", options->maxWork, "element operations of a request, at most")
        ->check(CLI::PositiveNumber);
    app.add_flag("--strict", options->strict, "conditions count as refusals");
    app.footer("Example:\n  opkit check digits --strict");
    return [options] { return Check(*options); };
}

}  // namespace opkit::tools
