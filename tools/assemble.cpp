// opkit assemble

#include <fmt/core.h>
#include <memory>

#include "modelkit/file_io.h"
#include "modelkit/model_file.h"
#include "modelkit/model_text.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

struct Options {
    std::string text;
    std::string model;
};

int Assemble(const Options& options)
{
    const AssembledModel assembled = AssembleModel(options.text, ReadFile(options.text));
    const ModelPaths paths = ModelPathsOf(options.model);
    std::error_code ignored;
    if (std::filesystem::equivalent(options.text, paths.manifest, ignored)) {
        throw ToolError(options.text + ": the model's manifest would replace the text; choose another name");
    }
    SaveModel(assembled.model, options.model, assembled.manifest);
    fmt::print("{}, {}: {} bytes\n", paths.manifest.string(), paths.buffer.string(), assembled.model.bytes.size());
    return kSuccess;
}

}  // namespace

Action SetUpAssemble(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    app.add_option("TEXT", options->text, "the model's text form, as disassemble writes it")->required()->type_name("");
    app.add_option("-o,--output", options->model, "the model to write: NAME, for NAME.json and NAME.bin")
        ->required()
        ->type_name("MODEL");
    app.footer("Example:\n  opkit assemble digits.text.json --output copy");
    return [options] { return Assemble(*options); };
}

}  // namespace opkit::tools
