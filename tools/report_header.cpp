#include "tools/report_header.h"

#include <fmt/core.h>

#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "opkit/opkit.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

#ifdef __clang__
constexpr const char* kCompiler = "clang " __clang_version__;
#else
constexpr const char* kCompiler = "gcc " __VERSION__;
#endif

}  // namespace

std::string EnvironmentText(std::optional<Level> level)
{
    const uint32_t version = OpkitGetVersion();
    return fmt::format("{}.{}.{} ({}), {}, processor level {}{}", version >> 16, version >> 8 & 0xff, version & 0xff,
                       OPKIT_GIT_VERSION, kCompiler, LevelName(DetectedLevel()),
                       level ? fmt::format(", run at {}", LevelName(*level)) : "");
}

void PrintEnvironment(std::optional<Level> level)
{
    fmt::print("opkit   {}\n", EnvironmentText(level));
}

void PrintModelLine(const std::filesystem::path& path, const Model& model)
{
    size_t layers = 0;
    for (size_t t = 0; t < model.tables.size(); ++t) {
        layers += ReadLayerTable(model, t).layers.size();
    }
    fmt::print("model   {}  crc {:08x}  {} bytes, {} layer{} in {} table{}\n", ModelPathsOf(path).manifest.string(),
               Crc32(model.bytes.Span()), model.bytes.size(), layers, layers == 1 ? "" : "s", model.tables.size(),
               model.tables.size() == 1 ? "" : "s");
}

void PrintTensorLines(const char* side, const std::vector<TensorSpec>& specs, const RunData& data,
                      const std::vector<NamedFile>& files)
{
    for (size_t i = 0; i < specs.size(); ++i) {
        std::string file;
        for (const NamedFile& named : files) {
            file += named.name == specs[i].name ? "  " + named.file.string() : "";
        }
        fmt::print("{:<7} {} {}  crc {:08x}{}\n", side, specs[i].name,
                   ShapeText(BatchedShape(specs[i].shape, data.items)),
                   Crc32(std::as_bytes(std::span(data.tensors[i]))), file);
    }
}

}  // namespace opkit::tools
