// Files are written by xtensor. They are read by hand: its reader trusts the sizes that a file states.

#include "tools/npy.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <xtensor/xadapt.hpp>
#include <xtensor/xnpy.hpp>

#include "modelkit/file_io.h"

namespace opkit::tools {
namespace {

using modelkit::FileError;
using modelkit::Shape;
namespace fs = std::filesystem;

constexpr size_t kFixedHead = 10;  // magic, version, length of the header
constexpr size_t kLongestHead = 1 << 17;

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

// Walks over a header's text, from token to token; spaces do not count.
class HeaderText {
public:
    explicit HeaderText(std::string_view text) : rest_(text) {}

    bool Take(std::string_view token)
    {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size()));
        if (!rest_.starts_with(token)) {
            return false;
        }
        rest_.remove_prefix(token.size());
        return true;
    }
    std::string_view Until(char end)
    {
        const std::string_view text = rest_.substr(0, rest_.find(end));
        rest_.remove_prefix(text.size());
        return text;
    }

private:
    std::string_view rest_;
};

struct Header {
    std::string_view descr;
    std::string_view fortranOrder;
    std::string_view shape;  // between the parentheses
};

// {'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }
bool ParseHeader(std::string_view line, Header* header)
{
    HeaderText text(line);
    if (!text.Take("{") || !text.Take("'descr'") || !text.Take(":") || !text.Take("'")) {
        return false;
    }
    header->descr = text.Until('\'');
    if (!text.Take("'") || !text.Take(",") || !text.Take("'fortran_order'") || !text.Take(":") || !text.Take("")) {
        return false;
    }
    header->fortranOrder = text.Until(',');
    if (!text.Take(",") || !text.Take("'shape'") || !text.Take(":") || !text.Take("(")) {
        return false;
    }
    header->shape = text.Until(')');
    const bool closed = text.Take(")");
    text.Take(",");
    return closed && text.Take("}") && text.Take("\n");
}

Shape ShapeOf(const fs::path& file, std::string_view list)
{
    Shape shape;
    constexpr std::string_view kDigits = "0123456789";
    if (list.find_first_not_of("0123456789, ") != std::string_view::npos) {
        Fail(file, "field shape is (" + std::string(list) + ")");
    }
    while ((list = list.substr(std::min(list.find_first_of(kDigits), list.size()))).size() != 0) {
        const std::string_view digits = list.substr(0, list.find_first_not_of(kDigits));
        uint32_t value = 0;
        if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec != std::errc()) {
            Fail(file, "field shape: a dimension of " + std::string(digits) + " is too large");
        }
        shape.push_back(value);
        list.remove_prefix(digits.size());
    }
    return shape;
}

// The shape that the header states, once everything else in it is as wanted.
Shape CheckHeader(const fs::path& file, std::string_view line)
{
    Header header;
    if (!ParseHeader(line, &header)) {
        Fail(file, "its header is not that of a plain array");
    }
    if (header.descr != "<f4") {
        Fail(file, "field descr is '" + std::string(header.descr) + "', the elements must be '<f4' (numpy.float32)");
    }
    if (header.fortranOrder != "False") {
        Fail(file, "field fortran_order is " + std::string(header.fortranOrder) + ", the elements must be in C order");
    }
    return ShapeOf(file, header.shape);
}

// Checks the header against the bytes of elements behind it. `content` begins as the file does.
Shape CheckContent(const fs::path& file, const std::string& content, uint64_t fileSize, size_t* end)
{
    size_t begin = 0;
    *end = HeaderEnd(file, content, &begin);
    const Shape shape = CheckHeader(file, std::string_view(content).substr(begin, *end - begin));
    uint64_t count = 0;
    try {
        count = modelkit::ElementCount(shape);
    } catch (const modelkit::BuildError& error) {
        Fail(file, std::string("field shape: ") + error.what());
    }
    if (fileSize - *end != count * sizeof(float)) {
        Fail(file, "has " + std::to_string(fileSize - *end) + " bytes of elements, field shape " +
                       modelkit::ShapeText(shape) + " takes " + std::to_string(count * sizeof(float)));
    }
    return shape;
}

}  // namespace

NpyArray LoadNpy(const fs::path& file)
{
    const std::string content = modelkit::ReadFile(file);
    size_t end = 0;
    NpyArray array;
    array.shape = CheckContent(file, content, content.size(), &end);
    array.values.resize((content.size() - end) / sizeof(float));
    if (!array.values.empty()) {
        std::memcpy(array.values.data(), content.data() + end, content.size() - end);
    }
    return array;
}

NpyReader::NpyReader(const fs::path& file) : file_(file), stream_(file, std::ios::binary)
{
    std::error_code error;
    const uint64_t size = fs::file_size(file, error);
    if (error || !stream_) {
        Fail(file, "cannot be opened: " + (error ? error.message() : std::strerror(errno)));
    }
    std::string head(std::min<uint64_t>(size, kLongestHead), '\0');
    stream_.read(head.data(), static_cast<std::streamsize>(head.size()));
    shape_ = CheckContent(file, head, size, &begin_);
}

std::vector<float> NpyReader::Read(size_t first, size_t count)
{
    std::vector<float> values(count);
    stream_.seekg(static_cast<std::streamoff>(begin_ + first * sizeof(float)));
    if (!stream_.read(reinterpret_cast<char*>(values.data()), static_cast<std::streamsize>(count * sizeof(float)))) {
        Fail(file_, "cannot be read");
    }
    return values;
}

void SaveNpy(const fs::path& file, const Shape& shape, std::span<const float> values)
{
    const std::vector<size_t> dims(shape.begin(), shape.end());
    modelkit::WriteFile(file, xt::dump_npy(xt::adapt(values.data(), values.size(), xt::no_ownership(), dims)));
}

}  // namespace opkit::tools
