// The buffer: constants first, each at a multiple of 64 bytes, then the layer tables. A table is followed by what it
// locates: for each layer its record, name, tensor records, dimensions and attribute block.

#include "modelkit/model_builder.h"

#include <algorithm>

#include "modelkit/model_writer.h"

namespace opkit::modelkit {
namespace {

constexpr uint32_t kScratchAlignment = 64;

uint64_t RoundUp(uint64_t value, uint64_t multiple)
{
    return (value + multiple - 1) / multiple * multiple;
}

void CheckElements(const std::string& what, const Shape& shape, size_t given)
{
    if (ElementCount(shape) != given) {
        throw BuildError(what + " has shape " + ShapeText(shape) + " and " + std::to_string(given) + " elements");
    }
    if (shape.size() > OPKIT_MAX_DIMS) {
        throw BuildError(what + " has " + std::to_string(shape.size()) + " dimensions, an offline input at most 10");
    }
}

TensorSpec Resolved(TensorSpec tensorSpec)
{
    tensorSpec.strideBytes = StrideOf(tensorSpec.shape, tensorSpec.strideBytes);
    if (tensorSpec.strideBytes % 4 != 0) {
        throw BuildError("tensor \"" + tensorSpec.name + "\": a stride is a multiple of 4 bytes");
    }
    return tensorSpec;
}

TensorRef AddRequestTensor(TensorSpec tensorSpec, std::vector<TensorSpec>* side, bool isOutput)
{
    tensorSpec = Resolved(std::move(tensorSpec));
    const uint32_t index = static_cast<uint32_t>(side->size());
    const uint32_t size = PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes);
    side->push_back(std::move(tensorSpec));
    return {OPKIT_MEM_REQUEST, index, size, index, side->back().shape, isOutput};
}

}  // namespace

TensorRef TensorRef::As(Shape newShape) const
{
    TensorRef ref = *this;
    ref.shape = std::move(newShape);
    return ref;
}

TensorRef TensorRef::WithStride(uint32_t bytes) const
{
    if (memKind <= OPKIT_MEM_REQUEST_1) {
        throw BuildError("the stride of a request tensor is set where it is added");
    }
    TensorRef ref = *this;
    ref.strideIndex = bytes;
    return ref;
}

TensorRef TensorRef::WithKind(uint32_t kind) const
{
    if ((memKind <= OPKIT_MEM_REQUEST_1) != (kind <= OPKIT_MEM_REQUEST_1)) {
        throw BuildError("a tensor does not move between the request and the scratch");
    }
    TensorRef ref = *this;
    ref.memKind = kind;
    return ref;
}

LayerBuilder& LayerBuilder::Online(TensorRef tensor)
{
    if (tensor.memKind <= OPKIT_MEM_REQUEST_1 && tensor.requestOutput) {
        throw BuildError("layer " + name_ + " reads a request output; put it into scratch, or bind an input to it");
    }
    inputs_.push_back(std::move(tensor));
    flags_.push_back('0');
    return *this;
}

LayerBuilder& LayerBuilder::Offline(ConstantRef constant)
{
    if (constant.index >= owner_.constants_.size()) {
        throw BuildError("layer " + name_ + ": no such constant");
    }
    constants_.push_back(constant.index);
    flags_.push_back('1');
    return *this;
}

LayerBuilder& LayerBuilder::Offline(Shape shape, std::vector<float> data)
{
    const std::string name = name_ + ".constant" + std::to_string(owner_.constants_.size());
    return Offline(owner_.AddConstant(name, std::move(shape), std::move(data)));
}

LayerBuilder& LayerBuilder::Output(TensorRef tensor)
{
    if (tensor.memKind <= OPKIT_MEM_REQUEST_1 && !tensor.requestOutput) {
        throw BuildError("layer " + name_ + " writes a request input; bind an output to it instead");
    }
    outputs_.push_back(std::move(tensor));
    return *this;
}

LayerBuilder& LayerBuilder::Flag(uint32_t k, char value)
{
    if (k >= OPKIT_MAX_LAYER_INPUTS) {
        throw BuildError("layer " + name_ + ": flag " + std::to_string(k) + " lies outside the block");
    }
    flagOverrides_.emplace_back(k, value);
    return *this;
}

LayerBuilder& LayerBuilder::AttrBytes(std::span<const std::byte> bytes)
{
    attr_.assign(bytes.begin(), bytes.end());
    return *this;
}

LayerBuilder& LayerBuilder::Workspace(uint32_t bytes)
{
    workspace_ = bytes;
    return *this;
}

LayerBuilder& LayerBuilder::LayerId(uint32_t id)
{
    id_ = id;
    return *this;
}

TensorRef ModelBuilder::AddInput(TensorSpec tensorSpec)
{
    return AddRequestTensor(std::move(tensorSpec), &inputs_, false);
}

TensorRef ModelBuilder::AddOutput(TensorSpec tensorSpec)
{
    return AddRequestTensor(std::move(tensorSpec), &outputs_, true);
}

TensorRef ModelBuilder::AddScratch(TensorSpec tensorSpec, bool batched, std::optional<uint32_t> offset)
{
    tensorSpec = Resolved(std::move(tensorSpec));
    const uint32_t size = PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes);
    const uint64_t begin = offset ? *offset : RoundUp(scratchEnd_, kScratchAlignment);
    const uint64_t end = begin + uint64_t{size} * (batched ? maxBatch_ : 1);
    if (end > UINT32_MAX) {
        throw BuildError("scratch tensor \"" + tensorSpec.name + "\" ends beyond 4 GiB");
    }
    scratchEnd_ = std::max(scratchEnd_, end);
    const uint32_t kind = batched ? OPKIT_MEM_SCRATCH_BATCHED : OPKIT_MEM_SCRATCH;
    return {kind, static_cast<uint32_t>(begin), size, tensorSpec.strideBytes, std::move(tensorSpec.shape), false};
}

ConstantRef ModelBuilder::AddConstant(std::string name, Shape shape, std::vector<float> data)
{
    CheckElements("constant \"" + name + "\"", shape, data.size());
    constants_.push_back({std::move(name), std::move(shape), std::move(data)});
    return {static_cast<uint32_t>(constants_.size() - 1)};
}

void ModelBuilder::BeginTable(uint32_t segmentId, std::string name)
{
    if (name.empty()) {
        name = "segment" + std::to_string(segmentId);
    }
    tables_.push_back({segmentId, std::move(name), {}});
}

void ModelBuilder::NextSegment(uint32_t segmentId)
{
    if (tables_.empty()) {
        BeginTable(0, "main");
    }
    tables_.back().next = segmentId;
}

LayerBuilder& ModelBuilder::AddLayer(std::string operatorName)
{
    if (tables_.empty()) {
        BeginTable(0, "main");
    }
    auto& layers = tables_.back().layers;
    layers.push_back(std::unique_ptr<LayerBuilder>(new LayerBuilder(*this, std::move(operatorName), nextLayerId_++)));
    return *layers.back();
}

// The description as the model writer takes it.
class ModelBuilder::Planner {
public:
    explicit Planner(const ModelBuilder& builder) : builder_(builder) {}

    Model Run()
    {
        for (const Constant& constant : builder_.constants_) {
            const uint32_t offset = writer_.Reserve(constant.data.size() * sizeof(float), Buffer::kAlignment);
            writer_.PutBytes(offset, std::as_bytes(std::span(constant.data)));
            model_.constants.push_back({constant.name, offset, constant.shape});
        }
        for (const Table& table : builder_.tables_) {
            WriteTable(table);
        }
        model_.bytes = writer_.Finish();
        model_.inputs = builder_.inputs_;
        model_.outputs = builder_.outputs_;
        model_.scratchSize = ScratchSize();
        model_.maxBatch = builder_.maxBatch_;
        return std::move(model_);
    }

private:
    void WriteTable(const Table& table)
    {
        if (table.layers.size() > OPKIT_MAX_LAYERS) {
            throw BuildError("table " + table.name + " has " + std::to_string(table.layers.size()) +
                             " layers, at most 128");
        }
        const uint32_t base = writer_.BeginTable(static_cast<uint32_t>(table.layers.size()));
        for (const auto& layer : table.layers) {
            writer_.WriteLayer(PlanOf(*layer));
        }
        const uint32_t size = static_cast<uint32_t>(writer_.Size()) - base;
        model_.tables.push_back({table.segmentId, table.name, base, size, table.next});
    }

    uint32_t WorkspaceBegin() const { return static_cast<uint32_t>(RoundUp(builder_.scratchEnd_, kScratchAlignment)); }

    uint32_t ScratchSize() const
    {
        uint64_t workspace = 0;
        for (const Table& table : builder_.tables_) {
            for (const auto& layer : table.layers) {
                workspace = std::max<uint64_t>(workspace, layer->workspace_);
            }
        }
        const uint64_t size = workspace == 0 ? builder_.scratchEnd_ : WorkspaceBegin() + workspace;
        if (size > UINT32_MAX) {
            throw BuildError("the scratch takes more than 4 GiB");
        }
        return static_cast<uint32_t>(size);
    }

    static std::vector<TensorPlan> PlansOf(const std::vector<TensorRef>& tensors)
    {
        std::vector<TensorPlan> plans;
        for (const TensorRef& tensor : tensors) {
            plans.push_back(
                {{tensor.memKind, tensor.memIndex, tensor.size, tensor.strideIndex, 0, 0}, tensor.shape, {}, {}});
        }
        return plans;
    }

    LayerAttrHead HeadOf(const LayerBuilder& layer) const
    {
        LayerAttrHead head = {};
        for (size_t j = 0; j < layer.constants_.size(); ++j) {
            const ModelConstant& constant = model_.constants[layer.constants_[j]];
            head.offlineOffset[j] = static_cast<int32_t>(constant.offset);
            std::copy(constant.shape.begin(), constant.shape.end(), head.offlineShape[j].dims);
            head.offlineShape[j].dimNum = static_cast<uint32_t>(constant.shape.size());
        }
        head.offlineInputNum = static_cast<uint32_t>(layer.constants_.size());
        std::copy(layer.flags_.begin(), layer.flags_.end(), head.inputFlags);
        for (const auto& [k, value] : layer.flagOverrides_) {
            head.inputFlags[k] = value;
        }
        return head;
    }

    LayerPlan PlanOf(const LayerBuilder& layer) const
    {
        if (layer.flags_.size() > OPKIT_MAX_LAYER_INPUTS || layer.outputs_.size() > OPKIT_MAX_LAYER_OUTPUTS) {
            throw BuildError("layer " + layer.name_ + " has more than 80 inputs or 30 outputs");
        }
        LayerPlan plan;
        plan.name = layer.name_;
        plan.record.layerId = layer.id_;
        plan.record.bufOffset = layer.workspace_ == 0 ? 0 : WorkspaceBegin();
        plan.record.bufSize = layer.workspace_;
        plan.inputs = PlansOf(layer.inputs_);
        plan.outputs = PlansOf(layer.outputs_);
        plan.head = HeadOf(layer);
        const uint64_t own = sizeof(LayerAttrHead) + layer.attr_.size();
        plan.record.attrSize = static_cast<uint32_t>(RoundUp(std::max<uint64_t>(own, kAttrBlockBytes), 8));
        plan.attributes.push_back({sizeof(LayerAttrHead), layer.attr_});
        return plan;
    }

    const ModelBuilder& builder_;
    ModelWriter writer_;
    Model model_;
};

Model ModelBuilder::Build() const
{
    return Planner(*this).Run();
}

}  // namespace opkit::modelkit
