// One box against many: which of them it overlaps by more than a threshold. Every pair is decided by itself, in the
// operator's own steps, so they run side by side.
#ifndef OPKIT_KERNELS_BOXES_H
#define OPKIT_KERNELS_BOXES_H

#include "kernels/level.h"

namespace opkit {

constexpr size_t kBoxBlock = 256;

// Coordinates of up to kBoxBlock boxes, field by field, and their areas.
struct BoxBlock {
    float x1[kBoxBlock];
    float y1[kBoxBlock];
    float x2[kBoxBlock];
    float y2[kBoxBlock];
    float area[kBoxBlock];
};

// A box; x1 and y1 are its low corner.
struct BoxFields {
    float x1;
    float y1;
    float x2;
    float y2;
    float area;
};

struct BoxKernels {
    // Continuous coordinates: whether box overlaps one of the first `count` boxes of the block, intersection over union
    // above the threshold. Pairs without a positive intersection, area or union do not count.
    bool (*overlapsAny)(const BoxBlock& block, size_t count, const BoxFields& box, float threshold);
    // Inclusive coordinates: clears keep[j], all ones or 0, of the boxes from `first` to `end` - 1 of the block whose
    // intersection with box exceeds threshold times the union.
    void (*suppress)(const BoxBlock& block, size_t first, size_t end, const BoxFields& box, float threshold,
                     uint32_t* keep);
};
OPKIT_KERNEL_TABLE(BoxKernels)

}  // namespace opkit

#endif  // OPKIT_KERNELS_BOXES_H
