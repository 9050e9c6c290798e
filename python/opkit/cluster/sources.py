"""Where a run's inputs come from, and how they are cut into chunks of items.

    "pixels.npy"     a file; workers read their slices of it, so that they must see it under the same path
    "pixels/"        a folder of .npy files, a chunk each, in the order of their names with numbers taken as numbers;
                     the outputs of a run are such folders
    numpy array      slices travel with the work; a memory map of a file that only this machine sees is one, too
    Dask array       blocks along the first axis, computed where Dask likes; the other axes must be one block
"""

from __future__ import annotations

import os
import pathlib
import re

import dask.array
import numpy as np

from opkit.cluster.store import ClusterError, crc
from opkit.cluster.worker import FileSlice

LARGEST_DEFAULT = 64 << 20  # bytes of a chunk that nobody asked for, inputs and outputs together


class File:
    """One .npy file."""

    def __init__(self, path: pathlib.Path):
        self.path = path.resolve()
        self.shape, self.dtype = _header(self.path)
        self.bounds = None
        self.identity = {"shape": list(self.shape), "type": self.dtype, "changed": self.path.stat().st_mtime_ns}

    def piece(self, client, index: int, first: int, last: int) -> FileSlice:
        return FileSlice(str(self.path), first, last, self.shape)


class Folder:
    """A folder of .npy files."""

    def __init__(self, path: pathlib.Path):
        self.files = sorted(path.resolve().glob("*.npy"), key=_by_number)
        if not self.files:
            raise ClusterError(f"{path}: has no .npy files")
        self.shapes, types = zip(*(_header(file) for file in self.files))
        for file, shape, dtype in zip(self.files, self.shapes, types):
            if shape[1:] != self.shapes[0][1:] or dtype != types[0]:
                raise ClusterError(f"{file}: has shape {shape} and type {dtype}, unlike {self.files[0].name} with "
                                   f"{self.shapes[0]} and {types[0]}")
        self.bounds = _bounds_of(shape[0] for shape in self.shapes)
        self.shape = (self.bounds[-1], *self.shapes[0][1:])
        self.identity = {"shape": list(self.shape), "type": types[0], "files": [file.name for file in self.files],
                         "changed": max(file.stat().st_mtime_ns for file in self.files)}

    def piece(self, client, index: int, first: int, last: int) -> FileSlice:
        return FileSlice(str(self.files[index]), 0, last - first, self.shapes[index])


class InMemory:
    """A numpy array of this process."""

    def __init__(self, array: np.ndarray):
        self.array, self.shape, self.bounds = array, array.shape, None
        self.identity = {"shape": list(array.shape), "type": array.dtype.str}
        if isinstance(array, np.memmap):
            self.identity["changed"] = os.stat(array.filename).st_mtime_ns if array.filename else None
        else:
            self.identity["crc"] = crc(array)

    def piece(self, client, index: int, first: int, last: int):
        part = np.ascontiguousarray(self.array[first:last], np.float32)
        return client.scatter(part, hash=False)  # as part of the task it would stay with the scheduler


class Blocks:
    """A Dask array. Results are resumed by its shape and blocks; that it holds the same numbers is the caller's word."""

    def __init__(self, array: dask.array.Array):
        if any(len(sizes) != 1 for sizes in array.chunks[1:]) or any(np.isnan(array.chunks[0])):
            raise ClusterError(f"a Dask array of blocks {array.chunks}: only the first axis may be split, into blocks of "
                               "known sizes; rechunk() does that")
        self.array, self.shape = array, array.shape
        self.bounds = _bounds_of(array.chunks[0])
        self.identity = {"shape": list(array.shape), "type": array.dtype.str}

    def piece(self, client, index: int, first: int, last: int):
        return client.compute(self.array.blocks[index])


def open_source(what):
    """The source behind what a caller gave for an input."""
    if isinstance(what, dask.array.Array):
        return Blocks(what)
    if isinstance(what, (str, os.PathLike)):
        path = pathlib.Path(what)
        return Folder(path) if path.is_dir() else File(path)
    return InMemory(what if isinstance(what, np.ndarray) else np.asarray(what, np.float32))


def open_sources(model, arrays: dict) -> dict:
    """All inputs of a model, checked against its shapes: the first axis counts items, the rest is one item."""
    shapes = {tensor.name: tensor.shape for tensor in model.inputs}
    if set(arrays) != set(shapes):
        raise ClusterError(f"{model.name}: its inputs are {', '.join(shapes)}, not {', '.join(arrays) or 'none'}")
    sources = {name: open_source(what) for name, what in arrays.items()}
    for name, source in sources.items():
        item, shape = source.shape[1:], shapes[name]
        leading = shape[:len(shape) - len(item)]
        if not source.shape or shape[len(leading):] != item or set(leading) - {1}:
            raise ClusterError(f"input {name}: has shape {source.shape}; items of {shape} or of that without leading "
                               "ones, counted by the first axis, would do")
    if len({source.shape[0] for source in sources.values()}) != 1:
        raise ClusterError("the inputs hold different numbers of items: " +
                           ", ".join(f"{name} {source.shape[0]}" for name, source in sources.items()))
    return sources


def chunk_bounds(model, sources: dict, batch: int, chunk: int | None) -> list[int]:
    """Where chunks begin and end: as the sources that have chunks say, else every `chunk` items."""
    given = {name: source.bounds for name, source in sources.items() if source.bounds is not None}
    if given:
        name, bounds = next(iter(given.items()))
        for other, theirs in given.items():
            if theirs != bounds:
                raise ClusterError(f"inputs {name} and {other} are cut into different chunks")
        if chunk:
            raise ClusterError(f"input {name} has chunks of its own; chunk={chunk} is for inputs without")
        return bounds
    items = next(iter(sources.values())).shape[0]
    if not chunk:
        size = 4 * sum(int(np.prod(tensor.shape)) for tensor in model.inputs + model.outputs)
        chunk = batch * min(16, max(1, LARGEST_DEFAULT // (batch * max(size, 1))))
    return [*range(0, items, chunk), items] if items else [0]


def _bounds_of(sizes) -> list[int]:
    bounds = [0]
    for size in sizes:
        bounds.append(bounds[-1] + int(size))
    return bounds


def _header(file: pathlib.Path) -> tuple[tuple[int, ...], str]:
    try:
        array = np.load(file, mmap_mode="r", allow_pickle=False)
    except (OSError, ValueError, EOFError) as error:
        raise ClusterError(f"{file}: {error}") from None
    if array.ndim == 0 or array.dtype.kind not in "fiub":
        raise ClusterError(f"{file}: has shape {array.shape} and type {array.dtype}; numbers with an axis of items are "
                           "needed")
    return array.shape, array.dtype.str


def _by_number(file: pathlib.Path) -> list:
    return [(0, int(part), "") if part.isdigit() else (1, 0, part) for part in re.split(r"(\d+)", file.name)]
