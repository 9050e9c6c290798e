// Files are written by xtensor. They are read by hand: its reader trusts the sizes that a file states.

#include "tools/npy.h"

#include <charconv>
#include <cstring>
#include <regex>
#include <xtensor/xadapt.hpp>
#include <xtensor/xnpy.hpp>

#include "modelkit/file_io.h"

namespace opkit::tools {
namespace {

using modelkit::FileError;
using modelkit::Shape;
namespace fs = std::filesystem;

constexpr size_t kFixedHead = 10;  // magic, version, length of the header

[[noreturn]] void Fail(const fs::path& file, const std::string& what)
{
    throw FileError(file.string() + ": " + what);
}

uint32_t LittleEndian(const std::string& content, size_t at, size_t bytes)
{
    uint32_t value = 0;
    for (size_t i = bytes; i-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(content[at + i]);
    }
    return value;
}

// Where the header ends and the elements begin.
size_t HeaderEnd(const fs::path& file, const std::string& content, size_t* begin)
{
    if (content.size() < kFixedHead || content.compare(0, 6, "\x93NUMPY") != 0) {
        Fail(file, "is no .npy file");
    }
    const bool wide = content[6] >= 2;
    *begin = wide ? kFixedHead + 2 : kFixedHead;
    const size_t end = content.size() < *begin ? SIZE_MAX : *begin + LittleEndian(content, 8, wide ? 4 : 2);
    if (end > content.size()) {
        Fail(file, "ends within its header");
    }
    return end;
}

Shape ShapeOf(const fs::path& file, const std::string& list)
{
    Shape shape;
    const std::regex number("[0-9]+");
    for (std::sregex_iterator dim(list.begin(), list.end(), number), end; dim != end; ++dim) {
        const std::string digits = dim->str();
        uint32_t value = 0;
        if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec != std::errc()) {
            Fail(file, "field shape: a dimension of " + digits + " is too large");
        }
        shape.push_back(value);
    }
    return shape;
}

// The shape that the header states, once everything else in it is as wanted.
Shape CheckHeader(const fs::path& file, const std::string& header)
{
    static const std::regex form(R"(\{'descr': *'([^']*)', *'fortran_order': *(True|False), *'shape': *\(([0-9, ]*)\),? *\}\s*)");
    std::smatch match;
    if (!std::regex_match(header, match, form)) {
        Fail(file, "its header is not that of a plain array");
    }
    if (match[1] != "<f4") {
        Fail(file, "field descr is '" + match[1].str() + "', the elements must be '<f4' (numpy.float32)");
    }
    if (match[2] != "False") {
        Fail(file, "field fortran_order is True, the elements must be in C order");
    }
    return ShapeOf(file, match[3]);
}

}  // namespace

NpyArray LoadNpy(const fs::path& file)
{
    const std::string content = modelkit::ReadFile(file);
    size_t begin = 0;
    const size_t end = HeaderEnd(file, content, &begin);
    NpyArray array;
    array.shape = CheckHeader(file, content.substr(begin, end - begin));
    uint64_t count = 0;
    try {
        count = modelkit::ElementCount(array.shape);
    } catch (const modelkit::BuildError& error) {
        Fail(file, std::string("field shape: ") + error.what());
    }
    if (content.size() - end != count * sizeof(float)) {
        Fail(file, "has " + std::to_string(content.size() - end) + " bytes of elements, field shape " +
                       modelkit::ShapeText(array.shape) + " takes " + std::to_string(count * sizeof(float)));
    }
    array.values.resize(count);
    std::memcpy(array.values.data(), content.data() + end, count * sizeof(float));
    return array;
}

void SaveNpy(const fs::path& file, const Shape& shape, std::span<const float> values)
{
    const std::vector<size_t> dims(shape.begin(), shape.end());
    modelkit::WriteFile(file, xt::dump_npy(xt::adapt(values.data(), values.size(), xt::no_ownership(), dims)));
}

}  // namespace opkit::tools
