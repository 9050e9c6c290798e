#include "modelkit/model_text.h"

#include <algorithm>

#include "modelkit/json_fields.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/text/assemble.h"
#include "modelkit/text/values.h"

namespace opkit::modelkit {
namespace {

using namespace opkit::modelkit::text;
using nlohmann::json;
using nlohmann::ordered_json;

Model Assembled(const ordered_json& description)
{
    return Assemble(JsonFields("the model's text", json(description)));
}

// Where everything lies, as one list of numbers.
std::vector<uint32_t> LayoutOf(const Model& model)
{
    std::vector<uint32_t> layout;
    for (size_t t = 0; t < model.tables.size(); ++t) {
        for (const ReadLayer& layer : ReadLayerTable(model, t).layers) {
            const LayerRecord& r = layer.record;
            layout.insert(layout.end(), {layer.recordOffset, r.nameOffset, r.nameSize, r.attrOffset, r.attrSize,
                                         r.inputTableOffset, r.outputTableOffset});
            for (const auto* tensors : {&layer.inputs, &layer.outputs}) {
                for (const ReadTensor& tensor : *tensors) {
                    layout.insert(layout.end(), {tensor.record.shapeOffset, tensor.record.shapeSize});
                }
            }
        }
    }
    return layout;
}

bool HasBuilderLayout(const Model& model)
{
    try {
        const Model rebuilt = Assembled(DescribeModel(model, {.positions = false}));
        return rebuilt.bytes.size() == model.bytes.size() && rebuilt.tables == model.tables &&
               rebuilt.constants == model.constants && LayoutOf(rebuilt) == LayoutOf(model);
    } catch (const std::runtime_error&) {
        return false;
    }
}

// What `actual` has where the two differ. Differences a few bytes apart become one region.
ordered_json DifferingRegions(std::span<const std::byte> actual, std::span<const std::byte> described)
{
    constexpr size_t kApart = 16;
    ordered_json regions = ordered_json::array();
    for (size_t i = 0; i < actual.size(); ++i) {
        if (actual[i] == described[i]) {
            continue;
        }
        size_t end = i + 1;
        for (size_t next = end; next < std::min(actual.size(), end + kApart); ++next) {
            end = actual[next] != described[next] ? next + 1 : end;
        }
        regions.push_back({{"offset", i}, {"hex", HexOf(actual.subspan(i, end - i))}});
        i = end - 1;
    }
    return regions;
}

bool SameDescription(const Model& a, const Model& b)
{
    return a.inputs == b.inputs && a.outputs == b.outputs && a.scratchSize == b.scratchSize &&
           a.maxBatch == b.maxBatch && a.tables == b.tables && a.constants == b.constants;
}

// The manifest that the text kept, unless the text was changed since.
std::string ManifestFor(const JsonFields& fields, const Model& model, const std::string& buffer)
{
    if (fields.Optional(fields.Root(), "manifest") != nullptr) {
        const std::string kept = fields.Text(fields.Root(), "", "manifest");
        try {
            if (SameDescription(ParseModel({fields.File(), fields.File()}, kept, buffer), model)) {
                return kept;
            }
        } catch (const FileError&) {
        }
    }
    return ManifestText(model);
}

}  // namespace

std::string DisassembleModel(const Model& model, const std::string& manifest)
{
    ordered_json text = DescribeModel(model, {.positions = !HasBuilderLayout(model)});
    if (ordered_json raw = DifferingRegions(model.bytes.Span(), Assembled(text).bytes.Span()); !raw.empty()) {
        text["raw"] = std::move(raw);
    }
    if (manifest != ManifestText(model)) {
        text["manifest"] = manifest;
    }
    return JsonText(text);
}

AssembledModel AssembleModel(const std::filesystem::path& file, const std::string& text)
{
    const JsonFields fields(file, text);
    AssembledModel assembled;
    try {
        assembled.model = Assemble(fields);
    } catch (const BuildError& error) {
        fields.Fail(error.what());
    }
    const std::string buffer(reinterpret_cast<const char*>(assembled.model.bytes.data()), assembled.model.bytes.size());
    // What cannot be loaded is not written.
    ParseModel({file, file}, ManifestText(assembled.model), buffer);
    assembled.manifest = ManifestFor(fields, assembled.model, buffer);
    return assembled;
}

}  // namespace opkit::modelkit
