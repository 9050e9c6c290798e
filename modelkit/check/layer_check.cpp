#include "modelkit/check/layer_check.h"

#include <algorithm>

namespace opkit::modelkit::check {
namespace {

constexpr const char* kNoZero = "a dimension of 0 is a zero divisor";
constexpr const char* kConstantRank = "a constant has 1 to 10 dimensions";

int64_t Shown(uint64_t value)
{
    return static_cast<int64_t>(std::min(value, kHuge));
}

Field RankField(const Tensor& constant)
{
    return {constant.shapeField.name + ".dimNum", constant.shapeField.at + offsetof(OfflineShape, dimNum)};
}

}  // namespace

void ModelView::Refuse(const CheckPlace& place, const Field& field, int64_t value, int64_t limit,
                       std::string reason) const
{
    report->refusals.push_back({place, field.name, field.at, value, limit, std::move(reason), false});
    throw Refused();
}

char LayerCheck::Flag(uint32_t k) const
{
    return model_.Get<char>(layer_.attrAt + offsetof(LayerAttrHead, inputFlags) + k);
}

void LayerCheck::Refuse(const Field& field, int64_t value, int64_t limit, std::string reason) const
{
    model_.Refuse(layer_.place, field, value, limit, std::move(reason));
}

void LayerCheck::AtMost(const Field& field, uint64_t value, uint64_t limit, const std::string& reason) const
{
    if (value > limit) {
        Refuse(field, Shown(value), Shown(limit), reason);
    }
}

void LayerCheck::AtLeast(const Field& field, uint64_t value, uint64_t limit, const std::string& reason) const
{
    if (value < limit) {
        Refuse(field, Shown(value), Shown(limit), reason);
    }
}

void LayerCheck::Axis(const Field& field, int64_t axis, size_t rank) const
{
    const int64_t last = static_cast<int64_t>(rank) - 1;
    if (axis < 0 || axis > last) {
        Refuse(field, axis, axis < 0 ? 0 : last, "not an axis of the tensor");
    }
}

void LayerCheck::Rank(const Tensor& tensor, size_t low, size_t high, const std::string& reason) const
{
    AtLeast(tensor.shapeField, tensor.Rank(), low, reason);
    AtMost(tensor.shapeField, tensor.Rank(), high, reason);
}

void LayerCheck::Elements(const Tensor& tensor, uint64_t count, const std::string& reason) const
{
    AtLeast(tensor.shapeField, tensor.Count(), count, reason);
}

void LayerCheck::Floats(const Tensor& tensor, uint64_t count, const std::string& reason) const
{
    AtLeast(tensor.sizeField, tensor.memory.size, Mul(count, 4), reason);
}

void LayerCheck::Segment(const Field& field, uint32_t segmentId)
{
    constexpr uint32_t kNoJump = 0xFFFFFFFF;
    if (segmentId != kNoJump && !model_.segments.contains(segmentId) && !leadsNowhere_) {
        leadsNowhere_ = true;
        model_.report->refusals.push_back(
            {layer_.place, field.name, field.at, segmentId, kNoJump, "no table has this segment id", true});
    }
}

void LayerCheck::Condition(std::string text) const
{
    model_.report->conditions.push_back({layer_.place, std::move(text)});
}

void LayerCheck::Rows(const Tensor& tensor) const
{
    Rank(tensor, 1, OPKIT_MAX_DIMS, "the operator takes 1 to 10 dimensions");
    for (size_t d = 0; d < tensor.Rank(); ++d) {
        AtLeast(tensor.Dim(d), tensor.dims[d], 1, kNoZero);
    }
    AtMost(tensor.shapeField, tensor.Count(), INT32_MAX, "elements beyond 31 bits");
    AtLeast(tensor.strideField, tensor.stride, 4, "an alignment of 0 is a zero divisor");
    const uint64_t bytes = Mul(tensor.Rows(), tensor.Pitch(), 4);
    AtLeast(tensor.sizeField, tensor.memory.size, bytes, "the rows of the shape and stride do not fit");
}

void LayerCheck::RowsReachAlign(const Tensor& tensor) const
{
    AtLeast(tensor.strideField, tensor.stride, Mul(tensor.Width(), 4), "rows as far apart as the stride would overlap");
}

const Tensor& LayerCheck::NoteUse(const Tensor& tensor, bool written)
{
    Use& use = uses_.try_emplace(&tensor, Use{&tensor, false}).first->second;
    use.written = use.written || written;
    return tensor;
}

// A constant, with its offset and shape inside the buffer.
const Tensor& LayerCheck::Constant(uint32_t j)
{
    const auto found = constants_.find(j);
    if (found != constants_.end()) {
        return found->second;
    }
    const uint64_t offsetAt = layer_.attrAt + j * sizeof(int32_t);
    const uint64_t shapeAt = layer_.attrAt + offsetof(LayerAttrHead, offlineShape) + j * sizeof(OfflineShape);
    const OfflineShape shape = model_.Get<OfflineShape>(shapeAt);
    Tensor tensor;
    tensor.name = "offline[" + std::to_string(j) + "]";
    tensor.offline = true;
    tensor.placeField = {"offlineOffset[" + std::to_string(j) + "]", offsetAt};
    tensor.shapeField = {"offlineShape[" + std::to_string(j) + "]", shapeAt};
    tensor.sizeField = tensor.strideField = tensor.shapeField;
    AtMost(RankField(tensor), shape.dimNum, OPKIT_MAX_DIMS, kConstantRank);
    tensor.dims.assign(shape.dims, shape.dims + shape.dimNum);
    tensor.stride = static_cast<uint32_t>(std::min<uint64_t>(Mul(tensor.Width(), 4), UINT32_MAX));

    const int32_t offset = model_.Get<int32_t>(offsetAt);
    if (offset < 0 || offset % 4 != 0) {
        Refuse(tensor.placeField, offset, offset < 0 ? 0 : offset / 4 * 4, "data at a multiple of 4 inside the buffer");
    }
    tensor.memory = {Memory::Block::kModel, 0, static_cast<uint64_t>(offset), Mul(tensor.Count(), 4), 0};
    AtMost(tensor.placeField, Add(tensor.memory.begin, tensor.memory.size), model_.bytes.size(),
           "the data ends behind the model buffer");
    return constants_.emplace(j, std::move(tensor)).first->second;
}

const Tensor& LayerCheck::OnlineUnread(uint32_t index, const std::string& reason) const
{
    if (index >= InputNum()) {
        Refuse(RecordField("inputNum", offsetof(LayerRecord, inputNum)), InputNum(), int64_t{index} + 1, reason);
    }
    return layer_.inputs[index];
}

const Tensor& LayerCheck::OnlineRaw(uint32_t index, const std::string& reason)
{
    return NoteUse(OnlineUnread(index, reason), false);
}

const Tensor& LayerCheck::Online(uint32_t index, const std::string& reason)
{
    const Tensor& tensor = OnlineRaw(index, reason);
    Rows(tensor);
    return tensor;
}

const Tensor& LayerCheck::Resolve()
{
    const uint32_t k = logical_++;
    if (k >= OPKIT_MAX_LAYER_INPUTS) {
        Refuse(AttrField("inputFlags", offsetof(LayerAttrHead, inputFlags)), k, OPKIT_MAX_LAYER_INPUTS - 1,
               "a logical input without a flag");
    }
    if (Flag(k) == '1') {
        return NoteUse(Constant(offline_++), false);
    }
    return OnlineRaw(online_++, "logical input " + std::to_string(k) + " is missing");
}

const Tensor& LayerCheck::NextRaw()
{
    const Tensor& tensor = Resolve();
    if (tensor.offline) {
        AtLeast(RankField(tensor), tensor.Rank(), 1, kConstantRank);
    }
    return tensor;
}

const Tensor& LayerCheck::Next()
{
    const Tensor& tensor = NextRaw();
    Rows(tensor);
    return tensor;
}

const Tensor& LayerCheck::NextCompacted()
{
    const Tensor& tensor = Next();
    if (tensor.Pitch() != tensor.Width()) {
        Modifies(tensor);
    }
    return tensor;
}

const Tensor& LayerCheck::Logical(uint32_t k)
{
    offline_ = 0;
    for (uint32_t i = 0; i < std::min<uint32_t>(k, OPKIT_MAX_LAYER_INPUTS); ++i) {
        offline_ += Flag(i) == '1' ? 1 : 0;
    }
    logical_ = k;
    online_ = k - offline_;
    return Resolve();
}

const Tensor& LayerCheck::OutRaw(uint32_t index)
{
    if (index >= OutputNum()) {
        Refuse(RecordField("outputNum", offsetof(LayerRecord, outputNum)), OutputNum(), int64_t{index} + 1,
               "output " + std::to_string(index) + " is missing");
    }
    return NoteUse(layer_.outputs[index], true);
}

const Tensor& LayerCheck::Out(uint32_t index)
{
    const Tensor& tensor = OutRaw(index);
    Rows(tensor);
    return tensor;
}

const Tensor& LayerCheck::OutExpanded(uint32_t index)
{
    const Tensor& tensor = Out(index);
    RowsReachAlign(tensor);
    return tensor;
}

void LayerCheck::Modifies(const Tensor& tensor)
{
    NoteUse(tensor, true);
    if (tensor.offline) {
        const uint64_t begin = tensor.memory.begin;
        writes_.push_back({ModelWrite::What::kConstant, tensor.placeField, begin, begin + tensor.memory.size});
    }
}

void LayerCheck::ModifiesAttr(std::string name, size_t offset, size_t size, ModelWrite::What what)
{
    const uint64_t begin = layer_.attrAt + offset;
    writes_.push_back({what, {std::move(name), begin}, begin, begin + size});
}

void LayerCheck::WorkSpace(uint64_t bytes, const std::string& reason)
{
    const uint32_t offset = layer_.record.bufOffset;
    if (offset % 4 != 0) {
        Refuse(RecordField("bufOffset", offsetof(LayerRecord, bufOffset)), offset, offset / 4 * 4,
               "work space at a multiple of 4");
    }
    AtLeast(RecordField("bufSize", offsetof(LayerRecord, bufSize)), layer_.record.bufSize, bytes, reason);
    usesWorkSpace_ = true;
    Work(bytes / 4);
}

void LayerCheck::MayRunInPlace(const Tensor& out, const Tensor& in)
{
    if (out.dims == in.dims && out.Pitch() == in.Pitch()) {
        MayAlias(out, in);
    }
}

bool LayerCheck::AliasAllowed(const Tensor& a, const Tensor& b) const
{
    if (!a.memory.SameBlock(b.memory) || a.memory.begin != b.memory.begin || a.memory.step != b.memory.step) {
        return false;
    }
    const bool oneInputTwice = !a.output && !b.output && a.memory.size == b.memory.size;
    return oneInputTwice || shareAll_ || aliases_.contains({&a, &b}) || aliases_.contains({&b, &a});
}

void LayerCheck::CheckWorkSpace(const Tensor& tensor) const
{
    const LayerRecord& record = layer_.record;
    const Memory work = {Memory::Block::kScratch, 0, record.bufOffset, record.bufSize, 0};
    if (work.Overlaps(tensor.memory, model_.request.batch)) {
        Refuse(RecordField("bufOffset", offsetof(LayerRecord, bufOffset)), record.bufOffset,
               Shown(tensor.memory.begin + tensor.memory.size), "the work space overlaps " + tensor.name);
    }
}

void LayerCheck::CheckSharing() const
{
    std::vector<Use> uses;
    for (const auto& [tensor, use] : uses_) {
        uses.push_back(use);
    }
    // In the order of the records, whatever their addresses.
    std::sort(uses.begin(), uses.end(),
              [](const Use& a, const Use& b) { return a.tensor->placeField.at < b.tensor->placeField.at; });
    for (size_t i = 0; i < uses.size(); ++i) {
        const Tensor& a = *uses[i].tensor;
        if (usesWorkSpace_) {
            CheckWorkSpace(a);
        }
        for (size_t j = i + 1; j < uses.size(); ++j) {
            const Tensor& b = *uses[j].tensor;
            const bool written = uses[i].written || uses[j].written;
            if (!written || !a.memory.Overlaps(b.memory, model_.request.batch) || AliasAllowed(a, b)) {
                continue;
            }
            const bool inRequest = b.memory.block == Memory::Block::kInput || b.memory.block == Memory::Block::kOutput;
            Refuse(b.placeField, Shown(inRequest ? b.memory.index : b.memory.begin),
                   Shown(inRequest ? uint64_t{b.memory.index} + 1 : a.memory.begin + a.memory.size),
                   b.name + " overlaps " + a.name + ", and one of the two is written");
        }
    }
}

void LayerCheck::NoteWork() const
{
    uint64_t operations = work_;
    for (const auto& [tensor, use] : uses_) {
        operations = Add(operations, std::max(tensor->Count(), Mul(tensor->Rows(), tensor->Pitch())));
    }
    operations = Mul(operations, model_.request.batch);
    CheckReport& report = *model_.report;
    report.work = Add(report.work, operations);
    if (operations > report.mostWork.operations) {
        report.mostWork = {layer_.place, operations};
    }
}

void CheckOperator(LayerCheck& layer, const AttributeRecord& record)
{
    constexpr void (*kChecks[])(LayerCheck&) = {
#define OPKIT_OPERATOR(name, forward, record, check) Check##check,
#include "opkit/operators.def"
    };
    kChecks[&record - AttributeRecords().data()](layer);
}

}  // namespace opkit::modelkit::check
