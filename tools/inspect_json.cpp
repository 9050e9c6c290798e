#include "tools/inspect_json.h"

#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/model_text.h"
#include "tools/scratch_map.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::ordered_json;

ordered_json ScratchToJson(const ScratchMap& map)
{
    ordered_json json = {{"peakBytes", map.peakBytes}, {"peakLayer", map.peakLayer}, {"reach", map.reach}};
    json["uses"] = ordered_json::array();
    for (const ScratchUse& use : map.uses) {
        json["uses"].push_back({{"begin", use.begin},
                                {"end", use.end},
                                {"firstLayer", use.firstLayer},
                                {"lastLayer", use.lastLayer},
                                {"what", use.what}});
    }
    json["overlaps"] = ordered_json::array();
    for (const ScratchOverlap& overlap : map.overlaps) {
        json["overlaps"].push_back({{"first", overlap.first},
                                    {"second", overlap.second},
                                    {"begin", overlap.begin},
                                    {"end", overlap.end},
                                    {"inPlace", overlap.inPlace}});
    }
    if (map.moreOverlaps) {
        json["moreOverlaps"] = true;
    }
    return json;
}

}  // namespace

ordered_json InspectionJson(const Model& model)
{
    ordered_json json = DescribeModel(model, {.positions = true, .data = false});
    json["format"] = "opkit-inspection";
    json["bufferCrc32"] = Crc32(model.bytes.Span());
    for (size_t t = 0; t < model.tables.size(); ++t) {
        json["tables"][t]["scratch"] = ScratchToJson(MapScratch(ReadLayerTable(model, t), model.maxBatch));
    }
    return json;
}

}  // namespace opkit::tools
