"""What runs on a worker: one chunk, and what tells this machine from others."""

from __future__ import annotations

import contextlib
import ctypes
import functools
import hashlib
import platform
import threading
import zlib
from collections import Counter
from dataclasses import dataclass, field

import numpy as np

from opkit.cluster.store import crc
from opkit.library import OpkitError, library
from opkit.model import Model

# The functions of libm that docs/exactness.md names, and the widths that the library calls them in.
LIBM = {"f": ("acos", "asin", "asinh", "atan", "atanh", "cos", "cosh", "sin", "tan"),
        "": ("acosh", "exp", "log", "pow", "sinh")}

# Operators whose results come from those functions.
LIBM_OPERATORS = frozenset({
    "Acos", "Acosh", "Asin", "Asinh", "Atan", "Atanh", "Cos", "Cosh", "Sin", "Sinh", "Tan", "Sigmoid", "Softplus", "Celu",
    "Selu", "LpNorm", "Reduction", "DecBbox"})

KEPT_MODELS = 4  # in a worker, the last ones

arrivals: Counter = Counter()  # models that reached this process, by hash
_models: dict[str, Model] = {}
_unique = threading.Lock()  # a model with a Unique layer must not run on two threads at once


@dataclass(frozen=True)
class Machine:
    """Who computed. `libm` is a hash of what its libm gives for sample arguments."""
    worker: str
    host: str
    processor: str
    libm_version: str
    libm: str
    library: str

    def __str__(self) -> str:
        return f"{self.worker} ({self.processor}, libm {self.libm_version} {self.libm}, on {self.host})"


@dataclass
class Computed:
    """A chunk's outputs, with the CRC-32 that the worker took of them, and of what it had read if that was asked for."""
    machine: Machine
    arrays: dict[str, np.ndarray]
    crc: dict[str, int]
    input_crc: dict[str, int]


@dataclass
class Failed:
    machine: Machine
    error: str


@dataclass
class Absent:
    """The worker does not have the model yet, or no more."""
    machine: Machine


@dataclass(frozen=True)
class FileSlice:
    """Items of a .npy file; the worker reads them, so it must see the file under this path."""
    path: str
    first: int
    last: int
    shape: tuple[int, ...]  # of the whole file, as it was when the run began

    def read(self) -> np.ndarray:
        try:
            whole = np.load(self.path, mmap_mode="r", allow_pickle=False)
        except (OSError, ValueError, EOFError) as error:
            raise OpkitError(f"{self.path}: {error}") from None
        if whole.shape != self.shape:
            raise OpkitError(f"{self.path}: has shape {whole.shape}, it had {self.shape} when the run began")
        return np.asarray(whole[self.first:self.last], np.float32)


@dataclass
class Parcel:
    """A model on its way to a worker: counted and checked where it arrives."""
    model: Model
    digest: str = field(default="")

    def __post_init__(self):
        self.digest = model_digest(self.model)

    def __setstate__(self, state: dict) -> None:
        self.__dict__.update(state)
        arrivals[self.digest] += 1
        if model_digest(self.model) != self.digest:
            raise OpkitError(f"{self.model.name}: was damaged on its way to a worker")


def model_digest(model: Model) -> str:
    """SHA-256 of all that decides results: the buffer, and what the manifest says of tensors and tables."""
    told = (model.inputs, model.outputs, model.tables, model.scratch_size, model.max_batch)
    return hashlib.sha256(repr([[tuple(t) for t in f] if isinstance(f, list) else f for f in told]).encode() +
                          model.bytes.tobytes()).hexdigest()


def calls_libm(model: Model) -> bool:
    return not LIBM_OPERATORS.isdisjoint(layer_operators(model))


def layer_operators(model: Model) -> set[str]:
    return {layer.operator.removesuffix("OpkitForward") for t in model.tables for layer in model.layers(t.segment_id)}


def keep(parcel: Parcel) -> None:
    """Keeps a model in this process. Dask alone would take copies away that no task waits for, and send them again."""
    _models[parcel.digest] = parcel.model
    for digest in list(_models)[:-KEPT_MODELS]:
        del _models[digest]


def run_chunk(digest: str, inputs: dict, batch: int | None, compared: bool) -> Computed | Failed | Absent:
    """Computes one chunk, whose result is to be `compared` with another's or not. Whatever goes wrong comes back as a Failed, so that it is known which machine it was."""
    model = _models.get(digest)
    if model is None:
        return Absent(machine())
    try:
        arrays = {name: _items(model, name, piece) for name, piece in inputs.items()}
        outputs = compute(model, arrays, batch)
        return Computed(machine(), outputs, {name: crc(array) for name, array in outputs.items()},
                        {name: crc(array) for name, array in arrays.items()} if compared else {})
    except (Exception, SystemExit) as error:
        return Failed(machine(), f"{type(error).__name__}: {error}")


def _items(model: Model, name: str, piece) -> np.ndarray:
    """Elements as [items, *shape]: with leading ones left out, a single item could be taken for one without a count."""
    shape = next(tensor.shape for tensor in model.inputs if tensor.name == name)
    array = np.ascontiguousarray(piece.read() if isinstance(piece, FileSlice) else piece, np.float32)
    return array.reshape(len(array), *shape)


def compute(model: Model, arrays: dict[str, np.ndarray], batch: int | None) -> dict[str, np.ndarray]:
    with _unique if "Unique" in layer_operators(model) else contextlib.nullcontext():
        return model.run(arrays, batch=batch)


def machine() -> Machine:
    """This process. Away from a worker it is called "collector"."""
    try:
        from distributed import get_worker
        name = get_worker().address
    except ValueError:
        name = "collector"
    try:
        build = library().build
    except OpkitError:  # whoever computes with it says why
        build = "no libopkit.so"
    return Machine(name, platform.node(), _processor(), _libm_version(), libm_probe(), build)


@functools.cache
def libm_probe() -> str:
    """CRC-32 over what libm gives for sample arguments. It asks for the functions where the loader finds them for
    libopkit.so: in what is preloaded first, then in libm."""
    found, total = ctypes.CDLL(None), 0
    fallback = ctypes.CDLL("libm.so.6")
    for suffix, names in LIBM.items():
        real, width = (ctypes.c_float, np.float32) if suffix else (ctypes.c_double, np.float64)
        for name in names:
            function = getattr(found, name + suffix, None) or getattr(fallback, name + suffix)
            function.restype, function.argtypes = real, [real, real] if name == "pow" else [real]
            rest = (2.4,) if name == "pow" else ()
            values = np.array([function(x, *rest) for x in _samples(name)], width)
            total = zlib.crc32(np.where(np.isnan(values), width(0), values).tobytes(), total)
    return f"{total:08x}"


def _samples(name: str) -> list[float]:
    """Arguments over the part of a function's domain that networks use, none of them round. Exact in f32."""
    low, high = {"acos": (-1, 1), "asin": (-1, 1), "atanh": (-1, 1), "acosh": (1, 50), "log": (0, 100),
                 "pow": (0, 20)}.get(name, (-20, 20))
    steps = (np.arange(1, 1500, dtype=np.uint64) * 2654435761 % 2**32).astype(np.float64) / 2**32
    return (low + steps * (high - low)).astype(np.float32).tolist()


@functools.cache
def _processor() -> str:
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as lines:
            return next(line.split(":", 1)[1].strip() for line in lines if line.startswith("model name"))
    except (OSError, StopIteration):
        return platform.machine()


@functools.cache
def _libm_version() -> str:
    return " ".join(platform.libc_ver()) or "unknown"
