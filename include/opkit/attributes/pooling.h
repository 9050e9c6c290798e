/* Attribute records of the pooling and normalisation operators.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * MaxUnpool has no attributes beyond the head. The paddings lie at different places in the three pooling records. */
#ifndef OPKIT_ATTRIBUTES_POOLING_H
#define OPKIT_ATTRIBUTES_POOLING_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* PoolingAve: mean of a window. */
typedef struct PoolingAveAttr {
    LayerAttrHead head;      /*    0 */
    uint32_t reserved3924;   /* 3924 */
    uint32_t kernelH;        /* 3928 */
    uint32_t kernelW;        /* 3932 */
    uint32_t strideH;        /* 3936 */
    uint32_t strideW;        /* 3940 */
    uint32_t padBottom;      /* 3944 */
    uint32_t padRight;       /* 3948 */
    uint32_t padTop;         /* 3952 */
    uint32_t reserved3956;   /* 3956 */
    uint32_t padLeft;        /* 3960 */
    uint32_t reserved3964;   /* 3964 */
    float padValue;          /* 3968  counted for padded places with countIncludePad */
    uint32_t reserved3972;   /* 3972 */
    uint8_t countIncludePad; /* 3976  non-zero: padded places count */
    uint8_t reserved3977[3]; /* 3977 */
} PoolingAveAttr;
OPKIT_OFFSET(PoolingAveAttr, kernelH, 3928);
OPKIT_OFFSET(PoolingAveAttr, kernelW, 3932);
OPKIT_OFFSET(PoolingAveAttr, strideH, 3936);
OPKIT_OFFSET(PoolingAveAttr, strideW, 3940);
OPKIT_OFFSET(PoolingAveAttr, padBottom, 3944);
OPKIT_OFFSET(PoolingAveAttr, padRight, 3948);
OPKIT_OFFSET(PoolingAveAttr, padTop, 3952);
OPKIT_OFFSET(PoolingAveAttr, padLeft, 3960);
OPKIT_OFFSET(PoolingAveAttr, padValue, 3968);
OPKIT_OFFSET(PoolingAveAttr, countIncludePad, 3976);
OPKIT_SIZE(PoolingAveAttr, 3980);

/* PoolingMax: largest of a window. */
typedef struct PoolingMaxAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    uint32_t kernelH;         /* 3928 */
    uint32_t kernelW;         /* 3932 */
    uint32_t strideH;         /* 3936 */
    uint32_t strideW;         /* 3940 */
    uint32_t reserved3944[2]; /* 3944 */
    uint32_t padTop;          /* 3952 */
    uint32_t reserved3956;    /* 3956 */
    uint32_t padLeft;         /* 3960 */
    uint32_t reserved3964;    /* 3964 */
    float padValue;           /* 3968  takes part where a window starts above or left of the input */
} PoolingMaxAttr;
OPKIT_OFFSET(PoolingMaxAttr, kernelH, 3928);
OPKIT_OFFSET(PoolingMaxAttr, kernelW, 3932);
OPKIT_OFFSET(PoolingMaxAttr, strideH, 3936);
OPKIT_OFFSET(PoolingMaxAttr, strideW, 3940);
OPKIT_OFFSET(PoolingMaxAttr, padTop, 3952);
OPKIT_OFFSET(PoolingMaxAttr, padLeft, 3960);
OPKIT_OFFSET(PoolingMaxAttr, padValue, 3968);
OPKIT_SIZE(PoolingMaxAttr, 3972);

/* PoolingLp: norm of a window. */
typedef struct PoolingLpAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    uint32_t kernelH;         /* 3928 */
    uint32_t kernelW;         /* 3932 */
    uint32_t strideH;         /* 3936 */
    uint32_t strideW;         /* 3940 */
    uint32_t padTop;          /* 3944 */
    uint32_t padLeft;         /* 3948 */
    uint32_t reserved3952[5]; /* 3952 */
    uint32_t normP;           /* 3972  1: sum of magnitudes; 2: root of the sum of squares; else the sum of squares */
} PoolingLpAttr;
OPKIT_OFFSET(PoolingLpAttr, kernelH, 3928);
OPKIT_OFFSET(PoolingLpAttr, kernelW, 3932);
OPKIT_OFFSET(PoolingLpAttr, strideH, 3936);
OPKIT_OFFSET(PoolingLpAttr, strideW, 3940);
OPKIT_OFFSET(PoolingLpAttr, padTop, 3944);
OPKIT_OFFSET(PoolingLpAttr, padLeft, 3948);
OPKIT_OFFSET(PoolingLpAttr, normP, 3972);
OPKIT_SIZE(PoolingLpAttr, 3976);

/* InstanceNormalization: every plane to its own mean and variance, then scaled and shifted per channel. */
typedef struct InstanceNormalizationAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t epsilon;       /* 3928  added to the variance; a whole number */
} InstanceNormalizationAttr;
OPKIT_OFFSET(InstanceNormalizationAttr, epsilon, 3928);
OPKIT_SIZE(InstanceNormalizationAttr, 3932);

/* LpNorm: every line along axis divided by its norm. */
typedef struct LpNormAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t axis;          /* 3928  a negative one counts from the end */
    int32_t p;             /* 3932  order of the norm */
} LpNormAttr;
OPKIT_OFFSET(LpNormAttr, axis, 3928);
OPKIT_OFFSET(LpNormAttr, p, 3932);
OPKIT_SIZE(LpNormAttr, 3936);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_POOLING_H */
