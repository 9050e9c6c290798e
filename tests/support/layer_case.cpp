#include "tests/support/layer_case.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "opkit/helpers/frame.h"
#include "opkit/opkit.h"

namespace opkit::test {
namespace {

using modelkit::Buffer;
using modelkit::Model;
using modelkit::ModelBuilder;
using modelkit::PaddedBytes;
using modelkit::StrideOf;
using modelkit::TensorRef;
using modelkit::TensorSpec;

#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kGuardBytes = 0;
#else
constexpr size_t kGuardBytes = 64;
#endif

constexpr uint64_t kPatternSeed = 0x6f706b6974ULL;
constexpr size_t kModelRegion = 0;
constexpr size_t kScratchRegion = 1;
constexpr size_t kFirstTensorRegion = 2;
constexpr uint32_t kQuietBit = 0x00400000;

// Recognisable bits, never zero; every third word is a signalling NaN, which arithmetic does not leave behind.
void FillPattern(std::span<std::byte> bytes, uint64_t seed)
{
    uint64_t state = seed * 0x9e3779b97f4a7c15ULL + 1;
    for (size_t i = 0; i < bytes.size(); i += 4) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        uint32_t word = static_cast<uint32_t>(state >> 32) | 1;
        if (i / 4 % 3 == 2) {
            word = 0x7fa50000 | (word & 0xffff);
        }
        std::memcpy(&bytes[i], &word, std::min<size_t>(4, bytes.size() - i));
    }
}

bool IsNan(uint32_t bits)
{
    return (bits & 0x7fffffff) > 0x7f800000;
}

bool SameWord(uint32_t a, uint32_t b, NanPolicy policy)
{
    return a == b || (policy == NanPolicy::kAnyNan && IsNan(a) && IsNan(b) && (a & kQuietBit) && (b & kQuietBit));
}

std::string WordText(uint32_t bits)
{
    char text[64];
    std::snprintf(text, sizeof(text), "0x%08x (%.9g)", bits, static_cast<double>(std::bit_cast<float>(bits)));
    return text;
}

std::string FloatText(float value)
{
    const uint32_t bits = std::bit_cast<uint32_t>(value);
    char text[64];
    if (IsNan(bits) || std::isinf(value)) {
        std::snprintf(text, sizeof(text), "std::bit_cast<float>(0x%08xu)", bits);
    } else if (value == std::floor(value) && std::fabs(value) < 1e6f) {
        std::snprintf(text, sizeof(text), std::signbit(value) && value == 0 ? "-0.0f" : "%.0f",
                      static_cast<double>(value));
    } else {
        std::snprintf(text, sizeof(text), "%af", static_cast<double>(value));
    }
    return text;
}

std::string DataText(const std::vector<float>& data)
{
    constexpr size_t kShown = 256;
    std::string text = "{";
    for (size_t i = 0; i < std::min(data.size(), kShown); ++i) {
        text += (i == 0 ? "" : ", ") + FloatText(data[i]);
    }
    return text + (data.size() > kShown ? ", ... " + std::to_string(data.size() - kShown) + " more}" : "}");
}

std::string BraceText(const Shape& shape)
{
    std::string text = modelkit::ShapeText(shape);
    text.front() = '{';
    text.back() = '}';
    return text;
}

TensorSpec SpecOf(const char* side, size_t index, const CaseTensor& tensor)
{
    return {side + std::to_string(index), tensor.shape, tensor.strideBytes};
}

}  // namespace

LayerCase& LayerCase::Online(Shape shape, std::vector<float> data, uint32_t strideBytes)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.data = std::move(data);
    tensor.strideBytes = strideBytes;
    return Online(std::move(tensor));
}

LayerCase& LayerCase::Online(CaseTensor tensor)
{
    inputs_.push_back({false, std::move(tensor)});
    return *this;
}

LayerCase& LayerCase::Offline(Shape shape, std::vector<float> data)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.data = std::move(data);
    inputs_.push_back({true, std::move(tensor)});
    return *this;
}

LayerCase& LayerCase::Output(Shape shape, uint32_t strideBytes)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.strideBytes = strideBytes;
    return Output(std::move(tensor));
}

LayerCase& LayerCase::Output(CaseTensor tensor)
{
    outputs_.push_back(std::move(tensor));
    return *this;
}

LayerCase& LayerCase::OutputInPlace(int onlineIndex, Shape shape)
{
    CaseTensor tensor;
    tensor.shape = std::move(shape);
    tensor.sameAsInput = onlineIndex;
    return Output(std::move(tensor));
}

LayerCase& LayerCase::Flag(uint32_t k, char value)
{
    flags_.emplace_back(k, value);
    return *this;
}

LayerCase& LayerCase::Workspace(uint32_t bytes)
{
    workspace_ = bytes;
    return *this;
}

LayerCase& LayerCase::Batch(uint32_t items)
{
    batch_ = items;
    return *this;
}

LayerCase& LayerCase::SegId(uint32_t segId)
{
    segId_ = segId;
    return *this;
}

LayerCase& LayerCase::Tamper(std::function<void(World&)> change)
{
    tampers_.push_back(std::move(change));
    return *this;
}

std::string LayerCase::Describe() const
{
    std::string text = "LayerCase layer(\"" + operatorName_ + "\");\n";
    const auto tensorText = [](const CaseTensor& tensor, bool withData) {
        std::string line = BraceText(tensor.shape);
        line += withData ? ", " + DataText(tensor.data) : "";
        line += tensor.strideBytes != 0 ? ", " + std::to_string(tensor.strideBytes) : "";
        std::string extra;
        extra += tensor.memKind != 0 ? " memKind " + std::to_string(tensor.memKind) : "";
        extra += tensor.raw.empty() ? "" : " raw words " + std::to_string(tensor.raw.size());
        return std::pair(line, extra);
    };
    const auto add = [&text](const std::string& call, const std::string& extra) {
        text += "layer." + call + ";" + (extra.empty() ? "" : "  //" + extra) + "\n";
    };
    for (const LogicalInput& input : inputs_) {
        const auto [line, extra] = tensorText(input.tensor, true);
        add((input.offline ? "Offline(" : "Online(") + line + ")", extra);
    }
    for (const CaseTensor& output : outputs_) {
        const auto [line, extra] = tensorText(output, false);
        if (output.sameAsInput >= 0) {
            add("OutputInPlace(" + std::to_string(output.sameAsInput) + ", " + line + ")", extra);
        } else {
            add("Output(" + line + ")", extra + (output.data.empty() ? "" : " starts as " + DataText(output.data)));
        }
    }
    for (const auto& [k, value] : flags_) {
        add("Flag(" + std::to_string(k) + ", '" + std::string(1, value) + "')", "");
    }
    add("Workspace(" + std::to_string(workspace_) + ").Batch(" + std::to_string(batch_) + ").SegId(" +
            std::to_string(segId_) + ")",
        tampers_.empty() ? "" : " and " + std::to_string(tampers_.size()) + " tamper functions");
    text += "attribute words:";
    for (size_t at = sizeof(LayerAttrHead); at + 4 <= attr_.size(); at += 4) {
        uint32_t word = 0;
        std::memcpy(&word, &attr_[at], 4);
        if (word != 0) {
            text += " [" + std::to_string(at) + "]=" + WordText(word);
        }
    }
    return text + "\n";
}

World::World(const LayerCase& layer)
{
    ModelBuilder builder(layer.batch_);
    std::vector<TensorRef> onlineRefs;
    std::vector<std::pair<TensorRef, const CaseTensor*>> inputs;
    std::vector<std::pair<TensorRef, const CaseTensor*>> outputs;
    std::vector<int> aliases;
    auto& built = builder.AddLayer(layer.operatorName_);

    const auto place = [&](const char* side, size_t index, const CaseTensor& tensor, bool isOutput) {
        const TensorSpec tensorSpec = SpecOf(side, index, tensor);
        if (tensor.memKind > OPKIT_MEM_REQUEST_1) {
            return builder.AddScratch(tensorSpec, tensor.memKind == OPKIT_MEM_SCRATCH_BATCHED).WithKind(tensor.memKind);
        }
        return (isOutput ? builder.AddOutput(tensorSpec) : builder.AddInput(tensorSpec)).WithKind(tensor.memKind);
    };
    for (const LayerCase::LogicalInput& input : layer.inputs_) {
        if (input.offline) {
            built.Offline(input.tensor.shape, input.tensor.data);
            continue;
        }
        inputs.emplace_back(place("input", inputs.size(), input.tensor, false), &input.tensor);
        built.Online(inputs.back().first);
    }
    for (const CaseTensor& output : layer.outputs_) {
        if (output.sameAsInput < 0) {
            const size_t before = outputs.size();
            outputs.emplace_back(place("output", before, output, true), &output);
            if (outputs.back().first.memKind <= OPKIT_MEM_REQUEST_1) {
                aliases.push_back(-1);
            }
        } else {
            const auto& [ref, input] = inputs.at(static_cast<size_t>(output.sameAsInput));
            CaseTensor same = output;
            same.memKind = input->memKind;
            same.strideBytes = StrideOf(input->shape, input->strideBytes);
            if (PaddedBytes(same.shape, same.strideBytes) != ref.size) {
                throw std::invalid_argument("an output in place takes as many bytes as its input");
            }
            if (ref.memKind <= OPKIT_MEM_REQUEST_1) {
                outputs.emplace_back(place("output", outputs.size(), same, true), &output);
                aliases.push_back(static_cast<int>(ref.memIndex));
            } else {
                outputs.emplace_back(ref.As(output.shape), &output);
            }
        }
        built.Output(outputs.back().first);
    }
    // A request has at least one input, which carries the batch count, and one output.
    const auto inRequest = [](const auto& entry) { return entry.first.memKind <= OPKIT_MEM_REQUEST_1; };
    if (std::none_of(inputs.begin(), inputs.end(), inRequest)) {
        builder.AddInput({"unused", {1}});
    }
    if (std::none_of(outputs.begin(), outputs.end(), inRequest)) {
        builder.AddOutput({"unused", {1}});
        aliases.push_back(-1);
    }
    for (const auto& [k, value] : layer.flags_) {
        built.Flag(k, value);
    }
    if (layer.attr_.size() > sizeof(LayerAttrHead)) {
        built.AttrBytes(std::span(layer.attr_).subspan(sizeof(LayerAttrHead)));
    }
    built.Workspace(layer.workspace_);
    Bind(builder.Build(), layer.batch_, aliases, kPatternSeed);

    const uint32_t requestInputs = param_.inputNum;
    const auto placement = [&](const TensorRef& ref, const CaseTensor& tensor) {
        Placement at = {kScratchRegion, ref.memIndex, 0, tensor.shape, ref.strideIndex};
        if (ref.memKind <= OPKIT_MEM_REQUEST_1) {
            const TensorInfo& info = ref.requestOutput ? param_.outputs[ref.memIndex] : param_.inputs[ref.memIndex];
            at = {kFirstTensorRegion + ref.memIndex + (ref.requestOutput ? requestInputs : 0), 0, ref.size,
                  tensor.shape, info.stride};
            if (ref.requestOutput && aliases[ref.memIndex] >= 0) {
                at.region = kFirstTensorRegion + static_cast<size_t>(aliases[ref.memIndex]);
            }
        } else if (ref.memKind == OPKIT_MEM_SCRATCH_BATCHED) {
            at.itemBytes = ref.size;
        }
        return at;
    };
    for (const auto& [ref, tensor] : inputs) {
        layerInputs_.push_back(placement(ref, *tensor));
        Store(layerInputs_.back(), *tensor, layer.batch_);
    }
    for (const auto& [ref, tensor] : outputs) {
        layerOutputs_.push_back(placement(ref, *tensor));
        Store(layerOutputs_.back(), *tensor, layer.batch_);
    }
    param_.segId = layer.segId_;
    for (const auto& tamper : layer.tampers_) {
        tamper(*this);
    }
}

World::World(const Model& model, uint32_t batch)
{
    Bind(model, batch, std::vector<int>(model.outputs.size(), -1), kPatternSeed);
}

void World::AddRegion(std::string name, size_t size, uint64_t seed)
{
    Region region;
    region.name = std::move(name);
    region.block = Buffer(size + kGuardBytes);
    region.size = size;
    FillPattern(region.block.Span(), seed + regions_.size());
    regions_.push_back(std::move(region));
}

void World::Bind(const Model& model, uint32_t batch, const std::vector<int>& outputAliases, uint64_t seed)
{
    model_ = std::make_shared<const Model>(model);
    AddRegion("model", model.bytes.size(), seed);
    std::memcpy(regions_[kModelRegion].block.data(), model.bytes.data(), model.bytes.size());
    AddRegion("scratch", model.scratchSize, seed);

    const size_t count = model.inputs.size() + model.outputs.size();
    tensors_ = std::make_unique<TensorInfo[]>(count);
    for (size_t i = 0; i < count; ++i) {
        const bool isOutput = i >= model.inputs.size();
        const TensorSpec& tensorSpec = isOutput ? model_->outputs[i - model.inputs.size()] : model_->inputs[i];
        const int alias = isOutput ? outputAliases[i - model.inputs.size()] : -1;
        const uint32_t itemBytes = PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes);
        AddRegion((isOutput ? "output \"" : "input \"") + tensorSpec.name + "\"",
                  alias < 0 ? size_t{itemBytes} * batch : 0, seed);
        Region& region = regions_.back();
        region.shape = tensorSpec.shape;
        region.strideBytes = tensorSpec.strideBytes;
        region.itemBytes = itemBytes;
        TensorInfo& info = tensors_[i];
        info.stride = StrideOf(tensorSpec.shape, tensorSpec.strideBytes);
        info.batch = batch;
        info.dimNum = static_cast<uint32_t>(tensorSpec.shape.size());
        info.shape = const_cast<uint32_t*>(tensorSpec.shape.data());
        info.data = alias < 0 ? region.block.data() : tensors_[static_cast<size_t>(alias)].data;
        info.size = itemBytes * batch;
    }
    offsets_ = std::make_unique<ModelOffsets>();
    *offsets_ = {model.tables.at(0).layerTableOffset, model.tables.at(0).layerTableSize};
    param_.inputs = tensors_.get();
    param_.inputNum = static_cast<uint32_t>(model.inputs.size());
    param_.outputs = tensors_.get() + model.inputs.size();
    param_.outputNum = static_cast<uint32_t>(model.outputs.size());
    param_.opkitBuf = model.scratchSize == 0 ? nullptr : regions_[kScratchRegion].block.data();
    param_.opkitBufSize = model.scratchSize;
    param_.attr = offsets_.get();
    param_.attrSize = sizeof(ModelOffsets);
    param_.model = regions_[kModelRegion].block.data();
    param_.modelSize = static_cast<uint32_t>(model.bytes.size());
    for (size_t t = 0; t < model.tables.size(); ++t) {
        uint32_t layerCount = 0;
        std::memcpy(&layerCount, ModelBytes().data() + model.tables[t].layerTableOffset, sizeof(layerCount));
        for (uint32_t i = 0; i < layerCount; ++i) {
            const LayerRecord& layer = Layer(i, t);
            if (layer.bufSize != 0) {  // all work spaces begin at one place
                workspaceBegin_ = layer.bufOffset;
                workspaceEnd_ = std::max(workspaceEnd_, layer.bufOffset + layer.bufSize);
            }
        }
    }
}

void* World::Rebase(const World& from, void* pointer) const
{
    const std::byte* const p = static_cast<std::byte*>(pointer);
    for (size_t i = 0; p != nullptr && i < regions_.size(); ++i) {
        const Region& region = from.regions_[i];
        const std::byte* const begin = region.block.data();
        if (p >= begin && p < begin + std::max<size_t>(region.size, 1)) {
            return regions_[i].block.data() + (p - begin);
        }
    }
    return pointer;
}

World World::Clone() const
{
    World copy;
    copy.model_ = model_;
    copy.regions_ = regions_;
    copy.layerInputs_ = layerInputs_;
    copy.layerOutputs_ = layerOutputs_;
    const size_t count = model_->inputs.size() + model_->outputs.size();
    copy.tensors_ = std::make_unique<TensorInfo[]>(count);
    for (size_t i = 0; i < count; ++i) {
        copy.tensors_[i] = tensors_[i];
        copy.tensors_[i].data = copy.Rebase(*this, tensors_[i].data);
    }
    copy.offsets_ = std::make_unique<ModelOffsets>(*offsets_);
    copy.param_ = param_;
    copy.param_.inputs = param_.inputs == nullptr ? nullptr : copy.tensors_.get() + (param_.inputs - tensors_.get());
    copy.param_.outputs = param_.outputs == nullptr ? nullptr : copy.tensors_.get() + (param_.outputs - tensors_.get());
    copy.param_.opkitBuf = copy.Rebase(*this, param_.opkitBuf);
    copy.param_.attr = param_.attr == offsets_.get() ? copy.offsets_.get() : param_.attr;
    copy.param_.model = copy.Rebase(*this, param_.model);
    copy.workspaceBegin_ = workspaceBegin_;
    copy.workspaceEnd_ = workspaceEnd_;
    return copy;
}

uint32_t World::RunRequest(size_t tableIndex)
{
    const modelkit::ModelTable& table = model_->tables.at(tableIndex);
    *offsets_ = {table.layerTableOffset, table.layerTableSize};
    return OpkitForward(&param_);
}

uint32_t World::RunDirect(ForwardFunc function, size_t layerIndex, size_t tableIndex)
{
    const modelkit::ModelTable& table = model_->tables.at(tableIndex);
    *offsets_ = {table.layerTableOffset, table.layerTableSize};
    LayerParam layer = {};
    for (uint32_t item = 0; item < param_.inputs[0].batch; ++item) {
        if (ParseLayerParam(&param_, LayerOffset(layerIndex, tableIndex), &layer, item) != 0) {
            throw std::runtime_error("ParseLayerParam refuses the layer");
        }
        layer.dumpHook.dumpAll = IsDumpLayer(layer.layerId, &param_.dumpHook);
        const uint32_t result = function(&layer);
        if (result == 0) {
            param_.segId = layer.segId;
        }
        ReleaseLayerParam(&layer);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

std::span<float> World::Rows(const Placement& place, uint32_t item) const
{
    return regions_[place.region].block.Floats().subspan((place.offset + item * place.itemBytes) / 4,
                                                         modelkit::PaddedFloats(place.shape, place.strideBytes));
}

void World::Store(const Placement& place, const CaseTensor& tensor, uint32_t batch)
{
    const size_t count = ElementCount(tensor.shape);
    const size_t padded = modelkit::PaddedFloats(place.shape, place.strideBytes);
    const auto itemsOf = [batch](size_t given, size_t perItem) {
        if (given != perItem && given != perItem * batch) {
            throw std::invalid_argument("data is for one batch item or for all: " + std::to_string(perItem) +
                                        " values each");
        }
        return given == perItem ? size_t{0} : perItem;
    };
    for (uint32_t item = 0; item < batch; ++item) {
        const std::span<float> rows = Rows(place, item);
        if (!tensor.raw.empty()) {
            std::memcpy(rows.data(), &tensor.raw[item * itemsOf(tensor.raw.size(), padded)], padded * 4);
        } else if (!tensor.data.empty()) {
            const size_t step = itemsOf(tensor.data.size(), count);
            modelkit::PadRows(std::span(tensor.data).subspan(item * step, count), place.shape, place.strideBytes, rows);
        }
    }
}

std::vector<float> World::Input(size_t k, uint32_t item) const
{
    const Placement& place = layerInputs_.at(k);
    return modelkit::CompactRows(Rows(place, item), place.shape, place.strideBytes);
}

std::vector<float> World::Output(size_t k, uint32_t item) const
{
    const Placement& place = layerOutputs_.at(k);
    return modelkit::CompactRows(Rows(place, item), place.shape, place.strideBytes);
}

std::span<float> World::InputRows(size_t k, uint32_t item)
{
    return Rows(layerInputs_.at(k), item);
}

std::span<float> World::OutputRows(size_t k, uint32_t item)
{
    return Rows(layerOutputs_.at(k), item);
}

std::span<float> World::OfflineData(size_t j)
{
    const modelkit::ModelConstant& constant = model_->constants.at(j);
    return regions_[kModelRegion].block.Floats().subspan(constant.offset / 4, ElementCount(constant.shape));
}

void World::SetInput(size_t requestIndex, std::span<const float> compactItems)
{
    const TensorSpec& tensorSpec = model_->inputs.at(requestIndex);
    CaseTensor tensor;
    tensor.shape = tensorSpec.shape;
    tensor.data.assign(compactItems.begin(), compactItems.end());
    const Region& region = regions_[kFirstTensorRegion + requestIndex];
    Store({kFirstTensorRegion + requestIndex, 0, region.itemBytes, tensorSpec.shape, tensorSpec.strideBytes}, tensor,
          tensors_[requestIndex].batch);
}

std::span<std::byte> World::ModelBytes()
{
    return regions_[kModelRegion].block.Span().first(regions_[kModelRegion].size);
}

uint32_t World::LayerOffset(size_t layerIndex, size_t tableIndex) const
{
    uint32_t offset = 0;
    const uint32_t base = model_->tables.at(tableIndex).layerTableOffset;
    std::memcpy(&offset, regions_[kModelRegion].block.data() + base + 4 + layerIndex * 4, sizeof(offset));
    return offset;
}

LayerRecord& World::Layer(size_t layerIndex, size_t tableIndex)
{
    const uint32_t base = model_->tables.at(tableIndex).layerTableOffset;
    return regions_[kModelRegion].block.At<LayerRecord>(base + LayerOffset(layerIndex, tableIndex));
}

std::byte* World::AttrAddress(size_t layerIndex, size_t tableIndex)
{
    const uint32_t base = model_->tables.at(tableIndex).layerTableOffset;
    return regions_[kModelRegion].block.data() + base + Layer(layerIndex, tableIndex).attrOffset;
}

std::string World::Difference(const World& actual, const World& expected, NanPolicy policy)
{
    if (actual.param_.segId != expected.param_.segId) {
        return "segId is " + std::to_string(actual.param_.segId) + ", expected " +
               std::to_string(expected.param_.segId);
    }
    const modelkit::Model& model = *actual.model_;
    const uint32_t tables = model.tables[0].layerTableOffset;  // constants lie before it
    for (size_t r = 0; r < actual.regions_.size(); ++r) {
        const Region& region = actual.regions_[r];
        const auto a = region.block.Words();
        const auto b = expected.regions_[r].block.Words();
        if (std::ranges::equal(a, b)) {
            continue;
        }
        for (size_t i = 0; i < a.size(); ++i) {
            const size_t byte = i * 4;
            const bool isWord = r == kModelRegion && byte >= tables;  // tables and attributes are no floats
            if (SameWord(a[i], b[i], isWord ? NanPolicy::kExactBits : policy) ||
                (r == kScratchRegion && byte >= actual.workspaceBegin_ && byte < actual.workspaceEnd_)) {
                continue;
            }
            std::string where = region.name + ", byte " + std::to_string(byte);
            const auto rowColumn = [&where](const Shape& shape, uint32_t strideBytes, size_t word) {
                const uint32_t width = modelkit::RowWidth(shape);
                const uint32_t pitch = modelkit::RowPitch(width, StrideOf(shape, strideBytes) / 4);
                where += " (row " + std::to_string(word / pitch) + ", column " + std::to_string(word % pitch) +
                         (word % pitch < width ? "" : ", a gap") + " of " + modelkit::ShapeText(shape) + ")";
            };
            if (byte >= region.size) {
                where += ", behind its end at " + std::to_string(region.size);
            } else if (r == kModelRegion) {
                for (const modelkit::ModelConstant& constant : model.constants) {
                    if (byte >= constant.offset && byte - constant.offset < ElementCount(constant.shape) * 4) {
                        where += " (constant \"" + constant.name + "\", element " +
                                 std::to_string((byte - constant.offset) / 4) + ")";
                    }
                }
                const uint32_t layer = actual.LayerOffset(0, 0);
                const size_t attr = tables + region.block.At<LayerRecord>(tables + layer).attrOffset;
                where += byte >= attr ? " (byte " + std::to_string(byte - attr) + " of layer 0's attribute block)" : "";
            } else if (r >= kFirstTensorRegion) {
                where += " (item " + std::to_string(byte / region.itemBytes) + ")";
                rowColumn(region.shape, region.strideBytes, byte % region.itemBytes / 4);
            } else {
                for (const auto* places : {&actual.layerInputs_, &actual.layerOutputs_}) {
                    for (const Placement& place : *places) {
                        const size_t bytes = PaddedBytes(place.shape, place.strideBytes);
                        if (place.region == r && byte >= place.offset && byte < place.offset + bytes) {
                            rowColumn(place.shape, place.strideBytes, (byte - place.offset) / 4);
                        }
                    }
                }
            }
            return where + ": " + WordText(a[i]) + ", expected " + WordText(b[i]);
        }
    }
    return {};
}

uint64_t World::Hash(NanPolicy policy) const
{
    uint64_t hash = param_.segId;
    const uint32_t tables = model_->tables[0].layerTableOffset;
    for (size_t r = 0; r < regions_.size(); ++r) {
        const auto words = regions_[r].block.Words();
        for (size_t i = 0; i < words.size(); ++i) {
            const size_t byte = i * 4;
            if (r == kScratchRegion && byte >= workspaceBegin_ && byte < workspaceEnd_) {
                continue;
            }
            const bool isFloat = r != kModelRegion || byte < tables;
            const bool anyNan =
                policy == NanPolicy::kAnyNan && isFloat && IsNan(words[i]) && (words[i] & kQuietBit) != 0;
            hash = (hash ^ (anyNan ? 0x7fc00000 : words[i])) * 0x9e3779b97f4a7c15ULL;
            hash ^= hash >> 29;
        }
    }
    return hash;
}

}  // namespace opkit::test
