// A model on disk: NAME.json, the manifest, and NAME.bin, the model buffer as it is. docs/model-buffer.md describes
// both.
#ifndef OPKIT_MODELKIT_MODEL_FILE_H
#define OPKIT_MODELKIT_MODEL_FILE_H

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "modelkit/file_io.h"
#include "modelkit/model.h"

namespace opkit::modelkit {

inline constexpr uint32_t kModelFormatVersion = 1;

using ModelFileError = FileError;

struct ModelPaths {
    std::filesystem::path manifest;
    std::filesystem::path buffer;
};

// `path` is NAME, NAME.json or NAME.bin.
ModelPaths ModelPathsOf(std::filesystem::path path);

// Both files are written aside and renamed, the manifest last. `path` as above. Throws ModelFileError.
void SaveModel(const Model& model, const std::filesystem::path& path);
// The same with a manifest text of one's own.
void SaveModel(const Model& model, const std::filesystem::path& path, const std::string& manifest);
std::string ManifestText(const Model& model);

// Checks the manifest, the size and the CRC-32 of the buffer, and that every layer table can be read. Throws
// ModelFileError, which names the file and the field. Both are regular files; a manifest has up to 64 MiB, and what the
// layers of all tables read together is limited, see MostBytesRead.
Model LoadModel(const std::filesystem::path& path);
// The same with the contents of the two files; the paths only name them in errors.
Model ParseModel(const ModelPaths& paths, const std::string& manifest, const std::string& buffer);

// The CRC-32 of zip and PNG. A second piece goes on from the first one's.
uint32_t Crc32(std::span<const std::byte> bytes, uint32_t before = 0);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_FILE_H
