#include "modelkit/model_file.h"

#include <algorithm>
#include <array>
#include <unordered_set>

#include "modelkit/json_fields.h"
#include "modelkit/model_reader.h"
#include "opkit/records.h"

namespace opkit::modelkit {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kFormatName = "opkit-model";
constexpr uint64_t kMostManifestBytes = 64 << 20;

[[noreturn]] void Fail(const fs::path& file, const std::string& what)
{
    throw ModelFileError(file.string() + ": " + what);
}

// What the manifest says about the buffer, before a byte of it is read.
void CheckSize(const JsonFields& manifest, const fs::path& file, uint64_t actual)
{
    const uint32_t size = manifest.Number(manifest.Root(), "", "bufferSize");
    if (actual != size) {
        Fail(file, "has " + std::to_string(actual) + " bytes, field bufferSize of " +
                       manifest.File().filename().string() + " says " + std::to_string(size) + "; differs from byte " +
                       std::to_string(std::min<uint64_t>(actual, size)) + " on");
    }
    if (size > OPKIT_MAX_MODEL_SIZE) {
        manifest.Fail("field bufferSize is " + std::to_string(size) + ", a model buffer takes up to 1 GiB");
    }
}

void CheckCrc(const JsonFields& manifest, const fs::path& file, std::span<const std::byte> buffer)
{
    const uint32_t crc = manifest.Number(manifest.Root(), "", "bufferCrc32");
    if (Crc32(buffer) != crc) {
        Fail(file, "its CRC-32 is " + std::to_string(Crc32(buffer)) + ", field bufferCrc32 of " +
                       manifest.File().filename().string() + " says " + std::to_string(crc));
    }
}

void CheckSuccessors(const JsonFields& manifest, const Model& model)
{
    std::unordered_set<uint32_t> segments;
    for (const ModelTable& table : model.tables) {
        segments.insert(table.segmentId);
    }
    for (size_t i = 0; i < model.tables.size(); ++i) {
        if (model.tables[i].next && !segments.contains(*model.tables[i].next)) {
            manifest.Fail("field tables[" + std::to_string(i) + "].next is " + std::to_string(*model.tables[i].next) +
                          ", which no table has as its segmentId");
        }
    }
}

void ReadTables(const JsonFields& manifest, const fs::path& bufferFile, Model* model)
{
    uint64_t bytesRead = 0;
    for (const json& entry : manifest.List(manifest.Root(), "", "tables")) {
        const std::string path = "tables[" + std::to_string(model->tables.size()) + "].";
        model->tables.push_back({manifest.Number(entry, path, "segmentId"), manifest.Text(entry, path, "name"),
                                 manifest.Number(entry, path, "layerTableOffset"),
                                 manifest.Number(entry, path, "layerTableSize")});
        if (const json* next = manifest.Optional(entry, "next")) {
            model->tables.back().next = manifest.Number(*next, path + "next");
        }
        try {
            bytesRead += ReadLayerTable(*model, model->tables.size() - 1).bytesRead;
        } catch (const ModelError& error) {
            Fail(bufferFile, "where field " + path + "layerTableOffset leads: " + error.what());
        }
        if (bytesRead > MostBytesRead(model->bytes.size())) {
            manifest.Fail("field " + path + "layerTableOffset: the layers up to here read " +
                          std::to_string(bytesRead) + " bytes, more than four times the buffer and 4 MiB");
        }
    }
    if (model->tables.empty()) {
        manifest.Fail("field tables is empty");
    }
    CheckSuccessors(manifest, *model);
}

void ReadConstants(const JsonFields& manifest, Model* model)
{
    uint64_t total = 0;
    for (const json& entry : manifest.List(manifest.Root(), "", "constants")) {
        const std::string path = "constants[" + std::to_string(model->constants.size()) + "].";
        ModelConstant constant = {manifest.Text(entry, path, "name"), manifest.Number(entry, path, "offset"),
                                  manifest.Dimensions(entry, path)};
        uint64_t bytes = 0;
        try {
            bytes = ElementCount(constant.shape) * 4;
        } catch (const BuildError& error) {
            manifest.Fail("field " + path + "shape: " + error.what());
        }
        if (constant.offset % 4 != 0 || constant.offset + bytes > model->bytes.size()) {
            manifest.Fail("field " + path + "offset: bytes " + std::to_string(constant.offset) + " to " +
                          std::to_string(constant.offset + bytes) + " lie outside the buffer or off its words");
        }
        total += bytes;
        if (total > MostBytesRead(model->bytes.size())) {
            manifest.Fail("field " + path + "shape: the constants up to here hold " + std::to_string(total) +
                          " bytes, more than four times the buffer and 4 MiB");
        }
        model->constants.push_back(std::move(constant));
    }
}

Model ReadModel(const JsonFields& manifest, const fs::path& bufferFile, Buffer bytes)
{
    CheckCrc(manifest, bufferFile, bytes.Span());
    Model model;
    model.bytes = std::move(bytes);
    model.scratchSize = manifest.Number(manifest.Root(), "", "scratchSize");
    model.maxBatch = manifest.Number(manifest.Root(), "", "maxBatch");
    model.inputs = manifest.Tensors("inputs");
    model.outputs = manifest.Tensors("outputs");
    ReadTables(manifest, bufferFile, &model);
    ReadConstants(manifest, &model);
    return model;
}

}  // namespace

ModelPaths ModelPathsOf(fs::path path)
{
    if (path.extension() == ".json" || path.extension() == ".bin") {
        path.replace_extension();
    }
    ModelPaths paths = {path, path};
    paths.manifest += ".json";
    paths.buffer += ".bin";
    return paths;
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
        nlohmann::ordered_json entry = {{"segmentId", table.segmentId},
                                        {"name", table.name},
                                        {"layerTableOffset", table.layerTableOffset},
                                        {"layerTableSize", table.layerTableSize}};
        if (table.next) {
            entry["next"] = *table.next;
        }
        root["tables"].push_back(std::move(entry));
    }
    root["constants"] = json::array();
    for (const ModelConstant& constant : model.constants) {
        root["constants"].push_back({{"name", constant.name}, {"offset", constant.offset}, {"shape", constant.shape}});
    }
    return root.dump(2) + "\n";
}

uint32_t Crc32(std::span<const std::byte> bytes, uint32_t before)
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
    uint32_t crc = ~before;
    for (const std::byte byte : bytes) {
        crc = (crc >> 8) ^ table[(crc ^ static_cast<uint32_t>(byte)) & 0xff];
    }
    return ~crc;
}

void SaveModel(const Model& model, const fs::path& path)
{
    SaveModel(model, path, ManifestText(model));
}

void SaveModel(const Model& model, const fs::path& path, const std::string& manifest)
{
    const ModelPaths paths = ModelPathsOf(path);
    WriteFile(paths.buffer, {reinterpret_cast<const char*>(model.bytes.data()), model.bytes.size()});
    WriteFile(paths.manifest, manifest);
}

Model LoadModel(const fs::path& path)
{
    const ModelPaths paths = ModelPathsOf(path);
    const RegularFile manifestFile(paths.manifest);
    if (manifestFile.Size() > kMostManifestBytes) {
        Fail(paths.manifest, "has " + std::to_string(manifestFile.Size()) + " bytes, a manifest has up to 64 MiB");
    }
    std::string text(manifestFile.Size(), '\0');
    manifestFile.ReadInto(std::as_writable_bytes(std::span(text)));
    const RegularFile bufferFile(paths.buffer);
    const JsonFields manifest(paths.manifest, text);
    manifest.CheckFormat(kFormatName, kModelFormatVersion);
    CheckSize(manifest, paths.buffer, bufferFile.Size());
    Buffer bytes(bufferFile.Size());
    bufferFile.ReadInto(bytes.Span());
    return ReadModel(manifest, paths.buffer, std::move(bytes));
}

Model ParseModel(const ModelPaths& paths, const std::string& manifestText, const std::string& buffer)
{
    const JsonFields manifest(paths.manifest, manifestText);
    manifest.CheckFormat(kFormatName, kModelFormatVersion);
    CheckSize(manifest, paths.buffer, buffer.size());
    return ReadModel(manifest, paths.buffer, Buffer(std::as_bytes(std::span(buffer))));
}

}  // namespace opkit::modelkit
