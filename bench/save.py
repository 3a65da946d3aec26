#!/usr/bin/python3
"""Saves the running configuration over SNMP. Prints how long the agent took to answer the SET, and
how long the save took.

Run it in the lab: scripts/lab.sh exec [--switches N] -- bench/save.py [--runs N]

Times are those of whole commands of the stock tools, their start and SNMPv3 discovery included;
"one GET" shows how much of it that is. The answer to the SET that activates the request comes when
the system manager has answered the agent. "saved" is the time from the start of that SET to the
first GET that finds the request successful. With several switches the whole fabric is saved as
well."""

import argparse
import os
import sys
import time

from lab_bench import lab, print_table, run  # first: it sets the path of copy_numbers
from copy_numbers import COPY_ENTRY, C

INDEX = 11
ENDED = (C.COPY_STATE_SUCCESSFUL, C.COPY_STATE_FAILED)


def column(number):
    return f"{COPY_ENTRY}.{number}.{INDEX}"


def save(agent, destination):
    """Returns the seconds until the answer, and until the save was done."""
    row_status = column(C.CC_COLUMN_ENTRY_ROW_STATUS)
    run("snmpset", "-r0", "-t30", agent, row_status, "i", C.ROW_STATUS_CREATE_AND_WAIT,
        column(C.CC_COLUMN_SOURCE_FILE_TYPE), "i", C.COPY_FILE_RUNNING,
        column(C.CC_COLUMN_DEST_FILE_TYPE), "i", destination)
    began = time.monotonic()
    answered, _ = run("snmpset", "-r0", "-t30", agent, row_status, "i", C.ROW_STATUS_ACTIVE)
    while (state := int(run("snmpget", "-Oqve", agent, column(C.CC_COLUMN_STATE))[1])) not in ENDED:
        pass
    saved = time.monotonic() - began
    run("snmpset", "-r0", agent, row_status, "i", C.ROW_STATUS_DESTROY)
    if state == C.COPY_STATE_FAILED:
        sys.exit("a save failed")
    return answered, saved


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=20, help="saves of each kind (default: 20)")
    runs = parser.parse_args().runs
    agent, switches = lab("LAB_AGENT"), len(lab("LAB_AGENTS").split())
    kinds = {"this switch": C.COPY_FILE_STARTUP}
    if switches > 1:
        kinds[f"fabric of {switches}"] = C.COPY_FILE_FABRIC_STARTUP
    os.environ["MIBS"] = ""
    times = {"one GET": []}
    for _ in range(runs):
        times["one GET"].append(run("snmpget", agent, ".1.3.6.1.2.1.1.3.0")[0] * 1000)
        for kind, destination in kinds.items():
            answered, saved = save(agent, destination)
            times.setdefault(f"{kind}: answer to the SET", []).append(answered * 1000)
            times.setdefault(f"{kind}: saved", []).append(saved * 1000)
    print_table("ms", dict.fromkeys(times, f"{runs} runs"), times)


main()
