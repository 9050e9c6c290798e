// Compares a run with what lies in files: every layer's outputs with a dump, or the model's outputs with .npy files.
#ifndef OPKIT_TOOLS_COMPARISON_H
#define OPKIT_TOOLS_COMPARISON_H

#include <filesystem>
#include <map>
#include <optional>
#include <tuple>
#include <vector>

#include "tools/difference.h"
#include "tools/dump_index.h"
#include "tools/run_data.h"

namespace opkit::tools {

// Item by item, whatever batches the two runs were made in.
class DumpComparison {
public:
    // Throws where there is no dump to compare with.
    DumpComparison(const std::filesystem::path& directory, double tolerance);

    // Takes the run's tensors as they come. Returns how this one differs, or nothing where the dump has none of it.
    std::optional<Difference> Add(const DumpedTensor& tensor);
    // In words: where it is, and both values; empty where nothing differs so far.
    const std::string& FirstDifference() const { return first_; }
    // Prints the first difference and the sum, and tells whether nothing differs.
    bool Finish() const;

private:
    using Place = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;  // pass, segment, layer, output
    struct Piece {
        const DumpEntry* entry;
        uint32_t compared = 0;  // items
    };
    Difference ComparePiece(const DumpedTensor& tensor, Piece* piece, uint32_t begin, uint32_t end);
    std::vector<float> Load(const DumpEntry& entry, const modelkit::Shape& shape, uint32_t begin, uint32_t end) const;

    std::filesystem::path directory_;
    double tolerance_;
    DumpIndex index_;
    std::map<Place, std::vector<Piece>> pieces_;
    size_t tensors_ = 0;
    size_t different_ = 0;
    Difference sum_;
    std::string first_;     // difference
    std::string onlyHere_;  // the first tensor with items that the dump has not
};

// The same for the model's outputs. The files hold as many items as the run.
bool CompareOutputs(const modelkit::Model& model, const RunData& outputs, const std::vector<NamedFile>& files,
                    double tolerance);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_COMPARISON_H
