// The values of the text form: floats, codes, texts and bytes as JSON, and back.
#ifndef OPKIT_MODELKIT_TEXT_VALUES_H
#define OPKIT_MODELKIT_TEXT_VALUES_H

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "modelkit/attribute_fields.h"
#include "modelkit/json_fields.h"

namespace opkit::modelkit::text {

// What JSON can hold of a piece of text; "raw" makes up for the rest.
std::string AsciiOf(std::string text);
std::string HexOf(std::span<const std::byte> bytes);
nlohmann::ordered_json FloatsToJson(std::span<const std::byte> bytes, size_t count);

// The inverses. `path` is that of the value; FileError tells what is wrong with it.
std::vector<std::byte> HexFromJson(const JsonFields& fields, const std::string& hex, const std::string& path,
                                   size_t limit);
std::vector<std::byte> FloatsFromJson(const JsonFields& fields, const nlohmann::json& list, const std::string& path);
// May be shorter than the field: what is not given stays as it is.
std::vector<std::byte> FieldFromJson(const JsonFields& fields, const AttributeField& field, const nlohmann::json& value,
                                     const std::string& path);

}  // namespace opkit::modelkit::text

#endif  // OPKIT_MODELKIT_TEXT_VALUES_H
