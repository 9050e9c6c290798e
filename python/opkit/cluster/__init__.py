"""Models on many workers at once: the same bits as from one process, and machines that get them wrong found out.

    from opkit import cluster

    if __name__ == "__main__":
        summary = cluster.run("digits", {"pixels": "pixels.npy"}, "results", verify=0.05)
        print(summary)

starts workers on this machine, one per processor. `client=Client("tcp://head:8786")` instead sends the work to a
cluster of Dask distributed that is already there; nothing else changes. On the command line it is
`python3 -m opkit.cluster run digits --input pixels=pixels.npy --output results`, with `--scheduler tcp://head:8786`.

The items of the inputs go through in chunks. A chunk is computed by one worker, one request per thread at a time, comes
back with the CRC that the worker took of it, and is written by the process that called run(); a call that finds results
of the same run computes only what is missing or damaged. load() opens results as Dask arrays.

`verify=0.05` has one chunk in twenty computed by a second worker. Workers leave the same bits, so that a difference
means a fault, or another libm; a third computation decides. screen() runs layers of every operator on every worker and
compares what they leave: for machines that have yet to earn trust.

This package needs python3-dask and python3-distributed; the rest of opkit does without them.
"""

from opkit.cluster.collector import Difference, Summary, local_client, run
from opkit.cluster.screen import Screening, screen
from opkit.cluster.store import ClusterError, load

__all__ = ["ClusterError", "Difference", "Screening", "Summary", "load", "local_client", "run", "screen"]
