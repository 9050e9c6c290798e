// A model as text, and back: JSON that people can read and change. docs/tools.md shows it.
//
// The text names everything the buffer's records hold. Positions in the buffer are left out where they are those that
// the model builder would choose, and are given with the names of the records' fields otherwise. Bytes that no record
// describes stand under "raw" as hexadecimal digits and are put in last. So any model that LoadModel accepts comes back
// byte for byte, and so does a text that came from a model.
#ifndef OPKIT_MODELKIT_MODEL_TEXT_H
#define OPKIT_MODELKIT_MODEL_TEXT_H

#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "modelkit/attribute_fields.h"
#include "modelkit/model.h"

namespace opkit::modelkit {

inline constexpr const char* kModelTextFormat = "opkit-model-text";
inline constexpr uint32_t kModelTextVersion = 1;

// `manifest` is the manifest as it is on disk; it is kept in the text when SaveModel would write another one.
std::string DisassembleModel(const Model& model, const std::string& manifest);

struct AssembledModel {
    Model model;
    std::string manifest;
};

// Throws FileError, which names `file` and the field, for what is no model's text.
AssembledModel AssembleModel(const std::filesystem::path& file, const std::string& text);

struct DescribeOptions {
    bool positions = true;  // where in the buffer everything lies
    bool data = true;       // the elements of constants
};
nlohmann::ordered_json DescribeModel(const Model& model, const DescribeOptions& options = {});

// The value of a field in a layer's attribute block: a number, the name of a code, text, or a list without the zeros at
// its end. Null where the block is too short for the field.
nlohmann::ordered_json FieldToJson(const AttributeField& field, std::span<const std::byte> block);

// A number, or the bits as "0x7fc00000" for what no JSON number can say.
nlohmann::ordered_json FloatToJson(float value);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_TEXT_H
