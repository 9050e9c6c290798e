// opkit run --show: tensors as numbers.
#ifndef OPKIT_TOOLS_SHOW_H
#define OPKIT_TOOLS_SHOW_H

#include <span>
#include <string>

#include "modelkit/model.h"

namespace opkit::tools {

// Prints a line about all elements, and then the elements row by row; of many only the first and the last.
void ShowTensor(const std::string& name, const modelkit::Shape& shape, std::span<const float> values);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_SHOW_H
