#include "modelkit/check/tensor.h"

namespace opkit::modelkit::check {

bool Memory::Overlaps(const Memory& other, uint32_t batch) const
{
    if (!SameBlock(other) || size == 0 || other.size == 0) {
        return false;
    }
    const uint32_t items = step == other.step ? 1 : batch;  // else the distance changes from item to item
    for (uint64_t b = 0; b < items; ++b) {
        const uint64_t first = begin + b * step;
        const uint64_t second = other.begin + b * other.step;
        if (first < second + other.size && second < first + size) {
            return true;
        }
    }
    return false;
}

uint64_t Tensor::Count(size_t first, size_t end) const
{
    uint64_t count = 1;
    for (size_t d = first; d < std::min(end, dims.size()); ++d) {
        count = Mul(count, dims[d]);
    }
    return count;
}

Field Tensor::Dim(size_t d) const
{
    return {shapeField.name + "[" + std::to_string(d) + "]", shapeField.at + d * 4};
}

}  // namespace opkit::modelkit::check
