#include "tools/run_data.h"

#include <fmt/core.h>
#include <algorithm>

#include "modelkit/file_io.h"
#include "opkit/records.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

std::string Names(const std::vector<TensorSpec>& tensors)
{
    std::string names;
    for (const TensorSpec& tensor : tensors) {
        names += (names.empty() ? "" : ", ") + tensor.name;
    }
    return names;
}

const NamedFile* Find(const std::vector<NamedFile>& files, const std::string& name)
{
    const auto found =
        std::find_if(files.begin(), files.end(), [&](const NamedFile& file) { return file.name == name; });
    return found == files.end() ? nullptr : &*found;
}

// How many items of `item` the shape holds; 0 where it does not fit. An item may be written without the ones it begins
// with, behind any dimensions that count items, or with its first dimension so many times: [8, 2, 3], [2, 4, 2, 3] and
// [16, 3] all hold eight of [2, 3], and [8, 28, 28] eight of [1, 1, 28, 28].
uint32_t ItemsIn(const Shape& shape, const Shape& item)
{
    const auto core = std::find_if(item.begin(), item.end(), [](uint32_t dim) { return dim != 1; });
    const auto rank = item.end() - core;
    if (static_cast<ptrdiff_t>(shape.size()) >= rank && std::equal(core, item.end(), shape.end() - rank)) {
        return static_cast<uint32_t>(ElementCount(Shape(shape.begin(), shape.end() - rank)));
    }
    if (!item.empty() && shape.size() == item.size() && std::equal(item.begin() + 1, item.end(), shape.begin() + 1) &&
        item.front() != 0 && shape.front() % item.front() == 0) {
        return shape.front() / item.front();
    }
    return 0;
}

}  // namespace

bool IsNamedFile(const std::string& argument)
{
    const size_t equals = argument.find('=');
    return equals != std::string::npos && equals != 0 && equals + 1 != argument.size();
}

std::vector<NamedFile> NamedFiles(const std::vector<std::string>& arguments, const std::vector<TensorSpec>& tensors,
                                  const char* side)
{
    std::vector<NamedFile> files;
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        if (std::none_of(tensors.begin(), tensors.end(), [&](const TensorSpec& t) { return t.name == name; })) {
            throw ToolError(fmt::format("the model has no {} named \"{}\"; it has {}", side, name, Names(tensors)));
        }
        if (Find(files, name) != nullptr) {
            throw ToolError(fmt::format("{} \"{}\" is given twice", side, name));
        }
        const std::filesystem::path file = argument.substr(equals + 1);
        std::error_code ignored;
        const auto reached = [&](const std::filesystem::path& path) {
            return std::filesystem::weakly_canonical(std::filesystem::absolute(FollowLinks(path)), ignored);
        };
        const auto same = [&](const NamedFile& other) { return reached(other.file) == reached(file); };
        const bool keepsBoth = std::string_view(side) != "output" || std::filesystem::is_character_file(file, ignored);
        if (!keepsBoth && std::any_of(files.begin(), files.end(), same)) {
            throw ToolError(fmt::format("{}: is to take two outputs", file.string()));
        }
        files.push_back({name, file});
    }
    return files;
}

std::string ItemsText(uint32_t items)
{
    return fmt::format("{} batch item{}", items, items == 1 ? "" : "s");
}

NpyArray LoadItems(const NamedFile& file, const TensorSpec& tensor, const char* side, uint32_t* items)
{
    NpyArray array = LoadNpy(file.file);
    *items = ItemsIn(array.shape, tensor.shape);
    if (*items == 0) {
        throw ToolError(fmt::format("{}: field shape is {}, {} \"{}\" takes {} or a batch of it", file.file.string(),
                                    ShapeText(array.shape), side, tensor.name, ShapeText(tensor.shape)));
    }
    // Without elements a file of no length could claim any number.
    if (array.values.empty() && *items > OPKIT_MAX_BATCH) {
        throw ToolError(fmt::format("{}: field shape is {}, {} without elements, of which one request takes up to 256",
                                    file.file.string(), ShapeText(array.shape), ItemsText(*items)));
    }
    return array;
}

RunData LoadInputs(const Model& model, const std::vector<NamedFile>& files)
{
    RunData data;
    std::string first;
    for (const TensorSpec& tensor : model.inputs) {
        const NamedFile* const file = Find(files, tensor.name);
        if (file == nullptr) {
            throw ToolError(fmt::format("input \"{0}\" {1} has no file: give --input {0}=FILE.npy", tensor.name,
                                        ShapeText(tensor.shape)));
        }
        uint32_t items = 0;
        NpyArray array = LoadItems(*file, tensor, "input", &items);
        if (!first.empty() && items != data.items) {
            throw ToolError(fmt::format("{}: field shape is {}, {}, but input \"{}\" has {}", file->file.string(),
                                        ShapeText(array.shape), ItemsText(items), first, data.items));
        }
        first = tensor.name;
        data.items = items;
        data.tensors.push_back(std::move(array.values));
    }
    return data;
}

Shape BatchedShape(const Shape& shape, uint32_t items)
{
    Shape batched = shape;
    if (items != 1) {
        batched.insert(batched.begin(), items);
    }
    return batched;
}

}  // namespace opkit::tools
