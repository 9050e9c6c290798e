/* Attribute record of custom operators, whose code lies in a library of the user's own.
 *
 * A model compiler writes these records into the model buffer, one per layer: the layer record's attrOffset and
 * attrSize name the place and the size. The numbers beside the fields are byte offsets from the record's start, and the
 * assertions hold them. A record starts at a multiple of 4 bytes; reserved members are never read. What a comment calls
 * written by the operator may hold anything beforehand, and makes the model buffer one that must be writable.
 *
 * In the head, offlineInputNum must be right here, and '0' in inputFlags marks an online input, any other value an
 * offline one. */
#ifndef OPKIT_ATTRIBUTES_CUSTOM_H
#define OPKIT_ATTRIBUTES_CUSTOM_H

#include "opkit/records.h"

OPKIT_BEGIN_C

/* CustomSizedParams.marker of the sized form. */
#define OPKIT_CUSTOM_SIZED_MARKER 0x504E5944u

/* Parameter bytes in the sized form. They may go on behind the array, as far as sizedSize says. */
typedef struct CustomSizedParams {
    uint32_t sizedSize; /*  0  bytes of params, and 4 for the marker */
    uint32_t marker;    /*  4  OPKIT_CUSTOM_SIZED_MARKER */
    uint8_t params[72]; /*  8  the function's own */
} CustomSizedParams;
OPKIT_OFFSET(CustomSizedParams, marker, 4);
OPKIT_OFFSET(CustomSizedParams, params, 8);
OPKIT_SIZE(CustomSizedParams, 80);

/* Custom: calls funcName with the layer's tensors and the parameter bytes, in one of two forms told apart by the
 * marker. In the fixed form the word at 3996 must not happen to be the marker. */
typedef struct CustomAttr {
    LayerAttrHead head;          /*    0 */
    uint32_t totalInputNum;      /* 3924  online and offline inputs; must be the sum of both */
    char funcName[64];           /* 3928  NUL-terminated name of the function */
    union {                      /* 3992 */
        CustomSizedParams sized; /* 3992  sized form: size at 3992, marker at 3996, parameters from 4000 */
        uint8_t fixed[80];       /* 3992  fixed form: parameters from 3992 */
    } params;
    uint32_t fixedSize; /* 4072  fixed form: bytes of its parameters */
} CustomAttr;
OPKIT_OFFSET(CustomAttr, totalInputNum, 3924);
OPKIT_OFFSET(CustomAttr, funcName, 3928);
OPKIT_OFFSET(CustomAttr, params.sized.sizedSize, 3992);
OPKIT_OFFSET(CustomAttr, params.sized.marker, 3996);
OPKIT_OFFSET(CustomAttr, params.sized.params, 4000);
OPKIT_OFFSET(CustomAttr, params.fixed, 3992);
OPKIT_OFFSET(CustomAttr, fixedSize, 4072);
OPKIT_SIZE(CustomAttr, 4076);

OPKIT_END_C

#endif /* OPKIT_ATTRIBUTES_CUSTOM_H */
