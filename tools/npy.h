// Arrays of f32 in .npy files.
#ifndef OPKIT_TOOLS_NPY_H
#define OPKIT_TOOLS_NPY_H

#include <filesystem>
#include <fstream>
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

// Reads parts of a file. Throws as LoadNpy does.
class NpyReader {
public:
    explicit NpyReader(const std::filesystem::path& file);
    const modelkit::Shape& shape() const { return shape_; }
    std::vector<float> Read(size_t first, size_t count);

private:
    std::filesystem::path file_;
    std::ifstream stream_;
    modelkit::Shape shape_;
    size_t begin_ = 0;  // of the elements
};

void SaveNpy(const std::filesystem::path& file, const modelkit::Shape& shape, std::span<const float> values);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_NPY_H
