"""The records that cross the library's boundary: what include/opkit/records.h says, as ctypes structures."""

import ctypes
from ctypes import POINTER, c_char, c_char_p, c_int32, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p

MAX_BATCH = 256
MAX_LAYERS = 128
MAX_LAYER_INPUTS = 80
MAX_LAYER_OUTPUTS = 30
MAX_MODEL_SIZE = 0x40000000
MAX_DIMS = 10
MEM_SCRATCH = 2
MEM_SCRATCH_BATCHED = 3
NO_SEGMENT = 0xFFFFFFFF  # segId of a layer that asks for no jump
FAILURE = 0xFFFFFFFF
VERSION = 0x30000


class TensorInfo(ctypes.Structure):
    _fields_ = [("reserved", c_uint32), ("stride", c_uint32), ("batch", c_uint32), ("dimNum", c_uint32),
                ("shape", c_void_p), ("data", c_void_p), ("size", c_uint32)]


class DumpRecord(ctypes.Structure):
    _fields_ = [("data", c_void_p), ("size", c_uint32), ("reserved12", c_uint32), ("stride", c_uint32),
                ("layerId", c_uint32), ("outputIndex", c_uint16), ("reserved26", c_uint16), ("reserved28", c_uint32),
                ("reserved32", c_uint64)]


DumpFunc = ctypes.CFUNCTYPE(c_int32, POINTER(DumpRecord))


class DumpHook(ctypes.Structure):
    _fields_ = [("dumpFunc", DumpFunc), ("layerIds", c_void_p), ("layerIdNum", c_uint32), ("reserved20", c_uint32),
                ("dumpAll", c_uint32), ("reserved28", c_uint32), ("record", DumpRecord)]


class ProfilingSlot(ctypes.Structure):
    _fields_ = [("slotIndex", c_uint32), ("reserved4", c_uint32), ("startTime", c_uint64), ("endTime", c_uint64),
                ("reserved24", c_uint8 * 104)]


class ProfilingBuffer(ctypes.Structure):
    _fields_ = [("slots", c_void_p), ("size", c_uint32)]


class ModelOffsets(ctypes.Structure):
    _fields_ = [("layerTableOffset", c_uint32), ("layerTableSize", c_uint32)]


class ForwardParam(ctypes.Structure):
    _fields_ = [("inputs", POINTER(TensorInfo)), ("inputNum", c_uint32), ("outputs", POINTER(TensorInfo)),
                ("outputNum", c_uint32), ("opkitBuf", c_void_p), ("opkitBufSize", c_uint32), ("attr", c_void_p),
                ("attrSize", c_uint32), ("model", c_void_p), ("modelSize", c_uint32), ("dumpHook", DumpHook),
                ("profiling", ProfilingBuffer), ("stopFlag", POINTER(c_uint32)), ("segId", c_uint32),
                ("name", c_char_p), ("layerId", c_uint32)]


class LayerRecord(ctypes.LittleEndianStructure):
    _fields_ = [(name, c_uint32) for name in (
        "layerId", "nameOffset", "nameSize", "bufOffset", "bufSize", "attrOffset", "attrSize", "inputNum",
        "inputTableOffset", "outputNum", "outputTableOffset")]


class TensorRecord(ctypes.LittleEndianStructure):
    _fields_ = [(name, c_uint32) for name in (
        "memKind", "memIndex", "size", "strideIndex", "shapeOffset", "shapeSize")]


class StrideRecord(ctypes.Structure):
    _fields_ = [("strides", c_uint32 * MAX_DIMS), ("count", c_uint32)]


class OfflineShape(ctypes.Structure):
    _fields_ = [("dims", c_uint32 * MAX_DIMS), ("dimNum", c_uint32)]


class LayerAttrHead(ctypes.Structure):
    _fields_ = [("offlineOffset", c_int32 * MAX_LAYER_INPUTS), ("offlineShape", OfflineShape * MAX_LAYER_INPUTS),
                ("offlineInputNum", c_uint32), ("inputFlags", c_char * MAX_LAYER_INPUTS)]


ForwardFunc = ctypes.CFUNCTYPE(c_uint32, POINTER(ForwardParam))

# What the headers state: a record's size, and bytes at which fields of it lie.
LAYOUT = {
    TensorInfo: (40, {"reserved": 0, "stride": 4, "batch": 8, "dimNum": 12, "shape": 16, "data": 24, "size": 32}),
    DumpRecord: (40, {"data": 0, "size": 8, "stride": 16, "layerId": 20, "outputIndex": 24}),
    DumpHook: (72, {"dumpFunc": 0, "layerIds": 8, "layerIdNum": 16, "dumpAll": 24, "record": 32}),
    ProfilingSlot: (128, {"slotIndex": 0, "startTime": 8, "endTime": 16}),
    ProfilingBuffer: (16, {"slots": 0, "size": 8}),
    ModelOffsets: (8, {"layerTableOffset": 0, "layerTableSize": 4}),
    ForwardParam: (200, {
        "inputs": 0, "inputNum": 8, "outputs": 16, "outputNum": 24, "opkitBuf": 32, "opkitBufSize": 40, "attr": 48,
        "attrSize": 56, "model": 64, "modelSize": 72, "dumpHook": 80, "profiling": 152, "stopFlag": 168, "segId": 176,
        "name": 184, "layerId": 192}),
    LayerRecord: (44, {"layerId": 0, "nameOffset": 4, "bufOffset": 12, "attrOffset": 20, "inputNum": 28,
                       "inputTableOffset": 32, "outputNum": 36, "outputTableOffset": 40}),
    TensorRecord: (24, {"memKind": 0, "memIndex": 4, "size": 8, "strideIndex": 12, "shapeOffset": 16,
                        "shapeSize": 20}),
    StrideRecord: (44, {"strides": 0, "count": 40}),
    OfflineShape: (44, {"dims": 0, "dimNum": 40}),
    LayerAttrHead: (3924, {"offlineOffset": 0, "offlineShape": 320, "offlineInputNum": 3840, "inputFlags": 3844}),
}


def check_layout():
    """Raises ImportError where this Python lays a record out in another way than the library."""
    for record, (size, offsets) in LAYOUT.items():
        if ctypes.sizeof(record) != size:
            raise ImportError(f"{record.__name__} takes {ctypes.sizeof(record)} bytes, the library's takes {size}")
        for field, offset in offsets.items():
            if getattr(record, field).offset != offset:
                raise ImportError(f"{record.__name__}.{field} lies at byte {getattr(record, field).offset}, "
                                  f"the library's at {offset}")


check_layout()
