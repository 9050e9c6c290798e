// opkit disassemble

#include <fmt/core.h>
#include <cstdio>
#include <memory>

#include "modelkit/file_io.h"
#include "modelkit/model_file.h"
#include "modelkit/model_text.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

struct Options {
    std::string model;
    std::string text;
};

int Disassemble(const Options& options)
{
    const Model model = LoadModel(options.model);
    const std::string text = DisassembleModel(model, ReadFile(ModelPathsOf(options.model).manifest));
    if (options.text.empty()) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        WriteFile(options.text, text);
    }
    return kSuccess;
}

}  // namespace

Action SetUpDisassemble(CLI::App& app)
{
    const auto options = std::make_shared<Options>();
    app.add_option("MODEL", options->model, "the model: NAME, NAME.json or NAME.bin")->required()->type_name("");
    app.add_option("-o,--output", options->text, "the text to write (default: standard output)");
    app.footer("Example:\n  opkit disassemble digits --output digits.text.json");
    return [options] { return Disassemble(*options); };
}

}  // namespace opkit::tools
