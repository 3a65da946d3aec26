#!/usr/bin/python3
"""Walks ccCopyTable and a table of the agent's own through the stock agent, and prints varbinds per
second.

Run it in the lab: scripts/lab.sh exec -- bench/walk.py [--rows N] [--runs N]

The agent's own table is hrSWInstalledTable of HOST-RESOURCES-MIB: like ccCopyTable it has one
integer index and some hundred rows that the agent holds in memory. ccCopyTable is walked twice:
with as many rows as make it about as large as that table, and with all its rows. The walks of a
pair run one right after the other, in reversed order from pair to pair, so that other load on the
machine affects both. The time is that of the whole command, SNMPv3 discovery included; "one GET"
shows how much of it that is."""

import argparse
import random
import sys

from lab_bench import lab, print_table, run  # first: it sets the path of copy_numbers
from copy_numbers import COPY_ENTRY
from manager import SYS_UP_TIME, Manager

COLUMNS = 15  # that a complete IPv4 row answers
INSTALLED = ".1.3.6.1.2.1.25.6.3.1"
FEWEST_ROWS = 20


def walk(agent, table):
    """Returns (seconds, number of varbinds)."""
    seconds, output = run("snmpbulkwalk", "-On", "-Cr50", agent, table)
    return seconds, sum(line.startswith(table + ".") for line in output.splitlines())


def measure(agent, rows, reference, pairs):
    """Walks both tables; `rows` and `reference` are the sizes that they must have, in rows and in
    varbinds."""
    walks = {
        f"ccCopyTable, {rows} rows": (COPY_ENTRY, rows * COLUMNS),
        "hrSWInstalledTable": (INSTALLED, reference),
    }
    rates = {name: [] for name in walks}
    rates["one GET"] = []
    for pair in range(pairs):
        for name in sorted(walks, reverse=pair % 2 == 1):
            table, expected = walks[name]
            seconds, count = walk(agent, table)
            if count != expected:
                sys.exit(f"{name} should have {expected} varbinds, and has {count}")
            rates[name].append(count / seconds)
        rates["one GET"].append(1 / run("snmpget", "-On", agent, SYS_UP_TIME)[0])
    sizes = {name: f"{expected} varbinds" for name, (_, expected) in walks.items()}
    print_table("varbinds/s", sizes | {"one GET": "1 varbind"}, rates)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rows", type=int, default=1000,
                        help="copy requests of the larger table (default %(default)s)")
    parser.add_argument("--runs", type=int, default=9, help="pairs of walks (default %(default)s)")
    options = parser.parse_args()
    agent = lab("LAB_AGENT")

    # Also fills the agent's cache of that table.
    reference = walk(agent, INSTALLED)[1]
    alike = round(reference / COLUMNS)
    if not FEWEST_ROWS <= alike <= options.rows:
        sys.exit(
            f"hrSWInstalledTable, with {reference} varbinds, can't be compared with {options.rows} "
            "rows of ccCopyTable"
        )

    # The rows age out after five minutes: the walks must be over by then. A walk that finds another
    # number of varbinds ends the program.
    indexes = random.sample(range(1, 2**31), options.rows)
    manager = Manager()
    manager.create(indexes[:alike])
    measure(agent, alike, reference, options.runs)
    manager.create(indexes[alike:])
    measure(agent, options.rows, reference, options.runs)
    manager.destroy(indexes)


if __name__ == "__main__":
    main()
