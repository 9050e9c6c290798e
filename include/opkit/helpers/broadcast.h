/* Broadcasting, shape arithmetic and float comparison. Nothing here prints or keeps state, and every function may be
 * called from any thread. Indices are compact, in 32-bit wrapping arithmetic. */
#ifndef OPKIT_HELPERS_BROADCAST_H
#define OPKIT_HELPERS_BROADCAST_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* A run of dimensions or strides. */
typedef struct DimPair {
    uint32_t* data; /* 0 */
    uint32_t count; /* 8 */
} DimPair;
OPKIT_OFFSET(DimPair, count, 8);
OPKIT_SIZE(DimPair, 16);

/* Returns 1 if the shapes differ in rank or in any dimension, else 0. Whether they can be broadcast is not examined. */
OPKIT_API uint32_t JudgeBroadCast(uint32_t* shapeA, uint32_t countA, uint32_t* shapeB, int32_t countB);

/* Fills strides with the compact element strides of a shape of n dimensions (the last is 1) and *count with n.
 *   strides  at least n entries; entries behind them stay as they were. With n of 0 or, signed, below none is
 *            written */
OPKIT_API void SetStride(uint32_t* strides, uint32_t* count, uint32_t* shape, uint32_t n);

/* Packs an output index (bits 0 to 31) with the low byte of flag (bits 32 to 39) for GetIndBroadCast; a flag of 0 says
 * that the operand has the output's shape. */
OPKIT_API uint64_t GenSrcIdxFlag(uint32_t index, int32_t flag);

/* Maps an output index to the source index it reads. Trailing dimensions are matched; each coordinate is taken modulo
 * the source's dimension, so that a 1 repeats and any other mismatch wraps.
 *   srcStrides, outStrides  from SetStride on the two shapes; their counts are not read
 * Returns 0 when the output has no dimensions or the source has more of them than the output.
 * A zero among the strides or the source's dimensions is the caller's fault. */
OPKIT_API uint32_t BroadCast(uint32_t index, DimPair srcStrides, DimPair outStrides, DimPair srcShape,
                             DimPair outShape);

/* The same for an index packed by GenSrcIdxFlag; with a flag of 0 the index is returned as it stands. */
OPKIT_API uint32_t GetIndBroadCast(uint64_t packed, DimPair srcStrides, DimPair outStrides, DimPair srcShape,
                                   DimPair outShape);

/* Product of dimensions first to min(end, n) - 1; 1 if there is none. */
OPKIT_API uint32_t ShapeCount(uint32_t* shape, int32_t n, int32_t first, int32_t end);

/* Dimension N, C, H or W of a shape [..., N, C, H, W] of n dimensions; 1 when the shape is too short to have it. */
OPKIT_API uint32_t GetImgNum(uint32_t* shape, int32_t n);
OPKIT_API uint32_t GetChannels(uint32_t* shape, int32_t n);
OPKIT_API uint32_t GetHeight(uint32_t* shape, int32_t n);
OPKIT_API uint32_t GetWidth(uint32_t* shape, int32_t n);

/* 1 if |x|, widened to f64, is at most 1e-6, else 0; NaN gives 0. This is what "false" means in a tensor. */
OPKIT_API int32_t IsEqualToZero(float x);
/* IsEqualToZero of the f32 difference; so two infinities of one sign are not equal. */
OPKIT_API int32_t IsEqualFloat(float a, float b);
/* 1 for zeros and subnormals of either sign, else 0: no tolerance, unlike IsEqualToZero. */
OPKIT_API int32_t IsFloatEqZero(float x);
/* 1 if the distance of x from its floor is 0.5 within 1e-6, else 0. */
OPKIT_API int32_t IsEqualToHalf(float x);

/* Copies count floats, first to last, one by one: a destination that starts inside the source replicates.
 * Returns 0. */
OPKIT_API uint32_t Copy(uint32_t count, float* src, float* dst);

OPKIT_END_C

#endif /* OPKIT_HELPERS_BROADCAST_H */
