#include "modelkit/json_fields.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <string_view>

namespace opkit::modelkit {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr size_t kLineWidth = 120;

class Printer {
public:
    void Print(const ordered_json& value, size_t indent, size_t lead)
    {
        std::string line = OneLine(value, kLineWidth > indent + lead ? kLineWidth - indent - lead : 0);
        if (!line.empty()) {
            text_ += line;
        } else if (std::none_of(value.begin(), value.end(), [](const auto& entry) { return entry.is_structured(); })) {
            FillLines(value, indent);
        } else if (value.is_object()) {
            PrintMembers(value, indent);
        } else {
            PrintEntries(value, indent);
        }
    }

    std::string Take() { return std::move(text_) + "\n"; }

private:
    static std::string Key(const ordered_json& container, const ordered_json::const_iterator& entry)
    {
        return container.is_object() ? json(entry.key()).dump() + ": " : "";
    }

    // The value on one line; empty where it is longer than the limit. Values that are no lists or objects always fit.
    static std::string OneLine(const ordered_json& value, size_t limit)
    {
        if (!value.is_structured()) {
            return value.dump();
        }
        const bool object = value.is_object();
        std::string line(1, object ? '{' : '[');
        for (auto entry = value.begin(); entry != value.end(); ++entry) {
            line += entry == value.begin() ? "" : ", ";
            line += Key(value, entry);
            const std::string part = line.size() < limit ? OneLine(*entry, limit - line.size()) : "";
            line += part;
            if (part.empty() || line.size() >= limit) {
                return {};
            }
        }
        return line + (object ? '}' : ']');
    }

    void NewLine(size_t indent) { text_.append(1, '\n').append(indent, ' '); }

    void PrintMembers(const ordered_json& value, size_t indent)
    {
        char separator = '{';
        for (auto entry = value.begin(); entry != value.end(); ++entry) {
            text_ += separator;
            NewLine(indent + 2);
            const std::string key = Key(value, entry);
            text_ += key;
            Print(*entry, indent + 2, key.size() + 1);
            separator = ',';
        }
        NewLine(indent);
        text_ += '}';
    }

    void PrintEntries(const ordered_json& value, size_t indent)
    {
        char separator = '[';
        for (const ordered_json& entry : value) {
            text_ += separator;
            NewLine(indent + 2);
            Print(entry, indent + 2, 1);
            separator = ',';
        }
        NewLine(indent);
        text_ += ']';
    }

    void FillLines(const ordered_json& value, size_t indent)
    {
        text_ += value.is_object() ? '{' : '[';
        size_t column = kLineWidth;
        size_t left = value.size();
        for (auto item = value.begin(); item != value.end(); ++item) {
            const std::string entry = Key(value, item) + item->dump() + (--left != 0 ? "," : "");
            if (column + 1 + entry.size() > kLineWidth) {
                NewLine(indent + 2);
                column = indent + 2 + entry.size();
            } else {
                text_ += ' ';
                column += 1 + entry.size();
            }
            text_ += entry;
        }
        NewLine(indent);
        text_ += value.is_object() ? '}' : ']';
    }

    std::string text_;
};

// A text's characters, and how far the parser has come.
struct Walk {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    const char& operator*() const { return *at; }
    Walk& operator++()
    {
        *reached = ++at;
        return *this;
    }
    bool operator==(const Walk& other) const { return at == other.at; }
    bool operator!=(const Walk& other) const { return at != other.at; }

    const char* at;
    const char** reached;
};

// Refuses an object with two fields of one name: JSON leaves open which of them counts.
class OneOfAKind {
public:
    struct Twice {
        std::string key;
    };

    bool Accept(json::parse_event_t event, const json& value)
    {
        if (event == json::parse_event_t::object_start) {
            open_.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            open_.pop_back();
        } else if (event == json::parse_event_t::key && !open_.back().insert(value.get<std::string>()).second) {
            throw Twice{value.get<std::string>()};
        }
        return true;
    }

private:
    std::vector<std::set<std::string>> open_;
};

std::string LineAndColumn(const std::string& text, size_t at)
{
    const std::string_view before = std::string_view(text).substr(0, at);
    const size_t lineBegin = before.rfind('\n') + 1;  // 0 without a line break
    return "line " + std::to_string(1 + std::count(before.begin(), before.end(), '\n')) + ", column " +
           std::to_string(at - lineBegin + 1);
}

}  // namespace

JsonFields::JsonFields(std::filesystem::path file, const std::string& text) : file_(std::move(file))
{
    const char* at = text.data();
    OneOfAKind keys;
    try {
        const char* const end = text.data() + text.size();
        root_ = json::parse(Walk{text.data(), &at}, Walk{end, &at},
                            [&keys](int, json::parse_event_t event, json& value) { return keys.Accept(event, value); });
    } catch (const json::parse_error& error) {
        const size_t before = std::min(error.byte == 0 ? 0 : error.byte - 1, text.size());
        Fail("no JSON at byte " + std::to_string(error.byte) + ", " + LineAndColumn(text, before));
    } catch (const json::exception&) {
        Fail("a number does not fit, " + LineAndColumn(text, static_cast<size_t>(at - text.data())));
    } catch (const OneOfAKind::Twice& twice) {
        Fail("field \"" + twice.key + "\" stands twice in one object, the second time before " +
             LineAndColumn(text, static_cast<size_t>(at - text.data())));
    }
}

void JsonFields::Fail(const std::string& what) const
{
    throw FileError(file_.string() + ": " + Printable(what));
}

const json& JsonFields::Field(const json& object, const std::string& path, const char* name) const
{
    const json* const field = Optional(object, name);
    if (field == nullptr) {
        Fail("field " + path + name + " is missing");
    }
    return *field;
}

const json* JsonFields::Optional(const json& object, const char* name) const
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    return found == object.end() ? nullptr : &*found;
}

uint32_t JsonFields::Number(const json& value, const std::string& path) const
{
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
        Fail("field " + path + " is not a 32-bit unsigned number");
    }
    return value.get<uint32_t>();
}

uint32_t JsonFields::Number(const json& object, const std::string& path, const char* name) const
{
    return Number(Field(object, path, name), path + name);
}

std::string JsonFields::Text(const json& object, const std::string& path, const char* name) const
{
    const json& value = Field(object, path, name);
    if (!value.is_string()) {
        Fail("field " + path + name + " is not a string");
    }
    return value.get<std::string>();
}

const json& JsonFields::List(const json& object, const std::string& path, const char* name) const
{
    const json& value = Field(object, path, name);
    if (!value.is_array()) {
        Fail("field " + path + name + " is not a list");
    }
    return value;
}

Shape JsonFields::Dimensions(const json& object, const std::string& path) const
{
    Shape shape;
    for (const json& dim : List(object, path, "shape")) {
        shape.push_back(Number(dim, path + "shape"));
    }
    return shape;
}

std::vector<TensorSpec> JsonFields::Tensors(const char* name) const
{
    std::vector<TensorSpec> specs;
    for (const json& entry : List(root_, "", name)) {
        const std::string path = std::string(name) + "[" + std::to_string(specs.size()) + "].";
        TensorSpec tensorSpec = {Text(entry, path, "name"), Dimensions(entry, path),
                                 Number(entry, path, "strideBytes")};
        if (tensorSpec.strideBytes == 0 || tensorSpec.strideBytes % 4 != 0) {
            Fail("field " + path + "strideBytes is not a positive multiple of 4");
        }
        try {
            PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes);
        } catch (const BuildError& error) {
            Fail("field " + path + "shape: " + error.what());
        }
        specs.push_back(std::move(tensorSpec));
    }
    if (specs.empty()) {
        Fail("field " + std::string(name) + " is empty");
    }
    return specs;
}

void JsonFields::CheckFormat(const std::string& name, uint32_t version) const
{
    if (Text(root_, "", "format") != name) {
        Fail("field format is not \"" + name + "\"");
    }
    if (const uint32_t given = Number(root_, "", "formatVersion"); given != version) {
        Fail("field formatVersion is " + std::to_string(given) + ", this program reads " + std::to_string(version));
    }
}

ordered_json TensorsToJson(const std::vector<TensorSpec>& specs)
{
    ordered_json list = ordered_json::array();
    for (const TensorSpec& tensorSpec : specs) {
        list.push_back({{"name", tensorSpec.name},
                        {"shape", tensorSpec.shape},
                        {"strideBytes", StrideOf(tensorSpec.shape, tensorSpec.strideBytes)}});
    }
    return list;
}

std::string JsonText(const ordered_json& value)
{
    Printer printer;
    printer.Print(value, 0, 0);
    return printer.Take();
}

}  // namespace opkit::modelkit
