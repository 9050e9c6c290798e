"""Tensors as the library sees them: f32 elements in rows that may be padded."""

import math

import numpy as np

from opkit.records import TensorInfo


class Rows:
    """Shape and stride of one item's tensor. A stride of 0 bytes stands for compact rows."""

    def __init__(self, shape, stride=0):
        self.shape = tuple(int(extent) for extent in shape)
        self.width = self.shape[-1] if self.shape else 1
        self.stride = stride or 4 * max(self.width, 1)
        if self.stride % 4:
            raise ValueError(f"a stride is a multiple of 4 bytes, not {self.stride}")
        align = self.stride // 4
        self.count = math.prod(self.shape)
        self.rows = self.count // self.width if self.width else 0
        self.pitch = -(-self.width // align) * align

    def allocate(self, items=1):
        """Zeroed memory for items tensors, as [items * rows, pitch]."""
        return np.zeros((items * self.rows, self.pitch), np.float32)

    def store(self, memory, values):
        memory[:, :self.width] = np.asarray(values, np.float32).reshape(-1, max(self.width, 1))[:, :self.width]

    def elements(self, memory, shape):
        """A compact copy."""
        return memory[:, :self.width].reshape(shape).copy()


def tensor_info(rows, memory, items=1):
    """The record, and the arrays that have to outlive it."""
    shape = np.array(rows.shape, np.uint32)
    info = TensorInfo(0, rows.stride, items, len(rows.shape), shape.ctypes.data, memory.ctypes.data, memory.nbytes)
    return info, (shape, memory)
