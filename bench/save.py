#!/usr/bin/python3
"""Saves the running configuration over SNMP and prints how long the agent took to answer the SET, and the save to be done.

Run it in the lab: scripts/lab.sh exec [--switches N] -- bench/save.py [--runs N]

Times are those of whole commands of the stock tools, their start and SNMPv3 discovery included; "one GET" shows how much of it that is. The
answer to the SET that activates the request comes when the system manager has answered the agent. "saved" is the time from the start of that
SET to the first GET that finds the request successful. With several switches the whole fabric is saved as well.
"""

import argparse
import os
import sys
import time

from lab_bench import lab, print_table, run

ENTRY = ".1.3.6.1.4.1.41927.9.96.1.1.1.1"
SOURCE, DESTINATION, STATE, ROW_STATUS = 3, 4, 10, 14
RUNNING, STARTUP, FABRIC_STARTUP = "4", "3", "6"
ACTIVE, CREATE_AND_WAIT, DESTROY = "1", "5", "6"
SUCCESSFUL, FAILED = "3", "4"
INDEX = "11"


def column(number):
    return f"{ENTRY}.{number}.{INDEX}"


def save(agent, destination):
    """Returns the seconds until the answer, and until the save was done."""
    run("snmpset", "-r0", "-t30", agent, column(ROW_STATUS), "i", CREATE_AND_WAIT, column(SOURCE), "i", RUNNING, column(DESTINATION), "i", destination)
    began = time.monotonic()
    answered, _ = run("snmpset", "-r0", "-t30", agent, column(ROW_STATUS), "i", ACTIVE)
    while (state := run("snmpget", "-Oqve", agent, column(STATE))[1].strip()) not in (SUCCESSFUL, FAILED):
        pass
    saved = time.monotonic() - began
    run("snmpset", "-r0", agent, column(ROW_STATUS), "i", DESTROY)
    if state == FAILED:
        sys.exit("a save failed")
    return answered, saved


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=20, help="saves of each kind (default: 20)")
    runs = parser.parse_args().runs
    agent, switches = lab("LAB_AGENT"), len(lab("LAB_AGENTS").split())
    kinds = {"this switch": STARTUP} | ({f"fabric of {switches}": FABRIC_STARTUP} if switches > 1 else {})
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
