"""Results on disk: a folder per output, a file per chunk, and a journal of what is done.

    results/run.json             what was computed: model, inputs, chunks; another run is refused
    results/journal              a line of JSON per finished chunk: its CRCs, and who computed it
    results/scores/0000007.npy   output "scores" of chunk 7

A chunk is done when the journal says so and the elements in its files have the CRC-32 that the journal gives, which the
worker took before they travelled. Whatever else is there - a half-written file, half a line, a flipped bit - counts as
not done. So nothing depends on the order in which a system that stops brings its buffers to disk.
"""

from __future__ import annotations

import contextlib
import fcntl
import io
import json
import os
import pathlib
import zlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np

from opkit.library import OpkitError

FORMAT = {"format": "opkit-chunks", "formatVersion": 1}


class ClusterError(OpkitError):
    """A run that cannot begin, or could not be finished; what is done stays done."""


def crc(array: np.ndarray) -> int:
    """CRC-32 of the elements, as `opkit run` reports it."""
    return zlib.crc32(np.ascontiguousarray(array).reshape(-1).view(np.uint8))


class Store:
    """The folder of one run, locked while it is open for writing."""

    def __init__(self, folder: os.PathLike | str, identity: dict):
        """Opens or makes `folder`. `identity` is what results of one run have in common, as JSON would have it."""
        self.folder = pathlib.Path(folder)
        self.identity = json.loads(json.dumps({**FORMAT, **identity}))
        for name in self.identity["outputs"]:
            if name in ("", ".", "..", "run.json", "journal") or "/" in name:
                raise ClusterError(f"{self.folder}: output {name!r} cannot be the name of a folder")
        self.folder.mkdir(parents=True, exist_ok=True)
        self._journal = open(self.folder / "journal", "a+b", buffering=0)
        try:
            fcntl.flock(self._journal, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            self._journal.close()
            raise ClusterError(f"{self.folder}: another run is writing to it") from None
        try:
            self._adopt()
        except BaseException:
            self._journal.close()
            raise

    def _adopt(self) -> None:
        file = self.folder / "run.json"
        if file.exists():
            difference = _first_difference(_read_identity(file), self.identity)
            if difference:
                field, there, here = difference
                raise ClusterError(f"{file}: field {field} is {_short(there)}, this run has {_short(here)}: these are "
                                   "results of another run; give a folder of its own, or remove this one")
        else:
            strangers = {entry.name for entry in self.folder.iterdir()} - {"journal", "run.json.part"}
            if strangers:
                raise ClusterError(f"{self.folder}: has no run.json, but {min(strangers)}; give an empty folder")
            _replace(file, json.dumps(self.identity, indent=1).encode())
        for name in self.identity["outputs"]:
            (self.folder / name).mkdir(exist_ok=True)

    def close(self) -> None:
        self._journal.close()

    def done(self) -> dict[int, dict]:
        """The journal's records of the chunks that are there and whole. Reads every file."""
        records = _read_journal(self.folder / "journal")
        with ThreadPoolExecutor(os.cpu_count()) as pool:
            whole = list(pool.map(lambda record: self._is_whole(record), records.values()))
        return {index: record for (index, record), good in zip(records.items(), whole) if good}

    def _is_whole(self, record: dict) -> bool:
        try:
            for name in self.identity["outputs"]:
                read_chunk(self.folder, self.identity, record, name)
        except ClusterError:
            return False
        return True

    def write(self, record: dict, arrays: dict[str, np.ndarray]) -> None:
        """Files first, then the line that makes them count. An OSError leaves the chunk not done, and no half file."""
        for name, array in arrays.items():
            header = io.BytesIO()
            np.lib.format.write_array_header_1_0(header, np.lib.format.header_data_from_array_1_0(array))
            _replace(chunk_file(self.folder, name, record["chunk"]), header.getvalue(),
                     np.ascontiguousarray(array).reshape(-1).view(np.uint8).data)
        size = os.fstat(self._journal.fileno()).st_size
        line = json.dumps(record).encode() + b"\n"
        if size and os.pread(self._journal.fileno(), 1, size - 1) != b"\n":
            line = b"\n" + line  # behind what a writer left that was stopped within a line
        try:
            if self._journal.write(line) != len(line):
                raise OSError(28, "no space for a line", str(self.folder / "journal"))
        except OSError:
            with contextlib.suppress(OSError):
                os.ftruncate(self._journal.fileno(), size)
            raise


def load(folder: os.PathLike | str) -> dict:
    """The outputs of a finished run as Dask arrays, a block per chunk; each block's CRC is checked when it is read."""
    import dask.array
    from dask import delayed

    folder = pathlib.Path(folder)
    identity = _read_identity(folder / "run.json")
    records, bounds = _read_journal(folder / "journal"), identity["bounds"]
    missing = len(bounds) - 1 - len(records)
    if missing:
        raise ClusterError(f"{folder}: {missing} of {len(bounds) - 1} chunks are missing; run it again to compute them")
    arrays = {}
    for name, shape in identity["outputs"].items():
        blocks = [dask.array.from_delayed(delayed(read_chunk, pure=True)(folder, None, records[i], name),
                                          (last - first, *shape), np.dtype("<f4"))
                  for i, (first, last) in enumerate(zip(bounds, bounds[1:]))]
        arrays[name] = dask.array.concatenate(blocks) if blocks else dask.array.zeros((0, *shape), dtype="<f4")
    return arrays


def chunk_file(folder: pathlib.Path, name: str, index: int) -> pathlib.Path:
    return folder / name / f"{index:07}.npy"


def read_chunk(folder: pathlib.Path, identity: dict | None, record: dict, name: str) -> np.ndarray:
    """One output of one chunk. A ClusterError names the file that is missing or not what the journal says."""
    file = chunk_file(folder, name, record["chunk"])
    try:
        array = np.load(file, allow_pickle=False)
    except (OSError, ValueError, EOFError) as error:
        raise ClusterError(f"{file}: {error}; run it again to compute this chunk") from None
    if crc(array) != record["crc"].get(name):
        raise ClusterError(f"{file}: the CRC-32 of its elements is {crc(array):08x}, the journal says otherwise; run it "
                           "again to compute this chunk")
    if identity:
        first, last = identity["bounds"][record["chunk"]:record["chunk"] + 2]
        if array.shape != (last - first, *identity["outputs"][name]) or array.dtype != np.dtype("<f4"):
            raise ClusterError(f"{file}: has shape {array.shape} and type {array.dtype}")
    return array


def _replace(file: pathlib.Path, *parts) -> None:
    """Writes aside and renames: the file is the old one or the whole new one."""
    aside = file.with_name(file.name + ".part")
    try:
        with open(aside, "wb") as stream:
            for part in parts:
                stream.write(part)
            stream.flush()
            os.fsync(stream.fileno())  # some file systems tell only here that there is no room
        os.replace(aside, file)
    except OSError as error:
        with contextlib.suppress(OSError):
            aside.unlink()
        raise OSError(error.errno, error.strerror, str(file)) from error


def _read_identity(file: pathlib.Path) -> dict:
    try:
        identity = json.loads(file.read_text())
    except (OSError, ValueError) as error:
        raise ClusterError(f"{file}: {error}") from None
    if not isinstance(identity, dict) or any(identity.get(field) != value for field, value in FORMAT.items()):
        raise ClusterError(f"{file}: is no description of chunked results, or of a later format")
    return identity


def _read_journal(file: pathlib.Path) -> dict[int, dict]:
    """The last line about each chunk. Lines that are no records count for nothing."""
    records = {}
    for line in file.read_bytes().split(b"\n"):
        try:
            record = json.loads(line)
            if record["chunk"] >= 0 and isinstance(record["crc"], dict):
                records[record["chunk"]] = record
        except (ValueError, TypeError, KeyError):
            continue
    return records


def _first_difference(there, here, path: str = ""):
    if isinstance(there, dict) and isinstance(here, dict):
        for field in {**there, **here}:
            found = _first_difference(there.get(field), here.get(field), f"{path}.{field}" if path else field)
            if found:
                return found
        return None
    if isinstance(there, list) and isinstance(here, list) and len(there) == len(here):
        there, here = dict(enumerate(there)), dict(enumerate(here))
        return _first_difference(there, here, path)
    return None if there == here else (path, there, here)


def _short(value) -> str:
    text = json.dumps(value)
    return text if len(text) <= 80 else text[:77] + "..."
