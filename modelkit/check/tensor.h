// A layer's tensor as the checks see it, and arithmetic that saturates instead of wrapping.
#ifndef OPKIT_MODELKIT_CHECK_TENSOR_H
#define OPKIT_MODELKIT_CHECK_TENSOR_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace opkit::modelkit::check {

// Beyond every size there is, and still an int64_t.
inline constexpr uint64_t kHuge = uint64_t{1} << 62;

inline uint64_t Add(uint64_t a, uint64_t b)
{
    return std::min(kHuge, std::min(kHuge, a) + std::min(kHuge, b));
}

inline uint64_t Mul(uint64_t a, uint64_t b)
{
    uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? kHuge : std::min(kHuge, product);
}

template <class... Rest>
uint64_t Mul(uint64_t a, uint64_t b, Rest... rest)
{
    return Mul(Mul(a, b), rest...);
}

// Floats from one row to the next; 0 without an alignment.
inline uint64_t PitchOf(uint64_t width, uint64_t align)
{
    return align == 0 ? 0 : (width + align - 1) / align * align;
}

// Floats that `count` compact elements span in rows of `width`, `pitch` apart.
inline uint64_t Span(uint64_t count, uint64_t width, uint64_t pitch)
{
    return count == 0 || width == 0 ? 0 : Add(Mul((count - 1) / width, pitch), (count - 1) % width + 1);
}

// The largest number up to `limit` that fits, of which 0 is one; with a number, all smaller ones fit.
template <class Fits>
uint64_t LargestThatFits(uint64_t limit, Fits fits)
{
    uint64_t low = 0;
    for (uint64_t high = limit; low < high;) {
        const uint64_t middle = low + (high - low + 1) / 2;
        if (fits(middle)) {
            low = middle;
        } else {
            high = middle - 1;
        }
    }
    return low;
}

// A field of the model buffer, and where it lies from the buffer's start.
struct Field {
    std::string name;
    uint64_t at = 0;
};

// Bytes of one of a request's memories.
struct Memory {
    enum class Block { kInput, kOutput, kScratch, kModel };

    Block block = Block::kScratch;
    uint32_t index = 0;  // of the request tensor
    uint64_t begin = 0;  // for batch item 0
    uint64_t size = 0;   // of one batch item
    uint64_t step = 0;   // from one batch item to the next

    bool SameBlock(const Memory& other) const { return block == other.block && index == other.index; }
    bool Overlaps(const Memory& other, uint32_t batch) const;
};

struct Tensor {
    std::string name;  // "inputs[0]", "outputs[1]", "offline[0]"
    bool offline = false;
    bool output = false;
    std::vector<uint32_t> dims;
    uint32_t stride = 0;
    Memory memory;
    Field placeField;   // what decides where it lies
    Field sizeField;    // ... how many bytes it has
    Field strideField;  // ... its stride
    Field shapeField;   // its dimensions

    // Product of the dimensions from `first` on, to `end`; 1 if there are none.
    uint64_t Count(size_t first, size_t end) const;
    uint64_t Count() const { return Count(0, dims.size()); }
    size_t Rank() const { return dims.size(); }
    uint64_t Width() const { return dims.empty() ? 0 : dims.back(); }
    uint64_t Align() const { return stride / 4; }
    uint64_t Pitch() const { return PitchOf(Width(), Align()); }
    uint64_t Rows() const { return Count(0, dims.empty() ? 0 : dims.size() - 1); }
    uint64_t Room() const { return memory.size / 4; }  // floats
    // The dimension `fromEnd` places before the end, 1 in a shorter shape.
    uint64_t FromEnd(size_t fromEnd) const { return dims.size() < fromEnd ? 1 : dims[dims.size() - fromEnd]; }
    Field Dim(size_t d) const;
};

}  // namespace opkit::modelkit::check

#endif  // OPKIT_MODELKIT_CHECK_TENSOR_H
