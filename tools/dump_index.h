// A dump is a directory of .npy files and an index that says which is which; docs/tools.md describes it.
#ifndef OPKIT_TOOLS_DUMP_INDEX_H
#define OPKIT_TOOLS_DUMP_INDEX_H

#include <filesystem>
#include <string>
#include <vector>

#include "modelkit/model.h"

namespace opkit::tools {

inline constexpr const char* kDumpIndexName = "index.json";

// One output of one layer in one pass of one request.
struct DumpEntry {
    std::string file;  // in the dump's directory
    uint32_t request = 0;
    uint32_t firstItem = 0;
    uint32_t items = 0;
    uint32_t pass = 0;
    uint32_t segment = 0;
    uint32_t layer = 0;  // position in its table
    uint32_t layerId = 0;
    std::string operatorName;
    uint32_t output = 0;
    modelkit::Shape shape;  // of one item

    uint32_t EndItem() const { return firstItem + items; }
};

struct DumpedTensor {
    DumpEntry entry;
    std::vector<float> values;  // of all items, without padding
};

struct DumpIndex {
    std::vector<DumpEntry> entries;
    bool partial = false;     // holds some of a run's tensors, and that is meant
    bool incomplete = false;  // being replaced when its writer died
};

std::string Describe(const DumpEntry& entry);
std::string DumpFileName(const DumpEntry& entry);

// The index's text. An incomplete one says no more than which files are the dump's.
std::string DumpIndexText(const DumpIndex& index);

// Throws FileError where it is no dump's index, or names a file outside its directory.
DumpIndex ReadDumpIndex(const std::filesystem::path& directory);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_DUMP_INDEX_H
