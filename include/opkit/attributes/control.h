/* Attribute records of the control-flow operators.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * A segment id is a number between the model compiler and the caller: an operator leaves one in the request's segId,
 * the library itself never acts on it, and 0xFFFFFFFF asks for no jump. */
#ifndef OPKIT_ATTRIBUTES_CONTROL_H
#define OPKIT_ATTRIBUTES_CONTROL_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* IfAttr.cmpType. */
enum {
    OPKIT_IF_GREATER = 0, /* first operand above the second */
    OPKIT_IF_EQUAL = 1,   /* equal within 1e-6 */
};

/* If: leaves the segment id of one of two branches. */
typedef struct IfAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924;    /* 3924 */
    uint32_t cmpType;         /* 3928  OPKIT_IF_...; a higher code fails. Counts with a second operand only */
    uint8_t hasSecondOperand; /* 3932  0: the condition is that the first operand is true */
    uint8_t reserved3933[3];  /* 3933 */
    uint32_t thenSegId;       /* 3936  left when the condition holds */
    uint32_t elseSegId;       /* 3940  left otherwise */
} IfAttr;
OPKIT_OFFSET(IfAttr, cmpType, 3928);
OPKIT_OFFSET(IfAttr, hasSecondOperand, 3932);
OPKIT_OFFSET(IfAttr, thenSegId, 3936);
OPKIT_OFFSET(IfAttr, elseSegId, 3940);
OPKIT_SIZE(IfAttr, 3944);

/* ThenEnd: passes tensors through and leaves a segment id. */
typedef struct ThenEndAttr {
    LayerAttrHead head; /*    0 */
    int32_t tensorNum;  /* 3924  tensors to pass; none when below 1 */
    uint32_t nextSegId; /* 3928 */
} ThenEndAttr;
OPKIT_OFFSET(ThenEndAttr, tensorNum, 3924);
OPKIT_OFFSET(ThenEndAttr, nextSegId, 3928);
OPKIT_SIZE(ThenEndAttr, 3932);

/* ElseBegin: passes tensors through and leaves the segment id alone. */
typedef struct ElseBeginAttr {
    LayerAttrHead head; /*    0 */
    int32_t tensorNum;  /* 3924  tensors to pass; none when below 1 */
} ElseBeginAttr;
OPKIT_OFFSET(ElseBeginAttr, tensorNum, 3924);
OPKIT_SIZE(ElseBeginAttr, 3928);

/* CondEndAttr.condValue: the condition comes from input 0. */
#define OPKIT_COND_FROM_INPUT 0xFFFFFFFFu

/* CondEnd: end of a conditional, of a loop's body or of a scan's. The first branch field that is set decides. */
typedef struct CondEndAttr {
    LayerAttrHead head;  /*    0 */
    uint32_t tensorNum;  /* 3924  loop and scan: outputs expected */
    uint32_t ifBranch;   /* 3928  1: outputs are the first half of the inputs; other non-zero: the second half */
    uint32_t loopBranch; /* 3932  non-zero: end of a loop's body */
    uint32_t scanBranch; /* 3936  non-zero: end of a scan's body */
    uint32_t condValue;  /* 3940  loop: OPKIT_COND_FROM_INPUT, or the condition itself, signed */
    uint32_t nextSegId;  /* 3944  loop: left in segId */
} CondEndAttr;
OPKIT_OFFSET(CondEndAttr, tensorNum, 3924);
OPKIT_OFFSET(CondEndAttr, ifBranch, 3928);
OPKIT_OFFSET(CondEndAttr, loopBranch, 3932);
OPKIT_OFFSET(CondEndAttr, scanBranch, 3936);
OPKIT_OFFSET(CondEndAttr, condValue, 3940);
OPKIT_OFFSET(CondEndAttr, nextSegId, 3944);
OPKIT_SIZE(CondEndAttr, 3948);

/* Loop: head of a loop, entered again for every pass. Outputs: the condition, carriedNum values for the body,
 * carriedNum final values. The state fields are the operator's; a model supplies them as given here. The record is only
 * 4-aligned, so take its 64-bit fields by value. */
typedef struct __attribute__((packed, aligned(4))) LoopAttr {
    LayerAttrHead head;       /*    0 */
    uint32_t reserved3924[2]; /* 3924 */
    int32_t iteration;        /* 3932  state; 0 */
    int32_t condition;        /* 3936  state; -1 reads the first condition from an input, any other value is that
                               *        condition */
    uint32_t reserved3940;    /* 3940 */
    int64_t tripCount;        /* 3944  most passes; -1: none given */
    uint64_t outputTotal;     /* 3952  state; the number of outputs */
    uint32_t inputCursor;     /* 3960  state; 1 */
    uint32_t reserved3964;    /* 3964 */
    uint32_t carriedNum;      /* 3968  values carried from pass to pass */
    uint32_t reserved3972;    /* 3972 */
    uint32_t exitSegId;       /* 3976  left in segId on leaving the loop */
} LoopAttr;
OPKIT_OFFSET(LoopAttr, iteration, 3932);
OPKIT_OFFSET(LoopAttr, condition, 3936);
OPKIT_OFFSET(LoopAttr, tripCount, 3944);
OPKIT_OFFSET(LoopAttr, outputTotal, 3952);
OPKIT_OFFSET(LoopAttr, inputCursor, 3960);
OPKIT_OFFSET(LoopAttr, carriedNum, 3968);
OPKIT_OFFSET(LoopAttr, exitSegId, 3976);
OPKIT_SIZE(LoopAttr, 3980);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_CONTROL_H */
