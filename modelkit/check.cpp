#include "modelkit/check.h"

#include <algorithm>
#include <cctype>

#include "modelkit/attribute_fields.h"
#include "modelkit/check/layer_check.h"
#include "modelkit/check/structure.h"

namespace opkit::modelkit {
namespace {

using namespace opkit::modelkit::check;

// Bytes of one batch item of a described tensor, without limits.
uint64_t BytesOf(const TensorSpec& tensorSpec)
{
    Tensor tensor;
    tensor.dims = tensorSpec.shape;
    tensor.stride = tensorSpec.strideBytes;
    if (tensorSpec.strideBytes == 0) {
        return Mul(tensor.Count(), 4);
    }
    return tensor.Rank() == 0 ? tensor.Pitch() * 4 + 4 : Mul(tensor.Rows(), tensor.Pitch(), 4);
}

std::vector<CheckTensor> TensorsOf(const std::vector<TensorSpec>& specs, uint32_t batch)
{
    std::vector<CheckTensor> tensors;
    for (const TensorSpec& tensorSpec : specs) {
        const uint64_t width = std::max<uint64_t>(tensorSpec.shape.empty() ? 1 : tensorSpec.shape.back(), 1);
        const uint64_t stride = tensorSpec.strideBytes != 0 ? tensorSpec.strideBytes : Mul(width, 4);
        tensors.push_back(
            {Mul(BytesOf(tensorSpec), batch), static_cast<uint32_t>(std::min<uint64_t>(stride, UINT32_MAX))});
    }
    return tensors;
}

void CheckRequestTensors(const ModelView& model, const char* side, const std::vector<CheckTensor>& tensors)
{
    const uint32_t batch = model.request.batch;
    if (tensors.empty()) {
        model.Refuse({}, {std::string(side) + " of the request"}, 0, 1, "a request needs at least one");
    }
    for (size_t i = 0; i < tensors.size(); ++i) {
        const Field field = {std::string(side) + "[" + std::to_string(i) + "].size of the request"};
        const uint64_t size = tensors[i].size;
        if (size > UINT32_MAX) {
            model.Refuse({}, field, static_cast<int64_t>(size), UINT32_MAX, "more than 4 GiB");
        }
        if (size % batch != 0) {
            model.Refuse({}, field, static_cast<int64_t>(size), static_cast<int64_t>(size / batch * batch),
                         "not a multiple of the batch count");
        }
        if (batch > 1 && size / batch % 4 != 0) {
            model.Refuse({}, field, static_cast<int64_t>(size), static_cast<int64_t>(size / (4 * batch) * (4 * batch)),
                         "the next batch item is not at a multiple of 4");
        }
    }
}

void CheckWholeRequest(const ModelView& model)
{
    const CheckRequest& request = model.request;
    if (request.batch < 1 || request.batch > OPKIT_MAX_BATCH) {
        model.Refuse({}, {"batch of the request"}, request.batch, request.batch < 1 ? 1 : OPKIT_MAX_BATCH,
                     "a request has 1 to 256 batch items");
    }
    const auto shown = [](uint64_t size) { return static_cast<int64_t>(std::min(size, kHuge)); };
    if (model.bytes.empty() || model.bytes.size() > OPKIT_MAX_MODEL_SIZE) {
        model.Refuse({}, {"modelSize"}, shown(model.bytes.size()), model.bytes.empty() ? 1 : OPKIT_MAX_MODEL_SIZE,
                     "a model buffer takes up to 1 GiB");
    }
    if (request.scratchSize > UINT32_MAX) {
        model.Refuse({}, {"opkitBufSize of the request"}, shown(request.scratchSize), UINT32_MAX, "more than 4 GiB");
    }
    CheckRequestTensors(model, "inputs", request.inputs);
    CheckRequestTensors(model, "outputs", request.outputs);
}

// Segment ids name one table each, and so do successors.
void CheckSegments(ModelView& model, std::span<const ModelTable> tables)
{
    constexpr uint32_t kNoJump = 0xFFFFFFFF;
    if (tables.empty()) {
        model.Refuse({}, {"layer tables"}, 0, 1, "a model has at least one");
    }
    for (const ModelTable& table : tables) {
        const CheckPlace place = {table.segmentId};
        const Field field = {"segment id", table.layerTableOffset};
        if (table.segmentId == kNoJump) {
            model.Refuse(place, field, table.segmentId, int64_t{kNoJump} - 1, "this id asks for no jump");
        }
        if (!model.segments.insert(table.segmentId).second) {
            model.Refuse(place, field, table.segmentId, table.segmentId, "two tables have this id");
        }
    }
    for (const ModelTable& table : tables) {
        if (table.next && !model.segments.contains(*table.next)) {
            model.Refuse({table.segmentId}, {"successor", table.layerTableOffset}, *table.next, kNoJump,
                         "no table has this segment id");
        }
    }
}

// What a layer writes into the model buffer, for the comparison with all structure.
struct LayerWrites {
    CheckPlace place;
    int owner;
    std::vector<ModelWrite> writes;
};

// The attribute block without what the operator writes there, and with its state.
void AddAttributeRanges(const Layer& layer, uint32_t size, int owner, const std::vector<ModelWrite>& writes,
                        std::vector<StructureRange>* ranges)
{
    std::vector<ModelWrite> own;
    std::copy_if(writes.begin(), writes.end(), std::back_inserter(own),
                 [](const ModelWrite& write) { return write.what != ModelWrite::What::kConstant; });
    std::sort(own.begin(), own.end(), [](const ModelWrite& a, const ModelWrite& b) { return a.begin < b.begin; });
    const auto add = [&](uint64_t begin, uint64_t end, bool isState, const char* what) {
        if (begin < end) {
            ranges->push_back({begin, end, owner, isState, what});
        }
    };
    uint64_t at = layer.attrAt;
    for (const ModelWrite& write : own) {
        add(at, write.begin, false, "an attribute block");
        if (write.what == ModelWrite::What::kState) {
            add(write.begin, write.end, true, "the state of a loop");
        }
        at = write.end;
    }
    add(at, layer.attrAt + size, false, "an attribute block");
}

// Returns the bytes that its layers read.
uint64_t CheckTable(const ModelView& model, const ModelTable& table, std::vector<StructureRange>* ranges,
                    std::vector<LayerWrites>* writes)
{
    LayerReader reader(model.bytes, table.layerTableOffset, LayerReader::Words::kAligned);
    const uint32_t count = CheckTableHeader(model, table, &reader, ranges);
    for (uint32_t i = 0; i < count; ++i) {
        const int owner = static_cast<int>(writes->size());
        writes->emplace_back();
        const size_t conditions = model.report->conditions.size();
        try {
            const Layer layer = CheckStructure(model, table, i, owner, &reader, ranges);
            const AttributeRecord& record = *FindAttributeRecord(layer.place.operatorName);  // known: it was read
            LayerCheck layerCheck(model, layer);
            CheckOperator(layerCheck, record);
            layerCheck.CheckSharing();
            layerCheck.NoteWork();
            AddAttributeRanges(layer, record.size, owner, layerCheck.Writes(), ranges);
            writes->back() = {layer.place, owner, layerCheck.Writes()};
        } catch (const Refused&) {
            model.report->conditions.resize(conditions);
        }
    }
    return reader.BytesRead();
}

void CheckTables(const ModelView& model, std::span<const ModelTable> tables, std::vector<StructureRange>* ranges,
                 std::vector<LayerWrites>* writes)
{
    const uint64_t most = MostBytesRead(model.bytes.size());
    uint64_t bytesRead = 0;
    for (const ModelTable& table : tables) {
        try {
            bytesRead += CheckTable(model, table, ranges, writes);
        } catch (const Refused&) {
        }
        if (bytesRead > most) {
            model.Refuse({table.segmentId}, {"layerTableOffset", table.layerTableOffset},
                         static_cast<int64_t>(bytesRead), static_cast<int64_t>(most),
                         "the layers up to here read more than four times the buffer and 4 MiB");
        }
    }
}

void CheckWrites(const ModelView& model, std::vector<StructureRange> ranges, const std::vector<LayerWrites>& layers)
{
    const WriteMap map(std::move(ranges));
    for (const LayerWrites& layer : layers) {
        for (const ModelWrite& write : layer.writes) {
            const StructureRange* const hit = map.Hit(write, layer.owner);
            if (hit == nullptr) {
                continue;
            }
            try {
                model.Refuse(layer.place, write.field, static_cast<int64_t>(write.begin),
                             static_cast<int64_t>(hit->end),
                             "the operator writes here, over " + std::string(hit->what));
            } catch (const Refused&) {
                break;
            }
        }
    }
}

// Operators' and functions' names are bytes of the buffer.
std::string Ascii(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

}  // namespace

std::string CheckPlace::Text() const
{
    constexpr size_t kShown = 64;
    std::string text = segment < 0 ? "model" : "segment " + std::to_string(segment);
    if (layer >= 0) {
        text += ", layer " + std::to_string(layer);
        text += operatorName.empty() ? "" : " (" + Ascii(operatorName.substr(0, kShown)) + ")";
    }
    return text;
}

std::string CheckRefusal::Text() const
{
    return place.Text() + ": " + field + " at byte " + std::to_string(byteOffset) + " is " + std::to_string(value) +
           ", limit " + std::to_string(limit) + ": " + reason;
}

std::string CheckCondition::Text() const
{
    return place.Text() + ": safe if " + Ascii(condition);
}

CheckReport CheckBuffer(std::span<const std::byte> buffer, std::span<const ModelTable> tables,
                        const CheckRequest& request)
{
    CheckReport report;
    report.batch = request.batch;
    ModelView model = {buffer, request, {}, &report};
    std::vector<StructureRange> ranges;
    std::vector<LayerWrites> writes;
    try {
        CheckWholeRequest(model);
        CheckSegments(model, tables);
        CheckTables(model, tables, &ranges, &writes);
    } catch (const Refused&) {
        return report;
    }
    CheckWrites(model, std::move(ranges), writes);
    return report;
}

CheckReport CheckModel(const Model& model, uint32_t batch)
{
    if (batch != 0) {
        const CheckRequest request = {TensorsOf(model.inputs, batch), TensorsOf(model.outputs, batch),
                                      model.scratchSize, batch};
        return CheckBuffer(model.bytes.Span(), model.tables, request);
    }
    uint64_t largest = 1;
    for (const std::vector<TensorSpec>* specs : {&model.inputs, &model.outputs}) {
        for (const TensorSpec& tensorSpec : *specs) {
            largest = std::max(largest, BytesOf(tensorSpec));
        }
    }
    const uint64_t most = std::clamp<uint64_t>(UINT32_MAX / largest, 1, OPKIT_MAX_BATCH);
    const uint32_t planned = std::max(model.maxBatch, 1U);
    CheckReport report = CheckModel(model, std::max(static_cast<uint32_t>(most), planned));
    return report.Accepted() ? report : CheckModel(model, planned);
}

}  // namespace opkit::modelkit
