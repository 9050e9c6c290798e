"""python3 -m opkit.cluster: runs a model, or screens workers, here or on a cluster."""

from __future__ import annotations

import argparse
import contextlib
import sys

from distributed import Client

from opkit import cluster
from opkit.library import OpkitError


def main(arguments: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m opkit.cluster", description=__doc__)
    commands = parser.add_subparsers(dest="command", required=True)
    run = commands.add_parser("run", help="run a model on inputs of any size")
    run.add_argument("model", help="the model: NAME, NAME.json or NAME.bin")
    run.add_argument("--input", action="append", required=True, metavar="NAME=FILE.npy|FOLDER", help="repeat per input")
    run.add_argument("--output", required=True, metavar="FOLDER", help="results, a folder per output; resumed if there")
    run.add_argument("--verify", type=float, default=0.0, metavar="SHARE", help="of the chunks to compute twice")
    run.add_argument("--batch", type=int, metavar="N", help="items per request")
    run.add_argument("--chunk", type=int, metavar="N", help="items per chunk")
    screen = commands.add_parser("screen", help="compare what the workers compute, operator by operator")
    screen.add_argument("--rounds", type=int, default=1, metavar="N", help="how often")
    for command in (run, screen):
        command.add_argument("--scheduler", metavar="ADDRESS", help="of a cluster; by default workers are started here")
        command.add_argument("--workers", type=int, metavar="N", help="to start here; by default one per processor")
    options = parser.parse_args(arguments)
    try:
        with contextlib.ExitStack() as stack:
            client = stack.enter_context(Client(options.scheduler)) if options.scheduler else None
            if options.command == "screen":
                client = client or stack.enter_context(cluster.local_client(options.workers))
                screening = cluster.screen(client, rounds=options.rounds)
                print(screening)
                return 0 if screening.passed else 1
            inputs = dict(text.partition("=")[::2] for text in options.input)
            summary = cluster.run(options.model, inputs, options.output, client=client, workers=options.workers,
                                  verify=options.verify, batch=options.batch, chunk=options.chunk)
            print(summary)
            return 1 if summary.suspects else 0
    except (OpkitError, OSError) as error:
        print(f"opkit.cluster: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
