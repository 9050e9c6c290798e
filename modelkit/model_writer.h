// Lays out a model buffer: pieces lie where they are told to, or else behind everything written so far. The model
// builder and the text form write through it, so that one layout has one author.
#ifndef OPKIT_MODELKIT_MODEL_WRITER_H
#define OPKIT_MODELKIT_MODEL_WRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::modelkit {

// Offset from the layer table; without one the piece lies behind what was written before it.
using Place = std::optional<uint32_t>;

struct TensorPlan {
    TensorRecord record = {};  // shapeOffset and shapeSize are the writer's
    Shape shape;
    Place shapeOffset = {};
    std::optional<uint32_t> shapeSize = {};  // where it is not that of the shape
};

// Bytes at an offset into the attribute block or, of constants, into the buffer.
struct Patch {
    uint32_t offset = 0;
    std::vector<std::byte> bytes;
};

struct LayerPlan {
    LayerRecord record = {};  // id, work space and attrSize; the rest is the writer's
    std::string name;
    std::optional<uint32_t> nameSize = {};  // where it is not that of the name and its end
    std::vector<TensorPlan> inputs;
    std::vector<TensorPlan> outputs;
    LayerAttrHead head = {};
    std::vector<Patch> constants;
    std::vector<Patch> attributes;
    Place layerOffset = {};
    Place nameOffset = {};
    Place inputTableOffset = {};
    Place outputTableOffset = {};
    Place attrOffset = {};
};

// Throws BuildError where the buffer would pass 1 GiB. Offsets count from the buffer's start unless said otherwise.
class ModelWriter {
public:
    size_t Size() const { return bytes_.size(); }
    void Resize(size_t size) { bytes_.resize(size); }
    // Room for `size` bytes: at `place`, or at the end at a multiple of `alignment`.
    uint32_t Reserve(uint64_t size, uint64_t alignment, std::optional<uint64_t> place = {});
    void PutBytes(size_t offset, std::span<const std::byte> bytes);
    template <class T>
    void Put(size_t offset, const T& value)
    {
        PutBytes(offset, std::as_bytes(std::span(&value, 1)));
    }

    // Starts a layer table; returns where it lies. WriteLayer then fills one entry after the other.
    uint32_t BeginTable(uint32_t layerCount, Place place = {});
    void WriteLayer(const LayerPlan& layer);

    Buffer Finish() const { return Buffer(std::span<const std::byte>(bytes_)); }

private:
    uint32_t ReserveInTable(uint64_t size, Place place);  // offset from the table
    uint32_t WriteTensors(const std::vector<TensorPlan>& tensors, Place place);

    std::vector<std::byte> bytes_;
    uint32_t base_ = 0;   // of the table
    uint32_t entry_ = 0;  // of the next layer
};

// The bytes of a value, for a patch.
template <class T>
std::vector<std::byte> BytesOf(const T& value)
{
    const auto bytes = std::as_bytes(std::span(&value, 1));
    return {bytes.begin(), bytes.end()};
}

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_WRITER_H
