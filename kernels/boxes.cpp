// Overlaps of boxes. The operands of Larger and Smaller stand in the order that the operators define, since with a NaN
// the second one is taken: Larger(box.x1, block.x1[j]) is block.x1[j] when either of the two is NaN.

#include "kernels/boxes.h"

#include "common/smaller.h"
#include "kernels/box_elements.h"
#include "kernels/contract.h"

namespace opkit::OPKIT_LEVEL {
namespace {

uint32_t MaskOf(bool condition)
{
    return condition ? 0xFFFFFFFFu : 0u;
}

bool OverlapsAny(const BoxBlock& block, size_t count, const BoxFields& box, float threshold)
{
    assert(count <= kBoxBlock);
    uint32_t any = 0;
    for (size_t j = 0; j < count; ++j) {
        const float left = Larger(box.x1, block.x1[j]);
        const float top = Larger(box.y1, block.y1[j]);
        const float right = Smaller(block.x2[j], box.x2);
        const float bottom = Smaller(block.y2[j], box.y2);
        const float inter = Larger(0.0f, bottom - top) * Larger(0.0f, right - left);
        const float uni = block.area[j] + box.area - inter;
        const uint32_t refused =
            MaskOf(inter <= 0.0f) | MaskOf(block.area[j] <= 0.0f) | MaskOf(box.area <= 0.0f) | MaskOf(uni <= 0.0f);
        any |= MaskOf(inter / uni > threshold) & ~refused;
    }
    return any != 0;
}

void Suppress(const BoxBlock& block, size_t first, size_t end, const BoxFields& box, float threshold, uint32_t* keep)
{
    assert(end <= kBoxBlock && Present(keep, end));
    for (size_t j = first; j < end; ++j) {
        const uint32_t apart = MaskOf(block.x1[j] > box.x2) | MaskOf(box.x1 > block.x2[j]) |
                               MaskOf(block.y1[j] > box.y2) | MaskOf(box.y1 > block.y2[j]);
        const float width = InclusiveLength(Larger(box.x1, block.x1[j]), Smaller(box.x2, block.x2[j]));
        const float height = InclusiveLength(Larger(box.y1, block.y1[j]), Smaller(box.y2, block.y2[j]));
        const float inter = width * height;
        const float uni = box.area + block.area[j] - inter;
        keep[j] &= apart | ~MaskOf(inter > threshold * uni);
    }
}

}  // namespace

extern const BoxKernels kBoxKernels = {OverlapsAny, Suppress};

}  // namespace opkit::OPKIT_LEVEL
