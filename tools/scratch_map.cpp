#include "tools/scratch_map.h"

#include <algorithm>
#include <tuple>

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;

class Mapper {
public:
    explicit Mapper(uint32_t maxBatch) : maxBatch_(maxBatch) {}

    void AddLayer(uint32_t index, const ReadLayer& layer)
    {
        for (size_t i = 0; i < layer.inputs.size(); ++i) {
            Read(index, layer.inputs[i].record, "input " + std::to_string(i));
        }
        for (size_t i = 0; i < layer.outputs.size(); ++i) {
            Write(index, layer.outputs[i].record, "output " + std::to_string(i));
        }
        if (layer.record.bufSize != 0) {
            uses_.push_back({layer.record.bufOffset, uint64_t{layer.record.bufOffset} + layer.record.bufSize, index,
                             index, "work space of layer " + std::to_string(index)});
        }
    }

    ScratchMap Finish(uint32_t layerCount)
    {
        const auto order = [](const ScratchUse& use) { return std::tuple(use.begin, use.firstLayer, use.end); };
        std::stable_sort(uses_.begin(), uses_.end(),
                         [&](const ScratchUse& a, const ScratchUse& b) { return order(a) < order(b); });
        ScratchMap map;
        map.uses = std::move(uses_);
        FindOverlaps(&map);
        for (uint32_t layer = 0; layer < layerCount; ++layer) {
            const uint64_t bytes = BytesAt(map.uses, layer);
            map.peakLayer = bytes > map.peakBytes ? layer : map.peakLayer;
            map.peakBytes = std::max(map.peakBytes, bytes);
        }
        for (const ScratchUse& use : map.uses) {
            map.reach = std::max(map.reach, use.end);
        }
        return map;
    }

private:
    uint64_t EndOf(const TensorRecord& record) const
    {
        return record.memIndex + uint64_t{record.size} * (record.memKind == OPKIT_MEM_SCRATCH_BATCHED ? maxBatch_ : 1);
    }

    // The latest tensor that has these bytes goes on to this layer.
    void Read(uint32_t layer, const TensorRecord& record, const std::string& side)
    {
        if (record.memKind <= OPKIT_MEM_REQUEST_1) {
            return;
        }
        const auto holds = [&](const ScratchUse& use) {
            return use.begin <= record.memIndex && use.end >= EndOf(record) && use.what.rfind("work", 0) != 0;
        };
        const auto found = std::find_if(uses_.rbegin(), uses_.rend(), holds);
        if (found != uses_.rend()) {
            found->lastLayer = layer;
        } else {
            uses_.push_back({record.memIndex, EndOf(record), 0, layer, side + " of layer " + std::to_string(layer)});
        }
    }

    void Write(uint32_t layer, const TensorRecord& record, const std::string& side)
    {
        if (record.memKind > OPKIT_MEM_REQUEST_1) {
            uses_.push_back(
                {record.memIndex, EndOf(record), layer, layer, side + " of layer " + std::to_string(layer)});
        }
    }

    static void FindOverlaps(ScratchMap* map)
    {
        const std::vector<ScratchUse>& uses = map->uses;
        for (size_t i = 0; i < uses.size(); ++i) {
            for (size_t j = i + 1; j < uses.size() && uses[j].begin < uses[i].end; ++j) {
                const uint64_t end = std::min(uses[i].end, uses[j].end);
                if (uses[j].begin < end && uses[i].firstLayer <= uses[j].lastLayer &&
                    uses[j].firstLayer <= uses[i].lastLayer) {
                    if (map->overlaps.size() == kMostOverlaps) {
                        map->moreOverlaps = true;
                        return;
                    }
                    const bool inPlace = uses[i].begin == uses[j].begin && uses[i].end == uses[j].end &&
                                         uses[i].lastLayer == uses[j].firstLayer;
                    map->overlaps.push_back({i, j, uses[j].begin, end, inPlace});
                }
            }
        }
    }

    static uint64_t BytesAt(const std::vector<ScratchUse>& uses, uint32_t layer)
    {
        uint64_t bytes = 0;
        uint64_t counted = 0;  // the uses come by their begin
        for (const ScratchUse& use : uses) {
            if (use.firstLayer <= layer && layer <= use.lastLayer && use.end > counted) {
                bytes += use.end - std::max(use.begin, counted);
                counted = use.end;
            }
        }
        return bytes;
    }

    uint32_t maxBatch_;
    std::vector<ScratchUse> uses_;
};

}  // namespace

ScratchMap MapScratch(const ReadTable& table, uint32_t maxBatch)
{
    Mapper mapper(maxBatch);
    for (uint32_t i = 0; i < table.layers.size(); ++i) {
        mapper.AddLayer(i, table.layers[i]);
    }
    return mapper.Finish(static_cast<uint32_t>(table.layers.size()));
}

}  // namespace opkit::tools
