// Who uses which bytes of the scratch buffer, and when, within one layer table.
#ifndef OPKIT_TOOLS_SCRATCH_MAP_H
#define OPKIT_TOOLS_SCRATCH_MAP_H

#include <cstdint>
#include <string>
#include <vector>

#include "modelkit/model_reader.h"

namespace opkit::tools {

// A tensor from the layer that writes it to the last one that reads it, or a layer's work space. What is read without
// having been written in the table counts from its first layer.
struct ScratchUse {
    uint64_t begin = 0;
    uint64_t end = 0;
    uint32_t firstLayer = 0;
    uint32_t lastLayer = 0;
    std::string what;
};

// Two uses that share bytes while both count. In place: one layer reads the first and writes the second over it.
struct ScratchOverlap {
    size_t first = 0;  // positions among the uses
    size_t second = 0;
    uint64_t begin = 0;
    uint64_t end = 0;
    bool inPlace = false;
};

// Overlaps that a map lists; uses in their thousands that all lie over one another have millions.
inline constexpr size_t kMostOverlaps = 1000;

struct ScratchMap {
    std::vector<ScratchUse> uses;  // by begin, then by layer
    std::vector<ScratchOverlap> overlaps;
    bool moreOverlaps = false;
    uint64_t peakBytes = 0;  // most bytes in use at one layer; shared ones count once
    uint32_t peakLayer = 0;
    uint64_t reach = 0;  // end of the highest use
};

ScratchMap MapScratch(const modelkit::ReadTable& table, uint32_t maxBatch);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_SCRATCH_MAP_H
