#!/usr/bin/python3
"""Backs up a startup configuration over SNMP, and moves the same file with the stock client, in
turns.

Run it in the lab: scripts/lab.sh exec -- bench/transfers.py [--size OCTETS[k|M]] [--runs N]
[PROTOCOL…]

The time of a copy is the sum of two: what the SET that activates the request takes beyond a GET by
the same tool, and the time from ccCopyTimeStarted to ccCopyTimeCompleted, which the agent reports
to 10 ms. (Polling the agent instead would take one of two processors from the transfer.) That time
includes printing the configuration, the start of the worker, the script and the client, and the
login. The client by hand does only the login and the transfer; it gets the password from an askpass
program (SSH) or as part of a URL (FTP). For TFTP it is curl."""

import argparse
import os
import statistics
import sys
import tempfile
import time
from pathlib import Path

from lab_bench import lab, print_table, run  # first: it sets the path of copy_numbers
from copy_numbers import COPY_ENTRY, C

PROTOCOLS = {"tftp": C.COPY_PROTO_TFTP, "ftp": C.COPY_PROTO_FTP,
             "sftp": C.COPY_PROTO_SFTP, "scp": C.COPY_PROTO_SCP}
INDEX = 12
NAME = "bench.cfg"


def octets(text):
    factor = {"k": 1 << 10, "M": 1 << 20}.get(text[-1])
    return int(text[:-1]) * factor if factor else int(text)


def column(number):
    return f"{COPY_ENTRY}.{number}.{INDEX}"


def copy_over_snmp(protocol):
    """Returns the seconds from the SET to the success."""
    agent, user, password = lab("LAB_AGENT"), lab("LAB_USER"), lab("LAB_PASSWORD")
    row_status = column(C.CC_COLUMN_ENTRY_ROW_STATUS)
    run("snmpset", "-r0", agent, row_status, "i", C.ROW_STATUS_CREATE_AND_WAIT,
        column(C.CC_COLUMN_PROTOCOL), "i", PROTOCOLS[protocol],
        column(C.CC_COLUMN_SOURCE_FILE_TYPE), "i", C.COPY_FILE_STARTUP,
        column(C.CC_COLUMN_DEST_FILE_TYPE), "i", C.COPY_FILE_NETWORK,
        column(C.CC_COLUMN_SERVER_ADDRESS), "a", lab("LAB_SERVER4"),
        column(C.CC_COLUMN_FILE_NAME), "s", NAME)
    run("snmpset", "-r0", agent, column(C.CC_COLUMN_USER_NAME), "s", user,
        column(C.CC_COLUMN_USER_PASSWORD), "s", password)
    tool, _ = run("snmpget", "-r0", agent, column(C.CC_COLUMN_STATE))
    activation, _ = run("snmpset", "-r0", "-t10", agent, row_status, "i", C.ROW_STATUS_ACTIVE)
    seconds = activation - tool
    while (state := int(run("snmpget", "-Oqve", agent,
                            column(C.CC_COLUMN_STATE))[1])) == C.COPY_STATE_RUNNING:
        time.sleep(3)
    started, completed = run("snmpget", "-Oqvt", agent, column(C.CC_COLUMN_TIME_STARTED),
                             column(C.CC_COLUMN_TIME_COMPLETED))[1].split()
    seconds += (int(completed) - int(started)) / 100
    run("snmpset", "-r0", agent, row_status, "i", C.ROW_STATUS_DESTROY)
    if state != C.COPY_STATE_SUCCESSFUL:
        sys.exit(f"the copy by {protocol} failed")
    return seconds


def client_by_hand(protocol, file, askpass):
    server, user, password = lab("LAB_SERVER4"), lab("LAB_USER"), lab("LAB_PASSWORD")
    os.environ |= {"SSH_ASKPASS": str(askpass), "SSH_ASKPASS_REQUIRE": "force"}
    quiet = [
        "-q", "-F", "none", "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
        "-o", "PubkeyAuthentication=no"
    ]
    if protocol == "tftp":
        return run("curl", "-s", "-T", str(file), f"tftp://{server}/{NAME}")[0]
    if protocol == "ftp":
        return run("ftp", "-V", "-u", f"ftp://{user}:{password}@{server}/{NAME}", str(file))[0]
    if protocol == "scp":
        return run("scp", *quiet, str(file), f"{user}@{server}:{NAME}")[0]
    batch = file.with_name("batch")
    batch.write_text(f"put {file} {NAME}\n")
    return run("sftp", *quiet, "-o", "BatchMode=no", "-b", str(batch), f"{user}@{server}")[0]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=octets, default="100M",
                        help="of the configuration (default: 100M)")
    parser.add_argument("--runs", type=int, default=5, help="transfers of each kind (default: 5)")
    parser.add_argument("protocols", nargs="*", metavar="PROTOCOL",
                        help="tftp, ftp, sftp or scp (default: the last three)")
    options = parser.parse_args()
    protocols = options.protocols or ["ftp", "sftp", "scp"]
    if not PROTOCOLS.keys() >= {*protocols}:
        parser.error("the protocols are " + ", ".join(PROTOCOLS))
    os.environ["MIBS"] = ""
    startup, served = Path(lab("LAB_STATE")) / "system.cfg", Path(lab("LAB_SERVER_ROOT")) / NAME
    comment = "!" + "x" * 62 + "\n"
    text = (comment * (options.size // len(comment) + 1))[: options.size - 1] + "\n"
    before = startup.read_bytes()
    startup.write_text(text)
    times = {}
    with tempfile.TemporaryDirectory() as folder:
        file, askpass = Path(folder) / "file", Path(folder) / "askpass"
        file.write_text(text)
        askpass.write_text('#!/bin/sh\necho "$LAB_PASSWORD"\n')
        askpass.chmod(0o700)
        for _ in range(options.runs):
            for protocol in protocols:
                for name, transfer in ((f"{protocol} by hand",
                                        lambda: client_by_hand(protocol, file, askpass)),
                                       (f"{protocol} over SNMP", lambda: copy_over_snmp(protocol))):
                    served.unlink(missing_ok=True)
                    times.setdefault(name, []).append(transfer() * 1000)
                    if served.read_text() != text:
                        sys.exit(f"{name}: the file that arrived is another one")
    served.unlink()
    startup.write_bytes(before)
    print_table("ms", dict.fromkeys(times, f"{options.size} octets"), times)
    for protocol in protocols:
        ours, theirs = statistics.median(times[f"{protocol} over SNMP"]), statistics.median(
            times[f"{protocol} by hand"])
        print(
            f"{protocol}: {ours / theirs:.2f} times the client's own time, "
            f"{ours - theirs:.0f} ms more"
        )


main()
