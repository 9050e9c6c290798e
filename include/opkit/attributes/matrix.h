/* Attribute records of the matrix and convolution operators.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * MatMul and Det have no attributes beyond the head. */
#ifndef OPKIT_ATTRIBUTES_MATRIX_H
#define OPKIT_ATTRIBUTES_MATRIX_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* Gemm: Y = alpha * op(A) * op(B) + beta * C. */
typedef struct GemmAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t inputCount;            /* 3924  exactly 3: input 2 is C; any other value: there is no C */
    StrideRecord inputStrides[80];  /* 3928  entry 2, at 4016: of C, when it is broadcast; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  entry 0: of Y, when there is a C; written by the operator */
    uint32_t reserved8768;          /* 8768 */
    float alpha;                    /* 8772 */
    float beta;                     /* 8776 */
    uint8_t transA;                 /* 8780  non-zero: A is stored [K, M], else [M, K] */
    uint8_t transB;                 /* 8781  non-zero: B is stored [N, K], else [K, N] */
    uint8_t reserved8782[2];        /* 8782 */
} GemmAttr;
OPKIT_OFFSET(GemmAttr, inputCount, 3924);
OPKIT_OFFSET(GemmAttr, inputStrides, 3928);
OPKIT_OFFSET(GemmAttr, outputStrides, 7448);
OPKIT_OFFSET(GemmAttr, alpha, 8772);
OPKIT_OFFSET(GemmAttr, beta, 8776);
OPKIT_OFFSET(GemmAttr, transA, 8780);
OPKIT_OFFSET(GemmAttr, transB, 8781);
OPKIT_SIZE(GemmAttr, 8784);
OPKIT_OFFSET(GemmAttr, inputStrides[2].strides, 4016);
OPKIT_OFFSET(GemmAttr, inputStrides[2].count, 4056);
OPKIT_OFFSET(GemmAttr, outputStrides[0].count, 7488);

/* QLinearMatMul: inputs are A, A scale, A zero point, B, B scale, B zero point, Y scale, Y zero point when inputCount
 * is 8, and A, B, A zero point (from 3), B zero point (from 4) otherwise. */
typedef struct QLinearMatMulAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    int32_t inputCount;    /* 3928  2, 3, 4 or 8; below 2 fails; any other reads eight inputs and uses four */
} QLinearMatMulAttr;
OPKIT_OFFSET(QLinearMatMulAttr, inputCount, 3928);
OPKIT_SIZE(QLinearMatMulAttr, 3932);

/* Convolution: im2col and one product per image and group. Inputs of the form with inputCount below 5: X, W, x zero
 * point (above 2), w zero point (above 3). Of the other: X, x scale, x zero point, W, w scale, w zero point, y scale, y
 * zero point, and one more when hasBias is set. X is [images, channels, height, width], Y [images, outChannels, plane].
 * Work space: outHeight * outWidth * colChannels floats, then outHeight * outWidth bytes. */
typedef struct ConvolutionAttr {
    LayerAttrHead head;         /*    0 */
    uint32_t reserved3924;      /* 3924 */
    uint32_t inputCount;        /* 3928  below 5: integer form; else quantised form */
    uint32_t channels;          /* 3932  of one image */
    uint32_t height;            /* 3936  of X */
    uint32_t width;             /* 3940  of X */
    uint32_t kernelH;           /* 3944 */
    uint32_t kernelW;           /* 3948 */
    uint32_t padTop;            /* 3952 */
    uint32_t padBottom;         /* 3956 */
    uint32_t padLeft;           /* 3960 */
    uint32_t padRight;          /* 3964 */
    uint32_t strideH;           /* 3968 */
    uint32_t strideW;           /* 3972 */
    uint32_t dilationH;         /* 3976 */
    uint32_t dilationW;         /* 3980 */
    uint32_t outHeight;         /* 3984  outHeight * outWidth is the output plane */
    uint32_t outWidth;          /* 3988 */
    uint32_t colChannels;       /* 3992  rows of the column matrix, all groups */
    uint32_t groupNum;          /* 3996 */
    uint32_t hasBias;           /* 4000  quantised form: non-zero declares a ninth input, which must resolve and is
                                 *        not used */
    uint32_t outChannels;       /* 4004  of one image, all groups */
    uint32_t outGroupOffset;    /* 4008  floats between the output blocks of two groups */
    uint32_t weightGroupOffset; /* 4012  floats between the weight blocks of two groups */
    uint32_t colGroupOffset;    /* 4016  floats between the column blocks of two groups */
    uint32_t gemmM;             /* 4020  rows of one group's product */
    uint32_t gemmN;             /* 4024  its columns */
    uint32_t gemmK;             /* 4028  its inner size */
} ConvolutionAttr;
OPKIT_OFFSET(ConvolutionAttr, inputCount, 3928);
OPKIT_OFFSET(ConvolutionAttr, channels, 3932);
OPKIT_OFFSET(ConvolutionAttr, height, 3936);
OPKIT_OFFSET(ConvolutionAttr, width, 3940);
OPKIT_OFFSET(ConvolutionAttr, kernelH, 3944);
OPKIT_OFFSET(ConvolutionAttr, kernelW, 3948);
OPKIT_OFFSET(ConvolutionAttr, padTop, 3952);
OPKIT_OFFSET(ConvolutionAttr, padBottom, 3956);
OPKIT_OFFSET(ConvolutionAttr, padLeft, 3960);
OPKIT_OFFSET(ConvolutionAttr, padRight, 3964);
OPKIT_OFFSET(ConvolutionAttr, strideH, 3968);
OPKIT_OFFSET(ConvolutionAttr, strideW, 3972);
OPKIT_OFFSET(ConvolutionAttr, dilationH, 3976);
OPKIT_OFFSET(ConvolutionAttr, dilationW, 3980);
OPKIT_OFFSET(ConvolutionAttr, outHeight, 3984);
OPKIT_OFFSET(ConvolutionAttr, outWidth, 3988);
OPKIT_OFFSET(ConvolutionAttr, colChannels, 3992);
OPKIT_OFFSET(ConvolutionAttr, groupNum, 3996);
OPKIT_OFFSET(ConvolutionAttr, hasBias, 4000);
OPKIT_OFFSET(ConvolutionAttr, outChannels, 4004);
OPKIT_OFFSET(ConvolutionAttr, outGroupOffset, 4008);
OPKIT_OFFSET(ConvolutionAttr, weightGroupOffset, 4012);
OPKIT_OFFSET(ConvolutionAttr, colGroupOffset, 4016);
OPKIT_OFFSET(ConvolutionAttr, gemmM, 4020);
OPKIT_OFFSET(ConvolutionAttr, gemmN, 4024);
OPKIT_OFFSET(ConvolutionAttr, gemmK, 4028);
OPKIT_SIZE(ConvolutionAttr, 4032);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_MATRIX_H */
