"""One operator on arrays, without a model: for experiments."""

import ctypes
from collections import namedtuple

import numpy as np

from opkit import attributes as records
from opkit.library import OpkitError, flush_messages, library
from opkit.records import MAX_DIMS, MAX_LAYER_INPUTS, NO_SEGMENT, ForwardParam, LayerAttrHead, TensorInfo
from opkit.tensors import Rows, tensor_info


class Tensor:
    """An input or output with a row stride in bytes, or with contents to begin with: Tensor(array, stride)."""

    def __init__(self, values, stride=0):
        self.values = np.asarray(values, np.float32)
        self.rows = Rows(self.values.shape, stride)


class Constant:
    """An input that lies in the model buffer, always compact."""

    def __init__(self, values):
        self.values = np.ascontiguousarray(values, np.float32).reshape(np.shape(values))


Result = namedtuple("Result", "code outputs inputs constants attributes seg_id")
Result.__doc__ = """What an operator left.

code        0 for success
outputs     one array per output, without padding
inputs      online inputs as [rows, pitch], as they lie in memory now: some operators compact their inputs in place
constants   offline inputs, flat, likewise
attributes  dict of the attribute block, with what the operator wrote there
seg_id      the segment id; 0xFFFFFFFF unless the operator set it"""


def run_operator(name, inputs, outputs, attributes=None, *, workspace=None, seg_id=NO_SEGMENT, check=True):
    """Calls one forward function on arrays and returns a Result.

    name        of the operator table, such as "Gemm"
    inputs      in logical order: an array, a Tensor, or a Constant
    outputs     a shape each, or a Tensor for a stride or contents
    attributes  dict of the fields in opkit.RECORDS; everything else is 0
    workspace   bytes of work space; by default enough for any operator
    check       raise OpkitError when the operator fails; its messages are on standard output

    The library trusts shapes and attributes: what does not fit may read or write outside the arrays.
    """
    name = records.short_name(name)
    record = records.block_type(records.OPERATORS[name])
    memory = np.zeros(record.itemsize, np.uint8)
    block, head = memory.view(record).reshape(()), LayerAttrHead.from_buffer(memory)
    online = [i if isinstance(i, Tensor) else Tensor(i) for i in inputs if not isinstance(i, Constant)]
    offline = [i for i in inputs if isinstance(i, Constant)]
    results = [o if isinstance(o, Tensor) else Tensor(np.zeros(o, np.float32)) for o in outputs]
    if len(inputs) > MAX_LAYER_INPUTS:
        raise ValueError(f"a layer has at most {MAX_LAYER_INPUTS} inputs, not {len(inputs)}")
    head.inputFlags = b"".join(b"1" if isinstance(i, Constant) else b"0" for i in inputs)
    model = _place_constants(head, offline)
    records.fill(block, attributes or {})

    param = ForwardParam(attr=block.ctypes.data, attrSize=block.nbytes, model=model.ctypes.data, modelSize=model.nbytes,
                         segId=seg_id, name=(name + "OpkitForward").encode())
    in_infos, in_memory = _bind(online)
    out_infos, out_memory = _bind(results)
    param.inputs, param.inputNum = in_infos, len(online)
    param.outputs, param.outputNum = out_infos, len(results)
    size = _workspace(name, block, in_memory + out_memory + [model]) if workspace is None else workspace
    scratch = np.zeros(max(size, 1), np.uint8)
    param.opkitBuf, param.opkitBufSize = scratch.ctypes.data, size

    code = library().forward_function(name)(ctypes.byref(param))
    flush_messages()
    if check and code != 0:
        raise OpkitError(f"{name} failed with {code:#x}")
    return Result(code, [t.rows.elements(m, t.values.shape) for t, m in zip(results, out_memory)], in_memory,
                  [model[o:o + c.values.nbytes].view(np.float32) for o, c in zip(head.offlineOffset, offline)],
                  {field: _plain(block[field]) for field in block.dtype.names or ()}, param.segId)


def _place_constants(head, constants):
    """The memory that stands for the model buffer, and where the head finds each constant in it."""
    end = 0
    for k, constant in enumerate(constants):
        if constant.values.ndim > MAX_DIMS:
            raise ValueError(f"a constant has at most {MAX_DIMS} dimensions, not {constant.values.ndim}")
        head.offlineOffset[k] = end
        head.offlineShape[k].dims[:constant.values.ndim] = constant.values.shape
        head.offlineShape[k].dimNum = constant.values.ndim
        end += -(-constant.values.nbytes // 64) * 64
    head.offlineInputNum = len(constants)
    model = np.zeros(max(end, 64), np.uint8)
    for offset, constant in zip(head.offlineOffset, constants):
        model[offset:offset + constant.values.nbytes] = constant.values.reshape(-1).view(np.uint8)
    return model


def _bind(tensors):
    infos, memories = (TensorInfo * max(len(tensors), 1))(), []
    infos.kept = []  # what the records point to lives as long as they do
    for k, tensor in enumerate(tensors):
        memory = tensor.rows.allocate()
        tensor.rows.store(memory, tensor.values)
        infos[k], kept = tensor_info(tensor.rows, memory)
        infos.kept.append(kept)
        memories.append(memory)
    return infos, memories


def _workspace(name, block, memories):
    """Covers every need in docs/operators.md: but for two operators it is at most 8 bytes per element and dimension."""
    need = 4096 + 2 * sum(memory.nbytes for memory in memories)
    if name == "Convolution":
        plane = int(block["outHeight"]) * int(block["outWidth"])
        need += 4 * plane * int(block["colChannels"]) + 4 * max(plane, int(block["gemmN"]))
    if name == "Pad":
        sizes = [field for field in block.dtype.names if field.endswith("Size")]
        need += 4 * sum(max(int(block[field]), 0) for field in sizes) + 8 * int(block["padCount"])
    return need


def _plain(value):
    if not value.dtype.names:
        return value.tolist()
    used = np.flatnonzero(value["count"])  # StrideRecords behind the last one in use are left out
    return [entry["strides"][:entry["count"]].tolist() for entry in value[:used[-1] + 1 if len(used) else 0]]
