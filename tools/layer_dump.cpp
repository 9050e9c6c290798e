#include "tools/layer_dump.h"

#include <fmt/core.h>
#include <algorithm>
#include <cstring>

#include "modelkit/file_io.h"
#include "tools/command.h"
#include "tools/layer_names.h"

namespace opkit::tools {

using namespace opkit::modelkit;

DumpCollector::DumpCollector(const Model& model, Stream& stream, Taker take)
    : model_(model), stream_(stream), take_(std::move(take))
{
    stream.OnDump([this](const DumpRecord& record) { Keep(record); }, &stop_);
    stream.OnPass([this](const StreamPass& pass) { EndPass(pass); });
}

DumpCollector::~DumpCollector()
{
    stream_.OnDump(nullptr, nullptr);
    stream_.OnPass(nullptr);
}

// Called from inside the library, so it must not throw; a tensor outside the request's memory is kept empty.
void DumpCollector::Keep(const DumpRecord& record)
{
    const ForwardParam& param = stream_.Request().Param();
    const auto* const begin = static_cast<const std::byte*>(record.data);
    const auto within = [&](const void* block, size_t size) {
        const auto* const start = static_cast<const std::byte*>(block);
        return begin >= start && record.size <= size && static_cast<size_t>(begin - start) <= size - record.size;
    };
    bool inside = within(param.opkitBuf, param.opkitBufSize);
    for (uint32_t i = 0; i < param.outputNum; ++i) {
        inside = inside || within(param.outputs[i].data, param.outputs[i].size);
    }
    Raw raw = {record.layerId, record.outputIndex, record.stride, {}};
    raw.rows.resize(inside ? record.size / sizeof(float) : 0);
    if (!raw.rows.empty()) {
        std::memcpy(raw.rows.data(), begin, raw.rows.size() * sizeof(float));
    }
    raw_.push_back(std::move(raw));
    stop_ = HoldInterrupts::Waiting() ? 1 : 0;
}

// Dumps come in the order of the table; only a loop layer that goes on is left out.
bool DumpCollector::TakeNext(const ReadLayer& layer, uint32_t output, Raw* raw)
{
    if (taken_ == raw_.size() || raw_[taken_].layerId != layer.record.layerId || raw_[taken_].output != output) {
        return false;
    }
    *raw = std::move(raw_[taken_++]);
    return true;
}

DumpedTensor& DumpCollector::TensorOf(const DumpEntry& entry)
{
    const auto found = std::find_if(tensors_.begin(), tensors_.end(), [&](const DumpedTensor& tensor) {
        return tensor.entry.layer == entry.layer && tensor.entry.output == entry.output;
    });
    return found != tensors_.end() ? *found : tensors_.emplace_back(DumpedTensor{entry, {}});
}

void DumpCollector::EndPass(const StreamPass& pass)
{
    const ModelTable& table = *pass.pass.table;
    const std::vector<ReadLayer> layers =
        ReadLayerTable(model_.bytes.Span(), table.layerTableOffset, table.layerTableSize).layers;
    for (uint32_t item = 0; item < stream_.Request().Batch(); ++item) {
        for (uint32_t i = 0; i < layers.size(); ++i) {
            for (uint32_t output = 0; output < layers[i].outputs.size(); ++output) {
                Raw raw;
                if (!TakeNext(layers[i], output, &raw)) {
                    continue;
                }
                DumpedTensor& tensor = TensorOf({"", pass.request, pass.firstItem + item, 0, pass.pass.number,
                                                 table.segmentId, i, layers[i].record.layerId,
                                                 ShortName(layers[i].name), output, layers[i].outputs[output].shape});
                try {
                    const std::vector<float> values = CompactRows(raw.rows, tensor.entry.shape, raw.stride);
                    tensor.values.insert(tensor.values.end(), values.begin(), values.end());
                } catch (const BuildError& error) {
                    throw ToolError(fmt::format("{}: {}", Describe(tensor.entry), error.what()));
                }
                ++tensor.entry.items;
            }
        }
    }
    raw_.clear();
    taken_ = 0;
    if (stop_ != 0) {
        throw ToolError("interrupted");
    }
    std::for_each(tensors_.begin(), tensors_.end(), take_);
    tensors_.clear();
}

}  // namespace opkit::tools
