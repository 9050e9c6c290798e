"""Loaded into a worker by `dask-worker --preload`: makes the machine misbehave as OPKIT_TEST_FAULTS (JSON) says.

    flip: n        every n-th chunk has a bit flipped before its CRC is taken: a processor or memory that errs
    transit: n     every n-th chunk has one flipped afterwards: a network that errs
    operator: X    self-test layers of operator X leave a flipped bit
    kill: n        the process kills itself within the n-th chunk, once
    allocate: n    the n-th chunk takes n_bytes of memory and holds it until the nanny ends the process, once
    starve: n      every n-th chunk asks for more memory than there is
    sleep: s       every chunk takes so many seconds more
    log: file      a line per chunk that was computed
"""

import json
import os
import signal
import time

import numpy as np

from opkit.cluster import layers, worker

faults = json.loads(os.environ.get("OPKIT_TEST_FAULTS", "{}"))
folder = os.environ["OPKIT_TEST_FOLDER"]
count = 0


def every(kind):
    return kind in faults and count % faults[kind] == 0


def once(kind):
    """True for one process and one time: the file that says so outlives both."""
    if count != faults.get(kind):
        return False
    try:
        os.close(os.open(os.path.join(folder, kind), os.O_CREAT | os.O_EXCL))
    except FileExistsError:
        return False
    return True


def flip(outputs):
    name = sorted(outputs)[0]
    outputs[name].reshape(-1).view(np.uint32)[outputs[name].size // 2] ^= 1 << 3


def compute(model, arrays, batch):
    global count
    count += 1
    time.sleep(faults.get("sleep", 0))
    if once("kill"):
        os.kill(os.getpid(), signal.SIGKILL)
    if once("allocate"):
        held = np.ones(faults["n_bytes"], np.uint8)
        time.sleep(60)
        del held
    if every("starve"):
        np.ones(1 << 46, np.uint8)
    outputs = real_compute(model, arrays, batch)
    if every("flip"):
        flip(outputs)
    if "log" in faults:
        with open(faults["log"], "a", encoding="utf-8") as log:
            log.write("computed\n")
    return outputs


def run_chunk(digest, inputs, batch, compared):
    result = real_run_chunk(digest, inputs, batch, compared)
    if every("transit") and isinstance(result, worker.Computed):
        flip(result.arrays)
    return result


def run_operator(name, *rest):
    result = real_run_operator(name, *rest)
    if name == faults.get("operator"):
        flip({"": result.outputs[0]})
    return result


if not hasattr(worker, "real_functions"):  # a worker may load this file twice
    worker.real_functions = worker.compute, worker.run_chunk, layers.run_operator
    worker.compute, worker.run_chunk, layers.run_operator = compute, run_chunk, run_operator
real_compute, real_run_chunk, real_run_operator = worker.real_functions
