/* Attribute records of the operators that move, gather, scatter, pad and resample data.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * ScatterND has no attributes beyond the head. */
#ifndef OPKIT_ATTRIBUTES_MOVEMENT_H
#define OPKIT_ATTRIBUTES_MOVEMENT_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* Concat: joins inputs along an axis. */
typedef struct ConcatAttr {
    LayerAttrHead head;        /*    0 */
    uint32_t concatInputCount; /* 3924  inputs to join */
    int32_t concatAxis;        /* 3928  0 to dimNum - 1 */
} ConcatAttr;
OPKIT_OFFSET(ConcatAttr, concatInputCount, 3924);
OPKIT_OFFSET(ConcatAttr, concatAxis, 3928);
OPKIT_SIZE(ConcatAttr, 3932);

/* Expand: has no attributes of the model, only the stride records. */
typedef struct ExpandAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    StrideRecord inputStrides[80];  /* 3928  entry 0: of the input, when the shapes differ; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  entry 0: of the output; written by the operator */
} ExpandAttr;
OPKIT_OFFSET(ExpandAttr, inputStrides, 3928);
OPKIT_OFFSET(ExpandAttr, outputStrides, 7448);
OPKIT_SIZE(ExpandAttr, 8768);

/* Reshape: the same elements under another shape. */
typedef struct ReshapeAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    uint32_t reshapeDims[10]; /* 3928  target dimensions; only the last in use is read */
    uint32_t reshapeDimCount; /* 3968  target rank */
} ReshapeAttr;
OPKIT_OFFSET(ReshapeAttr, reshapeDims, 3928);
OPKIT_OFFSET(ReshapeAttr, reshapeDimCount, 3968);
OPKIT_SIZE(ReshapeAttr, 3972);

/* Permute: axis i of the output is axis perm[i] of the input. Work space: 8 bytes per dimension. */
typedef struct PermuteAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    uint32_t permDimCount;    /* 3928  the input's rank */
    uint32_t permOutDimCount; /* 3932  the input's rank */
    uint32_t perm[10];        /* 3936  source axis of each output axis */
    uint32_t permLength;      /* 3976  entries of perm; at most the rank */
} PermuteAttr;
OPKIT_OFFSET(PermuteAttr, permDimCount, 3928);
OPKIT_OFFSET(PermuteAttr, permOutDimCount, 3932);
OPKIT_OFFSET(PermuteAttr, perm, 3936);
OPKIT_OFFSET(PermuteAttr, permLength, 3976);
OPKIT_SIZE(PermuteAttr, 3980);

/* DepthToSpaceAttr.depthToSpaceMode: which part of the channel is the place inside a block. */
enum {
    OPKIT_DEPTH_TO_SPACE_DCR = 0, /* the outer part */
    OPKIT_DEPTH_TO_SPACE_CRD = 1, /* the inner part */
};

/* DepthToSpace: channels become blocks of blockSize x blockSize. */
typedef struct DepthToSpaceAttr {
    LayerAttrHead head;        /*    0 */
    uint32_t reserved3924;     /* 3924 */
    uint32_t blockSize;        /* 3928 */
    uint32_t depthToSpaceMode; /* 3932  OPKIT_DEPTH_TO_SPACE_...; a higher code computes nothing */
} DepthToSpaceAttr;
OPKIT_OFFSET(DepthToSpaceAttr, blockSize, 3928);
OPKIT_OFFSET(DepthToSpaceAttr, depthToSpaceMode, 3932);
OPKIT_SIZE(DepthToSpaceAttr, 3936);

/* Eyelike: zeros, and ones down one column. */
typedef struct EyelikeAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924[2]; /* 3924 */
    int32_t eyeK;             /* 3932  the column, from row 0 on; negative: column 0, from row -eyeK on */
} EyelikeAttr;
OPKIT_OFFSET(EyelikeAttr, eyeK, 3932);
OPKIT_SIZE(EyelikeAttr, 3936);

/* OneHot: an axis with one on-value per index. The values are behind inputFlags[2]; flag 1 is not looked at. */
typedef struct OneHotAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t oneHotAxis;    /* 3928  axis of the output, 0 or above */
} OneHotAttr;
OPKIT_OFFSET(OneHotAttr, oneHotAxis, 3928);
OPKIT_SIZE(OneHotAttr, 3932);

/* Gather: slices of the data along an axis. */
typedef struct GatherAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t reserved3924[1211]; /* 3924 */
    uint32_t gatherAxis;         /* 8768  0 to dimNum - 1 */
} GatherAttr;
OPKIT_OFFSET(GatherAttr, gatherAxis, 8768);
OPKIT_SIZE(GatherAttr, 8772);

/* GatherElements: one element of the data per index, at the index's own place but for the axis. */
typedef struct GatherElementsAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t reserved3924[1211]; /* 3924 */
    int32_t gatherAxis;          /* 8768  0 to dimNum - 1 */
} GatherElementsAttr;
OPKIT_OFFSET(GatherElementsAttr, gatherAxis, 8768);
OPKIT_SIZE(GatherElementsAttr, 8772);

/* GatherND: slices of the data by index tuples. */
typedef struct GatherNDAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t reserved3924[1211]; /* 3924 */
    int32_t gatherAxis;          /* 8768  number of leading batch dimensions */
} GatherNDAttr;
OPKIT_OFFSET(GatherNDAttr, gatherAxis, 8768);
OPKIT_SIZE(GatherNDAttr, 8772);

/* Scatter: the data with updates written where the indices say. Work space: 4 bytes per index, 8 per dimension. */
typedef struct ScatterAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t scatterAxis;   /* 3928  0 to dimNum - 1 */
} ScatterAttr;
OPKIT_OFFSET(ScatterAttr, scatterAxis, 3928);
OPKIT_SIZE(ScatterAttr, 3932);

/* PadAttr.padMode. */
enum {
    OPKIT_PAD_CONSTANT = 0,
    OPKIT_PAD_REFLECT = 1, /* mirrored about the edge element */
    OPKIT_PAD_EDGE = 2,    /* the edge element repeated */
};

/* Pad: padding and cropping of every axis. Let rank be the input's rank and r the rank after the inner axes that need
 * no padding were merged (at most rank). The ...Size fields are entries, of 4 bytes, of arrays in the work space, which
 * holds in this order: padCount entries, padCount more, outputDims, reshapedInputDims, reshapedOutputDims,
 * reshapedPads, reshapedSlices, inputStarts, then r entries and 4 * rank more. */
typedef struct PadAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    uint32_t padCountCheck;         /* 3928  must equal padCount */
    int32_t outputDimsSize;         /* 3932  must equal rank */
    int32_t reshapedInputDimsSize;  /* 3936  not checked; r entries are written */
    int32_t reshapedOutputDimsSize; /* 3940  at least r */
    int32_t reshapedPadsSize;       /* 3944  at least 2 * r */
    int32_t reshapedSlicesSize;     /* 3948  at least r is checked, 2 * r entries are written */
    int32_t inputStartsSize;        /* 3952  at least r */
    int32_t inputExtentsSize;       /* 3956  at least r */
    uint32_t padMode;               /* 3960  OPKIT_PAD_...; a higher code writes no element */
    int32_t padsAttr[20];           /* 3964  counts before each axis, then behind each; negative crops */
    uint32_t padCount;              /* 4044  entries of padsAttr in use; must be 2 * rank */
    float padConstant;              /* 4048  for OPKIT_PAD_CONSTANT */
} PadAttr;
OPKIT_OFFSET(PadAttr, padCountCheck, 3928);
OPKIT_OFFSET(PadAttr, outputDimsSize, 3932);
OPKIT_OFFSET(PadAttr, reshapedInputDimsSize, 3936);
OPKIT_OFFSET(PadAttr, reshapedOutputDimsSize, 3940);
OPKIT_OFFSET(PadAttr, reshapedPadsSize, 3944);
OPKIT_OFFSET(PadAttr, reshapedSlicesSize, 3948);
OPKIT_OFFSET(PadAttr, inputStartsSize, 3952);
OPKIT_OFFSET(PadAttr, inputExtentsSize, 3956);
OPKIT_OFFSET(PadAttr, padMode, 3960);
OPKIT_OFFSET(PadAttr, padsAttr, 3964);
OPKIT_OFFSET(PadAttr, padCount, 4044);
OPKIT_OFFSET(PadAttr, padConstant, 4048);
OPKIT_SIZE(PadAttr, 4052);

/* ResizeAttr.resizeMode. */
enum {
    OPKIT_RESIZE_NEAREST = 0,
    OPKIT_RESIZE_LINEAR = 1, /* over the last two axes */
};

/* ResizeAttr.coordinateMode: where output position i of an axis lies in the input (in and out elements, scale s, region
 * from a to b). A higher code is OPKIT_RESIZE_HALF_PIXEL. */
enum {
    OPKIT_RESIZE_HALF_PIXEL = 0,           /* (i + 0.5) / s - 0.5 */
    OPKIT_RESIZE_HALF_PIXEL_OR_ZERO = 1,   /* the same, but 0 when out is 1 */
    OPKIT_RESIZE_ALIGN_CORNERS = 2,        /* i * (in - 1) / (out - 1) */
    OPKIT_RESIZE_ASYMMETRIC = 3,           /* i / s */
    OPKIT_RESIZE_CROP = 4,                 /* i * (b - a) * (in - 1) / (out - 1) + (in - 1) * a */
    OPKIT_RESIZE_HALF_PIXEL_UNSHIFTED = 5, /* (i + 0.5) / s */
};

/* ResizeAttr.nearestMode. A higher code is OPKIT_RESIZE_ROUND_PREFER_FLOOR. */
enum {
    OPKIT_RESIZE_ROUND_PREFER_FLOOR = 0, /* gives what OPKIT_RESIZE_ROUND gives: 2.5 becomes 3 */
    OPKIT_RESIZE_ROUND = 1,              /* halves away from zero */
    OPKIT_RESIZE_FLOOR = 2,
    OPKIT_RESIZE_CEIL = 3,
    OPKIT_RESIZE_SIMPLE = 4, /* ceil when the scale is below 1, else truncated */
};

/* Resize: resampling to the output's shape. Input 0 is X, input 1 the region where it comes from an input. Scales or
 * sizes that come from an input are input 1 when no region counts or the region is a constant input, else input 2. */
typedef struct ResizeAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924[3]; /* 3924 */
    float extrapolationValue; /* 3936  for elements whose source lies outside, with extrapolate */
    uint32_t coordinateMode;  /* 3940  OPKIT_RESIZE_... */
    uint32_t resizeMode;      /* 3944  OPKIT_RESIZE_NEAREST or _LINEAR; a higher code computes nothing */
    uint32_t nearestMode;     /* 3948  OPKIT_RESIZE_... */
    float scales[10];         /* 3952  per axis; scales[0] of -1 takes them from an input */
    int32_t sizes[10];        /* 3992  only sizes[0] is read: -1 takes the sizes from an input */
    float roi[10];            /* 4032  starts of the region, then ends; roi[0] of 0 takes it from an input */
    uint32_t roiCount;        /* 4072  the region counts only when this is above 10 */
    uint32_t useSizes;        /* 4076  1: sizes counts */
    uint32_t hasRoi;          /* 4080  1: there is a region */
    uint32_t extrapolate;     /* 4084  non-zero: places outside the input take extrapolationValue */
} ResizeAttr;
OPKIT_OFFSET(ResizeAttr, extrapolationValue, 3936);
OPKIT_OFFSET(ResizeAttr, coordinateMode, 3940);
OPKIT_OFFSET(ResizeAttr, resizeMode, 3944);
OPKIT_OFFSET(ResizeAttr, nearestMode, 3948);
OPKIT_OFFSET(ResizeAttr, scales, 3952);
OPKIT_OFFSET(ResizeAttr, sizes, 3992);
OPKIT_OFFSET(ResizeAttr, roi, 4032);
OPKIT_OFFSET(ResizeAttr, roiCount, 4072);
OPKIT_OFFSET(ResizeAttr, useSizes, 4076);
OPKIT_OFFSET(ResizeAttr, hasRoi, 4080);
OPKIT_OFFSET(ResizeAttr, extrapolate, 4084);
OPKIT_SIZE(ResizeAttr, 4088);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_MOVEMENT_H */
