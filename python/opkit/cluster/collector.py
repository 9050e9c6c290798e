"""The side that hands out chunks, judges what comes back, and writes it.

No more chunks are on their way than keep the workers busy, so that memory stays bounded on every side: the next one is
handed out when a result has been written. A chunk that is lost with its worker, or with the scheduler, is handed out
again; one that fails is tried on other workers first.
"""

from __future__ import annotations

import asyncio
import contextlib
import math
import os
import queue
import random
import sys
import time
from collections import Counter, deque
from dataclasses import dataclass, field

import numpy as np
from dask.diagnostics import ProgressBar
from distributed import CancelledError, Client, Future, KilledWorker, LocalCluster

from opkit.cluster import worker
from opkit.cluster.sources import chunk_bounds, open_sources
from opkit.cluster.store import ClusterError, Store, crc
from opkit.cluster.worker import Absent, Computed, Failed, Machine
from opkit.library import OpkitError, library
from opkit.model import Model
from opkit.model import load as load_model

MOST_OPINIONS = 5  # computations of one chunk of which no two agree, before it is given up
# How often workers sample their own stacks, and wake up to see whether they are late; by default every 10 and 20 ms.
CALM_WORKERS = {"DASK_DISTRIBUTED__WORKER__PROFILE__INTERVAL": "1s", "DASK_DISTRIBUTED__ADMIN__TICK__INTERVAL": "500ms"}
TICK = 1.0  # seconds between looks at workers and scheduler


@dataclass
class Difference:
    """A chunk that two workers computed differently.

    kind      "fault", or "libm" where only workers of unlike libm disagree and the model calls libm
    winners   who computed what was kept; losers computed something else
    element   the first one that differs, as "scores[3, 0, 1]", with both values and their bits in `values`
    inputs    true when the two had read different input data: then look at storage or network first
    """
    chunk: int
    kind: str
    winners: list[Machine]
    losers: list[Machine]
    element: str
    values: str
    inputs: bool

    def __str__(self) -> str:
        return (f"chunk {self.chunk}, {self.kind}: {self.element} is {self.values}" +
                (" (their inputs differ already)" if self.inputs else "") +
                "".join(f"\n    kept   {who}" for who in self.winners) +
                "".join(f"\n    other  {who}" for who in self.losers))


@dataclass
class Summary:
    """What a run did. print() shows it."""
    chunks: int = 0
    found: int = 0  # done before
    computed: int = 0  # written by this run
    verified: int = 0  # of these, computed by more than one worker
    seconds: float = 0.0
    workers: Counter = field(default_factory=Counter)  # chunks that each Machine computed
    lost_workers: set[str] = field(default_factory=set)
    again: Counter = field(default_factory=Counter)  # why chunks were handed out again, and how often
    differences: list[Difference] = field(default_factory=list)

    @property
    def suspects(self) -> Counter:
        """Workers outvoted by others of the same libm, with the number of chunks."""
        return Counter(who.worker for d in self.differences if d.kind == "fault" for who in d.losers)

    def __str__(self) -> str:
        lines = [f"{self.chunks} chunks: {self.computed} computed, {self.found} found done, {self.verified} computed by "
                 f"more than one worker, {self.seconds:.1f} s"]
        lines += [f"worker   {who}: {count} chunks" for who, count in self.workers.most_common()]
        lines += [f"lost     {name}" for name in sorted(self.lost_workers)]
        lines += [f"again    {count} times: {why}" for why, count in self.again.items()]
        if len({who.libm for who in self.workers}) > 1:
            lines.append("libm     the workers do not share one: results may differ in the last bits")
        lines += [str(difference) for difference in self.differences]
        lines += [f"suspect  {name}: {count} chunks differ from what others computed"
                  for name, count in self.suspects.most_common()]
        return "\n".join(lines)


def run(model: Model | str | os.PathLike, arrays: dict, out: str | os.PathLike, *, client: Client | None = None,
        workers: int | None = None, verify: float = 0.0, batch: int | None = None, chunk: int | None = None,
        retries: int = 2, in_flight: int | None = None, patience: float = 60.0, progress: bool | None = None) -> Summary:
    """Runs a model on inputs of any size and leaves the outputs in the folder `out`; load(out) opens them.

    model      a Model, or the path of one
    arrays     an input each: a .npy file, a folder of them, a numpy or a Dask array (see opkit.cluster.sources)
    out        a folder; with results of the same run in it, only what is missing or damaged is computed
    client     of a Dask cluster; by default workers are started on this machine for this call
    workers    how many of those, by default one per processor
    verify     share of the chunks that a second worker computes, too, on another host if there is one. A difference is
               settled by a third; without another worker it is this process that computes
    batch      items per request, by default the most that the model allows (1 with several layer tables)
    chunk      items per chunk, where the inputs have no chunks of their own; by default 16 requests, up to 64 MB
    retries    how often a chunk that fails is tried again, on another worker if there is one
    in_flight  chunks handed out and not yet written; by default two per thread of the workers, and two
    patience   seconds to wait for workers, or for a scheduler that went away
    progress   Dask's progress bar; by default on a terminal. Its dashboard shows the tasks as "opkit-chunk"

    A chunk that cannot be computed does not keep the others from it; the ClusterError at the end names it.
    """
    if not 0 <= verify <= 1:
        raise ClusterError(f"verify is a share from 0 to 1, not {verify}")
    if batch is not None and batch < 1 or chunk is not None and chunk < 1:
        raise ClusterError("batch and chunk are at least 1")
    model = model if isinstance(model, Model) else load_model(model)
    if not model.outputs:
        raise ClusterError(f"{model.name}: has no outputs")
    sources = open_sources(model, arrays)
    batch = batch or (1 if len(model.tables) > 1 else model.largest_batch)
    bounds = chunk_bounds(model, sources, batch, chunk)
    store = Store(out, {
        "model": worker.model_digest(model), "batch": batch, "bounds": bounds,
        "inputs": {name: source.identity for name, source in sources.items()},
        "outputs": {tensor.name: list(tensor.shape) for tensor in model.outputs}})
    with contextlib.closing(store), contextlib.ExitStack() as stack:
        done = store.done()
        summary = Summary(chunks=len(bounds) - 1, found=len(done))
        missing = [index for index in range(summary.chunks) if index not in done]
        if missing:
            client = client or stack.enter_context(local_client(workers))
            bar = _Bar(progress, summary)
            job = _Job(model, sources, bounds, batch, store, client, retries, in_flight, patience, summary, bar)
            job.checked = _sample(summary.chunks, verify, store.identity["model"])
            job.run(missing)
    return summary


@contextlib.contextmanager
def local_client(workers: int | None = None):
    """A Client of workers on this machine, one process and one thread each, that talk over loopback only."""
    environment = {**CALM_WORKERS, "OPKIT_LIBRARY": os.path.realpath(library().path) if os.path.exists(library().path)
                   else library().path, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)}
    with LocalCluster(n_workers=workers or len(os.sched_getaffinity(0)), threads_per_worker=1, processes=True,
                      host="127.0.0.1", dashboard_address="127.0.0.1:0", worker_dashboard_address="127.0.0.1:0",
                      env=environment) as cluster:
        with Client(cluster, direct_to_workers=True) as client:
            yield client


@dataclass
class _Chunk:
    """What is known of a chunk that is not written yet."""
    index: int
    results: list[Computed] = field(default_factory=list)
    failures: list[str] = field(default_factory=list)
    avoid: set[str] = field(default_factory=set)  # workers that failed at it
    lost: int = 0


@dataclass
class _Flight:
    chunk: _Chunk
    allowed: set[str] | None  # workers that may compute it; None for all
    pieces: dict


class _Job:
    """One call of run()."""

    def __init__(self, model, sources, bounds, batch, store, client, retries, in_flight, patience, summary, bar):
        self.model, self.sources, self.bounds, self.batch = model, sources, bounds, batch
        self.store, self.client, self.retries, self.patience = store, client, retries, patience
        self.address = client.scheduler.address
        self.most, self.summary, self.bar = in_flight, summary, bar
        self.checked: set[int] = set()
        self.pending: deque[_Chunk] = deque()
        self.flights: dict[Future, _Flight] = {}
        self.arrived: queue.Queue[Future] = queue.Queue()
        self.failed: dict[int, str] = {}
        self.threads: dict[str, int] = {}  # of every worker that is there
        self.hosts: dict[str, str] = {}
        self.equipped: dict[str, Future] = {}  # workers that keep the model, or were told to
        self.unfit: dict[str, str] = {}  # workers that could not, and why
        self.parcel = self.digest = self.tick_due = None
        self.workers_seen = time.monotonic()

    def run(self, missing: list[int]) -> None:
        start = time.monotonic()
        self.pending.extend(_Chunk(index) for index in missing)
        try:
            self.connect()
            while self.pending or self.flights:
                self.look_around()
                while self.pending and self.threads and len(self.flights) < self.limit:
                    self.hand_out(self.pending.popleft())
                with contextlib.suppress(queue.Empty):
                    self.take(self.arrived.get(timeout=TICK))
                self.bar.draw(len(self.failed))
        finally:
            self.summary.seconds = time.monotonic() - start
            self.bar.end()
            flights, self.flights = list(self.flights), {}
            with contextlib.suppress(Exception):
                self.client.cancel(flights)
        if self.failed:
            first, reason = min(self.failed.items())
            more = f" and {len(self.failed) - 1} more, the last {max(self.failed)}," if len(self.failed) > 1 else ""
            raise ClusterError(f"{self.store.folder}: chunk {first}{more} could not be computed: items "
                               f"{self.bounds[first]} to {self.bounds[first + 1]}, {reason}")

    @property
    def limit(self) -> int:
        return self.most or 2 * sum(self.threads.values()) + 2

    # Workers and scheduler

    def connect(self) -> None:
        """Waits for workers, and sends them the model: it goes from worker to worker, and to each of them once."""
        try:
            self.client.wait_for_workers(1, timeout=self.patience)
            self.send(broadcast=True)
        except (OSError, asyncio.TimeoutError) as error:
            raise ClusterError(f"{self.address}: no worker for {self.patience} s: {error}") from error
        self.tick_due = 0

    def send(self, **where) -> None:
        parcel = worker.Parcel(self.model)
        self.digest = parcel.digest
        self.parcel = self.client.scatter({f"opkit-model-{time.time_ns():x}": parcel}, **where).popitem()[1]

    def look_around(self) -> None:
        """Once per tick: who is there, who still needs the model, and has every chunk somewhere to go?"""
        if self.client.status != "running":
            self.reconnect()
        if time.monotonic() < self.tick_due:
            return
        self.tick_due = time.monotonic() + TICK
        try:
            there = self.client.scheduler_info()["workers"]
            self.summary.lost_workers |= set(self.threads) - set(there)
            self.threads = {address: one["nthreads"] for address, one in there.items()}
            self.hosts = {address: one["host"] for address, one in there.items()}
            self.equip()
        except (OSError, RuntimeError, asyncio.TimeoutError, CancelledError):
            return  # the next look finds out
        if self.threads:
            self.workers_seen = time.monotonic()
        elif time.monotonic() - self.workers_seen > self.patience:
            raise ClusterError(f"{self.store.folder}: no worker for {self.patience} s; {self._done()}")
        for future, flight in list(self.flights.items()):
            if flight.allowed and not flight.allowed & set(self.threads) and not future.done():
                self.lost(future, "its worker went away")

    def equip(self) -> None:
        """Has every worker keep the model. The task goes ahead of the chunks that wait there."""
        for address, future in list(self.equipped.items()):
            if address not in self.threads or future.status in ("lost", "cancelled"):
                del self.equipped[address]
            elif future.status == "error":
                self.unfit[address] = repr(future.exception())
        self.unfit = {address: why for address, why in self.unfit.items() if address in self.threads}
        if self.threads and len(self.unfit) == len(self.threads):
            raise ClusterError(f"no worker took the model; they need this package and what it needs: {self.unfit}")
        new = sorted(set(self.threads) - set(self.equipped))
        if new and self.parcel.status in ("lost", "cancelled", "error"):
            self.send(workers=new[:1])
        for address in new:
            self.equipped[address] = self.client.submit(
                worker.keep, self.parcel, key=f"opkit-keep-{time.time_ns():x}", pure=False, workers=[address],
                allow_other_workers=False, priority=10)

    def reconnect(self) -> None:
        """The scheduler went away, and with it everything that was on its way."""
        deadline = time.monotonic() + self.patience
        while self.client.status != "running":
            if self.client.status in ("closed", "closing") or time.monotonic() > deadline:
                raise ClusterError(f"{self.address}: the scheduler went away; {self._done()}")
            time.sleep(0.1)
        for future in list(self.flights):
            self.lost(future, "the scheduler went away")
        self.equipped, self.unfit = {}, {}
        self.connect()

    def _done(self) -> str:
        done = self.summary.found + self.summary.computed
        return f"{done} of {self.summary.chunks} chunks are done, the same call computes the rest"

    # Chunks

    def hand_out(self, chunk: _Chunk) -> None:
        # A worker that went away may have come back under another name: it must not agree with itself.
        chunk.results = [one for one in chunk.results if one.machine.worker in (*self.threads, "collector")]
        busy = {result.machine.worker for result in chunk.results}
        allowed = set(self.threads) - busy - set(self.unfit)
        if busy and not allowed:
            return self.compute_here(chunk)
        hosts = {self.hosts[name] for name in busy if name in self.hosts}
        allowed = {name for name in allowed if self.hosts[name] not in hosts} or allowed
        if allowed - chunk.avoid:  # where all have failed, all may try again
            allowed -= chunk.avoid
        first, last = self.bounds[chunk.index:chunk.index + 2]
        try:
            pieces = {name: source.piece(self.client, chunk.index, first, last)
                      for name, source in self.sources.items()}
            everyone = not busy and not chunk.avoid and not self.unfit
            future = self.client.submit(worker.run_chunk, self.digest, pieces, self.batch, self.compared(chunk),
                                        pure=False, key=f"opkit-chunk-{time.time_ns():x}-{chunk.index}",
                                        workers=None if everyone else sorted(allowed), allow_other_workers=False)
        except (OSError, RuntimeError, asyncio.TimeoutError, CancelledError):  # scheduler or workers went away just now
            self.pending.appendleft(chunk)
            self.threads, self.tick_due = {}, 0
            return None
        self.flights[future] = _Flight(chunk, None if everyone else allowed, pieces)
        future.add_done_callback(self.arrived.put)
        return None

    def compared(self, chunk: _Chunk) -> bool:
        return chunk.index in self.checked

    def take(self, future: Future) -> None:
        """A future that is done, one way or another."""
        flight = self.flights.get(future)
        if flight is None:
            return  # handed out again meanwhile
        chunk = flight.chunk
        try:
            result = future.result(timeout=self.patience)
        except KilledWorker as error:
            del self.flights[future]
            self.give_up(chunk, f"workers die of it, memory may be short: {error}")
        except (CancelledError, asyncio.TimeoutError, OSError) as error:
            self.lost(future, f"{type(error).__name__} on the way back")
        except Exception as error:
            del self.flights[future]
            self.fail(chunk, None, f"{type(error).__name__}: {error}")
        else:
            del self.flights[future]
            self.judge(chunk, result)

    def lost(self, future: Future, why: str) -> None:
        """Hands a chunk out again, through no fault of its own."""
        chunk = self.flights.pop(future).chunk
        with contextlib.suppress(Exception):
            future.cancel()
        self.summary.again[why] += 1
        chunk.lost += 1
        if chunk.lost > 20:
            self.give_up(chunk, f"lost 20 times, at last: {why}")
        else:
            self.pending.appendleft(chunk)

    def fail(self, chunk: _Chunk, machine: Machine | None, why: str) -> None:
        chunk.failures.append(f"{machine}: {why}" if machine else why)
        if machine:
            chunk.avoid.add(machine.worker)
        if len(chunk.failures) > self.retries:
            return self.give_up(chunk, "; ".join(chunk.failures))
        self.summary.again[chunk.failures[-1]] += 1
        self.pending.appendleft(chunk)
        return None

    def give_up(self, chunk: _Chunk, why: str) -> None:
        self.failed[chunk.index] = why

    def compute_here(self, chunk: _Chunk) -> None:
        """Another opinion, where there is no other worker."""
        if any(result.machine.worker == "collector" for result in chunk.results):
            return self.give_up(chunk, "no two of these agree, and there is nobody else to ask: " +
                                ", ".join(str(result.machine) for result in chunk.results))
        first, last = self.bounds[chunk.index:chunk.index + 2]
        pieces = {name: source.piece(self.client, chunk.index, first, last) for name, source in self.sources.items()}
        try:
            library()
        except OpkitError as error:
            return self.give_up(chunk, f"there is no other worker to compare with, and here {error}")
        worker.keep(worker.Parcel(self.model))
        self.judge(chunk, worker.run_chunk(self.digest, self.client.gather(pieces), self.batch, True))
        return None

    def judge(self, chunk: _Chunk, result: Computed | Failed | Absent) -> None:
        """Writes a chunk as soon as enough workers agree on it."""
        if isinstance(result, Absent):
            self.equipped.pop(result.machine.worker, None)
            self.pending.appendleft(chunk)
            self.tick_due = 0
            return None
        if isinstance(result, Failed):
            return self.fail(chunk, result.machine, result.error)
        if {name: crc(array) for name, array in result.arrays.items()} != result.crc:
            return self.fail(chunk, result.machine, "the result was damaged on its way")
        chunk.results.append(result)
        groups = _group(chunk.results)
        needed = 2 if self.compared(chunk) else 1
        if len(groups[0]) < needed:
            if len(chunk.results) >= MOST_OPINIONS:
                return self.give_up(chunk, "no two of these agree: " +
                                    ", ".join(str(result.machine) for result in chunk.results))
            self.pending.appendleft(chunk)
            return None
        difference = _difference(chunk.index, groups, worker.calls_libm(self.model)) if len(groups) > 1 else None
        self.write(chunk, groups[0][0], difference)
        return None

    def write(self, chunk: _Chunk, result: Computed, difference: Difference | None) -> None:
        record = {"chunk": chunk.index, "crc": result.crc, "libm": result.machine.libm,
                  "workers": [one.machine.worker for one in chunk.results]}
        if difference:
            record["difference"] = str(difference)
        try:
            self.store.write(record, result.arrays)
        except OSError as error:
            raise ClusterError(f"{error.filename}: {error.strerror}; {self._done()}") from error
        self.summary.computed += 1
        self.summary.verified += len(chunk.results) > 1
        for one in chunk.results:
            self.summary.workers[one.machine] += 1
        if difference:
            self.summary.differences.append(difference)


def _sample(chunks: int, share: float, seed: str) -> set[int]:
    """Which chunks a second worker computes: the same ones for the same model and number of chunks."""
    return set(random.Random(seed).sample(range(chunks), math.ceil(chunks * share)))


def _group(results: list[Computed]) -> list[list[Computed]]:
    """Results that are the same, together; the largest group first, of equal ones the one that began first."""
    groups: list[list[Computed]] = []
    for result in results:
        for group in groups:
            if _first_difference(group[0], result) is None:
                group.append(result)
                break
        else:
            groups.append([result])
    return sorted(groups, key=len, reverse=True)


def _first_difference(one: Computed, other: Computed) -> tuple[str, str] | None:
    """The first element whose bits differ. NaN equals NaN: what bits arithmetic gives it is nobody's promise."""
    for name, left in one.arrays.items():
        right = other.arrays[name]
        differ = (left.view(np.uint32) != right.view(np.uint32)) & ~(np.isnan(left) & np.isnan(right))
        if differ.any():
            place = tuple(int(i) for i in np.unravel_index(int(np.argmax(differ)), differ.shape))
            texts = (f"{array[place]!r} ({int(array.view(np.uint32)[place]):08x})" for array in (left, right))
            return f"{name}{list(place)}", "kept, ".join(texts) + " there"
    return None


def _difference(index: int, groups: list[list[Computed]], libm_matters: bool) -> Difference:
    winners, losers = groups[0], [result for group in groups[1:] for result in group]
    same_libm = [result for result in losers if result.machine.libm in {one.machine.libm for one in winners}]
    kind = "libm" if libm_matters and not same_libm else "fault"
    told = same_libm or losers if kind == "fault" else losers
    element, values = _first_difference(winners[0], told[0])
    return Difference(index, kind, [one.machine for one in winners], [one.machine for one in told], element,
                      values.replace("kept,", " kept,"), told[0].input_crc != winners[0].input_crc)


class _Bar:
    """Dask's progress bar over chunks that are done; it is for graphs that are known from the start, so it is drawn
    from outside."""

    def __init__(self, wanted: bool | None, summary: Summary):
        self.summary, self.start = summary, time.monotonic()
        self.bar = ProgressBar() if (sys.stdout.isatty() if wanted is None else wanted) else None

    def draw(self, failed: int) -> None:
        if self.bar:
            done = self.summary.found + self.summary.computed + failed
            self.bar._draw_bar(done / self.summary.chunks, time.monotonic() - self.start)

    def end(self) -> None:
        if self.bar:
            print()
