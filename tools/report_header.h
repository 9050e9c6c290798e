// The lines that every report begins with: what ran, on what, and the CRC-32 of all that went in and came out.
#ifndef OPKIT_TOOLS_REPORT_HEADER_H
#define OPKIT_TOOLS_REPORT_HEADER_H

#include <filesystem>
#include <optional>
#include <string>

#include "kernels/level.h"
#include "modelkit/model.h"
#include "tools/run_data.h"

namespace opkit::tools {

// "3.0.0 (4ed1745), gcc 12.2.0, processor level AVX2". `level`: the one that was asked for.
std::string EnvironmentText(std::optional<Level> level = std::nullopt);

void PrintEnvironment(std::optional<Level> level = std::nullopt);
void PrintModelLine(const std::filesystem::path& path, const modelkit::Model& model);
void PrintTensorLines(const char* side, const std::vector<modelkit::TensorSpec>& specs, const RunData& data,
                      const std::vector<NamedFile>& files);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_REPORT_HEADER_H
