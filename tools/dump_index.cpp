#include "tools/dump_index.h"

#include <fmt/core.h>

#include "modelkit/json_fields.h"
#include "tools/npy.h"
#include "tools/run_data.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::json;
using nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr const char* kFormatName = "opkit-dump";
constexpr uint32_t kFormatVersion = 1;

ordered_json EntryJson(const DumpEntry& entry)
{
    return {{"file", entry.file},     {"request", entry.request}, {"firstItem", entry.firstItem},
            {"items", entry.items},   {"pass", entry.pass},       {"segment", entry.segment},
            {"layer", entry.layer},   {"layerId", entry.layerId}, {"operator", entry.operatorName},
            {"output", entry.output}, {"shape", entry.shape}};
}

class IndexReader {
public:
    explicit IndexReader(const fs::path& directory)
        : directory_(directory), fields_(directory / kDumpIndexName, ReadFile(directory / kDumpIndexName))
    {
        fields_.CheckFormat(kFormatName, kFormatVersion);
    }

    DumpIndex Read() const
    {
        DumpIndex index;
        index.partial = Flag("partial");
        index.incomplete = Flag("incomplete");
        for (const json& entry : fields_.List(fields_.Root(), "", "tensors")) {
            const std::string path = fmt::format("tensors[{}].", index.entries.size());
            DumpEntry read;
            read.file = PlainFile(entry, path);
            if (!index.incomplete) {
                ReadPlace(entry, path, &read);
            }
            index.entries.push_back(std::move(read));
        }
        return index;
    }

private:
    bool Flag(const char* name) const
    {
        const json* const value = fields_.Optional(fields_.Root(), name);
        if (value != nullptr && !value->is_boolean()) {
            fields_.Fail(fmt::format("field {} is neither true nor false", name));
        }
        return value != nullptr && value->get<bool>();
    }

    // Nothing outside the directory is read, replaced or removed because an index says so.
    std::string PlainFile(const json& entry, const std::string& path) const
    {
        const std::string file = fields_.Text(entry, path, "file");
        if (file.empty() || file == "." || file == ".." || file.find('/') != std::string::npos ||
            file.find('\0') != std::string::npos || file == kDumpIndexName) {
            fields_.Fail(fmt::format("field {}file is no name of a file in that directory", path));
        }
        return file;
    }

    uint32_t NumberOr(const json& entry, const std::string& path, const char* name, uint32_t otherwise) const
    {
        return fields_.Optional(entry, name) != nullptr ? fields_.Number(entry, path, name) : otherwise;
    }

    void ReadPlace(const json& entry, const std::string& path, DumpEntry* read) const
    {
        read->layer = fields_.Number(entry, path, "layer");
        read->items = NumberOr(entry, path, "items", 1);
        read->request = NumberOr(entry, path, "request", 0);
        read->firstItem = NumberOr(entry, path, "firstItem", read->request * read->items);
        if (read->EndItem() < read->firstItem) {
            fields_.Fail(fmt::format("field {}items is {}, beyond 4294967295 with those before", path, read->items));
        }
        read->pass = NumberOr(entry, path, "pass", 0);
        read->segment = NumberOr(entry, path, "segment", 0);
        read->layerId = NumberOr(entry, path, "layerId", 0);
        read->output = NumberOr(entry, path, "output", 0);
        if (fields_.Optional(entry, "operator") != nullptr) {
            read->operatorName = fields_.Text(entry, path, "operator");
        }
        if (fields_.Optional(entry, "shape") != nullptr) {
            read->shape = fields_.Dimensions(entry, path);
            return;
        }
        read->shape = NpyReader(directory_ / read->file).shape();
        if (read->items != 1) {
            if (read->shape.empty() || read->shape.front() != read->items) {
                fields_.Fail(fmt::format("field {}items is {}, {} has shape {}", path, read->items, read->file,
                                         ShapeText(read->shape)));
            }
            read->shape.erase(read->shape.begin());
        }
    }

    fs::path directory_;
    JsonFields fields_;
};

}  // namespace

std::string Describe(const DumpEntry& entry)
{
    return fmt::format("request {}, pass {}, segment {}, layer {} ({}), output {} {}", entry.request, entry.pass,
                       entry.segment, entry.layer, entry.operatorName, entry.output,
                       ShapeText(BatchedShape(entry.shape, entry.items)));
}

std::string DumpFileName(const DumpEntry& entry)
{
    return fmt::format("r{}-p{}-s{}-l{:03}-o{}-{}.npy", entry.request, entry.pass, entry.segment, entry.layer,
                       entry.output, entry.operatorName);
}

std::string DumpIndexText(const DumpIndex& index)
{
    ordered_json text = {{"format", kFormatName}, {"formatVersion", kFormatVersion}};
    if (index.incomplete) {
        text["incomplete"] = true;
    }
    text["tensors"] = ordered_json::array();
    for (const DumpEntry& entry : index.entries) {
        text["tensors"].push_back(index.incomplete ? ordered_json{{"file", entry.file}} : EntryJson(entry));
    }
    return JsonText(text);
}

DumpIndex ReadDumpIndex(const fs::path& directory)
{
    return IndexReader(directory).Read();
}

}  // namespace opkit::tools
