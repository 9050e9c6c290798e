"""opkit.cluster against one process, bit for bit, with a scheduler and workers on loopback that die and err.

The environment says where everything is: OPKIT_LIBRARY, OPKIT_SOURCE_DIR, OPKIT_MODELS (from write_models) and CC.
OPKIT_TEST_LONG=1 adds a thousand chunks under all faults at once.
"""

import atexit
import contextlib
import ctypes
import errno
import fcntl
import importlib
import io
import json
import logging
import multiprocessing
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import zlib
from unittest import mock

import numpy as np
import psutil

SOURCE = pathlib.Path(os.environ["OPKIT_SOURCE_DIR"])
MODELS = pathlib.Path(os.environ["OPKIT_MODELS"])
DIGITS = SOURCE / "examples/digits/data"
HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(SOURCE / "python"))

import dask
import dask.array
from distributed import Client

import opkit
from opkit import cluster
from opkit.cluster import collector, layers, sources, store, worker

logging.getLogger("distributed").setLevel(logging.CRITICAL)  # it tells of every connection that these tests cut
LONG = os.environ.get("OPKIT_TEST_LONG") == "1"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Cluster:
    """A scheduler and workers, each a process of its own, that listen on loopback only."""

    def __init__(self, folder):
        self.folder, self.port = pathlib.Path(folder), free_port()
        self.address = f"tcp://127.0.0.1:{self.port}"
        self.processes = []
        atexit.register(self.close)
        self.start_scheduler()

    def start_scheduler(self):
        self.scheduler = self.start("scheduler", ["--port", str(self.port)], {})

    def start_worker(self, faults=None, *, nanny=False, memory="0", **environment):
        arguments = [self.address, "--nthreads", "1", "--memory-limit", memory, "--nanny" if nanny else "--no-nanny",
                     "--local-directory", str(self.folder), "--preload", str(HERE / "cluster_faults.py")]
        return self.start("worker", arguments, {"OPKIT_TEST_FAULTS": json.dumps(faults or {}), **environment})

    def start(self, program, arguments, environment):
        environment = {"PYTHONPATH": str(SOURCE / "python"), "OPKIT_TEST_FOLDER": str(self.folder), **environment}
        arguments = [*arguments, "--host", "127.0.0.1", "--dashboard-address", "127.0.0.1:0"]
        self.processes.append(Program(program, arguments, environment, self.folder / "log"))
        return self.processes[-1]

    def close(self):
        while self.processes:
            self.processes.pop().end()


class Program:
    """dask-scheduler or dask-worker as a process. It comes out of one that has imported Dask already, unless it needs
    another environment from its very start."""

    forks = multiprocessing.get_context("forkserver")
    forks.set_forkserver_preload(["distributed.cli.dask_scheduler", "distributed.cli.dask_worker", "dask.array"])

    def __init__(self, program, arguments, environment, log):
        if "LD_PRELOAD" in environment:
            with open(log, "ab") as stream:
                self.process = subprocess.Popen([sys.executable, "-m", f"distributed.cli.dask_{program}", *arguments],
                                                env={**os.environ, **environment}, stdout=stream, stderr=stream,
                                                start_new_session=True)
        else:
            self.process = self.forks.Process(target=serve, args=(program, arguments, environment, str(log)))
            self.process.start()
        self.pid = self.process.pid

    def wait(self):
        """How it ended: an exit code, or the negative number of the signal."""
        if isinstance(self.process, subprocess.Popen):
            return self.process.wait()
        self.process.join()
        return self.process.exitcode

    def end(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.pid, signal.SIGKILL)  # a session of its own: a nanny and its worker
        self.wait()


def serve(program, arguments, environment, log):
    os.setsid()
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # ends with its parent, which ends with the tests
    os.environ.update(environment)
    descriptor = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    os.dup2(descriptor, 1)
    os.dup2(descriptor, 2)
    importlib.import_module(f"distributed.cli.dask_{program}").main(arguments)


class ClusterTest(unittest.TestCase):
    """A cluster per test, of clean workers unless the test says otherwise."""

    items = 900

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.client = None
        self.model = opkit.load(DIGITS / "digits")
        images = np.load(DIGITS / "images.npy").astype(np.float32) / 16
        shades = np.linspace(0.5, 1.5, self.items, dtype=np.float32)[:, None, None]
        self.pixels = np.resize(images, (self.items, 8, 8)) * shades
        self.file = self.folder / "pixels.npy"
        np.save(self.file, self.pixels)
        self.out = self.folder / "results"

    def start(self, *faults, **options):
        self.cluster = Cluster(self.folder)
        self.addCleanup(self.cluster.close)
        self.workers = [self.cluster.start_worker(fault, **options) for fault in faults]
        return self.connect(len(faults))

    def connect(self, workers, timeout=10):
        self.client = Client(self.cluster.address, timeout=timeout)
        self.addCleanup(self.client.close, 1)  # before its scheduler
        wait_until(lambda: len(self.client.scheduler_info()["workers"]) == workers, 60)
        return self.client

    def address(self, process):
        """What Dask calls a worker, by its process."""
        return next(name for name, pid in self.client.run(os.getpid).items() if pid == process.pid)

    def run_digits(self, chunk=30, **options):
        return cluster.run(self.model, {"pixels": self.file}, self.out, client=self.client, chunk=chunk, progress=False,
                           **options)

    def check(self, chunks=30, out=None, wanted=None):
        """Bit for bit what one process computes, and every chunk written once."""
        wanted = wanted or self.model.run(pixels=self.pixels)
        found = dask.compute(cluster.load(out or self.out), scheduler="synchronous")[0]
        self.assertEqual(set(found), set(wanted))
        for name, array in wanted.items():
            self.assertEqual((found[name].shape, found[name].dtype), (array.shape, array.dtype))
            self.assertTrue(np.array_equal(found[name].view(np.uint32), array.view(np.uint32)), name)
        self.assertEqual(sorted(self.journal(out)), list(range(chunks)))
        self.assertEqual(list(self.folder.glob("results*/**/*.part")), [])

    def journal(self, out=None):
        lines = ((out or self.out) / "journal").read_text().splitlines()
        return [json.loads(line)["chunk"] for line in lines if line.endswith("}")]


class SourcesTest(ClusterTest):
    def test_every_kind_of_input_gives_the_bits_of_one_process(self):
        self.start({}, {})
        bounds = [0, 7, 300, 301, 650, 900]
        chunks = self.folder / "chunks"
        chunks.mkdir()
        for index, (first, last) in enumerate(zip(bounds, bounds[1:])):
            np.save(chunks / f"part{index + 7}.npy", self.pixels[first:last])  # 10 comes after 9
        blocks = dask.array.from_array(self.pixels, chunks=((100, 400, 400), 8, 8))
        for number, (given, options, expected) in enumerate((
                (self.file, {"chunk": 64}, 15), (str(self.file), {}, 1), (chunks, {}, 5),
                (self.pixels[:, None], {"chunk": 100, "batch": 7}, 9),
                (np.load(self.file, mmap_mode="r"), {"chunk": 300}, 3),
                (blocks * 2 / 2, {"verify": 0.5}, 3))):
            with self.subTest(number):
                out = self.folder / f"results{number}"
                summary = cluster.run(DIGITS / "digits.json", {"pixels": given}, out, client=self.client, **options)
                self.assertEqual((summary.chunks, summary.computed), (expected, expected))
                self.check(expected, out)
                again = cluster.run(self.model, {"pixels": given}, out, client=self.client, **options)
                self.assertEqual((again.computed, again.found), (0, expected))
        # Outputs are inputs of the next run, chunk by chunk.
        with self.subTest("chained"):
            waves = waves_model(self.folder)
            with self.assertRaisesRegex(cluster.ClusterError, r"input x: has shape \(900, 1, 3\); items of \(1, 2, 3\)"):
                cluster.run(waves, {"x": self.folder / "results2/scores"}, self.folder / "other", client=self.client)
            x = np.arange(360, dtype=np.float32).reshape(60, 2, 3)
            cluster.run(waves, {"x": x}, self.folder / "resultsW", client=self.client, chunk=13, batch=4)
            cluster.run(waves, {"x": cluster.load(self.folder / "resultsW")["y"]}, self.folder / "resultsD",
                        client=self.client)
            cluster.run(waves, {"x": self.folder / "resultsW/y"}, self.folder / "resultsF", client=self.client)
            for out in ("resultsD", "resultsF"):
                self.check(5, self.folder / out, waves.run(x=waves.run(x=x)["y"]))
        self.assertEqual([*self.client.run(lambda: sum(worker_module().arrivals.values())).values()], [9, 9])

    def test_two_inputs_and_several_tables(self):
        self.start({}, {})
        model = opkit.load(MODELS / "loop")
        x = np.arange(60, dtype=np.float32).reshape(10, 2, 3)
        one = np.ones((10, 1), np.float32)
        cluster.run(model, {"x": x, "one": dask.array.from_array(one, chunks=(4, 1))}, self.out, client=self.client)
        self.check(3, wanted=model.run(x=x, one=one))

    def test_no_items(self):
        summary = cluster.run(self.model, {"pixels": self.pixels[:0]}, self.out)
        self.assertEqual(summary.chunks, 0)
        self.check(0, wanted={name: a[:0] for name, a in self.model.run(pixels=self.pixels[:2]).items()})


class ResumeTest(ClusterTest):
    def test_only_what_is_missing_or_damaged_is_computed(self):
        self.start({"log": str(self.folder / "computed")}, {"log": str(self.folder / "computed")})
        self.assertEqual(self.run_digits().computed, 30)
        before = {file: file.stat().st_mtime_ns for file in self.out.rglob("*.npy")}
        self.assertEqual(len(before), 90)

        damaged = {2, 5, 11, 17, 23, 29}
        name = "{}/{:07}.npy".format
        flipped = bytearray((self.out / name("scores", 2)).read_bytes())
        flipped[-5] ^= 4
        (self.out / name("scores", 2)).write_bytes(flipped)
        (self.out / name("logits", 5)).write_bytes((self.out / name("logits", 5)).read_bytes()[:-1])
        (self.out / name("classes", 11)).unlink()
        (self.out / name("logits", 17)).write_bytes(b"")
        shutil.copy(self.out / name("logits", 22), self.out / name("logits", 23))
        (self.out / name("scores", 40)).with_suffix(".npy.part").write_bytes(b"half")
        lines = (self.out / "journal").read_text().splitlines(True)
        lines = [line for line in lines if json.loads(line)["chunk"] != 29] + ["what is this?\n", '{"chunk": 29, "cr']
        (self.out / "journal").write_text("".join(lines))
        with self.assertRaisesRegex(cluster.ClusterError, "1 of 30 chunks are missing"):
            cluster.load(self.out)

        (self.folder / "computed").unlink()
        summary = self.run_digits()
        self.assertEqual((summary.found, summary.computed), (24, 6))
        self.assertEqual((self.folder / "computed").read_text().count("\n"), 6)
        after = {file: file.stat().st_mtime_ns for file in self.out.rglob("*.npy")}
        changed = {int(file.stem) for file in after if after[file] != before.get(file)}
        self.assertEqual(changed, damaged)
        (self.out / name("scores", 40)).with_suffix(".npy.part").unlink()
        (self.out / "journal").write_text("".join(
            line for line in (self.out / "journal").read_text().splitlines(True) if line.endswith("}\n")))
        self.assertEqual(sorted(self.journal()), sorted([*range(30), *damaged - {29}]))
        found = dask.compute(cluster.load(self.out), scheduler="synchronous")[0]
        for output, array in self.model.run(pixels=self.pixels).items():
            np.testing.assert_array_equal(found[output], array)

        (self.out / name("scores", 2)).write_bytes(flipped)
        with self.assertRaisesRegex(cluster.ClusterError, "scores/0000002.npy: the CRC-32 of its elements is"):
            cluster.load(self.out)["scores"].compute(scheduler="synchronous")

    def test_another_run_is_refused(self):
        self.run_digits(workers=1)
        waves = waves_model(self.folder)

        def refused(message, arrays=None, model=None, out=None, **options):
            with self.assertRaisesRegex(cluster.ClusterError, message):
                cluster.run(model or self.model, arrays or {"pixels": self.file}, out or self.out,
                            **{"chunk": 30, **options})

        before = {file: file.read_bytes() for file in self.out.rglob("*") if file.is_file()}
        refused(r"run.json: field batch is 256, this run has 5: these are results of another run", batch=5)
        refused(r"field bounds.1 is 30, this run has 31", chunk=31)
        refused(r"field bounds is \[0, 30, .*\.\.\., this run has \[0, 450, 900\]", chunk=450)
        refused("field model is", model=changed_model(self.model))
        refused("field model is", model=waves, arrays={"x": np.zeros((900, 2, 3))})
        refused(r"field bounds.30 is 900, this run has 899", arrays={"pixels": self.pixels[:899]})
        refused(r"field inputs.pixels.changed is \d+, this run has null", arrays={"pixels": self.pixels})
        os.utime(self.file)
        refused(r"field inputs.pixels.changed is \d+, this run has \d+")
        self.assertEqual({file: file.read_bytes() for file in self.out.rglob("*") if file.is_file()}, before)
        refused("has no run.json, but pixels.npy; give an empty folder", out=self.folder)
        (self.out / "run.json").write_text("{")
        refused("run.json: Expecting")
        (self.out / "run.json").write_text('{"format": "opkit-chunks", "formatVersion": 2}')
        refused("of a later format")
        with open(self.out / "journal", "a", encoding="utf-8") as journal:
            fcntl.flock(journal, fcntl.LOCK_EX)
            refused("another run is writing to it")

    def test_what_does_not_fit_is_named(self):
        def refused(message, arrays, **options):
            with self.assertRaisesRegex(cluster.ClusterError, message):
                cluster.run(options.pop("model", self.model), arrays, self.folder / "new", **options)
            self.assertFalse((self.folder / "new/run.json").exists())

        folder = self.folder / "chunks"
        folder.mkdir()
        refused("its inputs are pixels, not none", {})
        refused("chunks: has no .npy files", {"pixels": folder})
        refused(r"input pixels: has shape \(900, 64\)", {"pixels": self.pixels.reshape(900, 64)})
        refused(r"input pixels: has shape \(5, 900, 8, 8\)", {"pixels": np.zeros((5, 900, 8, 8), np.float32)})
        refused("missing.npy: .*No such file", {"pixels": self.folder / "missing.npy"})
        (folder / "0.npy").write_bytes(self.file.read_bytes()[:-4])
        refused("0.npy: mmap length is greater than file size", {"pixels": folder})
        np.save(folder / "0.npy", self.pixels[:5])
        np.save(folder / "1.npy", self.pixels[:5, :4])
        refused(r"1.npy: has shape \(5, 4, 8\) and type <f4, unlike 0.npy", {"pixels": folder})
        np.save(folder / "1.npy", np.array(["text"]))
        refused("1.npy: has shape .1,. and type <U4; numbers", {"pixels": folder})
        (folder / "1.npy").unlink()
        refused("has chunks of its own; chunk=5 is for inputs without", {"pixels": folder}, chunk=5)
        refused("only the first axis may be split", {"pixels": dask.array.from_array(self.pixels, chunks=(9, 4, 8))})
        loop = opkit.load(MODELS / "loop")
        refused("different numbers of items: x 4, one 5", {"x": np.zeros((4, 2, 3)), "one": np.zeros((5, 1))}, model=loop)
        refused("inputs x and one are cut into different chunks", {
            "x": dask.array.zeros((4, 2, 3), chunks=(2, 2, 3)), "one": dask.array.zeros((4, 1), chunks=(3, 1))},
            model=loop)
        refused("verify is a share from 0 to 1, not 5", {"pixels": self.file}, verify=5)
        refused("at least 1", {"pixels": self.file}, chunk=0)


class VerifyTest(ClusterTest):
    def test_a_worker_that_flips_bits_is_outvoted_and_named(self):
        self.start({}, {}, {"flip": 3})
        suspect = self.address(self.workers[2])
        summary = self.run_digits(verify=1)
        self.check()
        self.assertEqual(summary.verified, 30)
        self.assertEqual(set(summary.suspects), {suspect})
        self.assertEqual(summary.suspects[suspect], len(summary.differences))
        self.assertGreaterEqual(len(summary.differences), 2)
        for difference in summary.differences:
            self.assertEqual(difference.kind, "fault")
            self.assertEqual([who.worker for who in difference.losers], [suspect])
            self.assertEqual(len({who.worker for who in difference.winners} - {suspect}), 2)
            self.assertRegex(difference.element, r"^classes\[15, 0, 0\]$")  # the middle one of 30 x 1 x 3
            left, right = (int(bits, 16) for bits in re.findall(r"\(([0-9a-f]{8})\)", difference.values))
            self.assertEqual(left ^ right, 8)
            wanted = self.model.run(pixels=self.pixels)["classes"][30 * difference.chunk + 15, 0, 0]
            self.assertEqual(left, int(wanted.view(np.uint32)))
            self.assertFalse(difference.inputs)
        text = str(summary)
        processor = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text()).group(1)
        self.assertRegex(text, rf"(?m)^    other  {suspect} \({re.escape(processor)}, libm glibc \d")
        self.assertRegex(text, rf"(?m)^suspect  {suspect}: \d+ chunks differ")
        journal = (self.out / "journal").read_text()
        self.assertEqual(journal.count('"difference"'), len(summary.differences))

    def test_two_workers_and_the_caller_as_the_third(self):
        self.start({}, {"flip": 1})
        suspect = self.address(self.workers[1])
        summary = self.run_digits(chunk=90, verify=1)
        self.check(10)
        self.assertEqual(dict(summary.suspects), {suspect: 10})
        self.assertIn("collector", {who.worker for difference in summary.differences for who in difference.winners})

    def test_a_worker_does_not_agree_with_itself(self):
        """One that errs in the same way before and after its restart, under two addresses."""
        self.start({"flip": 1, "sleep": 0.1}, nanny=True)
        real, addresses = collector._Job.judge, []

        def judge(job, chunk, result):
            if isinstance(result, worker.Computed) and not addresses:
                addresses.append(result.machine.worker)
                self.workers[0].end()
                self.workers[0] = self.cluster.start_worker({"flip": 1}, nanny=True)
                wait_until(lambda: len(self.client.scheduler_info()["workers"]) == 1 and
                           addresses[0] not in self.client.scheduler_info()["workers"], 60)
                job.tick_due = 0
            real(job, chunk, result)

        with mock.patch.object(collector._Job, "judge", judge):
            self.assertRaisesRegex(cluster.ClusterError, "no two of these agree", self.run_digits, chunk=900, verify=1)
        self.assertEqual(self.journal(), [])

    def test_the_share_that_was_asked_for(self):
        self.start({}, {})
        summary = self.run_digits(verify=0.05)
        self.assertEqual((summary.verified, summary.differences), (2, []))  # 1.5 chunks, rounded up
        checked = [line for line in map(json.loads, (self.out / "journal").read_text().splitlines())
                   if len(set(line["workers"])) == 2]
        self.assertEqual(len(checked), 2)
        self.check()

    def test_a_single_worker_is_checked_by_the_caller(self):
        self.start({"flip": 2})
        with mock.patch.object(collector, "library", side_effect=opkit.OpkitError("no library")):
            with self.assertRaisesRegex(cluster.ClusterError, "no other worker to compare with, and here no library"):
                self.run_digits(verify=1)
        with self.assertRaisesRegex(cluster.ClusterError, "no two of these agree, and there is nobody else to ask: tcp"):
            self.run_digits(verify=1)
        right = set(self.journal())
        self.assertEqual(len(right), 15)
        wanted = self.model.run(pixels=self.pixels)
        for index in right:
            part = np.load(self.out / f"classes/{index:07}.npy")
            np.testing.assert_array_equal(part, wanted["classes"][30 * index:30 * index + 30])

    def test_damage_on_the_way_is_seen_without_a_second_computation(self):
        self.start({"transit": 4}, {})
        summary = self.run_digits()
        self.check()
        self.assertEqual(summary.differences, [])
        again = [why for why in summary.again if "damaged on its way" in why]
        self.assertEqual(len(again), 1)
        self.assertIn(self.address(self.workers[0]), again[0])

    def test_another_libm_is_no_fault(self):
        other = build_other_libm(self.folder)
        self.start({}, {})
        self.workers.append(self.cluster.start_worker({}, LD_PRELOAD=str(other)))
        self.client.wait_for_workers(3, timeout=60)
        odd = self.address(self.workers[2])
        model = waves_model(self.folder)
        x = np.linspace(-9, 9, 360, dtype=np.float32).reshape(60, 2, 3)
        summary = cluster.run(model, {"x": x}, self.out, client=self.client, chunk=2, verify=1)
        self.assertEqual({difference.kind for difference in summary.differences}, {"libm"})
        self.assertEqual({who.worker for d in summary.differences for who in d.losers}, {odd})
        self.assertEqual(dict(summary.suspects), {})
        self.assertIn("libm     the workers do not share one", str(summary))
        self.check(30, wanted=model.run(x=x))
        probes = {who.worker: who.libm for who in summary.workers}
        self.assertNotEqual(probes.pop(odd), worker.libm_probe())
        self.assertEqual(set(probes.values()), {worker.libm_probe()})

        screening = cluster.screen(self.client)
        self.assertTrue(screening.passed)
        self.assertEqual(screening.libm, {odd: ["Sin"]})
        # The digits model calls no libm: the same machine is at fault if it errs there.
        self.workers[2].end()
        self.workers[2] = self.cluster.start_worker({"flip": 1}, LD_PRELOAD=str(other))
        wait_until(lambda: len(self.client.scheduler_info()["workers"]) == 3)
        summary = cluster.run(self.model, {"pixels": self.file}, self.folder / "results2", client=self.client, chunk=90,
                              verify=1)
        self.assertEqual(set(summary.suspects), {self.address(self.workers[2])})
        self.assertEqual({difference.kind for difference in summary.differences}, {"fault"})

    def test_who_is_right(self):
        """The judge alone, on results made by hand."""
        def result(name, libm, *elements):
            machine = worker.Machine(name, "host", "cpu", "1", libm, "lib")
            return worker.Computed(machine, {"y": np.array(elements, np.uint32).view(np.float32)}, {}, {"x": 1})

        quiet, other_sign = 0x7FC00000, 0xFFC00001  # NaNs with unlike bits are the same result
        groups = collector._group([result("a", "1", quiet, 5), result("b", "1", other_sign, 5)])
        self.assertEqual([len(group) for group in groups], [2])
        groups = collector._group([result("a", "1", 0, 5), result("b", "1", 0x80000000, 5), result("c", "1", 0, 5)])
        told = collector._difference(3, groups, True)
        self.assertEqual((told.chunk, told.kind, told.element), (3, "fault", "y[0]"))
        self.assertEqual(([m.worker for m in told.winners], [m.worker for m in told.losers]), (["a", "c"], ["b"]))
        for matters, libms, kind, losers in ((True, "112", "libm", ["c"]), (False, "112", "fault", ["c"]),
                                             (True, "1122", "libm", ["c", "d"]), (True, "1121", "fault", ["d"])):
            results = [result(*pair, 7) for pair in zip("ab", libms)] + [
                result(name, libm, 9 + i) for i, (name, libm) in enumerate(zip("cd", libms[2:]))]
            told = collector._difference(0, collector._group(results), matters)
            self.assertEqual((told.kind, [m.worker for m in told.losers]), (kind, losers))


class FaultsTest(ClusterTest):
    def test_workers_that_die(self):
        self.start({"sleep": 0.02}, {"sleep": 0.02}, {"kill": 4, "sleep": 0.02})
        victim = self.workers[0]
        threading.Timer(0.5, lambda: os.kill(victim.pid, signal.SIGKILL)).start()
        summary = self.run_digits(verify=0.3)
        self.check()
        self.assertEqual(victim.wait(), -signal.SIGKILL)
        self.assertEqual(self.workers[2].wait(), -signal.SIGKILL)
        self.assertEqual(summary.differences, [])

    def test_the_only_worker_dies_and_comes_back(self):
        blocks = dask.array.from_array(self.pixels, chunks=(30, 8, 8))
        for number, (given, chunk) in enumerate([(self.pixels, {"chunk": 30})] + LONG * [
                (self.file, {"chunk": 30}), (blocks, {})]):
            with self.subTest(number):
                self.start({"kill": 6}, nanny=True)
                out = self.folder / f"results{number}"
                summary = cluster.run(self.model, {"pixels": given}, out, client=self.client, verify=0.1, **chunk)
                self.check(30, out)
                self.assertTrue((self.folder / "kill").exists())
                (self.folder / "kill").unlink()
                self.client.close()
                self.cluster.close()

    def test_workers_out_of_memory(self):
        self.start({"allocate": 3, "n_bytes": 500 << 20}, {"starve": 5}, nanny=True, memory="400MB")
        summary = self.run_digits()
        self.check()
        self.assertTrue((self.folder / "allocate").exists())  # this one was ended by its nanny
        self.assertTrue(any("MemoryError" in why or "Unable to allocate" in why for why in summary.again), summary.again)

    def test_a_chunk_that_fails_everywhere_is_named_and_the_others_are_done(self):
        self.start({"starve": 1}, {"starve": 1})
        with self.assertRaisesRegex(cluster.ClusterError, r"results: chunk 0 and 9 more, the last 9, could not be "
                                    r"computed: items 0 to 90, tcp://127.0.0.1:\d+ .*Unable to allocate"):
            self.run_digits(chunk=90)
        self.assertEqual(self.journal(), [])
        for process in self.workers:
            process.end()
        self.cluster.start_worker()
        bad = self.folder / "chunks"
        bad.mkdir()
        for index in range(3):
            np.save(bad / f"{index}.npy", self.pixels[:10])
        summary_before = os.stat(bad / "1.npy").st_mtime_ns
        client = self.client
        wait_until(lambda: len(client.scheduler_info()["workers"]) == 1)
        real = sources.Folder.piece

        def damaged(source, client, index, first, last):
            (bad / "1.npy").write_bytes(b"no array")
            os.utime(bad / "1.npy", ns=(summary_before, summary_before))
            return real(source, client, index, first, last)

        out = self.folder / "results2"
        with mock.patch.object(sources.Folder, "piece", damaged):
            with self.assertRaisesRegex(cluster.ClusterError, r"chunk 1 could not be computed: .*chunks/1.npy"):
                cluster.run(self.model, {"pixels": bad}, out, client=client)
        self.assertEqual(sorted(self.journal(out)), [0, 2])

    def test_a_full_disk(self):
        self.start({}, {})
        real, files = os.fsync, []

        def full(descriptor):
            files.append(os.readlink(f"/proc/self/fd/{descriptor}"))
            if len(files) > 20:
                raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
            real(descriptor)

        with mock.patch.object(store.os, "fsync", full):
            with self.assertRaisesRegex(cluster.ClusterError, r"results/\w+/\d+.npy: No space left on device; 6 of 30 "
                                        "chunks are done, the same call computes the rest"):
                self.run_digits()
        self.assertEqual(len(self.journal()), 6)
        self.assertEqual(list(self.out.rglob("*.part")), [])
        wait_until(lambda: not any(self.client.processing().values()))  # nothing goes on in the background
        summary = self.run_digits()
        self.assertEqual((summary.found, summary.computed), (6, 24))
        self.check()

    def test_a_really_full_disk(self):
        """A file system of its own for the collector, where user name spaces allow that."""
        mount = ["unshare", "-rm", "sh", "-c"]
        disk = self.folder / "disk"
        disk.mkdir()
        try:
            subprocess.run([*mount, f"mount -t tmpfs -o size=64k none {disk}"], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError):
            self.skipTest("no file system can be mounted here without special rights")
        self.start({}, {})
        command = (f"{sys.executable} -m opkit.cluster run {DIGITS}/digits --input pixels={self.file} --chunk 30 "
                   f"--scheduler {self.cluster.address} --output {disk}/results")
        script = (f"mount -t tmpfs -o size=96k none {disk}; {command}; echo first $?; cp -r {disk}/results {self.out}; "
                  f"mount -o remount,size=4m {disk}; {command}; echo second $?; rm -r {self.out}; "
                  f"cp -r {disk}/results {self.out}")
        done = subprocess.run([*mount, script], capture_output=True, text=True,
                              env={**os.environ, "PYTHONPATH": str(SOURCE / "python")})
        self.assertRegex(done.stderr, r"No space left on device; (\d+) of 30 chunks are done", done.stdout)
        self.assertRegex(done.stdout, r"first 1\n30 chunks: (\d+) computed, (\d+) found done")
        self.assertIn("second 0", done.stdout)
        found = int(re.search(r"(\d+) found", done.stdout).group(1))
        self.assertEqual(found, int(re.search(r"; (\d+) of 30", done.stderr).group(1)))
        self.assertGreater(found, 0)
        self.check()

    def test_a_journal_without_room(self):
        folder = store.Store(self.out, {"outputs": {"y": [1]}, "bounds": [0, 2, 4]})
        array = np.array([[1], [2]], np.float32)
        record = {"chunk": 0, "crc": {"y": store.crc(array)}}
        real = folder._journal

        class Short:
            fileno = real.fileno

            def write(self, line):
                return real.write(line[:9])

        folder._journal = Short()
        self.assertRaises(OSError, folder.write, record, {"y": array})
        folder._journal = real
        self.assertEqual((self.out / "journal").read_bytes(), b"")
        self.assertEqual(folder.done(), {})
        folder.write(record, {"y": array})
        self.assertEqual(folder.done(), {0: record})
        folder.close()

    def test_the_scheduler_is_restarted(self):
        self.start({"sleep": 0.2}, {"sleep": 0.2})

        def restart():
            self.cluster.scheduler.end()
            for process in self.workers:
                process.end()
            time.sleep(0.5)
            self.cluster.start_scheduler()
            self.workers = [self.cluster.start_worker() for _ in range(2)]

        timer = threading.Timer(0.7, restart)
        timer.start()
        summary = self.run_digits(verify=0.2)
        timer.join()
        self.check()
        self.assertGreater(sum(summary.again.values()), 0)  # it was in the middle of something

    def test_the_scheduler_stays_away(self):
        self.start({"sleep": 0.1})
        self.connect(1, timeout=3)
        threading.Timer(0.7, self.cluster.scheduler.end).start()
        with self.assertRaisesRegex(cluster.ClusterError, rf"{self.cluster.address}: the scheduler went away; \d+ of 30 "
                                    "chunks are done, the same call computes the rest"):
            self.run_digits(patience=2)
        self.client.close(timeout=1)
        self.cluster.close()
        self.start({})
        summary = self.run_digits()
        self.assertEqual(summary.found + summary.computed, 30)
        self.check()

    def test_no_workers(self):
        self.start()
        with self.assertRaisesRegex(cluster.ClusterError, "no worker for 1 s"):
            self.run_digits(patience=1)


class TrafficTest(ClusterTest):
    def test_the_model_travels_once_and_results_wait_for_the_disk(self):
        log = self.folder / "computed"
        self.start({"log": str(log)}, {"log": str(log)}, {"log": str(log)})
        real, ahead = store.Store.write, []

        def slow(folder, record, arrays):
            time.sleep(0.02)
            ahead.append(log.read_text().count("\n") - len(ahead))
            real(folder, record, arrays)

        with mock.patch.object(store.Store, "write", slow):
            self.run_digits(in_flight=5)
        self.check()
        self.assertLessEqual(max(ahead), 5)
        self.assertGreaterEqual(max(ahead), 2)
        self.assertEqual([*self.client.run(lambda: [*worker_module().arrivals.values()]).values()], [[1]] * 3)

    def test_nothing_listens_outside_loopback(self):
        self.start({})
        ours = [self.cluster.scheduler.pid, self.workers[0].pid]
        with cluster.local_client(1) as client:
            ours += [os.getpid(), *client.run(os.getpid).values()]
            places = [(pid, at.laddr) for pid in ours for at in psutil.Process(pid).connections("inet")
                      if at.status == "LISTEN"]
        self.assertEqual({pid for pid, _ in places}, set(ours))
        self.assertEqual({address.ip for _, address in places}, {"127.0.0.1"})

    def test_a_damaged_model_is_not_used(self):
        import pickle

        parcel = pickle.loads(pickle.dumps(worker.Parcel(self.model)))
        self.assertEqual(parcel.digest, worker.model_digest(self.model))
        whole = pickle.dumps(worker.Parcel(self.model))
        at = whole.index(self.model.bytes[1000:1100].tobytes())
        with self.assertRaisesRegex(opkit.OpkitError, "damaged on its way"):
            pickle.loads(whole[:at] + bytes([whole[at] ^ 1]) + whole[at + 1:])


class ScreenTest(ClusterTest):
    def test_a_worker_that_computes_wrongly(self):
        self.start({}, {"operator": "Gemm"}, {})
        guilty = self.address(self.workers[1])
        screening = cluster.screen(self.client, rounds=2)
        self.assertEqual(screening.faults, {guilty: ["Gemm"]})
        self.assertEqual((screening.libm, screening.silent, screening.passed), ({}, {}, False))
        self.assertEqual((len(screening.machines), screening.operators), (4, 72))
        self.assertRegex(str(screening), rf"FAULT    {guilty} \(.*\): Gemm")
        with contextlib.redirect_stdout(io.StringIO()) as out:
            self.assertEqual(command("screen", "--scheduler", self.cluster.address), 1)
        self.assertIn("FAULTS", out.getvalue())

    def test_layers(self):
        hashes = layers.self_test()
        self.assertEqual(set(hashes), set(opkit.OPERATORS) - {"Custom"})
        self.assertEqual(layers.self_test(), hashes)
        real = layers.run_operator
        for name in hashes:  # a flipped bit in any output of any layer shows in that operator and no other
            def wrong(operator, *rest):
                result = real(operator, *rest)
                if operator == name:
                    result.outputs[-1].reshape(-1).view(np.uint32)[-1] ^= 1
                return result

            with mock.patch.object(layers, "run_operator", wrong):
                found = layers.self_test()
            self.assertEqual([other for other in hashes if hashes[other] != found[other]], [name])
        with mock.patch.dict(layers.OPERATORS, {"New": "LayerAttrHead"}):
            self.assertRaisesRegex(NotImplementedError, "no self-test layer for New", layers.self_test)

    def test_layers_that_numpy_knows(self):
        """Layers are what they are meant to be: nothing is hashed that was never written."""
        count = 0
        for name, inputs, shapes, attributes in [*layers._element_wise(), *layers._matrix(), *layers._movement()]:
            x = [getattr(i, "values", i) for i in inputs]
            wanted = {"Neg": lambda: -x[0], "MatMul": lambda: x[0] @ x[1], "Permute": lambda: x[0].T,
                      "Where": lambda: np.where(x[0], x[1], x[2]), "Sqrt": lambda: np.sqrt(x[0]),
                      "Gather": lambda: x[0][x[1].astype(int)], "Det": lambda: np.linalg.det(x[0].astype(float)),
                      "OneHot": lambda: np.where(x[0][:, None] == np.arange(9), 1, -1),
                      "GatherElements": lambda: np.take_along_axis(x[0], x[1].astype(int), 1)}.get(name)
            if wanted:
                result = opkit.run_operator(name, inputs, shapes, attributes).outputs[0]
                np.testing.assert_allclose(result, wanted(), 1e-3, 1e-4)
                count += 1
        self.assertEqual(count, 9)

    def test_two_against_each_other(self):
        def heard(*hashes):
            return [(worker.Machine(name, "", "", "", libm, ""), [{"Gemm": one[0], "Sin": one[1]} for one in rounds])
                    for name, libm, *rounds in hashes]

        for machines, faults, libm in (
                ((("a", "1", (5, 6)), ("b", "1", (4, 6))), {"a": ["Gemm"], "b": ["Gemm"]}, {}),
                ((("a", "1", (5, 6)), ("b", "2", (5, 7))), {}, {"a": ["Sin"], "b": ["Sin"]}),
                ((("a", "1", (5, 6)), ("b", "2", (5, 7)), ("c", "1", (5, 6))), {}, {"b": ["Sin"]}),
                ((("a", "1", (5, 6)), ("b", "2", (4, 6)), ("c", "1", (5, 6))), {"b": ["Gemm"]}, {}),
                ((("a", "1", (5, 6)), ("b", "1", (5, 6), (5, 8)), ("c", "1", (5, 6))), {"b": ["Sin"]}, {})):
            result = cluster.Screening()
            screen_module()._compare(heard(*machines), result)
            self.assertEqual((result.faults, result.libm), (faults, libm))

    def test_a_worker_without_the_library(self):
        self.start({})
        self.cluster.start_worker({}, OPKIT_LIBRARY="/nowhere/libopkit.so")
        self.client.wait_for_workers(2, timeout=60)
        screening = cluster.screen(self.client)
        self.assertEqual(len(screening.silent), 1)
        self.assertIn("/nowhere/libopkit.so", str(screening))
        self.assertFalse(screening.passed)


class CommandTest(ClusterTest):
    def test_one_command_here_and_one_more_word_on_a_cluster(self):
        arguments = ["run", str(DIGITS / "digits"), "--input", f"pixels={self.file}", "--output", str(self.out),
                     "--chunk", "100", "--verify", "0.2"]
        with contextlib.redirect_stdout(io.StringIO()) as out:
            self.assertEqual(command(*arguments, "--workers", "2"), 0)
        self.assertRegex(out.getvalue(), r"^9 chunks: 9 computed, 0 found done, 2 computed by more than one worker")
        self.check(9)
        (self.out / "scores/0000003.npy").unlink()
        self.start({})
        with contextlib.redirect_stdout(io.StringIO()) as out:
            self.assertEqual(command(*arguments, "--scheduler", self.cluster.address), 0)
        self.assertRegex(out.getvalue(), r"^9 chunks: 1 computed, 8 found done")
        with contextlib.redirect_stderr(io.StringIO()) as err:
            self.assertEqual(command(*arguments[:-2], "--input", "y=z.npy", "--workers", "1"), 1)
        self.assertIn("opkit.cluster: ", err.getvalue())

    def test_the_bar(self):
        with contextlib.redirect_stdout(io.StringIO()) as out:
            cluster.run(self.model, {"pixels": self.file}, self.out, chunk=300, workers=1, progress=True)
        self.assertIn("100% Completed", out.getvalue())


@unittest.skipUnless(LONG, "OPKIT_TEST_LONG=1 runs it")
class LongTest(ClusterTest):
    items = 40000

    def test_a_thousand_chunks_under_all_faults_at_once(self):
        self.start({"sleep": 0.02}, {"sleep": 0.02}, {"flip": 7}, {"transit": 9, "starve": 50}, nanny=True, memory="2GB")
        wanted = self.model.run(pixels=self.pixels)
        ended, rounds = threading.Event(), []

        def break_things():
            while not ended.wait(4):
                rounds.append(len(rounds))
                if len(rounds) % 5 == 3:
                    self.cluster.scheduler.end()
                    for process in self.workers:
                        process.end()
                    self.cluster.start_scheduler()
                    self.workers = [self.cluster.start_worker(fault, nanny=True) for fault in (
                        {"sleep": 0.02}, {"sleep": 0.02}, {"flip": 7}, {"transit": 9, "starve": 50})]
                else:
                    victim = self.workers[len(rounds) % 2]
                    victim.end()
                    self.workers[len(rounds) % 2] = self.cluster.start_worker({"sleep": 0.02}, nanny=True)

        thread = threading.Thread(target=break_things)
        thread.start()
        try:
            summary = self.run_digits(chunk=40, verify=1, retries=9)
        finally:
            ended.set()
            thread.join()
        print(f"\n{len(rounds)} times something was killed\n{summary}"[:6000])
        self.check(1000, wanted=wanted)
        self.assertEqual((summary.computed, summary.verified), (1000, 1000))
        self.assertGreater(len(rounds), 3)
        self.assertGreater(len(summary.differences), 20)

        random = np.random.default_rng(5)
        damaged = sorted(int(index) for index in random.choice(1000, 60, replace=False))
        for index in damaged:
            file = self.out / f"{random.choice(['scores', 'logits', 'classes'])}/{index:07}.npy"
            content = bytearray(file.read_bytes())
            content[random.integers(128, len(content))] ^= 1 << random.integers(8)
            file.write_bytes(content)
        again = self.run_digits(chunk=40, verify=1, retries=9)
        self.assertEqual((again.found, again.computed), (940, 60))
        found = dask.compute(cluster.load(self.out), scheduler="synchronous")[0]
        for name, array in wanted.items():
            np.testing.assert_array_equal(found[name].view(np.uint32), array.view(np.uint32))


class PageTest(unittest.TestCase):
    def test_the_page_shows_what_happens(self):
        """Every python block of docs/scaling.md runs, in order, in a process of its own."""
        page = (SOURCE / "docs/scaling.md").read_text()
        blocks = re.findall(r"```python\n(.*?)```", page, re.DOTALL)
        self.assertGreaterEqual(len(blocks), 1)
        with tempfile.TemporaryDirectory() as folder:
            for suffix in (".json", ".bin"):
                shutil.copy(DIGITS / ("digits" + suffix), folder)
            np.save(folder + "/pixels.npy", np.load(DIGITS / "images.npy") / 16)
            for number, block in enumerate(blocks):
                script = pathlib.Path(folder) / f"block{number}.py"
                script.write_text(block)
                done = subprocess.run([sys.executable, script], cwd=folder, capture_output=True, text=True,
                                      env={**os.environ, "PYTHONPATH": str(SOURCE / "python")})
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn("1 chunks: 1 computed", done.stdout)


def command(*arguments):
    from opkit.cluster.__main__ import main
    return main(list(arguments))


def worker_module():
    from opkit.cluster import worker
    return worker


def screen_module():
    return sys.modules["opkit.cluster.screen"]


def wait_until(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.05)


def waves_model(folder):
    """y = sin(x + 10): the small model with padded rows, under another name of its last layer."""
    buffer = (MODELS / "batched.bin").read_bytes().replace(b"NegOpkitForward", b"SinOpkitForward")
    manifest = json.loads((MODELS / "batched.json").read_text())
    return opkit.Model(buffer, {**manifest, "bufferCrc32": zlib.crc32(buffer)}, "waves")


def changed_model(model):
    """The same, with one bit of one weight changed."""
    manifest = json.loads((DIGITS / "digits.json").read_text())
    buffer = bytearray(model.bytes.tobytes())
    buffer[manifest["constants"][0]["offset"]] ^= 1
    return opkit.Model(bytes(buffer), {**manifest, "bufferCrc32": zlib.crc32(buffer)}, "changed")


def build_other_libm(folder):
    """A library with a sinf of its own, one unit in the last place away from the usual one for a part of the floats."""
    (folder / "sine.c").write_text("""
        #define _GNU_SOURCE
        #include <dlfcn.h>
        #include <math.h>
        float sinf(float x)
        {
            float (*real)(float) = (float (*)(float))dlsym(RTLD_NEXT, "sinf");
            const float y = real(x);
            return y > 0.25f ? nextafterf(y, 2.0f) : y;
        }
    """)
    subprocess.run([os.environ.get("CC", "cc"), "-shared", "-fPIC", "-O1", "-fno-builtin", "sine.c", "-o", "libsine.so",
                    "-ldl", "-lm"], cwd=folder, check=True)
    return folder / "libsine.so"


if __name__ == "__main__":
    unittest.main(verbosity=2)
