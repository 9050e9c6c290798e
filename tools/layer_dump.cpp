#include "tools/layer_dump.h"

#include <fmt/core.h>
#include <bit>
#include <cmath>
#include <cstring>
#include <optional>

#include "modelkit/json_fields.h"
#include "tools/command.h"
#include "tools/layer_names.h"
#include "tools/npy.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr const char* kFormatName = "opkit-dump";
constexpr uint32_t kFormatVersion = 1;
constexpr const char* kIndexName = "index.json";

std::string FileNameOf(const DumpedTensor& tensor)
{
    return fmt::format("r{}-p{}-s{}-l{:03}-o{}-{}.npy", tensor.request, tensor.pass, tensor.segment, tensor.layer,
                       tensor.output, ShortName(tensor.operatorName));
}

std::string Describe(const DumpedTensor& tensor)
{
    return fmt::format("request {}, pass {}, segment {}, layer {} ({}), output {} {}", tensor.request, tensor.pass,
                       tensor.segment, tensor.layer, ShortName(tensor.operatorName), tensor.output,
                       ShapeText(BatchedShape(tensor.shape, tensor.items)));
}

bool SamePlace(const DumpedTensor& a, const DumpedTensor& b)
{
    return Describe(a) == Describe(b);
}

ordered_json IndexEntry(const DumpedTensor& tensor)
{
    return {{"file", FileNameOf(tensor)},
            {"request", tensor.request},
            {"pass", tensor.pass},
            {"segment", tensor.segment},
            {"layer", tensor.layer},
            {"layerId", tensor.layerId},
            {"operator", ShortName(tensor.operatorName)},
            {"output", tensor.output},
            {"items", tensor.items},
            {"shape", tensor.shape}};
}

// "a" for "b/../a/", so that what is replaced is what was looked at.
fs::path WithoutDetours(const fs::path& path)
{
    const fs::path normal = path.lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

// Refuses to remove what is no dump.
void CheckReplaceable(const fs::path& directory)
{
    if (fs::exists(directory) && !(fs::is_directory(directory) && fs::is_empty(directory)) &&
        !fs::exists(directory / kIndexName)) {
        throw ToolError(directory.string() + ": exists and holds no dump");
    }
}

std::vector<DumpedTensor> LoadDump(const fs::path& directory)
{
    const fs::path index = directory / kIndexName;
    const JsonFields fields(index, ReadFile(index));
    fields.CheckFormat(kFormatName, kFormatVersion);
    std::vector<DumpedTensor> tensors;
    for (const nlohmann::json& entry : fields.List(fields.Root(), "", "tensors")) {
        const std::string path = fmt::format("tensors[{}].", tensors.size());
        const auto number = [&](const char* name) { return fields.Number(entry, path, name); };
        DumpedTensor tensor = {number("request"),
                               number("pass"),
                               number("segment"),
                               number("layer"),
                               number("layerId"),
                               fields.Text(entry, path, "operator"),
                               number("output"),
                               number("items"),
                               fields.Dimensions(entry, path),
                               {}};
        const fs::path file = directory / fields.Text(entry, path, "file");
        NpyArray array = LoadNpy(file);
        if (array.shape != BatchedShape(tensor.shape, tensor.items)) {
            throw ToolError(fmt::format("{}: field shape is {}, {} says {}", file.string(), ShapeText(array.shape),
                                        index.string(), ShapeText(BatchedShape(tensor.shape, tensor.items))));
        }
        tensor.values = std::move(array.values);
        tensors.push_back(std::move(tensor));
    }
    return tensors;
}

// Positions on the line of all floats: the next float is 1 further. The two zeros are neighbours.
int64_t Position(float value)
{
    const auto bits = std::bit_cast<uint32_t>(value);
    return (bits >> 31) != 0 ? -int64_t{bits & 0x7fffffff} - 1 : int64_t{bits};
}

// 0 for equal bits and for any two NaNs; nothing where one of them is NaN.
std::optional<uint64_t> UlpsApart(float a, float b)
{
    if (std::isnan(a) || std::isnan(b)) {
        return std::isnan(a) && std::isnan(b) ? std::optional<uint64_t>(0) : std::nullopt;
    }
    return static_cast<uint64_t>(std::abs(Position(a) - Position(b)));
}

std::string ElementText(const Shape& shape, size_t index)
{
    Shape place(shape.size());
    for (size_t axis = shape.size(); axis-- > 0;) {
        place[axis] = static_cast<uint32_t>(index % shape[axis]);
        index /= shape[axis];
    }
    return ShapeText(place);
}

struct Difference {
    size_t elements = 0;
    size_t firstElement = 0;
    uint64_t largest = 0;  // in ulps
    bool nan = false;      // one side is NaN somewhere
};

Difference Compare(const std::vector<float>& here, const std::vector<float>& there)
{
    Difference difference;
    for (size_t i = 0; i < here.size(); ++i) {
        const std::optional<uint64_t> ulps = UlpsApart(here[i], there[i]);
        if (ulps == uint64_t{0}) {
            continue;
        }
        difference.firstElement = difference.elements == 0 ? i : difference.firstElement;
        ++difference.elements;
        difference.nan = difference.nan || !ulps;
        difference.largest = std::max(difference.largest, ulps.value_or(0));
    }
    return difference;
}

std::string DistanceText(float here, float there)
{
    const std::optional<uint64_t> ulps = UlpsApart(here, there);
    return ulps ? fmt::format("{} ulp{} apart", *ulps, *ulps == 1 ? "" : "s") : "one is NaN";
}

void PrintFirst(const DumpedTensor& here, const DumpedTensor& there, size_t element, const fs::path& directory)
{
    fmt::print("first difference: {}, element {}\n", Describe(here),
               ElementText(BatchedShape(here.shape, here.items), element));
    fmt::print("  {} here, {} in {}: {}\n", here.values[element], there.values[element], directory.string(),
               DistanceText(here.values[element], there.values[element]));
}

}  // namespace

DumpCollector::DumpCollector(const Model& model, Stream& stream) : model_(model), stream_(stream)
{
    stream.Request().OnDump([this](const DumpRecord& record) { Keep(record); });
}

// Called from inside the library, so it must not throw; a tensor outside the request's memory is kept empty.
void DumpCollector::Keep(const DumpRecord& record)
{
    const ForwardParam& param = stream_.Request().Param();
    const auto* const begin = static_cast<const std::byte*>(record.data);
    const auto within = [&](const void* block, size_t size) {
        const auto* const start = static_cast<const std::byte*>(block);
        return begin >= start && record.size <= size && static_cast<size_t>(begin - start) <= size - record.size;
    };
    bool inside = within(param.opkitBuf, param.opkitBufSize);
    for (uint32_t i = 0; i < param.outputNum; ++i) {
        inside = inside || within(param.outputs[i].data, param.outputs[i].size);
    }
    Raw raw = {record.layerId, record.outputIndex, record.stride, {}};
    raw.rows.resize(inside ? record.size / sizeof(float) : 0);
    if (!raw.rows.empty()) {
        std::memcpy(raw.rows.data(), begin, raw.rows.size() * sizeof(float));
    }
    raw_.push_back(std::move(raw));
}

// Dumps come in the order of the table; only a loop layer that goes on is left out.
bool DumpCollector::TakeNext(const ReadLayer& layer, uint32_t output, Raw* raw)
{
    if (taken_ == raw_.size() || raw_[taken_].layerId != layer.record.layerId || raw_[taken_].output != output) {
        return false;
    }
    *raw = std::move(raw_[taken_++]);
    return true;
}

void DumpCollector::EndPass(const StreamPass& pass)
{
    const ModelTable& table = *pass.pass.table;
    const std::vector<ReadLayer> layers =
        ReadLayerTable(model_.bytes.Span(), table.layerTableOffset, table.layerTableSize).layers;
    for (uint32_t item = 0; item < stream_.Request().Batch(); ++item) {
        for (uint32_t i = 0; i < layers.size(); ++i) {
            for (uint32_t output = 0; output < layers[i].outputs.size(); ++output) {
                if (Raw raw; TakeNext(layers[i], output, &raw)) {
                    Append(pass, i, layers[i], output, raw);
                }
            }
        }
    }
    raw_.clear();
    taken_ = 0;
}

void DumpCollector::Append(const StreamPass& pass, uint32_t layerIndex, const ReadLayer& layer, uint32_t output,
                           const Raw& raw)
{
    DumpedTensor fresh = {pass.request,
                          pass.pass.number,
                          pass.pass.table->segmentId,
                          layerIndex,
                          layer.record.layerId,
                          layer.name,
                          output,
                          0,
                          layer.outputs[output].shape,
                          {}};
    std::vector<float> values;
    try {
        values = CompactRows(raw.rows, fresh.shape, raw.stride);
    } catch (const BuildError& error) {
        throw ToolError(fmt::format("{}: {}", Describe(fresh), error.what()));
    }
    const auto same = [&](const DumpedTensor& tensor) {
        return tensor.request == fresh.request && tensor.pass == fresh.pass && tensor.layer == fresh.layer &&
               tensor.output == fresh.output;
    };
    auto found = std::find_if(tensors_.rbegin(), tensors_.rend(), same);
    if (found == tensors_.rend()) {
        tensors_.push_back(std::move(fresh));
        found = tensors_.rbegin();
    }
    ++found->items;
    found->values.insert(found->values.end(), values.begin(), values.end());
}

void SaveDump(const fs::path& path, const std::vector<DumpedTensor>& tensors)
{
    const fs::path directory = WithoutDetours(path);
    CheckReplaceable(directory);
    const HoldInterrupts hold;
    fs::path aside = directory;
    aside += ".new";
    try {
        fs::remove_all(aside);
        fs::create_directory(aside);
        ordered_json index = {{"format", kFormatName}, {"formatVersion", kFormatVersion}};
        index["tensors"] = ordered_json::array();
        for (const DumpedTensor& tensor : tensors) {
            SaveNpy(aside / FileNameOf(tensor), BatchedShape(tensor.shape, tensor.items), tensor.values);
            index["tensors"].push_back(IndexEntry(tensor));
        }
        WriteFile(aside / kIndexName, JsonText(index));
        CheckReplaceable(directory);
        fs::remove_all(directory);
        fs::rename(aside, directory);
    } catch (const FileError&) {
        std::error_code ignored;
        fs::remove_all(aside, ignored);
        throw;
    } catch (const fs::filesystem_error& error) {
        std::error_code ignored;
        fs::remove_all(aside, ignored);
        throw ToolError(fmt::format("{}: cannot be written: {}", directory.string(), error.code().message()));
    }
}

bool CompareWithDump(const fs::path& directory, const std::vector<DumpedTensor>& tensors)
{
    const std::vector<DumpedTensor> others = LoadDump(directory);
    size_t different = 0;
    size_t elements = 0;
    uint64_t largest = 0;
    bool nan = false;
    for (size_t i = 0; i < std::max(tensors.size(), others.size()); ++i) {
        if (i >= tensors.size() || i >= others.size() || !SamePlace(tensors[i], others[i])) {
            fmt::print("the runs part: {} here, {} in {}\n", i < tensors.size() ? Describe(tensors[i]) : "the end",
                       i < others.size() ? Describe(others[i]) : "the end", directory.string());
            return false;
        }
        const Difference difference = Compare(tensors[i].values, others[i].values);
        if (difference.elements != 0 && different++ == 0) {
            PrintFirst(tensors[i], others[i], difference.firstElement, directory);
        }
        elements += difference.elements;
        largest = std::max(largest, difference.largest);
        nan = nan || difference.nan;
    }
    if (different == 0) {
        fmt::print("all {} layer outputs are those in {}, bit for bit\n", tensors.size(), directory.string());
    } else {
        fmt::print("{} of {} layer outputs differ: elements {}, largest distance {} ulps{}\n", different,
                   tensors.size(), elements, largest, nan ? "; some are NaN on one side only" : "");
    }
    return different == 0;
}

}  // namespace opkit::tools
