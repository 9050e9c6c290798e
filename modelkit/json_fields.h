// Reads fields of a JSON file; every refusal names the file and the field's path. And writes JSON for people.
#ifndef OPKIT_MODELKIT_JSON_FIELDS_H
#define OPKIT_MODELKIT_JSON_FIELDS_H

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "modelkit/file_io.h"
#include "modelkit/model.h"

namespace opkit::modelkit {

// All throw FileError. The functions that take an object, its path and a name read the object's field `name`. A path
// ends in "." unless it is empty: "inputs[2].".
class JsonFields {
public:
    using json = nlohmann::json;

    // Throws FileError for what is no JSON, with line and column, and for objects with two fields of one name.
    JsonFields(std::filesystem::path file, const std::string& text);
    JsonFields(std::filesystem::path file, json root) : file_(std::move(file)), root_(std::move(root)) {}

    const json& Root() const { return root_; }
    const std::filesystem::path& File() const { return file_; }
    [[noreturn]] void Fail(const std::string& what) const;

    const json& Field(const json& object, const std::string& path, const char* name) const;
    // The field, or null where there is none.
    const json* Optional(const json& object, const char* name) const;

    uint32_t Number(const json& value, const std::string& path) const;
    uint32_t Number(const json& object, const std::string& path, const char* name) const;
    std::string Text(const json& object, const std::string& path, const char* name) const;
    const json& List(const json& object, const std::string& path, const char* name) const;
    Shape Dimensions(const json& object, const std::string& path) const;
    // The request tensors of one side.
    std::vector<TensorSpec> Tensors(const char* name) const;
    // Refuses another format or version.
    void CheckFormat(const std::string& name, uint32_t version) const;

private:
    std::filesystem::path file_;
    json root_;
};

nlohmann::ordered_json TensorsToJson(const std::vector<TensorSpec>& specs);

// As dump(2), but what fits into a line stands on one, and plain values fill lines.
std::string JsonText(const nlohmann::ordered_json& value);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_JSON_FIELDS_H
