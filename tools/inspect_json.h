// What opkit inspect shows, for programs.
#ifndef OPKIT_TOOLS_INSPECT_JSON_H
#define OPKIT_TOOLS_INSPECT_JSON_H

#include <nlohmann/json.hpp>

#include "modelkit/model.h"

namespace opkit::tools {

// The model without its data, with the place of every record and each table's scratch map.
nlohmann::ordered_json InspectionJson(const modelkit::Model& model);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_INSPECT_JSON_H
