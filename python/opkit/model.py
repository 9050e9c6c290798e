"""Models on disk, requests on them, and the caller's side of control flow."""

import ctypes
import json
import math
import os
import zlib
from collections import namedtuple

import numpy as np

from opkit import records
from opkit.library import OpkitError, flush_messages, library
from opkit.records import NO_SEGMENT, ForwardParam, LayerRecord, ModelOffsets, ProfilingSlot, TensorInfo, TensorRecord
from opkit.tensors import Rows, tensor_info

TensorSpec = namedtuple("TensorSpec", "name shape stride")  # of one item; the stride in bytes
Table = namedtuple("Table", "segment_id name offset size next")
Layer = namedtuple("Layer", "index layer_id operator inputs outputs")  # tensors as LayerTensor
LayerTensor = namedtuple("LayerTensor", "kind index size stride shape")  # a TensorRecord; stride as in the record
Pass = namedtuple("Pass", "number segment seg_id")
Timing = namedtuple("Timing", "item layer operator start end")  # microseconds of the wall clock
Dump = namedtuple("Dump", "layer_id output_index rows stride values layer")
Dump.__doc__ = """One output of one layer, right after it ran.

rows    copy of the memory as it lies, a flat float32 array; stride is its row stride in bytes
values  the elements without padding, in the shape that the model gives; None when layer ids repeat
layer   the Layer it belongs to, or None"""


class Model:
    """A model buffer and what its manifest says; load() makes one."""

    def __init__(self, buffer, manifest, name="model"):
        self.name = name
        self.bytes = np.frombuffer(buffer, np.uint8)
        fields = _Fields(name + ".json", manifest)
        if fields.get("format", str) != "opkit-model" or fields.get("formatVersion", int) != 1:
            raise OpkitError(f"{name}.json: is no manifest of a model, or of a later format")
        if fields.get("bufferSize", int) != len(self.bytes):
            raise OpkitError(f"{name}.bin: has {len(self.bytes)} bytes, field bufferSize says {manifest['bufferSize']}")
        if fields.get("bufferCrc32", int) != zlib.crc32(buffer):
            raise OpkitError(f"{name}.bin: its CRC-32 is {zlib.crc32(buffer)}, field bufferCrc32 says "
                             f"{manifest['bufferCrc32']}")
        self.scratch_size = fields.get("scratchSize", int)
        self.max_batch = fields.get("maxBatch", int)
        self.inputs = fields.tensors("inputs")
        self.outputs = fields.tensors("outputs")
        self.tables = [Table(t.get("segmentId", int), t.get("name", str), t.get("layerTableOffset", int),
                             t.get("layerTableSize", int), t.optional("next", int)) for t in fields.each("tables")]
        self._by_segment = {table.segment_id: table for table in self.tables}
        if not self.tables or len(self._by_segment) != len(self.tables):
            raise OpkitError(f"{name}.json: field tables is empty, or two of them share an id")
        self._layers = {table.segment_id: self._read_layers(table) for table in self.tables}
        self.constants = {c.get("name", str): self._constant(c) for c in fields.each("constants")}

    def table(self, segment_id):
        if segment_id not in self._by_segment:
            raise OpkitError(f"{self.name}: there is no segment {segment_id}")
        return self._by_segment[segment_id]

    def layers(self, segment_id=None):
        """The layers of a table, by default of the first."""
        return self._layers[self.table(self.tables[0].segment_id if segment_id is None else segment_id).segment_id]

    @property
    def largest_batch(self):
        """Most items of a request: max_batch while scratch tensors have a slice per item, else 256."""
        kinds = (t.kind for layers in self._layers.values() for layer in layers for t in layer.inputs + layer.outputs)
        return min(self.max_batch, records.MAX_BATCH) if records.MEM_SCRATCH_BATCHED in kinds else records.MAX_BATCH

    def run(self, inputs=None, /, *, batch=None, **named):
        """Runs the model on arrays, given by name, and returns a dict of the outputs.

        An array has the input's shape, or lacks the ones that the shape begins with; dimensions in front of that count
        items, and then the outputs have the items as their first dimension. The items go through in requests of
        `batch`, by default the most that a model allows; 1 with several tables, because a segment id counts for a whole
        request. Every request runs as on a model just loaded. Models of several tables run segment by segment.
        """
        arrays = {**(inputs or {}), **named}
        specs = {tensor.name: tensor for tensor in self.inputs}
        if set(arrays) != set(specs):
            raise OpkitError(f"{self.name}: its inputs are {', '.join(specs)}, not {', '.join(arrays) or 'none'}")
        split = {name: _split_items(specs[name], np.asarray(array)) for name, array in arrays.items()}
        counts = {items for _, items in split.values()}
        if len(counts) != 1:
            raise OpkitError(f"{self.name}: the inputs hold different numbers of items: " + ", ".join(
                f"{name} {'one' if items is None else items}" for name, (_, items) in split.items()))
        items = counts.pop()
        batch = batch or (1 if len(self.tables) > 1 else self.largest_batch)
        total = 1 if items is None else items
        parts = [self._run_part({n: a[first:first + batch] for n, (a, _) in split.items()}, min(batch, total - first))
                 for first in range(0, total, batch)]
        results = {}
        for tensor in self.outputs:
            items_of = [part[tensor.name] for part in parts]
            whole = np.concatenate(items_of) if parts else np.zeros((0, *tensor.shape), "<f4")
            results[tensor.name] = whole[0] if items is None else whole
        return results

    def _run_part(self, arrays, count):
        request = Request(self, count)
        for name, array in arrays.items():
            request.set_input(name, array)
        if len(self.tables) > 1:
            request.run_segments()
        else:
            request.run()
        return {tensor.name: request.get_output(tensor.name) for tensor in self.outputs}

    def _slice(self, begin, size, what):
        if begin < 0 or begin + size > len(self.bytes):
            raise OpkitError(f"{self.name}.bin: {what} lies outside the buffer, at byte {begin}")
        return self.bytes[begin:begin + size].tobytes()

    def _constant(self, fields):
        shape = fields.shape("shape")
        data = self._slice(fields.get("offset", int), 4 * math.prod(shape), f"constant {fields.get('name', str)}")
        return np.frombuffer(data, "<f4").reshape(shape)

    def _read_layers(self, table):
        base = table.offset
        count = int.from_bytes(self._slice(base, 4, "a layer table"), "little")
        if count > records.MAX_LAYERS:
            raise OpkitError(f"{self.name}.bin: a table has {count} layers, at most {records.MAX_LAYERS} can be run")
        offsets = np.frombuffer(self._slice(base + 4, 4 * count, "a layer table"), "<u4")
        layers = []
        for index, offset in enumerate(offsets.tolist()):
            record = LayerRecord.from_buffer_copy(self._slice(base + offset, 44, f"layer {index}"))
            name = self._slice(base + record.nameOffset, record.nameSize, f"the name of layer {index}")
            if record.inputNum > records.MAX_LAYER_INPUTS or record.outputNum > records.MAX_LAYER_OUTPUTS:
                raise OpkitError(f"{self.name}.bin: layer {index} has too many tensors")
            layers.append(Layer(index, record.layerId, name.split(b"\0")[0].decode(errors="replace"),
                                self._read_tensors(base, record.inputTableOffset, record.inputNum),
                                self._read_tensors(base, record.outputTableOffset, record.outputNum)))
        return layers

    def _read_tensors(self, base, offset, count):
        table = self._slice(base + offset, 24 * count, "a tensor table")
        tensors = []
        for k in range(count):
            record = TensorRecord.from_buffer_copy(table, 24 * k)
            shape = np.frombuffer(self._slice(base + record.shapeOffset, record.shapeSize // 4 * 4, "a shape"), "<u4")
            tensors.append(LayerTensor(record.memKind, record.memIndex, record.size, record.strideIndex,
                                       tuple(shape.tolist())))
        return tensors


def load(path):
    """Loads NAME.json and NAME.bin; `path` is NAME or either file."""
    name = os.fspath(path)
    for suffix in (".json", ".bin"):
        name = name.removesuffix(suffix)
    try:
        with open(name + ".json", encoding="utf-8") as manifest, open(name + ".bin", "rb") as buffer:
            return Model(buffer.read(), json.load(manifest), name)
    except (OSError, UnicodeDecodeError, json.JSONDecodeError) as error:
        raise OpkitError(f"{name}: {error}") from error


class Request:
    """One request on a model: its tensors, its scratch, and a copy of the model buffer that operators may write to."""

    def __init__(self, model, batch=1):
        if not 1 <= batch <= model.largest_batch:
            raise OpkitError(f"{model.name}: a request has 1 to {model.largest_batch} items, not {batch}")
        if not model.inputs or not model.outputs:
            raise OpkitError(f"{model.name}: a request needs an input and an output")
        self.model = model
        self.batch = batch
        self.segment = model.tables[0].segment_id
        self._bytes = model.bytes.copy()
        self._scratch = np.zeros(max(model.scratch_size, 1), np.uint8)
        self._offsets = ModelOffsets()
        self._stop = ctypes.c_uint32(0)
        self._dump = self._profile = self._error = None
        self.param = ForwardParam(
            opkitBuf=self._scratch.ctypes.data, opkitBufSize=model.scratch_size, attr=ctypes.addressof(self._offsets),
            attrSize=ctypes.sizeof(ModelOffsets), model=self._bytes.ctypes.data, modelSize=len(self._bytes),
            stopFlag=ctypes.pointer(self._stop))
        self._inputs, self._in_infos = self._bind(model.inputs)
        self._outputs, self._out_infos = self._bind(model.outputs)
        self.param.inputs, self.param.inputNum = self._in_infos, len(model.inputs)
        self.param.outputs, self.param.outputNum = self._out_infos, len(model.outputs)

    def set_input(self, name, values):
        """All items' elements, one item after the other, in any shape of that many elements."""
        rows, memory = self._find(self._inputs, name, "input")
        values = np.asarray(values, np.float32)
        if values.size != rows.count * self.batch:
            raise OpkitError(f"input {name} takes {rows.count * self.batch} elements, not {values.size}")
        rows.store(memory, values)

    def get_output(self, name):
        """A copy of an output, as [batch, *shape]."""
        rows, memory = self._find(self._outputs, name, "output")
        return rows.elements(memory, (self.batch, *rows.shape))

    @property
    def seg_id(self):
        """The segment id: what the first layer of the next run finds, or what the last layer of a run left."""
        return self.param.segId

    @seg_id.setter
    def seg_id(self, value):
        self.param.segId = value

    @property
    def model_bytes(self):
        """The request's own copy of the model buffer."""
        return self._bytes

    def on_dump(self, function, layer_ids=None):
        """Calls function(Dump) for every output of the layers with the given ids, or of all layers; None ends that.
        What the function raises is raised again when the run is over."""
        hook = self.param.dumpHook
        self._dump = function
        self._ids = np.array([] if layer_ids is None else layer_ids, np.uint32)
        hook.layerIds, hook.layerIdNum = self._ids.ctypes.data, len(self._ids)
        hook.dumpAll = layer_ids is None
        hook.dumpFunc = records.DumpFunc(self._dumped) if function else records.DumpFunc()

    def on_profile(self, function):
        """Calls function(list of Timing) after every run of a table that succeeded; None ends that."""
        self._profile = function

    def stop(self):
        """Ends the run in progress before its next layer; for another thread. Later runs fail too, until resume()."""
        self._stop.value = 1

    def resume(self):
        self._stop.value = 0

    def run(self, segment=None):
        """Runs one layer table, by default the first. Raises OpkitError when it fails; why is on standard output."""
        table = self.model.table(self.model.tables[0].segment_id if segment is None else segment)
        self.segment = table.segment_id
        self._offsets.layerTableOffset, self._offsets.layerTableSize = table.offset, table.size
        layers = self.model.layers(self.segment)
        slots = (ProfilingSlot * (len(layers) * self.batch))() if self._profile else None
        self.param.profiling.slots = ctypes.addressof(slots) if slots else None
        self.param.profiling.size = ctypes.sizeof(slots) if slots else 0
        code = library().forward(ctypes.byref(self.param))
        self.param.profiling.slots = None
        flush_messages()
        if self._error is not None:
            error, self._error = self._error, None
            raise error
        if code != 0:
            raise OpkitError(f"{self.model.name}: segment {self.segment} " +
                             ("was stopped" if self._stop.value else f"failed with {code:#x}"))
        if slots:
            self._profile([Timing(i // len(layers), layer := layers[i % len(layers)], layer.operator, slot.startTime,
                                  slot.endTime) for i, slot in enumerate(slots)])

    def run_segments(self, start=None, *, max_passes=100000, on_pass=None):
        """Runs table by table, as the layers ask for, and returns the number of passes.

        The segment id is 0xFFFFFFFF before each pass. Left so, it asks for no jump, and the table's own successor runs
        next, or nothing more; any other id names the next table. on_pass(Pass) is called after each.
        """
        segment = self.model.tables[0].segment_id if start is None else start
        for number in range(max_passes):
            self.seg_id = NO_SEGMENT
            self.run(segment)
            if on_pass:
                on_pass(Pass(number, segment, self.seg_id))
            following = self.model.table(segment).next if self.seg_id == NO_SEGMENT else self.seg_id
            if following is None:
                return number + 1
            segment = following
        raise OpkitError(f"{self.model.name}: given up after {max_passes} passes, before segment {segment}")

    def _bind(self, specs):
        tensors, infos = {}, (TensorInfo * len(specs))()
        infos.kept = []  # what the records point to lives as long as they do
        for k, tensor in enumerate(specs):
            rows = Rows(tensor.shape, tensor.stride)
            memory = rows.allocate(self.batch)
            infos[k], kept = tensor_info(rows, memory, self.batch)
            infos.kept.append(kept)
            tensors[tensor.name] = (rows, memory)
        return tensors, infos

    def _find(self, tensors, name, what):
        if name not in tensors:
            raise OpkitError(f"{self.model.name}: there is no {what} {name}; there are {', '.join(tensors)}")
        return tensors[name]

    def _dumped(self, pointer):
        try:
            record = pointer.contents
            rows = np.ctypeslib.as_array(ctypes.cast(record.data, ctypes.POINTER(ctypes.c_float)), (record.size // 4,))
            layers = [layer for layer in self.model.layers(self.segment) if layer.layer_id == record.layerId]
            layer = layers[0] if len(layers) == 1 else None
            values = None
            if layer:
                layout = Rows(layer.outputs[record.outputIndex].shape, record.stride)
                padded = rows[:layout.rows * layout.pitch].reshape(layout.rows, layout.pitch)
                values = layout.elements(padded, layout.shape)
            self._dump(Dump(record.layerId, record.outputIndex, rows.copy(), record.stride, values, layer))
        except BaseException as error:  # an exception cannot cross the library
            self._error = self._error or error
        return 0


def _split_items(tensor, array):
    """The array as [items, elements], and the number of items; None where no dimension counts them."""
    shape = tensor.shape
    while array.shape[max(array.ndim - len(shape), 0):] != shape:
        if not shape or shape[0] != 1:
            raise OpkitError(f"input {tensor.name} has shape {tensor.shape}; "
                             f"the array's {array.shape} does not end like it")
        shape = shape[1:]
    front = array.shape[:array.ndim - len(shape)]
    items = math.prod(front)
    return array.reshape(items, math.prod(shape)), items if front else None


class _Fields:
    """Fields of a manifest; what is missing or of another kind is named."""

    def __init__(self, file, values, path=""):
        self.file, self.values, self.path = file, values, path
        if not isinstance(values, dict):
            raise OpkitError(f"{file}: {path or 'it'} is no object")

    def get(self, name, kind):
        value = self.values.get(name)
        if not isinstance(value, kind) or isinstance(value, bool) or kind is int and not 0 <= value <= 0xFFFFFFFF:
            raise OpkitError(f"{self.file}: field {self.path}{name} is missing or wrong")
        return value

    def optional(self, name, kind):
        return self.get(name, kind) if name in self.values else None

    def each(self, name):
        return [_Fields(self.file, value, f"{self.path}{name}[{i}].") for i, value in enumerate(self.get(name, list))]

    def shape(self, name):
        extents = self.get(name, list)
        return tuple(_Fields(self.file, {"": extent}, f"{self.path}{name}").get("", int) for extent in extents)

    def tensors(self, name):
        return [TensorSpec(t.get("name", str), t.shape("shape"), t.get("strideBytes", int)) for t in self.each(name)]
