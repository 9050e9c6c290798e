// The files of a run: NAME=FILE arguments, and the request tensors they become.
#ifndef OPKIT_TOOLS_RUN_DATA_H
#define OPKIT_TOOLS_RUN_DATA_H

#include <filesystem>
#include <string>
#include <vector>

#include "modelkit/model.h"
#include "tools/npy.h"

namespace opkit::tools {

struct NamedFile {
    std::string name;
    std::filesystem::path file;
};

// Whether an argument is of the form NAME=FILE.
bool IsNamedFile(const std::string& argument);

// Splits NAME=FILE arguments. Throws ToolError for a name that stands twice or is not among the tensors.
std::vector<NamedFile> NamedFiles(const std::vector<std::string>& arguments,
                                  const std::vector<modelkit::TensorSpec>& tensors, const char* side);

// The compact elements of all batch items, per request input or output.
struct RunData {
    uint32_t items = 0;
    std::vector<std::vector<float>> tensors;
};

// Throws where a file is missing for an input, or its shape is not that of one item or of several.
RunData LoadInputs(const modelkit::Model& model, const std::vector<NamedFile>& files);

// The items of one tensor, and how many they are. Throws where the shape is not that of one item or of several.
NpyArray LoadItems(const NamedFile& file, const modelkit::TensorSpec& tensor, const char* side, uint32_t* items);

// "1 batch item", "2 batch items".
std::string ItemsText(uint32_t items);

// The shape of so many items of a tensor: without a dimension for the items when there is one.
modelkit::Shape BatchedShape(const modelkit::Shape& shape, uint32_t items);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_RUN_DATA_H
