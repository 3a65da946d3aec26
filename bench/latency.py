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
import sys
import time

from lab_bench import lab  # first: it sets the path of copy_numbers
from copy_numbers import C
from manager import SYS_UP_TIME, Manager, cell, integer, ip_address, octets

PAUSE = 0.001
TURN = 1.0  # seconds of either state


def small_integer(answer):
    """The value of the answer's last binding."""
    return answer[-1]


def copies(wanted, activations):
    """Backs up by TFTP without a break, while `wanted` is set."""
    manager = Manager()
    server = ip_address(lab("LAB_SERVER4"))
    while True:
        wanted.wait()
        index = random.randrange(1, 2**31)
        manager.set(
            (cell(C.CC_COLUMN_ENTRY_ROW_STATUS, index), integer(C.ROW_STATUS_CREATE_AND_WAIT)),
            (cell(C.CC_COLUMN_PROTOCOL, index), integer(C.COPY_PROTO_TFTP)),
            (cell(C.CC_COLUMN_SOURCE_FILE_TYPE, index), integer(C.COPY_FILE_RUNNING)),
            (cell(C.CC_COLUMN_DEST_FILE_TYPE, index), integer(C.COPY_FILE_NETWORK)),
            (cell(C.CC_COLUMN_SERVER_ADDRESS, index), server),
            (cell(C.CC_COLUMN_FILE_NAME, index), octets(b"latency.cfg")))
        row_status = cell(C.CC_COLUMN_ENTRY_ROW_STATUS, index)
        _, seconds = manager.set((row_status, integer(C.ROW_STATUS_ACTIVE)))
        activations.append(seconds)
        state = C.COPY_STATE_RUNNING
        while state == C.COPY_STATE_RUNNING:
            time.sleep(0.005)
            state = small_integer(manager.get(cell(C.CC_COLUMN_STATE, index))[0])
        if state != C.COPY_STATE_SUCCESSFUL:
            sys.exit("a copy failed")
        manager.set((row_status, integer(C.ROW_STATUS_DESTROY)))


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
