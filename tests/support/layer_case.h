// LayerCase describes one layer and its data; World is the memory of a request that runs it.
//
//     LayerCase layer("GemmOpkitForward");
//     layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16)        // shape, compact data, row stride in bytes (0: compact)
//         .Offline({3, 2}, {1, 0, 0, 1, 1, 1})
//         .Output({2, 2}, 16);
//     layer.Attr<GemmAttr>().alpha = 1.0f;
//     World world(layer);
//     EXPECT_EQ(world.RunDirect(GemmOpkitForward), 0u);    // or world.RunRequest()
//     EXPECT_THAT(world.Output(0), ElementsAre(...));      // compact
#ifndef OPKIT_TESTS_SUPPORT_LAYER_CASE_H
#define OPKIT_TESTS_SUPPORT_LAYER_CASE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "modelkit/model_builder.h"
#include "opkit/records.h"

namespace opkit::test {

using modelkit::ElementCount;
using modelkit::Shape;

class World;

// One tensor of a LayerCase. The short forms of Online, Offline and Output fill the first three fields.
struct CaseTensor {
    opkit::modelkit::Shape shape;
    std::vector<float> data;    // compact: of one batch item (then every item has it) or of all; empty: fill pattern
    uint32_t strideBytes = 0;   // 0: compact
    std::vector<uint32_t> raw;  // instead of data: the words of one item's (or all items') padded rows
    uint32_t memKind = OPKIT_MEM_REQUEST;  // 2, 3: in scratch
    int sameAsInput = -1;                  // an output that is the memory of this online input (in place)
};

class LayerCase {
public:
    explicit LayerCase(std::string operatorName) : operatorName_(std::move(operatorName)) {}

    // Logical inputs, in order.
    LayerCase& Online(Shape shape, std::vector<float> data, uint32_t strideBytes = 0);
    LayerCase& Online(CaseTensor tensor);
    LayerCase& Offline(Shape shape, std::vector<float> data);
    // Outputs, in order. Their memory starts as the fill pattern, NaNs among it, unless the tensor brings data.
    LayerCase& Output(Shape shape, uint32_t strideBytes = 0);
    LayerCase& Output(CaseTensor tensor);
    // An output with the memory of online input `onlineIndex` (0: the first online input), same stride.
    LayerCase& OutputInPlace(int onlineIndex, Shape shape);
    LayerCase& Flag(uint32_t k, char value);  // flag char of logical input k
    LayerCase& Workspace(uint32_t bytes);
    LayerCase& Batch(uint32_t items);
    LayerCase& SegId(uint32_t segId);  // the request's, before the run
    // Changes the memory after it is laid out: model bytes, tensors, null pointers.
    LayerCase& Tamper(std::function<void(World&)> change);

    // The operator's attribute record, zeroed at first; its head is filled when the model is built.
    template <class T>
    T& Attr()
    {
        static_assert(std::is_trivially_copyable_v<T> && sizeof(T) >= sizeof(LayerAttrHead) && alignof(T) <= 8);
        if (attr_.size() < sizeof(T)) {
            attr_.resize(sizeof(T));
        }
        return *reinterpret_cast<T*>(attr_.data());
    }

    const std::string& OperatorName() const { return operatorName_; }
    // C++ that builds the same case again; long data is cut.
    std::string Describe() const;

private:
    friend class World;
    struct LogicalInput {
        bool offline;
        CaseTensor tensor;
    };

    std::string operatorName_;
    std::vector<LogicalInput> inputs_;
    std::vector<CaseTensor> outputs_;
    std::vector<std::pair<uint32_t, char>> flags_;
    uint32_t workspace_ = 0;
    uint32_t batch_ = 1;
    uint32_t segId_ = 0;
    std::vector<std::byte> attr_;
    std::vector<std::function<void(World&)>> tampers_;
};

// Moved values must keep their bits (kExactBits); NaN made by arithmetic may have any payload and sign (kAnyNan: two
// quiet NaNs are alike, a signalling one, which arithmetic never leaves, equals only itself).
enum class NanPolicy { kExactBits, kAnyNan };

// All memory of one request, each part a heap block of exactly its size, so that address checkers see overruns; without
// a checker, guard words behind each block take part in comparisons. What the case does not set holds a pattern.
class World {
public:
    explicit World(const LayerCase& layer);
    // Any model, for tests of several layers; inputs hold the pattern until SetInput.
    explicit World(const modelkit::Model& model, uint32_t batch = 1);
    World Clone() const;
    World(World&&) = default;
    World& operator=(World&&) = default;

    // Through OpkitForward, with table `tableIndex`.
    uint32_t RunRequest(size_t tableIndex = 0);
    // Calls `function` with the LayerParam of layer `layerIndex` for each batch item, until one fails; as the driver
    // does, keeps segId of a success.
    uint32_t RunDirect(ForwardFunc function, size_t layerIndex = 0, size_t tableIndex = 0);

    // Compact elements of a layer-0 tensor of a LayerCase; k counts the layer's online inputs or outputs.
    std::vector<float> Input(size_t k = 0, uint32_t item = 0) const;
    std::vector<float> Output(size_t k = 0, uint32_t item = 0) const;
    // The same with row gaps, as they lie in memory.
    std::span<float> InputRows(size_t k = 0, uint32_t item = 0);
    std::span<float> OutputRows(size_t k = 0, uint32_t item = 0);
    // Offline input j's data in the model buffer.
    std::span<float> OfflineData(size_t j);
    void SetInput(size_t requestIndex, std::span<const float> compactItems);

    // The attribute block of a layer, in the model buffer.
    template <class T>
    T& Attr(size_t layerIndex = 0, size_t tableIndex = 0)
    {
        return *reinterpret_cast<T*>(AttrAddress(layerIndex, tableIndex));
    }
    LayerRecord& Layer(size_t layerIndex = 0, size_t tableIndex = 0);
    ForwardParam& Param() { return param_; }
    const ForwardParam& Param() const { return param_; }
    const modelkit::Model& ModelInfo() const { return *model_; }
    std::span<std::byte> ModelBytes();

    // Empty when all memory is the same, words compared bit by bit under the policy; otherwise a text that names the
    // first difference. Work spaces do not count.
    static std::string Difference(const World& actual, const World& expected, NanPolicy policy);
    // A number that all worlds without a Difference share.
    uint64_t Hash(NanPolicy policy) const;

private:
    struct Region {
        std::string name;
        modelkit::Buffer block;  // the region and its guard
        size_t size = 0;
        Shape shape;  // of one item, empty for model and scratch
        uint32_t strideBytes = 0;
        uint32_t itemBytes = 0;
    };
    struct Placement {  // where a layer-0 tensor lies
        size_t region;
        size_t offset;
        size_t itemBytes;  // distance of two items; 0: shared
        Shape shape;
        uint32_t strideBytes;
    };
    World() = default;
    void Bind(const modelkit::Model& model, uint32_t batch, const std::vector<int>& outputAliases, uint64_t seed);
    void AddRegion(std::string name, size_t size, uint64_t seed);
    std::span<float> Rows(const Placement& place, uint32_t item) const;
    void Store(const Placement& place, const CaseTensor& tensor, uint32_t batch);
    std::byte* AttrAddress(size_t layerIndex, size_t tableIndex);
    uint32_t LayerOffset(size_t layerIndex, size_t tableIndex) const;
    void* Rebase(const World& from, void* pointer) const;

    std::shared_ptr<const modelkit::Model> model_;
    mutable std::vector<Region> regions_;  // 0 model, 1 scratch, then the request's tensors
    std::vector<Placement> layerInputs_;
    std::vector<Placement> layerOutputs_;
    std::vector<size_t> offlineConstants_;
    std::unique_ptr<TensorInfo[]> tensors_;
    std::unique_ptr<ModelOffsets> offsets_;
    ForwardParam param_ = {};
    uint32_t workspaceBegin_ = 0;
    uint32_t workspaceEnd_ = 0;
};

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_LAYER_CASE_H
