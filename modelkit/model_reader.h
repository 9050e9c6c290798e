// Reads a model buffer back into plain records, with the byte offset of everything, and refuses what lies outside it.
#ifndef OPKIT_MODELKIT_MODEL_READER_H
#define OPKIT_MODELKIT_MODEL_READER_H

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "modelkit/model.h"
#include "opkit/records.h"

namespace opkit::modelkit {

// A field that leads outside the buffer or beyond a limit. Offsets count from the buffer's start.
struct ModelError : std::runtime_error {
    ModelError(int layer, std::string field, uint64_t byteOffset, uint64_t value, uint64_t limit);

    int layer;            // position in the table; -1: the table itself
    std::string field;    // such as "nameOffset" or "inputs[2].shapeOffset"
    uint64_t byteOffset;  // where the field lies
    uint64_t value;
    uint64_t limit;  // largest (in "layerCount must ...") value that would do
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
};

// Throws ModelError at the first thing that is out of bounds.
ReadTable ReadLayerTable(std::span<const std::byte> model, uint32_t layerTableOffset, uint32_t layerTableSize);
ReadTable ReadLayerTable(const Model& model, size_t tableIndex = 0);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_READER_H
