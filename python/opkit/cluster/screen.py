"""Finds machines that compute wrongly: the same layers on every worker, and who stands alone with what they leave."""

from __future__ import annotations

import time
from collections import Counter
from dataclasses import dataclass, field

from distributed import Client

from opkit.cluster.layers import self_test
from opkit.cluster.store import ClusterError
from opkit.cluster.worker import LIBM_OPERATORS, Machine, machine
from opkit.library import OpkitError


@dataclass
class Screening:
    """What screen() found. print() shows it.

    machines  every worker, and the caller as "collector"
    faults    operators, by worker, that left something else than the majority did, or than the same worker before
    libm      the same where it is put down to another libm: an operator that calls it, on a worker whose probe differs
    silent    workers that gave no answer, with the reason
    """
    machines: list[Machine] = field(default_factory=list)
    faults: dict[str, list[str]] = field(default_factory=dict)
    libm: dict[str, list[str]] = field(default_factory=dict)
    silent: dict[str, str] = field(default_factory=dict)
    rounds: int = 0
    operators: int = 0
    seconds: float = 0.0

    @property
    def passed(self) -> bool:
        return not self.faults and not self.silent

    def __str__(self) -> str:
        names = {who.worker: str(who) for who in self.machines}
        lines = [f"{len(self.machines)} processes, {self.operators} operators, {self.rounds} rounds, "
                 f"{self.seconds:.1f} s: " + ("all workers agree" if self.passed and not self.libm else
                                              "no faults" if self.passed else "FAULTS")]
        lines += [f"ok       {names[name]}" for name in names if name not in {**self.faults, **self.libm}]
        lines += [f"libm     {names[name]}: {', '.join(found)}" for name, found in self.libm.items()]
        lines += [f"FAULT    {names[name]}: {', '.join(found)}" for name, found in self.faults.items()]
        lines += [f"SILENT   {name}: {why}" for name, why in self.silent.items()]
        return "\n".join(lines)


def screen(client: Client, *, rounds: int = 1, local: bool = True) -> Screening:
    """Runs self-test layers of all operators on every worker and compares what they leave, bit for bit.

    rounds  how often; more of them make a burn-in
    local   the calling process takes part, as one voice more; without libopkit.so it stays out

    The majority counts, among the workers with the same libm first. Where two stand against each other and nobody else
    is there to decide, both are named.
    """
    start = time.monotonic()
    answers = client.run(work, rounds, on_error="return")
    if not answers:
        raise ClusterError(f"{client.scheduler.address}: there are no workers to screen")
    result = Screening(rounds=rounds)
    result.silent = {name: f"{type(a).__name__}: {a}" for name, a in answers.items() if isinstance(a, BaseException)}
    heard = [answer for answer in answers.values() if not isinstance(answer, BaseException)]
    if local:
        try:
            heard.append(work(rounds))
        except OpkitError:
            pass
    result.machines = [who for who, _ in heard]
    result.operators = len(heard[0][1][0]) if heard else 0
    _compare(heard, result)
    result.seconds = time.monotonic() - start
    return result


def work(rounds: int) -> tuple[Machine, list[dict[str, int]]]:
    """On a worker: who it is, and the hashes of every round."""
    return machine(), [self_test() for _ in range(rounds)]


def _compare(heard: list[tuple[Machine, list[dict[str, int]]]], result: Screening) -> None:
    for name in heard[0][1][0] if heard else ():
        everyone = _majority([hashes[0][name] for _, hashes in heard])
        for who, hashes in heard:
            peers = [theirs[0][name] for one, theirs in heard if one.libm == who.libm]
            other_libm = name in LIBM_OPERATORS and len(peers) < len(heard)
            right = _majority(peers) if other_libm else everyone
            if any(one[name] not in right for one in hashes) or len(right) > 1:
                result.faults.setdefault(who.worker, []).append(name)
            elif hashes[0][name] not in everyone or len(everyone) > 1:
                result.libm.setdefault(who.worker, []).append(name)


def _majority(hashes: list[int]) -> set[int]:
    """The most frequent hash; several when none is ahead."""
    counts = Counter(hashes)
    return {value for value, count in counts.items() if count == max(counts.values())}
