// What the check of one operator works with: the layer's tensors and attributes, resolved as the library resolves them,
// and the requirements. The first requirement that does not hold ends the layer's check.
#ifndef OPKIT_MODELKIT_CHECK_LAYER_CHECK_H
#define OPKIT_MODELKIT_CHECK_LAYER_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "modelkit/attribute_fields.h"
#include "modelkit/check.h"
#include "modelkit/check/tensor.h"
#include "opkit/records.h"

namespace opkit::modelkit::check {

// Thrown where a check ends, after the refusal was noted.
struct Refused {};

// What does not change from layer to layer.
struct ModelView {
    std::span<const std::byte> bytes;
    CheckRequest request;
    std::set<uint32_t> segments;
    CheckReport* report = nullptr;

    template <class T>
    T Get(uint64_t at) const
    {
        T value;
        std::memcpy(&value, bytes.data() + at, sizeof(T));
        return value;
    }
    [[noreturn]] void Refuse(const CheckPlace& place, const Field& field, int64_t value, int64_t limit,
                             std::string reason) const;
};

// A layer whose records lie inside the buffer.
struct Layer {
    CheckPlace place;
    LayerRecord record = {};
    uint64_t recordAt = 0;
    uint64_t attrAt = 0;
    std::vector<Tensor> inputs;
    std::vector<Tensor> outputs;
};

// A range of the model buffer that the layer's operator writes.
struct ModelWrite {
    enum class What { kConstant, kNotes, kState };  // of the attribute block: never read again, or by the same layer

    What what = What::kConstant;
    Field field;
    uint64_t begin = 0;
    uint64_t end = 0;
};

class LayerCheck {
public:
    LayerCheck(const ModelView& model, const Layer& layer) : model_(model), layer_(layer) {}

    // Attributes. The block is known to reach as far as the operator's record.
    template <class T>
    T Attr() const
    {
        return model_.Get<T>(layer_.attrAt);
    }
    Field AttrField(std::string name, size_t offset) const { return {std::move(name), layer_.attrAt + offset}; }
    Field RecordField(std::string name, size_t offset) const { return {std::move(name), layer_.recordAt + offset}; }
    uint64_t AttrSize() const { return layer_.record.attrSize; }
    uint32_t InputNum() const { return static_cast<uint32_t>(layer_.inputs.size()); }
    uint32_t OutputNum() const { return static_cast<uint32_t>(layer_.outputs.size()); }
    uint64_t ModelSize() const { return model_.bytes.size(); }
    uint32_t Batch() const { return model_.request.batch; }
    char Flag(uint32_t k) const;

    // Requirements.
    [[noreturn]] void Refuse(const Field& field, int64_t value, int64_t limit, std::string reason) const;
    void AtMost(const Field& field, uint64_t value, uint64_t limit, const std::string& reason) const;
    void AtLeast(const Field& field, uint64_t value, uint64_t limit, const std::string& reason) const;
    void Axis(const Field& field, int64_t axis, size_t rank) const;  // 0 to rank - 1
    void Rank(const Tensor& tensor, size_t low, size_t high, const std::string& reason) const;
    void Elements(const Tensor& tensor, uint64_t count, const std::string& reason) const;  // by its shape
    void Floats(const Tensor& tensor, uint64_t count, const std::string& reason) const;    // by its size
    void Segment(const Field& field, uint32_t segmentId);  // noted only, as the layer itself is sound
    void Condition(std::string text) const;

    // Whether the requirements of `check` hold, instead of ending the layer's check.
    template <class Check>
    bool Holds(Check check)
    {
        const size_t before = model_.report->refusals.size();
        try {
            check();
            return true;
        } catch (const Refused&) {
            model_.report->refusals.erase(model_.report->refusals.begin() + static_cast<ptrdiff_t>(before),
                                          model_.report->refusals.end());
            return false;
        }
    }

    // Inputs and outputs. Those without "Raw" have a rank of 1 to 10, no dimension of 0, an alignment, and rows that
    // fit their size.
    const Tensor& Next();           // the next logical input
    const Tensor& NextCompacted();  // the same, compacted in place by the operator
    const Tensor& NextRaw();
    void SkipTo(uint32_t logical) { logical_ = logical; }
    const Tensor& Logical(uint32_t k);  // whatever was resolved before; a constant may be without dimensions
    const Tensor& Online(uint32_t index, const std::string& reason);
    const Tensor& OnlineRaw(uint32_t index, const std::string& reason);
    const Tensor& OnlineUnread(uint32_t index, const std::string& reason) const;  // whose data does not count
    const Tensor& Constant(uint32_t j);  // the j-th constant, with 0 to 10 dimensions
    const Tensor& Out(uint32_t index = 0);
    const Tensor& OutExpanded(uint32_t index = 0);  // written compactly and expanded by its own alignment
    const Tensor& OutRaw(uint32_t index);
    void Rows(const Tensor& tensor) const;
    void RowsReachAlign(const Tensor& tensor) const;  // an alignment of at least the width, for unrounded row distances

    // What is written besides the outputs.
    void Modifies(const Tensor& tensor);
    void ModifiesAttr(std::string name, size_t offset, size_t size, ModelWrite::What what = ModelWrite::What::kNotes);
    void WorkSpace(uint64_t bytes, const std::string& reason);

    // `out` may be the memory of `in`; the second form only if both have one shape and row layout.
    void MayAlias(const Tensor& out, const Tensor& in) { aliases_.emplace(&out, &in); }
    void MayRunInPlace(const Tensor& out, const Tensor& in);
    // Any two tensors of the layer may be one.
    void MayShareAll() { shareAll_ = true; }

    // Element operations for one batch item besides those that all layers have: one for each element of their tensors
    // and work space.
    void Work(uint64_t operations) { work_ = Add(work_, operations); }

    // After the operator's own check: tensors and work space share no memory but where that was allowed.
    void CheckSharing() const;
    void NoteWork() const;
    const std::vector<ModelWrite>& Writes() const { return writes_; }

private:
    struct Use {
        const Tensor* tensor;
        bool written;
    };

    const Tensor& NoteUse(const Tensor& tensor, bool written);
    const Tensor& Resolve();
    bool AliasAllowed(const Tensor& a, const Tensor& b) const;
    void CheckWorkSpace(const Tensor& tensor) const;

    const ModelView& model_;
    const Layer& layer_;
    uint32_t logical_ = 0;
    uint32_t online_ = 0;
    uint32_t offline_ = 0;
    std::map<uint32_t, Tensor> constants_;
    std::map<const Tensor*, Use> uses_;
    std::set<std::pair<const Tensor*, const Tensor*>> aliases_;
    bool shareAll_ = false;
    bool usesWorkSpace_ = false;
    uint64_t work_ = 0;
    bool leadsNowhere_ = false;
    std::vector<ModelWrite> writes_;
};

// The checks that the operators name, defined by subsystem beside this file.
#define OPKIT_OPERATOR(name, forward, record, check) void Check##check(LayerCheck& layer);
#include "opkit/operators.def"

// Runs the check of the operator whose attribute record this is.
void CheckOperator(LayerCheck& layer, const AttributeRecord& record);

}  // namespace opkit::modelkit::check

// A field of an attribute record, for messages.
#define OPKIT_ATTR_FIELD(layer, Record, field) (layer).AttrField(#field, offsetof(Record, field))

#endif  // OPKIT_MODELKIT_CHECK_LAYER_CHECK_H
