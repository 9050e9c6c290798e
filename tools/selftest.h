// opkit run --selftest: layers of every operator at every level that the machine has, and one hash per operator.
#ifndef OPKIT_TOOLS_SELFTEST_H
#define OPKIT_TOOLS_SELFTEST_H

#include <string>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::tools {

struct SelftestLayer {
    std::string operatorName;
    modelkit::Model model;
    std::vector<std::vector<float>> inputs;  // compact
};

// Small and always the same; of all operators but Custom, which runs code of the user's own.
std::vector<SelftestLayer> SelftestLayers();

// Prints, and tells whether all levels leave the same bits. `forward` runs at the level that OverrideLevel chose.
bool Selftest(const std::vector<SelftestLayer>& layers, uint32_t (*forward)(ForwardParam*));

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_SELFTEST_H
