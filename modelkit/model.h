// A model in memory: the buffer the library executes, and what a caller has to know to bind a request to it.
#ifndef OPKIT_MODELKIT_MODEL_H
#define OPKIT_MODELKIT_MODEL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "modelkit/buffer.h"

namespace opkit::modelkit {

using Shape = std::vector<uint32_t>;

// A name, dimensions (outermost first) and the row stride in bytes; a stride of 0 stands for compact rows.
struct TensorSpec {
    std::string name;
    Shape shape;
    uint32_t strideBytes = 0;

    bool operator==(const TensorSpec&) const = default;
};

// Thrown where a description cannot become a model or a request.
struct BuildError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Floats from one row's start to the next: width rounded up to a multiple of alignNum.
uint32_t RowPitch(uint32_t width, uint32_t alignNum);

uint64_t ElementCount(const Shape& shape);                    // 1 for rank 0
uint32_t RowWidth(const Shape& shape);                        // last dimension; 1 for rank 0
uint32_t StrideOf(const Shape& shape, uint32_t strideBytes);  // strideBytes, or the compact one where it is 0
uint32_t PaddedFloats(const Shape& shape, uint32_t strideBytes);
uint32_t PaddedBytes(const Shape& shape, uint32_t strideBytes);
std::string ShapeText(const Shape& shape);  // "[2, 3, 4]"

// Text out of a file for a line on a terminal: control characters, which could command the terminal, show as '?'.
std::string Printable(std::string utf8);

// Spreads compact elements over padded rows of `padded`, leaving its gaps; and the reverse.
void PadRows(std::span<const float> compact, const Shape& shape, uint32_t strideBytes, std::span<float> padded);
std::vector<float> CompactRows(std::span<const float> padded, const Shape& shape, uint32_t strideBytes);

// One layer table of the buffer; the caller's segment `segmentId` is run with these two offsets.
struct ModelTable {
    uint32_t segmentId = 0;
    std::string name;
    uint32_t layerTableOffset = 0;
    uint32_t layerTableSize = 0;
    std::optional<uint32_t> next = {};  // segment that follows when no layer asks for another; see segment_runner.h

    bool operator==(const ModelTable&) const = default;
};

// A constant in the buffer, always compact; offset counts from the buffer's start.
struct ModelConstant {
    std::string name;
    uint32_t offset = 0;
    Shape shape;

    bool operator==(const ModelConstant&) const = default;
};

struct Model {
    Buffer bytes;
    std::vector<TensorSpec> inputs;  // request tensors of one batch item, strides resolved
    std::vector<TensorSpec> outputs;
    uint32_t scratchSize = 0;  // bytes of opkitBuf for up to maxBatch items
    uint32_t maxBatch = 1;
    std::vector<ModelTable> tables;
    std::vector<ModelConstant> constants;

    const ModelTable& Table(uint32_t segmentId) const;  // throws BuildError when there is none
    size_t InputIndex(std::string_view name) const;     // throws BuildError when there is none
    size_t OutputIndex(std::string_view name) const;
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_MODEL_H
