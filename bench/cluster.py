#!/usr/bin/env python3
"""What opkit.cluster costs, in processor time: against the C++ program on one thread, per chunk, per model, per byte.

    PYTHONPATH=python OPKIT_LIBRARY=build/release/libopkit.so python3 bench/cluster.py build/release/tools/opkit

Processor time and not the clock, since the machine may be busy. Candidates take turns, and medians count. Everything
runs on loopback. Needs python3-dask and python3-distributed.
"""

import contextlib
import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np
import psutil
from distributed import Client

import opkit
from opkit import cluster
from opkit.cluster import collector, store, worker

ROUNDS = 9
CALM = {**os.environ, **collector.CALM_WORKERS}
DIGITS = pathlib.Path(__file__).resolve().parent.parent / "examples/digits/data"


def children_time():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def process_time(pid):
    times = psutil.Process(pid).cpu_times()
    return times.user + times.system


@contextlib.contextmanager
def processes(workers, folder):
    """A scheduler and workers; yields a client and their process ids."""
    address = ["--host", "127.0.0.1", "--dashboard-address", "127.0.0.1:0"]
    file = folder / f"scheduler{time.monotonic_ns()}.json"
    begin = [sys.executable, "-m"]
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    programs = [subprocess.Popen([*begin, "distributed.cli.dask_scheduler", "--port", "0", "--scheduler-file", file,
                                  *address], **quiet)]
    programs += [subprocess.Popen([*begin, "distributed.cli.dask_worker", "--scheduler-file", file, "--nthreads", "1",
                                   "--no-nanny", "--local-directory", folder, *address], env=CALM, **quiet)
                 for _ in range(workers)]
    try:
        while not file.exists():
            time.sleep(0.1)
        with Client(scheduler_file=str(file), direct_to_workers=True, timeout=60) as client:
            client.wait_for_workers(workers, timeout=120)
            yield client, programs[0].pid, [program.pid for program in programs[1:]]
    finally:
        for program in programs:
            program.kill()
            program.wait()


def program_time(tool, file, batch, items):
    """Seconds per item of the C++ program on one thread, of many passes without those of the start."""
    def spent(repeat):
        before = children_time()
        subprocess.run([tool, "run", DIGITS / "digits", "--input", f"pixels={file}", "--batch", str(batch),
                        "--threads", "1", "--warmup", "0", "--repeat", str(repeat)], check=True, stdout=subprocess.DEVNULL)
        return children_time() - before
    few, many = 1, 6
    return (spent(many) - spent(few)) / (2 * (many - few) * items)  # one stream, and then "all" one of them


def cluster_time(client, scheduler, workers, file, folder, **options):
    """Seconds per item of the workers, and seconds per chunk of scheduler and collector."""
    def spent():
        return np.array([sum(map(process_time, workers)), process_time(scheduler), time.process_time(), time.monotonic()])
    out = folder / f"out{time.monotonic_ns()}"
    before = spent()
    summary = cluster.run(DIGITS / "digits", {"pixels": file}, out, client=client, progress=False, **options)
    return spent() - before, summary.computed


def throughput(tool, folder):
    """The least disturbed of ROUNDS of each candidate, and the median of the ratios."""
    images = np.load(DIGITS / "images.npy").astype(np.float32) / 16
    batch, chunk, few, items = 256, 8192, 8192, 65536
    for count in (few, items):
        np.save(folder / f"pixels{count}.npy", np.resize(images, (count, 8, 8)))
    for workers in (1, 2):
        alone, ours = [], []
        with processes(workers, folder) as (client, scheduler, pids):
            for _ in range(ROUNDS):
                alone.append(program_time(tool, folder / f"pixels{few}.npy", batch, few))
                times, chunks = cluster_time(client, scheduler, pids, folder / f"pixels{items}.npy", folder, batch=batch,
                                             chunk=chunk)
                ours.append((times[0] / items, *(times[1:3] / chunks), times[3]))
        least = [min(column) for column in zip(*ours)]
        ratios = [one[0] / base for one, base in zip(ours, alone)]
        print(f"{workers} workers, chunks of {chunk} items, requests of {batch}: the program {min(alone) * 1e6:.1f} us/item, "
              f"{min(alone) * chunk * 1e3:.0f} ms a chunk; workers {least[0] * 1e6:.1f} us/item, {least[0] / min(alone):.3f} "
              f"of that, median of all rounds {statistics.median(ratios):.3f}; scheduler {least[1] * 1e3:.1f} ms, collector "
              f"{least[2] * 1e3:.1f} ms a chunk; {least[3]:.2f} s on the clock")


def messages(folder):
    """Chunks of one item: what a chunk costs that computes next to nothing."""
    images = np.resize(np.load(DIGITS / "images.npy").astype(np.float32) / 16, (1000, 8, 8))
    np.save(folder / "few.npy", images)
    with processes(2, folder) as (client, scheduler, pids):
        values = []
        for _ in range(ROUNDS):
            times, chunks = cluster_time(client, scheduler, pids, folder / "few.npy", folder, chunk=1)
            values.append(times / chunks * 1e3)
    print("a chunk of one item: worker {:.2f} ms, scheduler {:.2f} ms, collector {:.2f} ms, {:.2f} ms on the clock".format(
        *np.median(values, 0)))


def distribution(folder):
    model = opkit.load(DIGITS / "digits")
    for megabytes in (1, 64):
        manifest = {"format": "opkit-model", "formatVersion": 1, "bufferSize": megabytes << 20, "bufferCrc32": 0,
                    "scratchSize": model.scratch_size, "maxBatch": model.max_batch}
        large = opkit.load(DIGITS / "digits")
        large.bytes = np.resize(large.bytes, manifest["bufferSize"])
        for workers in (1, 4):
            with processes(workers, folder) as (client, scheduler, pids):
                values = []
                for _ in range(ROUNDS):
                    before = process_time(scheduler), sum(map(process_time, pids)), time.monotonic()
                    kept = client.scatter(worker.Parcel(large), broadcast=True, hash=False)
                    after = process_time(scheduler), sum(map(process_time, pids)), time.monotonic()
                    values.append([now - then for now, then in zip(after, before)])
                    del kept
                print("a model of {} MB to {} workers: scheduler {:.3f} s, all workers {:.3f} s, {:.3f} s on the clock".format(
                    megabytes, workers, *np.median(values, 0)))


def storage(folder):
    for megabytes in (0.25, 4, 32):
        array = np.random.default_rng(1).random((1, int(megabytes * (1 << 18))), np.float32)
        files = store.Store(folder / f"store{megabytes}", {"outputs": {"y": [array.shape[1]]}, "bounds": [*range(201)]})
        values, count = [], max(4, int(64 / megabytes))
        for index in range(min(count, 200)):
            before = time.process_time(), time.monotonic()
            assert store.crc(array) != 1
            files.write({"chunk": index, "crc": {"y": 1}}, {"y": array})
            values.append((time.process_time() - before[0], time.monotonic() - before[1]))
        files.close()
        spent, clock = np.median(values, 0)
        print(f"writing {megabytes} MB: {spent * 1e3:.2f} ms of the processor, {clock * 1e3:.2f} ms on the clock, "
              f"{megabytes / clock:.0f} MB/s")


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as name:
        work = pathlib.Path(name)
        throughput(sys.argv[1], work)
        messages(work)
        distribution(work)
        storage(work)
