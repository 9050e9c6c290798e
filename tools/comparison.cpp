#include "tools/comparison.h"

#include <fmt/core.h>
#include <algorithm>

#include "tools/command.h"
#include "tools/npy.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
namespace fs = std::filesystem;

std::string FirstText(const std::string& where, const Shape& shape, size_t element, float here, float there,
                      const fs::path& source)
{
    return fmt::format("first difference: {}, element {}\n  {} here, {} in {}: {}\n", where,
                       ElementText(shape, element), here, there, source.string(), DistanceText(here, there));
}

}  // namespace

DumpComparison::DumpComparison(const fs::path& directory, double tolerance)
    : directory_(directory), tolerance_(tolerance), index_(ReadDumpIndex(directory))
{
    if (index_.incomplete) {
        throw ToolError(fmt::format("{}: the run that wrote it was killed; dump once more", directory.string()));
    }
    for (const DumpEntry& entry : index_.entries) {
        const fs::path file = directory / entry.file;
        const Shape shape = NpyReader(file).shape();
        const Shape stated = BatchedShape(entry.shape, entry.items);
        if (shape != stated) {
            throw ToolError(fmt::format("{}: field shape is {}, {} says {}", file.string(), ShapeText(shape),
                                        (directory / kDumpIndexName).string(), ShapeText(stated)));
        }
        pieces_[{entry.pass, entry.segment, entry.layer, entry.output}].push_back({&entry});
    }
}

// The items from `begin` to `end`, which both have.
Difference DumpComparison::ComparePiece(const DumpedTensor& tensor, Piece* piece, uint32_t begin, uint32_t end)
{
    const DumpEntry& entry = tensor.entry;
    const size_t itemSize = ElementCount(entry.shape);
    const size_t offset = (begin - entry.firstItem) * itemSize;
    const std::vector<float> there = NpyReader(directory_ / piece->entry->file)
                                         .Read((begin - piece->entry->firstItem) * itemSize, (end - begin) * itemSize);
    const auto here = std::span(tensor.values).subspan(offset, there.size());
    Difference difference = Compare(here, there, tolerance_);
    if (difference.elements != 0 && sum_.elements == 0) {
        const size_t first = difference.firstElement;
        first_ = FirstText(Describe(entry), BatchedShape(entry.shape, entry.items), offset + first, here[first],
                           there[first], directory_);
    }
    sum_.Add(difference);
    piece->compared += end - begin;
    difference.firstElement += offset;
    return difference;
}

std::optional<Difference> DumpComparison::Add(const DumpedTensor& tensor)
{
    const DumpEntry& entry = tensor.entry;
    Difference all;
    uint32_t found = 0;
    for (Piece& piece : pieces_[{entry.pass, entry.segment, entry.layer, entry.output}]) {
        const uint32_t begin = std::max(entry.firstItem, piece.entry->firstItem);
        const uint32_t end = std::min(entry.EndItem(), piece.entry->EndItem());
        if (begin < end && piece.entry->shape == entry.shape) {
            const Difference difference = ComparePiece(tensor, &piece, begin, end);
            all.firstElement = all.elements == 0 ? difference.firstElement : all.firstElement;
            all.Add(difference);
            found += end - begin;
        }
    }
    if (found < entry.items && !(index_.partial && found == 0) && onlyHere_.empty()) {
        onlyHere_ = Describe(entry);
    }
    tensors_ += found == 0 ? 0 : 1;
    different_ += all.elements == 0 ? 0 : 1;
    return found == 0 ? std::nullopt : std::optional(all);
}

bool DumpComparison::Finish() const
{
    std::string onlyThere;
    for (const auto& [place, pieces] : pieces_) {
        for (const Piece& piece : pieces) {
            if (onlyThere.empty() && piece.compared != piece.entry->items) {
                onlyThere = Describe(*piece.entry);
            }
        }
    }
    const std::string directory = directory_.string();
    if (!onlyHere_.empty() || !onlyThere.empty()) {
        fmt::print("the runs part: {} here, {} in {}\n", onlyHere_.empty() ? "nothing more" : onlyHere_,
                   onlyThere.empty() ? "nothing more" : onlyThere, directory);
    }
    if (different_ != 0) {
        fmt::print("{}{} of {} layer outputs differ: {}\n", first_, different_, tensors_, DifferenceText(sum_));
    } else if (onlyHere_.empty() && onlyThere.empty()) {
        fmt::print("all {} layer outputs are those in {}, {}\n", tensors_, directory, AgreementText(sum_, tolerance_));
    }
    return different_ == 0 && onlyHere_.empty() && onlyThere.empty();
}

bool CompareOutputs(const Model& model, const RunData& outputs, const std::vector<NamedFile>& files, double tolerance)
{
    bool same = true;
    for (const NamedFile& file : files) {
        const size_t i = model.OutputIndex(file.name);
        uint32_t items = 0;
        const NpyArray there = LoadItems(file, model.outputs[i], "output", &items);
        if (items != outputs.items) {
            throw ToolError(fmt::format("{}: field shape is {}, {}, but the run has {}", file.file.string(),
                                        ShapeText(there.shape), ItemsText(items), outputs.items));
        }
        const std::vector<float>& here = outputs.tensors[i];
        const Difference difference = Compare(here, there.values, tolerance);
        if (difference.elements == 0) {
            fmt::print("output {} is that in {}, {}\n", file.name, file.file.string(),
                       AgreementText(difference, tolerance));
            continue;
        }
        same = false;
        const size_t first = difference.firstElement;
        fmt::print("{}output {} differs: {}\n",
                   FirstText("output " + file.name, BatchedShape(model.outputs[i].shape, outputs.items), first,
                             here[first], there.values[first], file.file),
                   file.name, DifferenceText(difference));
    }
    return same;
}

}  // namespace opkit::tools
