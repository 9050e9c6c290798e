// The thread-local objects of the detection chain (declared in opkit/helpers/detection.h), for the files that use them.
//
// Reaching them calls a function of the dynamic loader. The loader is part of every process that has a shared library,
// so the reference is a weak one: a strong one would name the loader itself among the libraries that are needed.
#ifndef OPKIT_OPS_DETECTION_CHAIN_STATE_H
#define OPKIT_OPS_DETECTION_CHAIN_STATE_H

#include "opkit/helpers/detection.h"

__asm__(".weak __tls_get_addr");

#endif  // OPKIT_OPS_DETECTION_CHAIN_STATE_H
