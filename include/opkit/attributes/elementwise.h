/* Attribute records of the element-wise operators and of the activations with parameters.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * The unary operators (Acos to Tan) and Sinh have no attributes beyond the head. */
#ifndef OPKIT_ATTRIBUTES_ELEMENTWISE_H
#define OPKIT_ATTRIBUTES_ELEMENTWISE_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* BinaryMathAttr.mathType: outputs[0] = f(a, b), a from input 0 and b from input 1. */
enum {
    OPKIT_BINARY_ADD = 0,
    OPKIT_BINARY_SUB = 1,
    OPKIT_BINARY_MUL = 2, /* +0.0 where |b| is at most 1e-6 */
    OPKIT_BINARY_DIV = 3, /* +0.0 where |b| is at most 1e-6 */
    OPKIT_BINARY_MAX = 4, /* a > b ? a : b */
};

/* BinaryMath: two-operand arithmetic with broadcasting. */
typedef struct BinaryMathAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    StrideRecord inputStrides[80];  /* 3928  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  of the outputs; written by the operator */
    uint32_t mathType;              /* 8768  OPKIT_BINARY_...; a higher code computes nothing */
} BinaryMathAttr;
OPKIT_OFFSET(BinaryMathAttr, inputStrides, 3928);
OPKIT_OFFSET(BinaryMathAttr, outputStrides, 7448);
OPKIT_OFFSET(BinaryMathAttr, mathType, 8768);
OPKIT_SIZE(BinaryMathAttr, 8772);

/* BitShift: shifts input 0, taken as unsigned whole numbers, by input 1. */
typedef struct BitShiftAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    StrideRecord inputStrides[80];  /* 3928  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  of the outputs; written by the operator */
    uint8_t shiftLeft;              /* 8768  non-zero: left; 0: right */
    uint8_t reserved8769[3];        /* 8769 */
} BitShiftAttr;
OPKIT_OFFSET(BitShiftAttr, inputStrides, 3928);
OPKIT_OFFSET(BitShiftAttr, outputStrides, 7448);
OPKIT_OFFSET(BitShiftAttr, shiftLeft, 8768);
OPKIT_SIZE(BitShiftAttr, 8772);

/* Mod: remainder of input 0 by input 1. */
typedef struct ModAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    StrideRecord inputStrides[80];  /* 3928  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  of the outputs; written by the operator */
    uint8_t fmod;                   /* 8768  non-zero: of floats; 0: of whole numbers */
    uint8_t reserved8769[3];        /* 8769 */
} ModAttr;
OPKIT_OFFSET(ModAttr, inputStrides, 3928);
OPKIT_OFFSET(ModAttr, outputStrides, 7448);
OPKIT_OFFSET(ModAttr, fmod, 8768);
OPKIT_SIZE(ModAttr, 8772);

/* CmpAttr.cmpType: 1.0 where the comparison of a (input 0) with b (input 1) holds, else 0.0. */
enum {
    OPKIT_CMP_GREATER = 0,
    OPKIT_CMP_EQUAL = 1, /* |a - b| at most 1e-6 */
    OPKIT_CMP_LESS = 2,
    OPKIT_CMP_NOT_EQUAL = 3,     /* the opposite of equal, so true with NaN */
    OPKIT_CMP_GREATER_EQUAL = 4, /* without a tolerance */
    OPKIT_CMP_LESS_EQUAL = 5,    /* without a tolerance */
};

/* Cmp: comparison with broadcasting. Its stride records lie 4 bytes behind those of BinaryMath. */
typedef struct CmpAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    uint32_t cmpType;               /* 3928  OPKIT_CMP_...; a higher code computes nothing */
    StrideRecord inputStrides[80];  /* 3932  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7452  of the outputs; written by the operator */
} CmpAttr;
OPKIT_OFFSET(CmpAttr, cmpType, 3928);
OPKIT_OFFSET(CmpAttr, inputStrides, 3932);
OPKIT_OFFSET(CmpAttr, outputStrides, 7452);
OPKIT_SIZE(CmpAttr, 8772);

/* LogicalAttr.logicalType: 1.0 or 0.0; x is false where |x| is at most 1e-6. */
enum {
    OPKIT_LOGICAL_AND = 0,
    OPKIT_LOGICAL_OR = 1,
    OPKIT_LOGICAL_XOR = 2,
    OPKIT_LOGICAL_NOT = 3, /* of input 0; there is no input 1 */
};

/* Logical: truth operations with broadcasting. Laid out as CmpAttr. */
typedef struct LogicalAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    uint32_t logicalType;           /* 3928  OPKIT_LOGICAL_...; a higher code computes nothing */
    StrideRecord inputStrides[80];  /* 3932  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7452  of the outputs; written by the operator */
} LogicalAttr;
OPKIT_OFFSET(LogicalAttr, logicalType, 3928);
OPKIT_OFFSET(LogicalAttr, inputStrides, 3932);
OPKIT_OFFSET(LogicalAttr, outputStrides, 7452);
OPKIT_SIZE(LogicalAttr, 8772);

/* Where: input 1 where input 0 is true, else input 2, with broadcasting. */
typedef struct WhereAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t inputCount;            /* 3924  must be 3 */
    StrideRecord inputStrides[80];  /* 3928  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  of the outputs; written by the operator */
} WhereAttr;
OPKIT_OFFSET(WhereAttr, inputCount, 3924);
OPKIT_OFFSET(WhereAttr, inputStrides, 3928);
OPKIT_OFFSET(WhereAttr, outputStrides, 7448);
OPKIT_SIZE(WhereAttr, 8768);

/* Celu: max(0, x) + min(0, alpha * (exp(x / alpha) - 1)). */
typedef struct CeluAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    float alpha;           /* 3928  neither zero nor subnormal */
} CeluAttr;
OPKIT_OFFSET(CeluAttr, alpha, 3928);
OPKIT_SIZE(CeluAttr, 3932);

/* Selu: x * gamma above 0, else exp(x - alpha) * alpha * gamma. */
typedef struct SeluAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    float alpha;           /* 3928 */
    float gamma;           /* 3932 */
} SeluAttr;
OPKIT_OFFSET(SeluAttr, alpha, 3928);
OPKIT_OFFSET(SeluAttr, gamma, 3932);
OPKIT_SIZE(SeluAttr, 3936);

/* Shrink: x + bias below -lambd, x - bias above lambd, else +0.0. */
typedef struct ShrinkAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    float bias;            /* 3928 */
    float lambd;           /* 3932 */
} ShrinkAttr;
OPKIT_OFFSET(ShrinkAttr, bias, 3928);
OPKIT_OFFSET(ShrinkAttr, lambd, 3932);
OPKIT_SIZE(ShrinkAttr, 3936);

/* HardSigmoid: alpha * x + beta, limited to 0 and 1. */
typedef struct HardSigmoidAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    float alpha;           /* 3928  slope */
    float beta;            /* 3932  offset */
} HardSigmoidAttr;
OPKIT_OFFSET(HardSigmoidAttr, alpha, 3928);
OPKIT_OFFSET(HardSigmoidAttr, beta, 3932);
OPKIT_SIZE(HardSigmoidAttr, 3936);

/* ThresholdedRelu: x above alpha, else +0.0. */
typedef struct ThresholdedReluAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    float alpha;           /* 3928  threshold */
} ThresholdedReluAttr;
OPKIT_OFFSET(ThresholdedReluAttr, alpha, 3928);
OPKIT_SIZE(ThresholdedReluAttr, 3932);

/* RoundAttr.roundMode. */
enum {
    OPKIT_ROUND_CEIL = 0,
    OPKIT_ROUND_FLOOR = 1,
    OPKIT_ROUND_NEAREST = 2, /* what is a half within 1e-6 goes to even */
};

/* Round: to whole numbers. */
typedef struct RoundAttr {
    LayerAttrHead head;    /*    0 */
    uint32_t reserved3924; /* 3924 */
    uint32_t roundMode;    /* 3928  OPKIT_ROUND_...; a higher code computes nothing */
} RoundAttr;
OPKIT_OFFSET(RoundAttr, roundMode, 3928);
OPKIT_SIZE(RoundAttr, 3932);

/* Sqrt: has no attributes of the model, only the stride records. */
typedef struct SqrtAttr {
    LayerAttrHead head;             /*    0 */
    uint32_t reserved3924;          /* 3924 */
    StrideRecord inputStrides[80];  /* 3928  of the inputs; written by the operator */
    StrideRecord outputStrides[30]; /* 7448  of the outputs; written by the operator */
} SqrtAttr;
OPKIT_OFFSET(SqrtAttr, inputStrides, 3928);
OPKIT_OFFSET(SqrtAttr, outputStrides, 7448);
OPKIT_SIZE(SqrtAttr, 8768);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_ELEMENTWISE_H */
