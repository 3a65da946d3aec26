#!/usr/bin/python3
"""Walks ccCopyTable and prints which share of the agent's instructions the module takes.

Run it in the lab, with the agent under callgrind:
scripts/lab.sh exec --agent-under "valgrind --tool=callgrind --instr-atstart=no
--callgrind-out-file=/tmp/agent.callgrind" -- bench/instructions.py [--rows N]

The module's share is that of its read handler, with everything that the handler calls. The agent's
instructions are all others: receiving, decoding, access control, encoding, encryption, sending."""

import argparse
import random
import re
import sys
from pathlib import Path

from lab_bench import lab, run  # first: it sets the path of copy_numbers
from copy_numbers import COPY_ENTRY
from manager import Manager
from walk import COLUMNS, walk

PROFILE = Path("/tmp/agent.callgrind")
HANDLER = "get_ccCopyTable"


def instructions_of(report, name):
    """The number at the beginning of the report's first line that holds `name`."""
    line = next((line for line in report.splitlines() if name in line), None)
    if line is None:
        sys.exit(f"callgrind's report has no {name}:\n{report[:2000]}")
    return int(re.match(r"\s*([\d,]+)", line)[1].replace(",", ""))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rows", type=int, default=1000,
                        help="copy requests (default %(default)s)")
    rows = parser.parse_args().rows
    agent = lab("LAB_AGENT")
    Manager().create(random.sample(range(1, 2**31), rows))
    run("callgrind_control", "-i", "on")
    _, count = walk(agent, COPY_ENTRY)
    run("callgrind_control", "-i", "off")
    if count != rows * COLUMNS:
        sys.exit(f"the walk gave {count} varbinds, not {rows * COLUMNS}")
    run("callgrind_control", "-d")
    profile = max(PROFILE.parent.glob(PROFILE.name + "*"), key=lambda file: file.stat().st_size)
    report = run("callgrind_annotate", "--inclusive=yes", "--threshold=100", profile)[1]
    whole = instructions_of(report, "PROGRAM TOTALS")
    module = instructions_of(report, HANDLER)
    print(f"{rows} rows, {count} varbinds: {whole / count:,.0f} instructions a varbind, "
          f"{module / count:,.0f} of them in the module ({100 * module / whole:.1f} %)")


if __name__ == "__main__":
    main()
