// What the library needs of a layer's records besides that they lie in the buffer: that the operator exists and finds
// all of its attributes, and where every tensor lies in the request.
#ifndef OPKIT_MODELKIT_CHECK_STRUCTURE_H
#define OPKIT_MODELKIT_CHECK_STRUCTURE_H

#include <vector>

#include "modelkit/check/layer_check.h"
#include "modelkit/model_reader.h"

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
uint32_t CheckTableHeader(const ModelView& model, const ModelTable& table, LayerReader* reader,
                          std::vector<StructureRange>* ranges);

// Throws Refused at the first thing that is wrong. Adds the ranges that the library reads of a sound layer, but for the
// operator's own attributes.
Layer CheckStructure(const ModelView& model, const ModelTable& table, uint32_t index, int owner, LayerReader* reader,
                     std::vector<StructureRange>* ranges);

// Refuses writes that fall on structure.
class WriteMap {
public:
    explicit WriteMap(std::vector<StructureRange> ranges);
    // Null, or a range that `write` of layer `owner` would alter.
    const StructureRange* Hit(const ModelWrite& write, int owner) const;

private:
    size_t LastReaching(size_t end, uint64_t at) const;

    std::vector<StructureRange> ranges_;  // by begin
    // A tree over the ranges: the furthest end below each node. Node n has the children 2n and 2n + 1; there is
    // at least one leaf more than ranges.
    std::vector<uint64_t> reach_;
    size_t leaves_ = 1;
};

}  // namespace opkit::modelkit::check

#endif  // OPKIT_MODELKIT_CHECK_STRUCTURE_H
