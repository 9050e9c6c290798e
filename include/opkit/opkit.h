/* opkit: runs the layers of a compiled model on the processor, one thread, f32, with results fixed to the last bit.
 *
 * The library has one working entry, OpkitForward. A caller fills a ForwardParam with its tensors, a scratch buffer and
 * a model buffer, calls OpkitForward, and reads the outputs and segId:
 *
 *     uint32_t shape[2] = {2, 3};
 *     TensorInfo in = {.stride = 12, .batch = 1, .dimNum = 2, .shape = shape, .data = x, .size = 24};
 *     TensorInfo out = {.stride = 12, .batch = 1, .dimNum = 2, .shape = shape, .data = y, .size = 24};
 *     ModelOffsets offsets = {.layerTableOffset = 0, .layerTableSize = modelSize};
 *     ForwardParam request = {.inputs = &in, .inputNum = 1, .outputs = &out, .outputNum = 1,
 *                             .opkitBuf = scratch, .opkitBufSize = scratchSize,
 *                             .attr = &offsets, .attrSize = sizeof offsets, .model = model, .modelSize = modelSize};
 *     if (OpkitForward(&request) != 0) { ... the reason is on standard output ... }
 *
 * What lies where: records.h has the request, the tensors and the layer table; attributes/ the parameter block of every
 * operator, for those who write model buffers; operators.h the operators; helpers.h what operators are written with.
 * There is nothing to initialise or to shut down, and nothing is cached between calls. */
#ifndef OPKIT_OPKIT_H
#define OPKIT_OPKIT_H

#include "opkit/attributes/control.h"
#include "opkit/attributes/custom.h"
#include "opkit/attributes/detection.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/attributes/matrix.h"
#include "opkit/attributes/movement.h"
#include "opkit/attributes/pooling.h"
#include "opkit/attributes/selection.h"
#include "opkit/helpers.h"
#include "opkit/operators.h"
#include "opkit/records.h"

/* The version these headers describe; compare it with OpkitGetVersion(). */
#define OPKIT_VERSION 0x30000u

/* What a failed request and most failed operators return. */
#define OPKIT_FAILURE 0xFFFFFFFFu

/* segId of a layer that asks for no jump. */
#define OPKIT_NO_SEGMENT 0xFFFFFFFFu

OPKIT_BEGIN_C

/* Runs every layer of the layer table, in table order, once for each batch item; all layers of one item come before the
 * next item. The batch count is inputs[0].batch, at most 256; 0 runs nothing and succeeds.
 *
 * Provided by the caller, and unchanged by anyone else until the call returns:
 *   inputs, outputs  at least one each; stride, data and size are read. A tensor of kind OPKIT_MEM_REQUEST is the
 *                    item's share of one, size / batch bytes. Their shape and dimNum are not read: layers have their
 *                    own
 *   opkitBuf         scratch, opkitBufSize bytes; layers' work spaces are checked against it, scratch tensors are not
 *   attr, attrSize   a ModelOffsets, and 8
 *   model            modelSize bytes, at most 0x40000000, written to as well as read: operators keep stride records and
 *                    loop state in it and compact constants. It is trusted beyond what CheckForwardParam and
 *                    ParseLayerParam check
 *   dumpHook         with a dump function, it sees the outputs of the layers selected, right after each one; except a
 *                    loop layer's while segId is OPKIT_NO_SEGMENT
 *   profiling        with slots, layer i of item b is timed in slot b * layerCount + i
 *   stopFlag         null, or set from another thread to end the request: it is read before each operator
 *   segId            what the first layer inherits. Each layer passes it on to the next, and so does each item; on
 *                    return it is what the last successful layer left. Layers run whatever it says: to jump, the caller
 *                    calls again with another layer table
 * All memory stays the caller's. Allocated per layer, and freed with it, are only the layer's tensor records and what
 * an operator needs for itself; a request that the stop flag ended leaves the former of one layer allocated.
 *
 * Returns 0; or OPKIT_FAILURE, with messages on standard output, after the first thing that failed: later layers do not
 * run, and tensors keep what was written. Silent are the stop flag and a layer table of more than 128 layers.
 * Threads: starts none and takes no lock. Requests may run side by side when they share no tensors, scratch or model
 * buffer, and only one of them runs Unique at a time. A chain of detection layers keeps its state in thread-local
 * objects, so all requests of such a chain come from one thread. */
OPKIT_API uint32_t OpkitForward(ForwardParam* param);

/* Returns the version of the library that is loaded. Threads: no state. */
OPKIT_API uint32_t OpkitGetVersion(void);

/* A NUL-terminated string that names the library's build. For the caller; the library does not read it. */
extern OPKIT_API const char* OPKIT_GIT_VERSION;

/* Floats per slice for CompareUniqueVal, set by UniqueOpkitForward. One for the whole process. */
extern OPKIT_API int32_t g_size;

OPKIT_END_C

#endif /* OPKIT_OPKIT_H */
