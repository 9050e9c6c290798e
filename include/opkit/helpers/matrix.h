/* The matrix product, its quantised emulation, im2col, and the helpers of the determinant.
 * Matrices are compact, row-major f32 and the caller's; nothing is allocated. Calls on disjoint buffers may run on
 * several threads at once. */
#ifndef OPKIT_HELPERS_MATRIX_H
#define OPKIT_HELPERS_MATRIX_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* C [M, N] = alpha * op(A) * op(B) + beta * C */
typedef struct GemmArgs {
    uint8_t transA; /*  0  non-zero: A is stored [K, M], else [M, K] */
    uint8_t transB; /*  1  non-zero: B is stored [N, K], else [K, N] */
    uint32_t M;     /*  4 */
    uint32_t N;     /*  8 */
    uint32_t K;     /* 12 */
    float alpha;    /* 16 */
    float* A;       /* 24 */
    float* B;       /* 32 */
    float beta;     /* 40 */
    float* C;       /* 48  read and written */
} GemmArgs;
OPKIT_OFFSET(GemmArgs, M, 4);
OPKIT_OFFSET(GemmArgs, alpha, 16);
OPKIT_OFFSET(GemmArgs, A, 24);
OPKIT_OFFSET(GemmArgs, beta, 40);
OPKIT_OFFSET(GemmArgs, C, 48);
OPKIT_SIZE(GemmArgs, 56);

/* The product, in f32, terms added with k ascending. Each term is (a * alpha) * b, product and sum rounded apart.
 * C is scaled first: beta 0 clears it, NaN included; any other beta multiplies, 1 too.
 * Without transposition the terms are added onto the scaled C one by one; with transA or transB they are summed from 0
 * and added to C once, so the two walks can differ in the last bits.
 * C must not overlap A or B. With K of 0 only the scaling happens. */
OPKIT_API void Gemm(GemmArgs args);

/* A quantised operand: whole numbers held as floats. */
typedef struct QMatrix {
    float* data;       /* 0 */
    uint8_t scale;     /* 8 */
    uint8_t zeroPoint; /* 9 */
} QMatrix;
OPKIT_OFFSET(QMatrix, scale, 8);
OPKIT_OFFSET(QMatrix, zeroPoint, 9);
OPKIT_SIZE(QMatrix, 16);

typedef struct QGemmArgs {
    uint32_t M; /*  0 */
    uint32_t N; /*  4 */
    uint32_t K; /*  8 */
    QMatrix a;  /* 16  [M, K] */
    QMatrix b;  /* 32  [K, N] */
    QMatrix c;  /* 48  [M, N] */
} QGemmArgs;
OPKIT_OFFSET(QGemmArgs, K, 8);
OPKIT_OFFSET(QGemmArgs, a, 16);
OPKIT_OFFSET(QGemmArgs, b, 32);
OPKIT_OFFSET(QGemmArgs, c, 48);
OPKIT_SIZE(QGemmArgs, 64);

/* Float emulation of a quantised product; nothing is rounded to whole numbers or clamped.
 * C starts as C * (4 * bZero * aZero), so what it held counts when both zero points are set; the product scaled by
 * aScale * bScale is added; then each element becomes (C - t) * cScale - cZero, where
 * t = columnSum(B) * (bScale * aZero) + rowSum(A) * (aScale * bZero).
 *   A [M, K], B [K, N], C [M, N]; C is read and written
 * Returns 0. */
OPKIT_API int32_t QGemmWithoutEigen(float* A, float* B, float* C, int32_t M, int32_t N, int32_t K, float aScale,
                                    float aZero, float bScale, float bZero, float cScale, float cZero);

/* QGemmWithoutEigen with the byte scales and zero points of the record. Returns 0. */
OPKIT_API int32_t QGemm(QGemmArgs args);

typedef struct Im2colArgs {
    float* src;         /*  0  [channels, height, width] */
    uint32_t channels;  /*  8 */
    uint32_t height;    /* 12 */
    uint32_t width;     /* 16 */
    uint32_t kernelH;   /* 20 */
    uint32_t kernelW;   /* 24 */
    uint32_t padTop;    /* 28 */
    uint32_t padBottom; /* 32 */
    uint32_t padLeft;   /* 36 */
    uint32_t padRight;  /* 40 */
    uint32_t strideH;   /* 44 */
    uint32_t strideW;   /* 48 */
    uint32_t dilationH; /* 52 */
    uint32_t dilationW; /* 56 */
    int32_t padValue;   /* 60  converted to f32 */
    float* dst;         /* 64  [channels * kernelH * kernelW, outH * outW] */
} Im2colArgs;
OPKIT_OFFSET(Im2colArgs, channels, 8);
OPKIT_OFFSET(Im2colArgs, kernelH, 20);
OPKIT_OFFSET(Im2colArgs, padTop, 28);
OPKIT_OFFSET(Im2colArgs, strideH, 44);
OPKIT_OFFSET(Im2colArgs, dilationH, 52);
OPKIT_OFFSET(Im2colArgs, padValue, 60);
OPKIT_OFFSET(Im2colArgs, dst, 64);
OPKIT_SIZE(Im2colArgs, 72);

/* Lays the patches of one image out as columns: row (c * kernelH + kh) * kernelW + kw of dst holds, for every output
 * position, the image element under kernel position (kh, kw), or padValue outside the image.
 * outH = (height + padTop + padBottom - ((kernelH - 1) * dilationH + 1)) / strideH + 1, outW alike; signed division.
 * Returns 0; all ones with a message, and nothing written, when src or dst is null, a stride is 0, or the kernel
 * exceeds the padded image. */
OPKIT_API uint32_t Im2col(Im2colArgs args);

/* Returns a < b, unsigned: for a coordinate that went negative and wrapped it says "outside". */
OPKIT_API bool IsAgeZeroAndAltB(uint32_t a, uint32_t b);

/* Where element index of a c x c matrix lies in its transpose: index / c + (index % c) * c.
 * Returns 0 with a message when c is 0. */
OPKIT_API uint32_t GetTransposeInd(uint32_t index, uint32_t c);

/* Matrices in a stack of shape [..., rows, columns]: the product of all dimensions but the last two, 1 below rank 3. */
OPKIT_API int32_t MatmulGetCount(uint32_t* shape, int32_t dimNum);

/* Changes count floats in place; nothing happens when count is below 1.
 *   mode  0: x = (x - zero) * scale; else x = round(x / scale) + zero, halves away from zero, not clamped */
OPKIT_API void QLinearMatMulQuantize(float* data, int32_t count, int32_t mode, float scale, float zero);

/* Determinant of an n x n matrix by elimination with full pivoting, in f32, the pivots multiplied in f64. The matrix is
 * left as eliminated; entries within 1e-6 of zero are not eliminated. n of 0 gives 1.
 * Returns 0 with *result set, or all ones with a message when matrix or result is null. */
OPKIT_API uint32_t CalculateDet(float* matrix, float* result, uint32_t n);

/* Finds the pivot of step k: the entry of largest magnitude in rows and columns k to n - 1, the first in scan order.
 *   row, col  in and out: preset them to k; they are written only when an entry beats entry (k, k) */
OPKIT_API void GetMaxRowAndCol(float* matrix, uint32_t n, uint32_t k, uint32_t* row, uint32_t* col);

/* Exchange two rows over all n columns, or two columns over all n rows, in place. */
OPKIT_API void SwapRow(float* matrix, uint32_t n, uint32_t a, uint32_t b);
OPKIT_API void SwapCol(float* matrix, uint32_t n, uint32_t a, uint32_t b);

OPKIT_END_C

#endif /* OPKIT_HELPERS_MATRIX_H */
