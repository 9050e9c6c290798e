// Arrays of f32 in .npy files.
#ifndef OPKIT_TOOLS_NPY_H
#define OPKIT_TOOLS_NPY_H

#include <filesystem>
#include <span>
#include <vector>

#include "modelkit/model.h"

namespace opkit::tools {

struct NpyArray {
    modelkit::Shape shape;
    std::vector<float> values;
};

// Throws FileError, which names the file and the field, for anything but little-endian f32 in C order.
NpyArray LoadNpy(const std::filesystem::path& file);
void SaveNpy(const std::filesystem::path& file, const modelkit::Shape& shape, std::span<const float> values);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_NPY_H
