// Reads a layer's records out of the buffer: offsets, sizes, alignment, the name, and where every tensor lies.
#ifndef OPKIT_MODELKIT_CHECK_STRUCTURE_H
#define OPKIT_MODELKIT_CHECK_STRUCTURE_H

#include <string>
#include <vector>

#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {

// A range of the buffer that the library reads as structure.
struct StructureRange {
    uint64_t begin = 0;
    uint64_t end = 0;
    int owner = 0;  // number of the layer among all tables
    bool isState = false;
    const char* what = "";
};

// The layers of a table whose header is sound; throws Refused.
uint32_t CheckTableHeader(const ModelView& model, const ModelTable& table, std::vector<StructureRange>* ranges);

// Throws Refused at the first thing that is wrong. Adds the ranges that it reads, but for the operator's own
// attributes.
Layer ReadLayer(const ModelView& model, const ModelTable& table, uint32_t index, int owner,
                std::vector<StructureRange>* ranges);

// Refuses writes that fall on structure.
class WriteMap {
public:
    explicit WriteMap(std::vector<StructureRange> ranges);
    // Null, or a range that `write` of layer `owner` would alter.
    const StructureRange* Hit(const ModelWrite& write, int owner) const;

private:
    std::vector<StructureRange> ranges_;  // by begin
    std::vector<uint64_t> reach_;         // the furthest end up to each
};

}  // namespace opkit::modelkit::check

#endif  // OPKIT_MODELKIT_CHECK_STRUCTURE_H
