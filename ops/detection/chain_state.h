// What the operators of the detection chain share: their thread-local objects, declared in opkit/helpers/detection.h,
// and the rows of a class's boxes.
//
// Reaching those objects calls a function of the dynamic loader. The loader is part of every process that has a shared
// library, so the reference is a weak one: a strong one would name the loader itself among the libraries that are
// needed.
#ifndef OPKIT_OPS_DETECTION_CHAIN_STATE_H
#define OPKIT_OPS_DETECTION_CHAIN_STATE_H

#include "opkit/helpers/detection.h"

__asm__(".weak __tls_get_addr");

namespace opkit {

// Rows x1, y1, x2, y2, score and, on request, class id.
inline uint32_t FieldCount(uint32_t hasClassId)
{
    return hasClassId != 0 ? 6 : 5;
}

}  // namespace opkit

#endif  // OPKIT_OPS_DETECTION_CHAIN_STATE_H
