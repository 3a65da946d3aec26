#!/usr/bin/python3
"""How the agent's memory grows over many copies with notifications.

Run it in the lab: scripts/lab.sh exec -- bench/memory.py [--copies N]

Each copy is a backup by TFTP whose request is removed when it has ended. Prints the agent's
resident memory at the beginning and ten times on the way."""

import argparse
from pathlib import Path

from copies import back_up
from lab_bench import run
from manager import Manager


def resident(process):
    """Resident memory in KiB, proc(5)."""
    lines = Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("VmRSS"))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--copies", type=int, default=10000, help="default: %(default)s")
    copies = parser.parse_args().copies
    process = run("lab-ctl", "agent-pid")[1].strip()
    manager = Manager()
    first = resident(process)
    print(f"{0:6} copies: {first:8,} KiB")
    step = max(1, copies // 10)
    for done in range(1, copies + 1):
        back_up(manager, notify=True)
        if done % step == 0:
            now = resident(process)
            print(f"{done:6} copies: {now:8,} KiB, {now - first:+,}", flush=True)


if __name__ == "__main__":
    main()
