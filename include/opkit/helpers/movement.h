/* Helpers of the operators that move data: DepthToSpace, Pad, Resize. All of them touch their arguments only. */
#ifndef OPKIT_HELPERS_MOVEMENT_H
#define OPKIT_HELPERS_MOVEMENT_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* Rearrange [N, C, H, W] into [N, C / (block * block), H * block, W * block]; DCR takes the block offset from the outer
 * part of the channel, CRD from the inner part. C, H and W are the input's.
 *   strideIn, strideOut  row alignment of the two tensors, in floats
 *   in, out              padded rows; gaps of out stay untouched
 * Return 0. */
OPKIT_API uint32_t DepthToSpaceOpkitForwardDCR(uint32_t strideIn, uint32_t strideOut, float* in, float* out, uint32_t N,
                                               uint32_t C, uint32_t H, uint32_t W, uint32_t block);
OPKIT_API uint32_t DepthToSpaceOpkitForwardCRD(uint32_t strideIn, uint32_t strideOut, float* in, float* out, uint32_t N,
                                               uint32_t C, uint32_t H, uint32_t W, uint32_t block);

/* What FlattenInnerShape reads. pads and slices hold rank begins, then rank ends. */
typedef struct FlattenContext {
    uint32_t* dims;   /*  0  rank dimensions */
    uint32_t* pads;   /*  8 */
    uint32_t* slices; /* 16  negative pad counts as they wrap */
    uint32_t rank;    /* 24 */
} FlattenContext;
OPKIT_OFFSET(FlattenContext, pads, 8);
OPKIT_OFFSET(FlattenContext, slices, 16);
OPKIT_OFFSET(FlattenContext, rank, 24);

/* Merges the inner axes that Pad leaves alone: axes are merged from the innermost outward up to and including the first
 * that is padded or sliced; nothing is merged unless the last dimension equals alignedInnerDim.
 *   reshapedDims     out, at most rank entries
 *   alignedInnerDim  the last dimension rounded up to a multiple of 4
 * Returns the new rank. */
OPKIT_API uint32_t FlattenInnerShape(FlattenContext* context, uint32_t* reshapedDims, uint32_t alignedInnerDim);

/* Brings srcRank begins and srcRank ends to newRank of each; the innermost one counts innerNoPadSize elements a step.
 *   reshaped  out, 2 * newRank entries */
OPKIT_API void ReshapePads(uint32_t* src, uint32_t srcRank, uint32_t newRank, uint32_t innerNoPadSize,
                           uint32_t* reshaped);

/* Judges padding of a tensor with no elements. Reflect zeroes the output dimensions of empty axes; edge refuses to make
 * elements on an empty axis.
 *   mode  0 constant, 1 reflect, 2 edge; inputDims, outputDims: rank entries each, outputDims altered by reflect
 * Returns 0, or all ones, silently, where edge refuses. */
OPKIT_API uint32_t PadInputWithDimValueOfZero(int32_t mode, uint32_t* inputDims, uint32_t* outputDims, uint32_t rank);

/* A walk over all rows of a block: counters over every axis but the innermost. */
typedef struct ExtentAxisCounts {
    uint32_t* counters; /*  0  rank entries of the caller's */
    int32_t resetAxis;  /*  8  rank - 1 */
    uint32_t* extents;  /* 16  rank entries of the caller's */
    int32_t rank;       /* 24 */
    int32_t running;    /* 28  1 while there is a row to visit */
    int32_t axis;       /* 32  where the last increment acted */
} ExtentAxisCounts;
OPKIT_OFFSET(ExtentAxisCounts, resetAxis, 8);
OPKIT_OFFSET(ExtentAxisCounts, extents, 16);
OPKIT_OFFSET(ExtentAxisCounts, rank, 24);
OPKIT_OFFSET(ExtentAxisCounts, running, 28);
OPKIT_OFFSET(ExtentAxisCounts, axis, 32);
OPKIT_SIZE(ExtentAxisCounts, 40);

/* Sets up the walk; counts->counters must already point to rank entries, of which all but the last are cleared.
 * With a zero among the extents the walk is over at once. */
OPKIT_API void ExtentAxisCountsInit(ExtentAxisCounts* counts, uint32_t* extents, uint32_t rank);

/* Steps one axis outward. Returns 1 when that axis just rolled over (call again, counts->axis names it), else 0. */
OPKIT_API int32_t ExtentAxisCountsIncrement(ExtentAxisCounts* counts);

/* Reads the kept part of a padded tensor row by row. */
typedef struct PadSliceIterator {
    float* input;          /*  0 */
    uint32_t* dims;        /*  8  rank dimensions after merging */
    int32_t rank;          /* 16 */
    uint32_t* extents;     /* 24  elements kept per axis */
    int32_t* starts;       /* 32  first element kept per axis */
    int32_t positionCount; /* 40  entries of positions */
    float* current;        /* 48  read cursor */
    uint32_t* positions;   /* 56  a counter per axis */
    int32_t innerExtent;   /* 64  floats copied a step */
    int32_t innerStride;   /* 68  always 1 */
    int32_t* skips;        /* 72  floats to skip when an axis completes */
    int32_t skipCount;     /* 80 */
} PadSliceIterator;
OPKIT_OFFSET(PadSliceIterator, dims, 8);
OPKIT_OFFSET(PadSliceIterator, rank, 16);
OPKIT_OFFSET(PadSliceIterator, extents, 24);
OPKIT_OFFSET(PadSliceIterator, starts, 32);
OPKIT_OFFSET(PadSliceIterator, positionCount, 40);
OPKIT_OFFSET(PadSliceIterator, current, 48);
OPKIT_OFFSET(PadSliceIterator, positions, 56);
OPKIT_OFFSET(PadSliceIterator, innerExtent, 64);
OPKIT_OFFSET(PadSliceIterator, innerStride, 68);
OPKIT_OFFSET(PadSliceIterator, skips, 72);
OPKIT_OFFSET(PadSliceIterator, skipCount, 80);
OPKIT_SIZE(PadSliceIterator, 88);

/* Sets current, the values of positions and skips, innerExtent, innerStride and skipCount; the caller has filled the
 * rest, including the addresses of positions and skips.
 *   inputStrideFloats  row distance of the input
 *   innerNoPadSize     1: the innermost axis was not merged and is stepped over by inputStrideFloats */
OPKIT_API void PadSliceIteratorInit(PadSliceIterator* iterator, int32_t inputStrideFloats, int32_t innerNoPadSize);

/* Copy one kept row to output and move the iterator to the next one; the first forwards to the second.
 * Return the place behind the row in output. */
OPKIT_API float* CopyInnermostAxisSolitaryInnerStep(PadSliceIterator* iterator, float* output);
OPKIT_API float* CopyInnermostAxisSolitaryInnerStepImpl(PadSliceIterator* iterator, float* output);

typedef struct TensorPitches {
    uint32_t* pitches; /* 0  the caller's, rank entries */
    int32_t rank;      /* 8 */
} TensorPitches;
OPKIT_OFFSET(TensorPitches, rank, 8);

/* Fills pitches->pitches with the compact element steps of rank dimensions, none of them 0. The name is spelt so. */
OPKIT_API void TensorPictchesInit(TensorPitches* pitches, uint32_t* dims, int32_t rank);

/* Writes count copies of value; nothing when count is 0 or below. */
OPKIT_API void PadAxisConstant(float* output, int32_t count, float value);

/* Returns whether all count pads are 0. */
OPKIT_API bool IsPadAllZero(uint32_t* pads, uint32_t count);

/* Copies input 0 to outputs[0], for a layer whose pads are all 0; the input is compacted. No operator calls it.
 * Returns true on success and, with nothing copied, when there is no input; false with a message when the element
 * counts differ or a row routine fails. */
OPKIT_API bool ProcessPadAllZero(LayerParam* param);

/* Finds the scales of a Resize layer: the attribute's, those of an input, or sizes of an input divided by the shape.
 *   attr        a ResizeAttr
 *   scalesOut   out: where the scales lie. With sizes of an input it is an array of pointers instead, one per dimension
 *               of input 0, and scale i is stored through pointer i
 *   inputIndex  logical input that holds scales or sizes
 * Returns 0, or all ones, silently, when input 0 or that input does not resolve. */
OPKIT_API uint32_t ParseAttrInput(LayerParam* param, LayerAttrBlock* attr, float** scalesOut, uint32_t inputIndex);

OPKIT_END_C

#endif /* OPKIT_HELPERS_MOVEMENT_H */
