#include "modelkit/text/values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "modelkit/model_text.h"
#include "modelkit/model_writer.h"

namespace opkit::modelkit::text {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr const char* kHexDigits = "0123456789abcdef";

template <class T>
T Load(std::span<const std::byte> bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

ordered_json WithCode(const AttributeField& field, int64_t value)
{
    const auto code = std::find_if(field.codes.begin(), field.codes.end(),
                                   [&](const FieldCode& candidate) { return candidate.value == value; });
    return code == field.codes.end() ? ordered_json(value) : ordered_json(code->name);
}

ordered_json EntryToJson(const AttributeField& field, std::span<const std::byte> bytes)
{
    switch (field.type) {
        case FieldType::kU8:
            return WithCode(field, Load<uint8_t>(bytes, 0));
        case FieldType::kI32:
            return WithCode(field, Load<int32_t>(bytes, 0));
        case FieldType::kI64:
            return WithCode(field, Load<int64_t>(bytes, 0));
        case FieldType::kU64:
            return Load<uint64_t>(bytes, 0);
        case FieldType::kF32:
            return FloatToJson(Load<float>(bytes, 0));
        default:
            return WithCode(field, Load<uint32_t>(bytes, 0));
    }
}

// Stride records count as words here.
size_t EntrySize(const AttributeField& field)
{
    return field.type == FieldType::kStrides ? sizeof(uint32_t) : field.size / field.count;
}

size_t SizeWithoutZeros(std::span<const std::byte> bytes)
{
    while (!bytes.empty() && bytes.back() == std::byte{0}) {
        bytes = bytes.first(bytes.size() - 1);
    }
    return bytes.size();
}

// Text in the place of a number: the name of a code.
int64_t CodeNamed(const JsonFields& fields, const AttributeField& field, const std::string& name,
                  const std::string& path)
{
    std::string names;
    for (const FieldCode& code : field.codes) {
        if (code.name == name) {
            return code.value;
        }
        names += (names.empty() ? "" : ", ") + std::string(code.name);
    }
    fields.Fail("field " + path + " has no code \"" + name + "\"; it takes " +
                (names.empty() ? "a number" : names + " or a number"));
}

template <class T>
std::vector<std::byte> Integer(const JsonFields& fields, const AttributeField& field, const json& value,
                               const std::string& path)
{
    if (value.is_string()) {
        return BytesOf(static_cast<T>(CodeNamed(fields, field, value.get<std::string>(), path)));
    }
    if (!value.is_number_integer() || json(value.get<T>()) != value) {
        fields.Fail("field " + path + " is no whole number of its range");
    }
    return BytesOf(value.get<T>());
}

float FloatFromJson(const JsonFields& fields, const json& value, const std::string& path)
{
    // From here on numbers round to infinity; below, those beyond the largest float round to it.
    constexpr double kInfinite = 0x1.ffffffp127;
    constexpr double kLargest = std::numeric_limits<float>::max();
    if (value.is_number() && std::fabs(value.get<double>()) < kInfinite) {
        return static_cast<float>(std::clamp(value.get<double>(), -kLargest, kLargest));
    }
    const std::string text = value.is_string() ? value.get<std::string>() : "";
    uint32_t bits = 0;
    const char* const end = text.data() + text.size();
    if (text.size() != 10 || text.compare(0, 2, "0x") != 0 ||
        std::from_chars(text.data() + 2, end, bits, 16).ptr != end) {
        fields.Fail("field " + path + " is neither an f32 number nor the bits of one, such as \"0x7fc00000\"");
    }
    float result;
    std::memcpy(&result, &bits, sizeof(result));
    return result;
}

std::vector<std::byte> EntryFromJson(const JsonFields& fields, const AttributeField& field, const json& value,
                                     const std::string& path)
{
    switch (field.type) {
        case FieldType::kU8:
            return Integer<uint8_t>(fields, field, value, path);
        case FieldType::kI32:
            return Integer<int32_t>(fields, field, value, path);
        case FieldType::kI64:
            return Integer<int64_t>(fields, field, value, path);
        case FieldType::kU64:
            return Integer<uint64_t>(fields, field, value, path);
        case FieldType::kF32:
            return BytesOf(FloatFromJson(fields, value, path));
        default:
            return Integer<uint32_t>(fields, field, value, path);
    }
}

std::vector<std::byte> ListFromJson(const JsonFields& fields, const AttributeField& field, const json& value,
                                    const std::string& path)
{
    const size_t size = EntrySize(field);
    if (!value.is_array() || value.size() * size > field.size) {
        fields.Fail("field " + path + " is no list of at most " + std::to_string(field.size / size) + " entries");
    }
    std::vector<std::byte> bytes;
    for (size_t i = 0; i < value.size(); ++i) {
        const auto entry = EntryFromJson(fields, field, value[i], path + "[" + std::to_string(i) + "]");
        bytes.insert(bytes.end(), entry.begin(), entry.end());
    }
    return bytes;
}

}  // namespace

std::string HexOf(std::span<const std::byte> bytes)
{
    std::string hex;
    for (const std::byte byte : bytes) {
        hex += kHexDigits[std::to_integer<unsigned>(byte) >> 4];
        hex += kHexDigits[std::to_integer<unsigned>(byte) & 15];
    }
    return hex;
}

std::string AsciiOf(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    return text;
}

ordered_json FloatsToJson(std::span<const std::byte> bytes, size_t count)
{
    ordered_json list = ordered_json::array();
    for (size_t i = 0; i < count; ++i) {
        list.push_back(FloatToJson(Load<float>(bytes, i * sizeof(float))));
    }
    return list;
}

std::vector<std::byte> HexFromJson(const JsonFields& fields, const std::string& hex, const std::string& path,
                                   size_t limit)
{
    if (hex.size() % 2 != 0 || hex.size() / 2 > limit || hex.find_first_not_of(kHexDigits) != std::string::npos) {
        fields.Fail("field " + path + " is not made of at most " + std::to_string(limit) +
                    " pairs of the digits 0 to f");
    }
    std::vector<std::byte> bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        uint8_t byte = 0;
        std::from_chars(&hex[i], &hex[i] + 2, byte, 16);
        bytes.push_back(std::byte{byte});
    }
    return bytes;
}

std::vector<std::byte> FloatsFromJson(const JsonFields& fields, const json& list, const std::string& path)
{
    std::vector<std::byte> bytes(list.size() * sizeof(float));
    for (size_t i = 0; i < list.size(); ++i) {
        const float value = FloatFromJson(fields, list[i], path + "[" + std::to_string(i) + "]");
        std::memcpy(&bytes[i * sizeof(float)], &value, sizeof(float));
    }
    return bytes;
}

std::vector<std::byte> FieldFromJson(const JsonFields& fields, const AttributeField& field, const json& value,
                                     const std::string& path)
{
    if (field.type != FieldType::kText && field.type != FieldType::kBytes) {
        return field.isArray ? ListFromJson(fields, field, value, path) : EntryFromJson(fields, field, value, path);
    }
    const std::string text = value.is_string() ? value.get<std::string>() : std::string(field.size * 2 + 2, ' ');
    if (field.type == FieldType::kBytes) {
        return HexFromJson(fields, text, path, field.size);
    }
    if (text.size() > field.size) {
        fields.Fail("field " + path + " is not a text of at most " + std::to_string(field.size) + " characters");
    }
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

}  // namespace opkit::modelkit::text

namespace opkit::modelkit {

using namespace opkit::modelkit::text;
using nlohmann::ordered_json;

ordered_json FloatToJson(float value)
{
    if (!std::isfinite(value)) {
        uint32_t bits;
        std::memcpy(&bits, &value, sizeof(bits));
        std::string text = "0x";
        for (int shift = 28; shift >= 0; shift -= 4) {
            text += kHexDigits[bits >> shift & 15];
        }
        return text;
    }
    // The shortest digits, unless rounding them twice, to f64 and then to f32, leads elsewhere.
    char digits[32];
    *std::to_chars(digits, digits + sizeof(digits) - 1, value).ptr = '\0';
    const double shortest = std::strtod(digits, nullptr);
    return static_cast<float>(shortest) == value ? shortest : static_cast<double>(value);
}

ordered_json FieldToJson(const AttributeField& field, std::span<const std::byte> block)
{
    if (field.offset + field.size > block.size()) {
        return nullptr;
    }
    const std::span<const std::byte> bytes = block.subspan(field.offset, field.size);
    if (field.type == FieldType::kText) {
        const std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return AsciiOf(text.substr(0, text.find('\0')));
    }
    if (field.type == FieldType::kBytes) {
        return HexOf(bytes.first(SizeWithoutZeros(bytes)));
    }
    if (!field.isArray) {
        return EntryToJson(field, bytes);
    }
    ordered_json list = ordered_json::array();
    const size_t size = SizeWithoutZeros(bytes);
    for (size_t at = 0; at < size; at += EntrySize(field)) {
        list.push_back(EntryToJson(field, bytes.subspan(at)));
    }
    return list;
}

}  // namespace opkit::modelkit
