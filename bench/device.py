#!/usr/bin/python3
"""Applies texts of 10, 1,000 and 10,000 lines to a device, and saves. Prints how long that took for
the kinds embedded and frr, and how long FRR's own shell took for the same by hand.

Run it in the lab: scripts/lab.sh exec --frr -- bench/device.py [--runs N] [--lines N...]

Times are those of whole commands, as the agent's user. `cmdshell` applies all lines or none and
checks that they are in force; `vtysh -f` does neither. A save changes the startup configuration by
one line. Each program may have 1024 descriptors, as Debian gives to services and logins: it takes
vtysh long to close more."""

import argparse
import os
import resource
import subprocess
import sys
import time
from pathlib import Path

from lab_bench import lab, print_table, run

SIZES = (10, 1_000, 10_000)
AS_AGENT = ("setpriv", "--reuid=Debian-snmp", "--regid=Debian-snmp", "--init-groups")
HERE = Path("/tmp/bench-device")


def address(number):
    return f"10.{number >> 16 & 255}.{number >> 8 & 255}.{number & 255}"


STATEMENTS = {
    "embedded": lambda number: f"ntp server {address(number)}\n",
    "frr": lambda number: f"ip route {address(number)}/32 blackhole\n",
}


def text_file(name, lines):
    file = HERE / name
    file.write_text("".join(lines))
    return file


class Kind:
    """A device of that kind, with a system manager of its own, which makes the saves."""

    def __init__(self, name):
        self.name = name
        home = HERE / name
        for folder in (home, home / "state", home / "run"):
            folder.mkdir()
        (home / "platform.conf").write_text(f"device_backend = {name}\n")
        run("chown", "-R", "Debian-snmp:Debian-snmp", home)
        environment = [*AS_AGENT, "env", f"ULMO_STATE_DIR={home}/state",
                       f"ULMO_RUN_DIR={home}/run", f"ULMO_CONF={home}/platform.conf"]
        self.shell = [*environment, "cmdshell", "-c"]
        self.system_manager = subprocess.Popen([*environment, "wardend"],
                                               stderr=subprocess.DEVNULL)
        while not (home / "run/msgbus/3").exists():  # its service access point
            time.sleep(0.01)

    def apply(self, file):
        return run(*self.shell, f"configure {file}")[0]

    def save(self):
        return run(*self.shell, "copy running-config startup-config")[0]


class ByHand:
    def apply(self, file):
        return run(*AS_AGENT, "vtysh", "-f", file)[0]

    def save(self):
        return run(*AS_AGENT, "vtysh", "-c", "write")[0]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=5, help="runs of each size (default: 5)")
    parser.add_argument("--lines", type=int, nargs="+", default=SIZES, metavar="N",
                        help="lines of the texts (default: 10 1000 10000)")
    arguments = parser.parse_args()
    runs = arguments.runs
    lab("LAB_AGENT")
    if subprocess.run(["vtysh", "-c", "show watchfrr"], stdout=subprocess.DEVNULL).returncode != 0:
        sys.exit("FRR does not run: make the lab with --frr")
    os.umask(0o022)
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (1024, most))
    HERE.mkdir()
    kinds = {kind: Kind(kind) for kind in STATEMENTS}
    roads = {"embedded": ("embedded", kinds["embedded"]), "frr": ("frr", kinds["frr"]),
             "vtysh by hand": ("frr", ByHand())}
    times, columns, change = {}, {}, 0
    for size in arguments.lines:
        for _ in range(runs):
            for road, (kind, device) in roads.items():
                lines = [STATEMENTS[kind](number) for number in range(size)]
                removal = text_file("removal.cfg", [f"no {line}" for line in lines])
                samples = {"apply": device.apply(text_file("lines.cfg", lines))}
                change += 1
                one = STATEMENTS[kind](1 << 20 | change)
                kinds[kind].apply(text_file("one.cfg", [one]))
                samples["save"] = device.save()
                if kind == "frr":
                    roads["vtysh by hand"][1].apply(removal)
                else:
                    device.apply(removal)
                for what, seconds in samples.items():
                    name = f"{what}, {road}, {size} lines"
                    times.setdefault(name, []).append(seconds * 1000)
                    columns[name] = f"{runs} runs"
    for kind in kinds.values():
        kind.system_manager.terminate()
        kind.system_manager.wait()
    print_table("ms", columns, dict(sorted(times.items())))


main()
