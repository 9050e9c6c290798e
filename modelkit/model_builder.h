// Writes model buffers from a description in code.
//
//     ModelBuilder builder;
//     const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
//     const TensorRef y = builder.AddOutput({"y", {2, 3}, 16});
//     BinaryMathAttr attr = {};
//     builder.AddLayer("BinaryMathOpkitForward").Online(x).Offline({3}, {1, 2, 3}).Output(y).Attr(attr);
//     const Model model = builder.Build();
#ifndef OPKIT_MODELKIT_MODEL_BUILDER_H
#define OPKIT_MODELKIT_MODEL_BUILDER_H

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::modelkit {

// Bytes of every attribute block that is not longer by its own record: room for the longest operator record.
inline constexpr uint32_t kAttrBlockBytes = 8832;

// A tensor as one layer sees it: the fields of a TensorRecord and the dimensions. A plain value: a layer that sees the
// same memory under another shape, stride or kind gets an altered copy.
struct TensorRef {
    uint32_t memKind = OPKIT_MEM_REQUEST;
    uint32_t memIndex = 0;     // request tensor, or byte offset into opkitBuf
    uint32_t size = 0;         // bytes of one batch item
    uint32_t strideIndex = 0;  // request tensor whose stride counts, or the stride in bytes
    Shape shape;
    bool requestOutput = false;  // a request tensor of the output side

    TensorRef As(Shape newShape) const;
    TensorRef WithStride(uint32_t bytes) const;  // scratch tensors only; a request tensor's stride is its own
    TensorRef WithKind(uint32_t kind) const;
};

struct ConstantRef {
    uint32_t index = 0;
};

class ModelBuilder;

// One layer. Online() and Offline() are called in the order of the logical inputs.
class LayerBuilder {
public:
    LayerBuilder& Online(TensorRef tensor);
    LayerBuilder& Offline(ConstantRef constant);
    LayerBuilder& Offline(Shape shape, std::vector<float> data);
    LayerBuilder& Output(TensorRef tensor);
    // Sets the flag char of logical input k, whatever the calls above made of it.
    LayerBuilder& Flag(uint32_t k, char value);
    // Takes the operator's own fields from a typed record; its head is ignored.
    template <class T>
    LayerBuilder& Attr(const T& record)
    {
        static_assert(std::is_trivially_copyable_v<T> && sizeof(T) >= sizeof(LayerAttrHead));
        return AttrBytes(
            {reinterpret_cast<const std::byte*>(&record) + sizeof(LayerAttrHead), sizeof(T) - sizeof(LayerAttrHead)});
    }
    // The bytes behind the head.
    LayerBuilder& AttrBytes(std::span<const std::byte> bytes);
    LayerBuilder& Workspace(uint32_t bytes);
    LayerBuilder& LayerId(uint32_t id);

private:
    friend class ModelBuilder;
    LayerBuilder(ModelBuilder& owner, std::string name, uint32_t id) : owner_(owner), name_(std::move(name)), id_(id) {}

    ModelBuilder& owner_;
    std::string name_;
    uint32_t id_;
    uint32_t workspace_ = 0;
    std::vector<TensorRef> inputs_;
    std::vector<TensorRef> outputs_;
    std::vector<uint32_t> constants_;
    std::string flags_;
    std::vector<std::pair<uint32_t, char>> flagOverrides_;
    std::vector<std::byte> attr_;
};

class ModelBuilder {
public:
    // maxBatch: batch items that batched scratch tensors get a slice for.
    explicit ModelBuilder(uint32_t maxBatch = 1) : maxBatch_(maxBatch) {}
    ModelBuilder(const ModelBuilder&) = delete;
    ModelBuilder& operator=(const ModelBuilder&) = delete;

    TensorRef AddInput(TensorSpec tensorSpec);
    TensorRef AddOutput(TensorSpec tensorSpec);
    // An intermediate tensor in opkitBuf; batched: one slice per batch item. Each gets a place of its own, at a
    // multiple of 64 bytes, unless `offset` sets one (for tensors that share memory).
    TensorRef AddScratch(TensorSpec tensorSpec, bool batched = false, std::optional<uint32_t> offset = std::nullopt);
    // A constant that several layers may use.
    ConstantRef AddConstant(std::string name, Shape shape, std::vector<float> data);
    // Starts a further layer table; AddLayer appends to the latest. Without a call there is one table, segment 0.
    void BeginTable(uint32_t segmentId, std::string name = {});
    // The segment that follows the latest table when its layers ask for none; see segment_runner.h.
    void NextSegment(uint32_t segmentId);
    LayerBuilder& AddLayer(std::string operatorName);

    // Throws BuildError for what the format cannot hold. Layers' work spaces share one place behind the tensors.
    Model Build() const;

private:
    friend class LayerBuilder;
    struct Constant {
        std::string name;
        Shape shape;
        std::vector<float> data;
    };
    struct Table {
        uint32_t segmentId;
        std::string name;
        std::vector<std::unique_ptr<LayerBuilder>> layers;
        std::optional<uint32_t> next = {};
    };
    class Planner;

    uint32_t maxBatch_;
    std::vector<TensorSpec> inputs_;
    std::vector<TensorSpec> outputs_;
    std::vector<Constant> constants_;
    std::vector<Table> tables_;
    uint64_t scratchEnd_ = 0;
    uint32_t nextLayerId_ = 0;
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_BUILDER_H
