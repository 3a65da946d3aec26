#!/usr/bin/python3
"""How long a GET takes while the agent is idle, and while copies by TFTP run without a break.

Run it in the lab: scripts/lab.sh exec -- bench/latency.py [--seconds N] [--rows N]

The GETs ask for sysUpTime over SNMPv2c, one at a time, from one socket, so that the start of a
command is not measured. The two states take turns. With --rows that many copy requests wait in the
table meanwhile, and the line "activation" shows how long the SET of an activation took."""

import argparse
import multiprocessing
import random
import statistics
import time

from copies import back_up
from manager import SYS_UP_TIME, Manager

PAUSE = 0.001
TURN = 1.0  # seconds of either state


def copies(wanted, activations):
    """Backs up without a break, while `wanted` is set."""
    manager = Manager()
    while True:
        wanted.wait()
        activations.append(back_up(manager))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=int, default=30,
                        help="of both states together (default %(default)s)")
    parser.add_argument("--rows", type=int, default=0, help="waiting requests (default: none)")
    options = parser.parse_args()
    manager = Manager()
    manager.create(random.sample(range(1, 2**31), options.rows))

    with multiprocessing.Manager() as shared:
        wanted, activations = shared.Event(), shared.list()
        copier = multiprocessing.Process(target=copies, daemon=True,
                                         args=(wanted, activations))
        copier.start()
        times = {"idle": [], "copies run": []}
        for _ in range(max(1, round(options.seconds / 2 / TURN))):
            for state, seconds in times.items():
                (wanted.set if state == "copies run" else wanted.clear)()
                time.sleep(0.1)
                until = time.monotonic() + TURN
                while time.monotonic() < until:
                    seconds.append(manager.get(SYS_UP_TIME)[1] * 1000)
                    time.sleep(PAUSE)
        copier.terminate()
        times["activation"] = [seconds * 1000 for seconds in activations]

    print(f"{'milliseconds':16} {'number':>8} {'median':>8} {'p99':>8} {'greatest':>8}")
    p99 = {}
    for state, seconds in times.items():
        p99[state] = statistics.quantiles(seconds, n=100)[98]
        print(f"{state:16} {len(seconds):8} {statistics.median(seconds):8.3f} {p99[state]:8.3f} "
              f"{max(seconds):8.3f}")
    print(f"p99 while copies run / idle: {p99['copies run'] / p99['idle']:.1f}")


if __name__ == "__main__":
    main()
