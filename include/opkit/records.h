/* The records that cross the library's boundary: the request, the tensors, the serialised layer table.
 *
 * Every offset here is fixed: callers and model compilers outside this library rely on it, and the assertions
 * beside each record hold it. Integers are little-endian, pointers are 8 bytes, offsets are bytes. */
#ifndef OPKIT_RECORDS_H
#define OPKIT_RECORDS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OPKIT_STATIC_ASSERT(condition, text) static_assert(condition, text)
#define OPKIT_EXTERN_C extern "C"
#define OPKIT_BEGIN_C extern "C" {
#define OPKIT_END_C }
#else
#define OPKIT_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#define OPKIT_EXTERN_C extern
#define OPKIT_BEGIN_C
#define OPKIT_END_C
#endif

/* Marks what the shared library exports; everything else in it is hidden. */
#define OPKIT_API __attribute__((visibility("default")))

#define OPKIT_OFFSET(record, field, offset) \
    OPKIT_STATIC_ASSERT(offsetof(record, field) == (offset), #record "." #field " lies at byte " #offset)
#define OPKIT_SIZE(record, bytes) OPKIT_STATIC_ASSERT(sizeof(record) == (bytes), #record " takes " #bytes " bytes")

OPKIT_BEGIN_C

enum {
    OPKIT_MAX_BATCH = 256,             /* batch items of one request */
    OPKIT_MAX_LAYERS = 128,            /* layers of one layer table */
    OPKIT_MAX_LAYER_INPUTS = 80,       /* online inputs of one layer */
    OPKIT_MAX_LAYER_OUTPUTS = 30,      /* outputs of one layer */
    OPKIT_MAX_MODEL_SIZE = 0x40000000, /* bytes of a model buffer */
    OPKIT_MAX_DIMS = 10,               /* dimensions of an offline shape or a stride record */
};

/* One tensor: f32 elements in rows. Only the last dimension, the row's width, is padded: rows start
 * ((width + stride / 4 - 1) / (stride / 4)) * (stride / 4) floats apart. The gap behind a row holds nothing. */
typedef struct TensorInfo {
    uint32_t reserved; /*  0  written 0 by the library, never read */
    uint32_t stride;   /*  4  bytes; stride / 4 is the row alignment in floats */
    uint32_t batch;    /*  8  in inputs[0] of a request the batch count, at most 256; 1 in a layer's tensors */
    uint32_t dimNum;   /* 12  number of dimensions */
    uint32_t* shape;   /* 16  dimNum dimensions, outermost first; not owned */
    void* data;        /* 24  f32 elements; not owned */
    uint32_t size;     /* 32  bytes */
} TensorInfo;
OPKIT_OFFSET(TensorInfo, reserved, 0);
OPKIT_OFFSET(TensorInfo, stride, 4);
OPKIT_OFFSET(TensorInfo, batch, 8);
OPKIT_OFFSET(TensorInfo, dimNum, 12);
OPKIT_OFFSET(TensorInfo, shape, 16);
OPKIT_OFFSET(TensorInfo, data, 24);
OPKIT_OFFSET(TensorInfo, size, 32);
OPKIT_SIZE(TensorInfo, 40);

/* What a dump function sees of one tensor. It lies inside the hook and is overwritten for the next tensor. */
typedef struct DumpRecord {
    void* data;           /*  0  the tensor as the operator left it, padded rows included */
    uint32_t size;        /*  8  bytes */
    uint32_t reserved12;  /* 12  untouched */
    uint32_t stride;      /* 16  bytes */
    uint32_t layerId;     /* 20 */
    uint16_t outputIndex; /* 24  position among the layer's outputs */
    uint16_t reserved26;
    uint32_t reserved28;
    uint64_t reserved32;
} DumpRecord;
OPKIT_SIZE(DumpRecord, 40);

typedef int32_t (*DumpFunc)(DumpRecord* record); /* the result is ignored */

/* Selects layers whose outputs go to the caller after they ran. */
typedef struct DumpHook {
    DumpFunc dumpFunc;   /*  0  null: no dumps */
    uint32_t* layerIds;  /*  8  ids to dump, or null */
    uint32_t layerIdNum; /* 16  entries in layerIds */
    uint32_t reserved20;
    uint32_t dumpAll; /* 24  non-zero: every layer. In a layer's own record: whether that layer is dumped */
    uint32_t reserved28;
    DumpRecord record; /* 32  written by the library before each call of dumpFunc */
} DumpHook;
OPKIT_OFFSET(DumpHook, layerIds, 8);
OPKIT_OFFSET(DumpHook, layerIdNum, 16);
OPKIT_OFFSET(DumpHook, dumpAll, 24);
OPKIT_OFFSET(DumpHook, record.data, 32);
OPKIT_OFFSET(DumpHook, record.size, 40);
OPKIT_OFFSET(DumpHook, record.stride, 48);
OPKIT_OFFSET(DumpHook, record.layerId, 52);
OPKIT_OFFSET(DumpHook, record.outputIndex, 56);
OPKIT_SIZE(DumpHook, 72);

/* One timing slot; slot b * layerCount + i belongs to layer i of batch item b. */
typedef struct ProfilingSlot {
    uint32_t slotIndex; /*  0  the slot's own index */
    uint32_t reserved4;
    uint64_t startTime; /*  8  wall clock, microseconds */
    uint64_t endTime;   /* 16  wall clock, microseconds; parsing, operator, dump and release included */
    uint8_t reserved24[104];
} ProfilingSlot;
OPKIT_OFFSET(ProfilingSlot, startTime, 8);
OPKIT_OFFSET(ProfilingSlot, endTime, 16);
OPKIT_SIZE(ProfilingSlot, 128);

typedef struct ProfilingBuffer {
    ProfilingSlot* slots; /* 0  null: no timing */
    uint32_t size;        /* 8  bytes; a slot that does not fit is skipped */
} ProfilingBuffer;
OPKIT_OFFSET(ProfilingBuffer, size, 8);
OPKIT_SIZE(ProfilingBuffer, 16);

/* Where the layer table lies in the model buffer. */
typedef struct ModelOffsets {
    uint32_t layerTableOffset; /* 0  from model; everything the table locates counts from there */
    uint32_t layerTableSize;   /* 4  bytes; validated, not used further */
} ModelOffsets;
OPKIT_SIZE(ModelOffsets, 8);

/* One request, and also the only argument of an operator (then called LayerParam). */
typedef struct ForwardParam {
    TensorInfo* inputs;        /*   0 */
    uint32_t inputNum;         /*   8 */
    TensorInfo* outputs;       /*  16 */
    uint32_t outputNum;        /*  24 */
    void* opkitBuf;            /*  32  scratch: intermediate tensors and work space; null only with size 0 */
    uint32_t opkitBufSize;     /*  40  bytes */
    void* attr;                /*  48  request: a ModelOffsets; layer: its LayerAttrBlock */
    uint32_t attrSize;         /*  56  request: 8 */
    void* model;               /*  64  model buffer; operators write into it */
    uint32_t modelSize;        /*  72  bytes, at most 0x40000000 */
    DumpHook dumpHook;         /*  80 */
    ProfilingBuffer profiling; /* 152 */
    uint32_t* stopFlag;        /* 168  null, or read once per layer: non-zero ends the request */
    uint32_t segId;            /* 176  in and out: what the last layer left */
    const char* name;          /* 184  layer only: operator name */
    uint32_t layerId;          /* 192  layer only */
} ForwardParam;
OPKIT_OFFSET(ForwardParam, inputs, 0);
OPKIT_OFFSET(ForwardParam, inputNum, 8);
OPKIT_OFFSET(ForwardParam, outputs, 16);
OPKIT_OFFSET(ForwardParam, outputNum, 24);
OPKIT_OFFSET(ForwardParam, opkitBuf, 32);
OPKIT_OFFSET(ForwardParam, opkitBufSize, 40);
OPKIT_OFFSET(ForwardParam, attr, 48);
OPKIT_OFFSET(ForwardParam, attrSize, 56);
OPKIT_OFFSET(ForwardParam, model, 64);
OPKIT_OFFSET(ForwardParam, modelSize, 72);
OPKIT_OFFSET(ForwardParam, dumpHook, 80);
OPKIT_OFFSET(ForwardParam, profiling, 152);
OPKIT_OFFSET(ForwardParam, stopFlag, 168);
OPKIT_OFFSET(ForwardParam, segId, 176);
OPKIT_OFFSET(ForwardParam, name, 184);
OPKIT_OFFSET(ForwardParam, layerId, 192);
OPKIT_SIZE(ForwardParam, 200);

/* One layer of one batch item. inputs and outputs are the library's, everything else points into the request. */
typedef ForwardParam LayerParam;

/* An operator: 0 on success, any other value is failure. */
typedef uint32_t (*ForwardFunc)(LayerParam* param);

/* One layer of the serialised layer table. Offsets count from the layer table, bufOffset from opkitBuf. */
typedef struct LayerRecord {
    uint32_t layerId;           /*  0  what dumping selects on */
    uint32_t nameOffset;        /*  4  NUL-terminated operator name */
    uint32_t nameSize;          /*  8  bytes; validated, not used further */
    uint32_t bufOffset;         /* 12  this layer's work space */
    uint32_t bufSize;           /* 16  bytes of it */
    uint32_t attrOffset;        /* 20  this layer's LayerAttrBlock */
    uint32_t attrSize;          /* 24  bytes of it */
    uint32_t inputNum;          /* 28  at most 80 */
    uint32_t inputTableOffset;  /* 32  inputNum TensorRecords */
    uint32_t outputNum;         /* 36  at most 30 */
    uint32_t outputTableOffset; /* 40  outputNum TensorRecords */
} LayerRecord;
OPKIT_OFFSET(LayerRecord, outputTableOffset, 40);
OPKIT_SIZE(LayerRecord, 44);

/* Where a layer's tensor lies. */
enum {
    OPKIT_MEM_REQUEST = 0,         /* batch item's slice of request tensor memIndex */
    OPKIT_MEM_REQUEST_1 = 1,       /* the same */
    OPKIT_MEM_SCRATCH = 2,         /* opkitBuf + memIndex, shared by all batch items; 4 and above likewise */
    OPKIT_MEM_SCRATCH_BATCHED = 3, /* opkitBuf + memIndex + batch item * size */
};

typedef struct TensorRecord {
    uint32_t memKind;     /*  0 */
    uint32_t memIndex;    /*  4  kinds 0, 1: request tensor; others: byte offset into opkitBuf */
    uint32_t size;        /*  8  bytes of one batch item; kinds above 1 */
    uint32_t strideIndex; /* 12  kinds 0, 1: request tensor whose stride counts; others: the stride in bytes */
    uint32_t shapeOffset; /* 16  dimensions, from the layer table */
    uint32_t shapeSize;   /* 20  bytes of the dimensions */
} TensorRecord;
OPKIT_SIZE(TensorRecord, 24);

/* A shape, or a set of element strides, as it lies in an attribute block. */
typedef struct StrideRecord {
    uint32_t strides[OPKIT_MAX_DIMS]; /*  0 */
    uint32_t count;                   /* 40  entries in use */
} StrideRecord;
OPKIT_OFFSET(StrideRecord, count, 40);
OPKIT_SIZE(StrideRecord, 44);

typedef struct OfflineShape {
    uint32_t dims[OPKIT_MAX_DIMS]; /*  0 */
    uint32_t dimNum;               /* 40 */
} OfflineShape;
OPKIT_OFFSET(OfflineShape, dimNum, 40);
OPKIT_SIZE(OfflineShape, 44);

/* The head of every layer's attribute block. An offline input is a constant in the model buffer; offline
 * inputs are numbered in the order of their flags. */
typedef struct LayerAttrHead {
    int32_t offlineOffset[OPKIT_MAX_LAYER_INPUTS];     /*    0  bytes from model, not from the layer table */
    OfflineShape offlineShape[OPKIT_MAX_LAYER_INPUTS]; /*  320 */
    uint32_t offlineInputNum;                          /* 3840  read by custom operators only */
    char inputFlags[OPKIT_MAX_LAYER_INPUTS];           /* 3844  per logical input: '1' is offline, else online */
} LayerAttrHead;
OPKIT_OFFSET(LayerAttrHead, offlineShape, 320);
OPKIT_OFFSET(LayerAttrHead, offlineInputNum, 3840);
OPKIT_OFFSET(LayerAttrHead, inputFlags, 3844);
OPKIT_SIZE(LayerAttrHead, 3924);

/* A layer's parameter block: the head, then the fields of its own operator (see attributes/). */
typedef LayerAttrHead LayerAttrBlock;

OPKIT_END_C

#endif /* OPKIT_RECORDS_H */
