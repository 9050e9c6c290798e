/* Attribute records of the detection operators.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable. */
#ifndef OPKIT_ATTRIBUTES_DETECTION_H
#define OPKIT_ATTRIBUTES_DETECTION_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* DecBbox: boxes from proposals and deltas. Inputs: deltas, scores, thresholds, proposal count, proposals. */
typedef struct DecBboxAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t reserved3924[1211]; /* 3924 */
    uint32_t classNum;           /* 8768  1 to 256 unless mergeClasses is set */
    uint32_t hasClassId;         /* 8772  non-zero: six fields per box, else five; exactly 1: the class id is written */
    uint32_t clipBox;            /* 8776  non-zero: boxes are clipped to the image */
    uint32_t imageWidth;         /* 8780 */
    uint32_t imageHeight;        /* 8784 */
    uint32_t mergeClasses;       /* 8788  non-zero: all classes share one list */
} DecBboxAttr;
OPKIT_OFFSET(DecBboxAttr, classNum, 8768);
OPKIT_OFFSET(DecBboxAttr, hasClassId, 8772);
OPKIT_OFFSET(DecBboxAttr, clipBox, 8776);
OPKIT_OFFSET(DecBboxAttr, imageWidth, 8780);
OPKIT_OFFSET(DecBboxAttr, imageHeight, 8784);
OPKIT_OFFSET(DecBboxAttr, mergeClasses, 8788);
OPKIT_SIZE(DecBboxAttr, 8792);

/* DetectionOutputAttr.stage. Another value passes the boxes on. */
enum {
    OPKIT_STAGE_NMS = 0,
    OPKIT_STAGE_FILTER = 1,
    OPKIT_STAGE_SORT = 2,
};

/* FilterBox, Sort and NMS: one stage over the box lists of all classes. The stage field decides, not the layer's
 * name. */
typedef struct DetectionOutputAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t reserved3924[1211]; /* 3924 */
    uint32_t classNum;           /* 8768  lists */
    uint32_t hasClassId;         /* 8772  non-zero: six fields per box, else five */
    uint32_t stage;              /* 8776  OPKIT_STAGE_... */
    uint32_t classCapacity;      /* 8780  boxes a list has room for in the input */
    uint32_t reserved8784[2];    /* 8784 */
    uint32_t maxBoxNum;          /* 8792  most boxes kept per class */
    uint32_t packOutput;         /* 8796  non-zero: all classes in one run, class 0 counts the total */
    uint32_t reserved8800;       /* 8800 */
    uint32_t writeCount;         /* 8804  non-zero: counts go to outputs[1], and all classes into one run */
} DetectionOutputAttr;
OPKIT_OFFSET(DetectionOutputAttr, classNum, 8768);
OPKIT_OFFSET(DetectionOutputAttr, hasClassId, 8772);
OPKIT_OFFSET(DetectionOutputAttr, stage, 8776);
OPKIT_OFFSET(DetectionOutputAttr, classCapacity, 8780);
OPKIT_OFFSET(DetectionOutputAttr, maxBoxNum, 8792);
OPKIT_OFFSET(DetectionOutputAttr, packOutput, 8796);
OPKIT_OFFSET(DetectionOutputAttr, writeCount, 8804);
OPKIT_SIZE(DetectionOutputAttr, 8808);

/* NonMaxSuppression: boxes by descending score, per batch and class. Inputs: boxes, scores, most boxes per class,
 * overlap threshold, score threshold. Work space: 8 bytes per box and 8 more. */
typedef struct NonMaxSuppressionAttr {
    LayerAttrHead head;      /*    0 */
    int32_t inputCount;      /* 3924  inputs present; at least the first two are read */
    uint32_t centerPointBox; /* 3928  non-zero: boxes are centre and size, else two corners */
} NonMaxSuppressionAttr;
OPKIT_OFFSET(NonMaxSuppressionAttr, inputCount, 3924);
OPKIT_OFFSET(NonMaxSuppressionAttr, centerPointBox, 3928);
OPKIT_SIZE(NonMaxSuppressionAttr, 3932);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_DETECTION_H */
