// A model on disk: NAME.json, the manifest, and NAME.bin, the model buffer as it is. docs/model-format.md describes
// both.
#ifndef OPKIT_MODELKIT_MODEL_FILE_H
#define OPKIT_MODELKIT_MODEL_FILE_H

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>

#include "modelkit/model.h"

namespace opkit::modelkit {

inline constexpr int kModelFormatVersion = 1;

// Names the file, and the field or the byte offset where it is at fault.
struct ModelFileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// `path` is NAME, NAME.json or NAME.bin. Both files are written aside and renamed, the manifest last.
void SaveModel(const Model& model, const std::filesystem::path& path);

// Checks the manifest, the size and the CRC-32 of the buffer, and that every layer table can be read.
Model LoadModel(const std::filesystem::path& path);

// The CRC-32 of zip and PNG.
uint32_t Crc32(std::span<const std::byte> bytes);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_FILE_H
