#include "modelkit/model_file.h"

#include <array>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "modelkit/model_reader.h"
#include "opkit/records.h"

namespace opkit::modelkit {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kFormatName = "opkit-model";

struct ModelPaths {
    fs::path manifest;
    fs::path buffer;
};

ModelPaths PathsOf(fs::path path)
{
    if (path.extension() == ".json" || path.extension() == ".bin") {
        path.replace_extension();
    }
    ModelPaths paths = {path, path};
    paths.manifest += ".json";
    paths.buffer += ".bin";
    return paths;
}

[[noreturn]] void Fail(const fs::path& file, const std::string& what)
{
    throw ModelFileError(file.string() + ": " + what);
}

std::string ReadFile(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        Fail(file, "cannot be opened");
    }
    std::string text((std::istreambuf_iterator<char>(stream)), {});
    if (stream.bad()) {
        Fail(file, "cannot be read");
    }
    return text;
}

// Leaves either the old file or the whole new one.
void WriteFile(const fs::path& file, std::string_view content)
{
    fs::path aside = file;
    aside += ".new";
    std::ofstream stream(aside, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    std::error_code error;
    if (!stream) {
        fs::remove(aside, error);
        Fail(aside, "cannot be written");
    }
    fs::rename(aside, file, error);
    if (error) {
        const std::string reason = error.message();
        fs::remove(aside, error);
        Fail(file, "cannot be replaced: " + reason);
    }
}

// Reads fields of one manifest; every refusal names the file and the field's path.
class Manifest {
public:
    Manifest(const fs::path& file, const std::string& text) : file_(file)
    {
        try {
            root_ = json::parse(text);
        } catch (const json::parse_error& error) {
            Fail(file_, "no JSON at byte " + std::to_string(error.byte));
        }
    }

    const json& Root() const { return root_; }
    const fs::path& File() const { return file_; }

    const json& Field(const json& object, const std::string& path, const char* name) const
    {
        if (!object.is_object() || !object.contains(name)) {
            Fail(file_, "field " + path + name + " is missing");
        }
        return object.at(name);
    }

    uint32_t Number(const json& value, const std::string& path) const
    {
        if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
            Fail(file_, "field " + path + " is not a 32-bit unsigned number");
        }
        return value.get<uint32_t>();
    }
    uint32_t Number(const json& object, const std::string& path, const char* name) const
    {
        return Number(Field(object, path, name), path + name);
    }

    std::string Text(const json& object, const std::string& path, const char* name) const
    {
        const json& value = Field(object, path, name);
        if (!value.is_string()) {
            Fail(file_, "field " + path + name + " is not a string");
        }
        return value.get<std::string>();
    }

    const json& List(const json& object, const std::string& path, const char* name) const
    {
        const json& value = Field(object, path, name);
        if (!value.is_array()) {
            Fail(file_, "field " + path + name + " is not a list");
        }
        return value;
    }

    Shape Dimensions(const json& object, const std::string& path) const
    {
        Shape shape;
        for (const json& dim : List(object, path, "shape")) {
            shape.push_back(Number(dim, path + "shape"));
        }
        return shape;
    }

    std::vector<TensorSpec> Tensors(const char* name) const
    {
        std::vector<TensorSpec> specs;
        for (const json& entry : List(root_, "", name)) {
            const std::string path = std::string(name) + "[" + std::to_string(specs.size()) + "].";
            TensorSpec spec = {Text(entry, path, "name"), Dimensions(entry, path), Number(entry, path, "strideBytes")};
            if (spec.strideBytes == 0 || spec.strideBytes % 4 != 0) {
                Fail(file_, "field " + path + "strideBytes is not a positive multiple of 4");
            }
            try {
                PaddedBytes(spec.shape, spec.strideBytes);
            } catch (const BuildError& error) {
                Fail(file_, "field " + path + "shape: " + error.what());
            }
            specs.push_back(std::move(spec));
        }
        if (specs.empty()) {
            Fail(file_, "field " + std::string(name) + " is empty");
        }
        return specs;
    }

private:
    fs::path file_;
    json root_;
};

json TensorsToJson(const std::vector<TensorSpec>& specs)
{
    json list = json::array();
    for (const TensorSpec& spec : specs) {
        list.push_back(
            {{"name", spec.name}, {"shape", spec.shape}, {"strideBytes", StrideOf(spec.shape, spec.strideBytes)}});
    }
    return list;
}

std::string ManifestText(const Model& model)
{
    nlohmann::ordered_json root;
    root["format"] = kFormatName;
    root["formatVersion"] = kModelFormatVersion;
    root["bufferSize"] = model.bytes.size();
    root["bufferCrc32"] = Crc32(model.bytes.Span());
    root["scratchSize"] = model.scratchSize;
    root["maxBatch"] = model.maxBatch;
    root["inputs"] = TensorsToJson(model.inputs);
    root["outputs"] = TensorsToJson(model.outputs);
    root["tables"] = json::array();
    for (const ModelTable& table : model.tables) {
        root["tables"].push_back({{"segmentId", table.segmentId},
                                  {"name", table.name},
                                  {"layerTableOffset", table.layerTableOffset},
                                  {"layerTableSize", table.layerTableSize}});
    }
    root["constants"] = json::array();
    for (const ModelConstant& constant : model.constants) {
        root["constants"].push_back({{"name", constant.name}, {"offset", constant.offset}, {"shape", constant.shape}});
    }
    return root.dump(2) + "\n";
}

void ReadBuffer(const Manifest& manifest, const fs::path& file, Model* model)
{
    const std::string content = ReadFile(file);
    const uint32_t size = manifest.Number(manifest.Root(), "", "bufferSize");
    if (content.size() != size) {
        Fail(file, "has " + std::to_string(content.size()) + " bytes, field bufferSize of " +
                       manifest.File().filename().string() + " says " + std::to_string(size) + "; differs from byte " +
                       std::to_string(std::min<size_t>(content.size(), size)) + " on");
    }
    model->bytes = Buffer(std::as_bytes(std::span(content)));
    const uint32_t crc = manifest.Number(manifest.Root(), "", "bufferCrc32");
    if (Crc32(model->bytes.Span()) != crc) {
        Fail(file, "its CRC-32 is " + std::to_string(Crc32(model->bytes.Span())) + ", field bufferCrc32 of " +
                       manifest.File().filename().string() + " says " + std::to_string(crc));
    }
}

void ReadTables(const Manifest& manifest, const fs::path& bufferFile, Model* model)
{
    for (const json& entry : manifest.List(manifest.Root(), "", "tables")) {
        const std::string path = "tables[" + std::to_string(model->tables.size()) + "].";
        model->tables.push_back({manifest.Number(entry, path, "segmentId"), manifest.Text(entry, path, "name"),
                                 manifest.Number(entry, path, "layerTableOffset"),
                                 manifest.Number(entry, path, "layerTableSize")});
        try {
            ReadLayerTable(*model, model->tables.size() - 1);
        } catch (const ModelError& error) {
            Fail(bufferFile, "where field " + path + "layerTableOffset leads: " + error.what());
        }
    }
    if (model->tables.empty()) {
        Fail(manifest.File(), "field tables is empty");
    }
    for (const json& entry : manifest.List(manifest.Root(), "", "constants")) {
        const std::string path = "constants[" + std::to_string(model->constants.size()) + "].";
        ModelConstant constant = {manifest.Text(entry, path, "name"), manifest.Number(entry, path, "offset"),
                                  manifest.Dimensions(entry, path)};
        uint64_t bytes = 0;
        try {
            bytes = ElementCount(constant.shape) * 4;
        } catch (const BuildError& error) {
            Fail(manifest.File(), "field " + path + "shape: " + error.what());
        }
        if (constant.offset % 4 != 0 || constant.offset + bytes > model->bytes.size()) {
            Fail(manifest.File(), "field " + path + "offset: bytes " + std::to_string(constant.offset) + " to " +
                                      std::to_string(constant.offset + bytes) +
                                      " lie outside the buffer or off its words");
        }
        model->constants.push_back(std::move(constant));
    }
}

}  // namespace

uint32_t Crc32(std::span<const std::byte> bytes)
{
    static const auto table = [] {
        std::array<uint32_t, 256> entries = {};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t entry = i;
            for (int bit = 0; bit < 8; ++bit) {
                entry = (entry >> 1) ^ ((entry & 1) != 0 ? 0xedb88320U : 0U);
            }
            entries[i] = entry;
        }
        return entries;
    }();
    uint32_t crc = 0xffffffff;
    for (const std::byte byte : bytes) {
        crc = (crc >> 8) ^ table[(crc ^ static_cast<uint32_t>(byte)) & 0xff];
    }
    return ~crc;
}

void SaveModel(const Model& model, const fs::path& path)
{
    const ModelPaths paths = PathsOf(path);
    WriteFile(paths.buffer, {reinterpret_cast<const char*>(model.bytes.data()), model.bytes.size()});
    WriteFile(paths.manifest, ManifestText(model));
}

Model LoadModel(const fs::path& path)
{
    const ModelPaths paths = PathsOf(path);
    const Manifest manifest(paths.manifest, ReadFile(paths.manifest));
    if (manifest.Text(manifest.Root(), "", "format") != kFormatName) {
        Fail(paths.manifest, "field format is not \"" + std::string(kFormatName) + "\"");
    }
    if (const uint32_t version = manifest.Number(manifest.Root(), "", "formatVersion");
        version != kModelFormatVersion) {
        Fail(paths.manifest, "field formatVersion is " + std::to_string(version) + ", this program reads " +
                                 std::to_string(kModelFormatVersion));
    }
    Model model;
    model.scratchSize = manifest.Number(manifest.Root(), "", "scratchSize");
    model.maxBatch = manifest.Number(manifest.Root(), "", "maxBatch");
    model.inputs = manifest.Tensors("inputs");
    model.outputs = manifest.Tensors("outputs");
    ReadBuffer(manifest, paths.buffer, &model);
    ReadTables(manifest, paths.buffer, &model);
    return model;
}

}  // namespace opkit::modelkit
