/* Attribute records of the reductions and of the operators that select by value.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * NonZero has no attributes beyond the head. */
#ifndef OPKIT_ATTRIBUTES_SELECTION_H
#define OPKIT_ATTRIBUTES_SELECTION_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* ReductionAttr.reductionType. */
enum {
    OPKIT_REDUCE_SUM = 0,
    OPKIT_REDUCE_L1 = 1, /* sum of magnitudes */
    OPKIT_REDUCE_SUM_SQUARE = 2,
    OPKIT_REDUCE_MEAN = 3,
    OPKIT_REDUCE_L2 = 4, /* root of the sum of squares */
    OPKIT_REDUCE_LOG_SUM = 5,
    OPKIT_REDUCE_LOG_SUM_EXP = 6,
    OPKIT_REDUCE_MAX = 7, /* never below -3.4028235e38; NaN does not enter */
    OPKIT_REDUCE_MIN = 8, /* never above 3.4028235e38; NaN does not enter */
    OPKIT_REDUCE_PROD = 9,
};

/* Reduction: folds axes. Work space: 8 bytes per input dimension. */
typedef struct ReductionAttr {
    LayerAttrHead head;     /*    0 */
    uint32_t reserved3924;  /* 3924 */
    uint32_t axes[10];      /* 3928  each 0 to dimNum - 1; fill unused entries with 0 or a listed axis */
    uint32_t axesNum;       /* 3968  entries of axes in use */
    uint32_t reserved3972;  /* 3972 */
    uint32_t reductionType; /* 3976  OPKIT_REDUCE_...; a higher code leaves zeros */
    uint32_t reduceAll;     /* 3980  non-zero: all elements go to output element 0, and axes does not count */
} ReductionAttr;
OPKIT_OFFSET(ReductionAttr, axes, 3928);
OPKIT_OFFSET(ReductionAttr, axesNum, 3968);
OPKIT_OFFSET(ReductionAttr, reductionType, 3976);
OPKIT_OFFSET(ReductionAttr, reduceAll, 3980);
OPKIT_SIZE(ReductionAttr, 3984);

/* CumSum: running sums along axis. */
typedef struct CumSumAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    uint32_t exclusive;    /* 3928  non-zero: a sum leaves out its own element */
    uint32_t reverse;      /* 3932  exactly 1: from the end of the line */
    int32_t axis;          /* 3936  0 to dimNum - 1 */
} CumSumAttr;
OPKIT_OFFSET(CumSumAttr, exclusive, 3928);
OPKIT_OFFSET(CumSumAttr, reverse, 3932);
OPKIT_OFFSET(CumSumAttr, axis, 3936);
OPKIT_SIZE(CumSumAttr, 3940);

/* Argmin: place of the smallest element of every line along axis. Work space: 8 bytes per element of a line. */
typedef struct ArgminAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    int32_t axis;             /* 3928  0 to dimNum - 1 */
    uint32_t reserved3932;    /* 3932 */
    uint32_t selectLastIndex; /* 3936  non-zero: the last of equal minima, else the first */
} ArgminAttr;
OPKIT_OFFSET(ArgminAttr, axis, 3928);
OPKIT_OFFSET(ArgminAttr, selectLastIndex, 3936);
OPKIT_SIZE(ArgminAttr, 3940);

/* Hardmax: 1.0 at the largest element, 0.0 elsewhere. */
typedef struct HardmaxAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t axis;          /* 3928  a negative one counts from the end */
    int32_t opsetVersion;  /* 3932  up to 12: one 1.0 per block of axis and all behind it; above: one per line along
                            *        axis */
} HardmaxAttr;
OPKIT_OFFSET(HardmaxAttr, axis, 3928);
OPKIT_OFFSET(HardmaxAttr, opsetVersion, 3932);
OPKIT_SIZE(HardmaxAttr, 3936);

/* TopKAttr.k: the count comes from the second input. */
#define OPKIT_TOPK_K_FROM_INPUT 0xFFFFFFFFu

/* TopK: sorts every line along axis and writes the first k entries. The values go to outputs[0] and the indices to
 * outputs[1], or the indices to outputs[0] without hasValues. Work space: 8 bytes per element of a line. */
typedef struct TopKAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    uint32_t k;            /* 3928  entries per line; OPKIT_TOPK_K_FROM_INPUT takes k from the second input */
    int32_t axis;          /* 3932  0 to dimNum - 1 */
    uint32_t largest;      /* 3936  non-zero: descending, else ascending */
    uint32_t hasValues;    /* 3940  non-zero: write the values */
    uint32_t hasIndices;   /* 3944  non-zero: write the indices */
} TopKAttr;
OPKIT_OFFSET(TopKAttr, k, 3928);
OPKIT_OFFSET(TopKAttr, axis, 3932);
OPKIT_OFFSET(TopKAttr, largest, 3936);
OPKIT_OFFSET(TopKAttr, hasValues, 3940);
OPKIT_OFFSET(TopKAttr, hasIndices, 3944);
OPKIT_SIZE(TopKAttr, 3948);

/* UniqueAttr.axis: the input counts as flat. */
enum {
    OPKIT_UNIQUE_FLAT = -4,
};

/* Unique: the distinct slices along axis, where each was first seen, what each position maps to, how often each
 * occurs. */
typedef struct UniqueAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t axis;          /* 3928  0 to dimNum - 1, or OPKIT_UNIQUE_FLAT */
    uint32_t sorted;       /* 3932  0: in first-seen order; else sorted. Only 1 renumbers outputs[2] to the sorted
                            *        order */
} UniqueAttr;
OPKIT_OFFSET(UniqueAttr, axis, 3928);
OPKIT_OFFSET(UniqueAttr, sorted, 3932);
OPKIT_SIZE(UniqueAttr, 3936);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_SELECTION_H */
