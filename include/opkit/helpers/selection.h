/* Helpers of the reductions and of the operators that select by value: Reduction, Argmin, TopK, Unique. */
#ifndef OPKIT_HELPERS_SELECTION_H
#define OPKIT_HELPERS_SELECTION_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* Product of shape[start] to shape[end - 1]; 1 if start is not below end. Threads: no state. */
OPKIT_API uint32_t GetReductionCount(uint32_t start, uint32_t* shape, uint32_t end);

/* 1 if axis is among the first count entries of axes, else 0; 0 for a count below 1. Threads: no state. */
OPKIT_API uint32_t ReductionFind(uint32_t* axes, uint32_t axis, int32_t count);

/* Fills, for each of dimNum dimensions, how far one step along it moves in the input and in the reduced output.
 *   inDistant, outDistant  dimNum entries each, written
 *   axes                   the axes to reduce, as the attribute holds them
 *   shape                  the input's dimensions
 * Threads: touches its arguments only. */
OPKIT_API void GetReductionDistant(uint32_t* inDistant, uint32_t* outDistant, uint32_t* axes, uint32_t* shape,
                                   uint32_t dimNum);

/* Float offset of compact element idx in a tensor whose rows are width floats, padded to a multiple of align.
 * Returns 0 with a message when align or width is 0. Threads: no state. */
OPKIT_API uint32_t GetReductionRealIdx(uint32_t idx, uint32_t align, uint32_t width);

/* A line's element with its place along the axis. */
typedef struct SortEntry {
    float value;   /* 0 */
    int32_t index; /* 4 */
} SortEntry;
OPKIT_OFFSET(SortEntry, index, 4);
OPKIT_SIZE(SortEntry, 8);

/* Comparators of a line. A merge that takes its left entry unless the result is above 0 sorts with them; a sort that
 * relies on a negative result, or on a and b exchanged giving the opposite, does not. "Equal" is IsEqualFloat, which
 * only counts where the strict test failed. With a NaN they give the last value named. Threads: no state.
 *   LessCompareSelectFirst  ascending: 1 if a is above b, or equal with the higher index; else 0
 *   LessCompareSelectLast   ascending: 1 if a is above b, or equal with the lower index; else 0
 *   TopkDecSort             descending: 1 if a is below b, or equal with the higher index; else -1
 *   TopkAscSort             ascending: 1 if a is above b, or equal with the higher index; else -1 */
OPKIT_API int32_t LessCompareSelectFirst(const SortEntry* a, const SortEntry* b);
OPKIT_API int32_t LessCompareSelectLast(const SortEntry* a, const SortEntry* b);
OPKIT_API int32_t TopkDecSort(const SortEntry* a, const SortEntry* b);
OPKIT_API int32_t TopkAscSort(const SortEntry* a, const SortEntry* b);

/* One distinct slice found by Unique. */
typedef struct UniqueEntry {
    float* slice;     /*  0  subSize floats, not owned */
    int32_t order;    /*  8  position in first-seen order */
    int32_t firstIdx; /* 12  input position where it was first seen */
    int32_t count;    /* 16  occurrences */
} UniqueEntry;
OPKIT_OFFSET(UniqueEntry, order, 8);
OPKIT_OFFSET(UniqueEntry, firstIdx, 12);
OPKIT_OFFSET(UniqueEntry, count, 16);
OPKIT_SIZE(UniqueEntry, 24);

/* Orders two slices of g_size floats lexicographically: 0 if a comes first, else 1, also for equal slices; a place with
 * a NaN counts as equal. Takes the same kind of merge as the comparators above.
 * Threads: reads the process-wide g_size, which must not change meanwhile. */
OPKIT_API int32_t CompareUniqueVal(const UniqueEntry* a, const UniqueEntry* b);

/* 1 if n floats are pairwise equal (so +0.0 equals -0.0 and NaN equals nothing) or n is below 1, else 0.
 * Threads: no state. */
OPKIT_API int32_t IsEqualTwoArray(float* a, float* b, int32_t n);

/* Index of the first of count entries whose slice equals key over n floats, else all ones. Threads: no state. */
OPKIT_API uint32_t FindKey(UniqueEntry* table, float* key, int32_t count, uint32_t n);

/* Gathers slice idx along the middle axis of src [outer, axisLen, inner] into dst [outer, inner].
 * A copy that fails is reported and ends the walk; nothing is returned. Threads: touches its arguments only. */
OPKIT_API void GetSubTensor(float* src, float* dst, uint32_t idx, uint32_t inner, int32_t outer, int32_t axisLen);

OPKIT_END_C

#endif /* OPKIT_HELPERS_SELECTION_H */
