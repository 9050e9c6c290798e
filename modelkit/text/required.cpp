// The fields that a model's text cannot do without.

#include <initializer_list>
#include <vector>

#include "modelkit/text/assemble.h"

namespace opkit::modelkit::text {
namespace {

using nlohmann::json;

class Missing {
public:
    explicit Missing(const JsonFields& fields) : fields_(fields) {}

    void In(const json& object, const std::string& path, std::initializer_list<const char*> names)
    {
        for (const char* name : names) {
            if (fields_.Optional(object, name) == nullptr) {
                missing_.push_back(path + name);
            }
        }
    }

    // The entries of the list `name`, where it is one.
    template <class Visit>
    void ForEach(const json& object, const std::string& path, const char* name, Visit visit)
    {
        const json* const list = fields_.Optional(object, name);
        if (list != nullptr && list->is_array()) {
            size_t index = 0;
            for (const json& entry : *list) {
                visit(entry, path + name + "[" + std::to_string(index++) + "].");
            }
        }
    }

    void Report() const
    {
        constexpr size_t kShown = 12;
        if (missing_.empty()) {
            return;
        }
        std::string text = "field " + missing_[0] + " is missing";
        for (size_t i = 1; i < std::min(missing_.size(), kShown); ++i) {
            text += (i > 1 ? ", " : missing_.size() == 2 ? ", and so is " : ", and so are ") + missing_[i];
        }
        if (missing_.size() > kShown) {
            text += " and " + std::to_string(missing_.size() - kShown) + " more";
        }
        fields_.Fail(text);
    }

private:
    const JsonFields& fields_;
    std::vector<std::string> missing_;
};

}  // namespace

void RequireFields(const JsonFields& fields)
{
    Missing missing(fields);
    const json& root = fields.Root();
    missing.In(root, "", {"scratchSize", "maxBatch", "inputs", "outputs", "constants", "tables"});
    for (const char* side : {"inputs", "outputs"}) {
        missing.ForEach(root, "", side, [&](const json& tensor, const std::string& path) {
            missing.In(tensor, path, {"name", "shape", "strideBytes"});
        });
    }
    missing.ForEach(root, "", "constants", [&](const json& constant, const std::string& path) {
        missing.In(constant, path, {"name", "shape", "data"});
    });
    missing.ForEach(root, "", "tables", [&](const json& table, const std::string& tablePath) {
        missing.In(table, tablePath, {"segmentId", "name", "layers"});
        missing.ForEach(table, tablePath, "layers", [&](const json& layer, const std::string& layerPath) {
            missing.In(layer, layerPath, {"operator", "layerId", "inputs", "outputs", "flags"});
            for (const char* side : {"inputs", "outputs"}) {
                missing.ForEach(layer, layerPath, side, [&](const json& tensor, const std::string& path) {
                    missing.In(tensor, path, {"memKind", "memIndex", "size", "strideIndex", "shape"});
                });
            }
        });
    });
    missing.ForEach(root, "", "raw", [&](const json& piece, const std::string& path) {
        missing.In(piece, path, {"offset", "hex"});
    });
    missing.Report();
}

}  // namespace opkit::modelkit::text
