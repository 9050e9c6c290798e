#include "modelkit/model.h"

#include <algorithm>

namespace opkit::modelkit {
namespace {

size_t IndexOf(const std::vector<TensorSpec>& specs, std::string_view name, const char* side)
{
    const auto found = std::find_if(specs.begin(), specs.end(), [&](const TensorSpec& s) { return s.name == name; });
    if (found == specs.end()) {
        throw BuildError("the model has no " + std::string(side) + " named \"" + std::string(name) + "\"");
    }
    return static_cast<size_t>(found - specs.begin());
}

}  // namespace

uint32_t RowPitch(uint32_t width, uint32_t alignNum)
{
    if (alignNum == 0) {
        throw BuildError("a row stride below 4 bytes has no pitch");
    }
    const uint64_t pitch = (uint64_t{width} + alignNum - 1) / alignNum * alignNum;
    if (pitch > UINT32_MAX) {
        throw BuildError("a row of " + std::to_string(width) + " floats does not fit 32 bits");
    }
    return static_cast<uint32_t>(pitch);
}

uint64_t ElementCount(const Shape& shape)
{
    uint64_t count = 1;
    for (const uint32_t dim : shape) {
        if (dim != 0 && count > UINT32_MAX / dim) {
            throw BuildError("shape " + ShapeText(shape) + " holds too many elements");
        }
        count *= dim;
    }
    return count;
}

uint32_t RowWidth(const Shape& shape)
{
    return shape.empty() ? 1 : shape.back();
}

uint32_t StrideOf(const Shape& shape, uint32_t strideBytes)
{
    return strideBytes != 0 ? strideBytes : std::max(RowWidth(shape), 1U) * 4;
}

uint32_t PaddedFloats(const Shape& shape, uint32_t strideBytes)
{
    const uint32_t width = RowWidth(shape);
    if (width == 0) {
        return 0;
    }
    const uint64_t floats = ElementCount(shape) / width * RowPitch(width, StrideOf(shape, strideBytes) / 4);
    if (floats > UINT32_MAX / 4) {
        throw BuildError("shape " + ShapeText(shape) + " takes more than 4 GiB");
    }
    return static_cast<uint32_t>(floats);
}

uint32_t PaddedBytes(const Shape& shape, uint32_t strideBytes)
{
    return PaddedFloats(shape, strideBytes) * 4;
}

std::string ShapeText(const Shape& shape)
{
    std::string text = "[";
    for (size_t i = 0; i < shape.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(shape[i]);
    }
    return text + "]";
}

std::string Printable(std::string utf8)
{
    for (size_t i = 0; i < utf8.size(); ++i) {
        const auto byte = static_cast<unsigned char>(utf8[i]);
        // Those from U+0080 to U+009F begin with this byte.
        const bool twoBytes = byte == 0xC2 && i + 1 < utf8.size() && static_cast<unsigned char>(utf8[i + 1]) < 0xA0;
        if (byte < ' ' || byte == 0x7F || twoBytes) {
            utf8.replace(i, twoBytes ? 2 : 1, "?");
        }
    }
    return utf8;
}

void PadRows(std::span<const float> compact, const Shape& shape, uint32_t strideBytes, std::span<float> padded)
{
    if (compact.size() != ElementCount(shape) || padded.size() < PaddedFloats(shape, strideBytes)) {
        throw BuildError("shape " + ShapeText(shape) + " does not take " + std::to_string(compact.size()) +
                         " elements");
    }
    const size_t width = RowWidth(shape);
    for (size_t from = 0, to = 0; from < compact.size(); from += width) {
        std::copy_n(compact.begin() + static_cast<ptrdiff_t>(from), width, padded.begin() + static_cast<ptrdiff_t>(to));
        to += RowPitch(static_cast<uint32_t>(width), StrideOf(shape, strideBytes) / 4);
    }
}

std::vector<float> CompactRows(std::span<const float> padded, const Shape& shape, uint32_t strideBytes)
{
    std::vector<float> compact(ElementCount(shape));
    if (padded.size() < PaddedFloats(shape, strideBytes)) {
        throw BuildError("shape " + ShapeText(shape) + " needs more than " + std::to_string(padded.size()) + " floats");
    }
    const size_t width = RowWidth(shape);
    for (size_t from = 0, to = 0; to < compact.size(); to += width) {
        std::copy_n(padded.begin() + static_cast<ptrdiff_t>(from), width, compact.begin() + static_cast<ptrdiff_t>(to));
        from += RowPitch(static_cast<uint32_t>(width), StrideOf(shape, strideBytes) / 4);
    }
    return compact;
}

const ModelTable& Model::Table(uint32_t segmentId) const
{
    const auto found =
        std::find_if(tables.begin(), tables.end(), [&](const ModelTable& t) { return t.segmentId == segmentId; });
    if (found == tables.end()) {
        throw BuildError("the model has no segment " + std::to_string(segmentId));
    }
    return *found;
}

size_t Model::InputIndex(std::string_view name) const
{
    return IndexOf(inputs, name, "input");
}

size_t Model::OutputIndex(std::string_view name) const
{
    return IndexOf(outputs, name, "output");
}

}  // namespace opkit::modelkit
