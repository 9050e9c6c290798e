// Products of whole numbers held as floats, computed in integers with the bits of the f32 loop.
//
// The loop computes C = round(round(a * b) + C) for k ascending, and rounds to nearest. Where all a and b and the C it
// starts from are whole numbers, and |C| + sum |a| * |b| is at most 2^24 for each element, no step of it rounds: each
// product and each partial sum is a whole number of at most 2^24, and f32 holds all of those. So any order of the
// additions gives the same number, and so do integers modulo 2^32, whatever they go through in between.
//
// That leaves the sign of a result of zero. Rounded to nearest, x + y is -0.0 only if both are -0.0. A C that starts as
// +0.0, or as a number other than zero, therefore never becomes -0.0, whatever the signs of products of zero; integers
// give +0.0 as well. Hence -0.0 may stand in A and B, but not in a C that counts.
//
// The bound is kept for blocks of k. A block is computed in integers if
//     max |C so far| + max over rows of (sum |a| over the block) * max |b| of the block <= 2^24.
// Behind each block C holds what the loop has there, so the f32 kernels can go on from any of them.
#ifndef OPKIT_KERNELS_WHOLE_H
#define OPKIT_KERNELS_WHOLE_H

#include "kernels/gemm.h"
#include "kernels/level.h"

namespace opkit {

// What is known of values, with 0 as one of them.
struct WholeRange {
    bool whole;  // all are whole numbers of at most kLargestWhole; else the rest means nothing
    int32_t lowest;
    int32_t highest;
};
constexpr int32_t kLargestWhole = 32766;

// Elements of the operands are gathered to words of 32 bits along k, which one instruction multiplies and adds up: four
// bytes, unsigned ones of B and signed ones of A, or two shorts. Bytes suffice where values span 256 numbers: an offset
// is taken off them first, and its share is put back by sums of rows and columns.
enum class WordForm { kBytes, kShorts };

struct WholeProduct {
    WordForm form;
    size_t M;
    size_t N;
    size_t K;
    MatrixView a;  // of each view one step is 1
    MatrixView b;
    const PanelSource* source;  // in place of `b`, or null
    WholeRange sourceRange;     // its values
    bool cleared;               // C counts as +0.0 and is not read
    float* c;                   // [M, N], apart from A and B
};

// What is done: rows [0, rows) of C hold the terms below `to`, the others those below `from`. All is if from is K.
struct WholeProgress {
    size_t rows;
    size_t from;
    size_t to;
    bool wide;  // the values are whole, but do not fit bytes
};

struct WholeKernels {
    WholeRange (*examine)(const float* values, size_t count);
    // C += A * B as far as the certificate goes, rounding to nearest. Takes about 160 KB of the stack.
    WholeProgress (*multiply)(const WholeProduct& product);
    bool hasBytes;
};

namespace avx2 {
extern const WholeKernels kWholeKernels;
}
namespace vnni {
extern const WholeKernels kWholeKernels;
}

// Null where integers would not be faster than f32: without vectors of them, and with AVX-512 but no VNNI.
inline const WholeKernels* WholeKernelsInUse()
{
    switch (ActiveLevel()) {
        case Level::kAvx2:
            return &avx2::kWholeKernels;
        case Level::kVnni:
            return &vnni::kWholeKernels;
        default:
            return nullptr;
    }
}

}  // namespace opkit

#endif  // OPKIT_KERNELS_WHOLE_H
