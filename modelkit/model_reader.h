// Reads a model buffer back into plain records, with the byte offset of everything, and refuses what lies outside it.
#ifndef OPKIT_MODELKIT_MODEL_READER_H
#define OPKIT_MODELKIT_MODEL_READER_H

#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::modelkit {

// Bytes of an operator's name, its end included.
inline constexpr uint32_t kMostNameBytes = 1024;

// A field that leads outside the buffer or beyond a limit. Offsets count from the buffer's start.
struct ReadFault {
    enum class Kind {
        kAbove,     // value + size is above the limit
        kBelow,     // value is below the limit
        kOffWords,  // value is no multiple of 4; the limit is the one before
        kNoEnd      // a name has no end in so many bytes; with one more it might
    };

    Kind kind = Kind::kAbove;
    std::string field;        // such as "nameOffset" or "inputs[2].shapeOffset"
    uint64_t byteOffset = 0;  // where the field lies
    uint64_t value = 0;
    uint64_t size = 0;  // bytes that the field leads to, where it is an offset
    uint64_t limit = 0;
    std::string reason;  // such as "a shape ends behind the model buffer"

    uint64_t NearestValue() const { return size > limit ? 0 : limit - size; }  // that would do
};

struct ModelError : std::runtime_error {
    ModelError(int layer, ReadFault fault);

    int layer;  // position in the table; -1: the table itself
    ReadFault fault;
    // What the text shows: of an offset, value and limit are those of the end of what it leads to.
    std::string field;
    uint64_t byteOffset;
    uint64_t value;
    uint64_t limit;
};

struct ReadTensor {
    TensorRecord record = {};
    Shape shape;
    uint32_t recordOffset = 0;  // of the TensorRecord
    uint32_t shapeOffset = 0;   // of the dimensions
};

// An offline input: a logical input whose flag is '1'.
struct ReadOffline {
    uint32_t logicalIndex = 0;
    uint32_t dataOffset = 0;
    Shape shape;
};

struct ReadLayer {
    LayerRecord record = {};
    std::string name;
    uint32_t recordOffset = 0;
    uint32_t nameOffset = 0;
    uint32_t attrOffset = 0;
    uint32_t inputTableOffset = 0;
    uint32_t outputTableOffset = 0;
    std::vector<ReadTensor> inputs;
    std::vector<ReadTensor> outputs;
    std::vector<ReadOffline> offline;
    std::string flags;  // of the logical inputs in use: up to the last '1' or the last online input

    template <class T>
    const T& AttrOf(const Buffer& model) const
    {
        return model.At<T>(attrOffset);
    }
};

struct ReadTable {
    uint32_t offset = 0;
    std::vector<ReadLayer> layers;
    uint64_t bytesRead = 0;
};

// Throws ModelError at the first thing that is out of bounds.
ReadTable ReadLayerTable(std::span<const std::byte> model, uint32_t layerTableOffset, uint32_t layerTableSize);
ReadTable ReadLayerTable(const Model& model, size_t tableIndex = 0);

// Most bytes that the layers of all tables of a model may read together, each time counted: layers may share records,
// but a small file must not make much work of them.
uint64_t MostBytesRead(size_t modelSize);

// One layer table, step by step. Every step throws ModelError at the first thing that is out of bounds.
class LayerReader {
public:
    enum class Words { kAnywhere, kAligned };  // aligned: words at offsets that are no multiple of 4 are at fault

    LayerReader(std::span<const std::byte> model, uint32_t layerTableOffset, Words words = Words::kAnywhere)
        : model_(model), base_(layerTableOffset), aligned_(words == Words::kAligned)
    {
    }

    // Comes first. Layers of the table.
    uint32_t ReadCount(uint32_t layerTableSize);
    // A layer's record and name; then what the record leads to; then its constants, up to the end of their data.
    void ReadRecord(uint32_t index, ReadLayer* layer);
    void ReadTensors(ReadLayer* layer);
    void ReadOfflineInputs(ReadLayer* layer) const;

    // Bytes that were looked at so far.
    uint64_t BytesRead() const { return bytesRead_; }

private:
    template <class T>
    T Get(uint64_t offset) const
    {
        T value;
        std::memcpy(&value, model_.data() + offset, sizeof(T));
        return value;
    }
    [[noreturn]] void Fail(ReadFault fault) const { throw ModelError(layer_, std::move(fault)); }
    void AtMost(const std::string& field, uint64_t at, uint64_t value, uint64_t limit, const char* reason) const;
    void Aligned(const std::string& field, uint64_t at, uint64_t value, uint64_t place) const;
    uint32_t Locate(const std::string& field, uint64_t at, uint64_t value, uint64_t size, const char* what,
                    bool isText = false);
    Shape ReadShape(uint64_t offset, uint32_t dimNum) const;
    std::vector<ReadTensor> ReadTensorTable(const char* side, uint32_t table, uint32_t count);
    ReadOffline ReadOfflineInput(uint64_t head, uint32_t logicalIndex, size_t j) const;

    std::span<const std::byte> model_;
    uint32_t base_;
    bool aligned_;
    int layer_ = -1;
    uint64_t bytesRead_ = 0;
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_READER_H
