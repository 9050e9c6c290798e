#include "tools/selftest.h"

#include <fmt/core.h>
#include <cmath>
#include <limits>

#include "kernels/level.h"
#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "tools/command.h"
#include "tools/layer_names.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

// Rows with their padding. A NaN that arithmetic makes may have any payload and sign.
uint32_t HashRows(std::span<const float> rows, uint32_t before)
{
    std::vector<float> values(rows.begin(), rows.end());
    for (float& value : values) {
        value = std::isnan(value) ? std::numeric_limits<float>::quiet_NaN() : value;
    }
    return Crc32(std::as_bytes(std::span(values)), before);
}

// Of all that a layer leaves behind: outputs, inputs that it compacts, what it writes into the model buffer.
uint32_t HashOf(const SelftestLayer& layer, uint32_t (*forward)(ForwardParam*))
{
    Request request(layer.model);
    for (size_t i = 0; i < layer.inputs.size(); ++i) {
        request.SetInput(i, layer.inputs[i]);
    }
    if (request.Run(forward) != 0) {
        throw ToolError(fmt::format("--selftest: {} fails", ShortName(layer.operatorName)));
    }
    uint32_t hash = Crc32(request.ModelBytes());
    for (size_t i = 0; i < layer.model.inputs.size(); ++i) {
        hash = HashRows(request.InputRows(i), hash);
    }
    for (size_t i = 0; i < layer.model.outputs.size(); ++i) {
        hash = HashRows(request.OutputRows(i), hash);
    }
    return hash;
}

std::vector<Level> Levels()
{
    std::vector<Level> levels;
    for (int level = 0; level <= static_cast<int>(DetectedLevel()); ++level) {
        levels.push_back(static_cast<Level>(level));
    }
    return levels;
}

}  // namespace

bool Selftest(const std::vector<SelftestLayer>& layers, uint32_t (*forward)(ForwardParam*))
{
    const std::vector<Level> levels = Levels();
    std::string names;
    for (const Level level : levels) {
        names += (names.empty() ? "" : ", ") + std::string(LevelName(level));
    }
    fmt::print("levels  {}\n", names);
    std::string different;
    for (const SelftestLayer& layer : layers) {
        std::vector<uint32_t> hashes;
        for (const Level level : levels) {
            OverrideLevel(level);
            hashes.push_back(HashOf(layer, forward));
        }
        const std::string name = ShortName(layer.operatorName);
        fmt::print("{:<22} {:08x}", name, hashes[0]);
        if (hashes != std::vector(hashes.size(), hashes[0])) {
            different += (different.empty() ? "" : ", ") + name;
            for (size_t i = 1; i < levels.size(); ++i) {
                fmt::print(" {:08x} at {}", hashes[i], LevelName(levels[i]));
            }
        }
        fmt::print("\n");
    }
    OverrideLevel(levels.back());
    fmt::print("{} operators{}{}\n", layers.size(),
               different.empty() ? ": the same bits at all levels of this machine" : "; the levels differ in ",
               different);
    return different.empty();
}

}  // namespace opkit::tools
