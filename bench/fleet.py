#!/usr/bin/python3
"""Copies on 1,000 and 10,000 agents, 5 % of them dead, with files of this machine and with URLs of
a server. Prints how long that took, beside the ideal schedule, and what it cost, beside as many
requests of a bare loop of the Net-SNMP library.

Run it in the lab, after building with -DCCM_BENCH=ON:
scripts/lab.sh exec -- bench/fleet.py [--agents N…] [--jobs N] [--seconds N]

The agents are simulated by one program, which answers at all their addresses; a copy takes a set
time. The ideal schedule is: the copies of the live agents, --jobs at a time, without anything
else."""

import argparse
import os
import signal
import subprocess
import tempfile
import threading
import time
from pathlib import Path

from lab_bench import lab, run

PROGRAMS = Path(__file__).resolve().parents[1] / "build/release/bin"
DEAD_OF = 20  # one of so many


def address(number):
    """The dead ones are in 10.128.0.0/9."""
    second = 128 if number % DEAD_OF == 0 else 1
    return f"10.{second}.{number // 250}.{number % 250 + 1}:1161"


class Agents:
    def __init__(self, seconds):
        self.process = subprocess.Popen([PROGRAMS / "bench_fleet_agent", str(seconds)],
                                        stdout=subprocess.PIPE, text=True)
        time.sleep(0.3)

    def requests(self):
        self.process.send_signal(signal.SIGTERM)
        return int(self.process.communicate()[0])


def watched(*command):
    """Runs a command. Returns (seconds, CPU seconds, most KiB, most threads, its last line)."""
    threads = 0
    began = time.monotonic()
    with tempfile.TemporaryFile("w+") as output:
        process = subprocess.Popen([str(word) for word in command], stdout=output,
                                   stderr=subprocess.DEVNULL)
        ended = threading.Event()

        def look():
            nonlocal threads
            while not ended.wait(0.2):
                try:
                    threads = max(threads, len(os.listdir(f"/proc/{process.pid}/task")))
                except FileNotFoundError:
                    return

        watcher = threading.Thread(target=look)
        watcher.start()
        _, _, usage = os.wait4(process.pid, 0)
        took = time.monotonic() - began
        ended.set()
        watcher.join()
        process.returncode = 0  # it has been waited for
        output.seek(0)
        last = output.read().splitlines()[-1]
    return took, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, threads, last


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--agents", type=int, nargs="+", default=[1000, 10000])
    parser.add_argument("--jobs", type=int, default=200)
    parser.add_argument("--seconds", type=float, default=1, help="that a copy takes")
    options = parser.parse_args()
    lab("LAB_AGENT")
    run("ip", "route", "add", "local", "10.0.0.0/8", "dev", "lo")
    print(f"{'':28} {'s':>7} {'ideal':>7} {'ratio':>6} {'CPU s':>7} {'floor':>7} {'MiB':>6} "
          f"{'threads':>7}")
    for count in options.agents:
        alive = sum(number % DEAD_OF != 0 for number in range(count))
        ideal = alive * options.seconds / options.jobs
        for kind, server in (("URLs", "tftp://198.51.100.1/{host}"), ("files", "{folder}/{host}")):
            with tempfile.TemporaryDirectory() as folder:
                hosts = Path(folder) / "hosts"
                hosts.write_text("".join(f"{address(number)}\n" for number in range(count)))
                agents = Agents(options.seconds)
                took, cpu, memory, threads, last = watched(
                    "config-copy", "-v2c", "-c", "lab", "--jobs", options.jobs, "--hosts", hosts,
                    "running", server.replace("{folder}", folder))
                requests = agents.requests()
                floor_agent = Agents(options.seconds)
                floor = float(run(PROGRAMS / "bench_fleet_floor", "10.1.0.2:1161", requests)[1])
                floor_agent.requests()
            print(f"{count:6} agents, {kind:13} {took:7.1f} {ideal:7.1f} {took / ideal:6.2f} "
                  f"{cpu:7.1f} {floor:7.1f} {memory / 1024:6.0f} {threads:7}  {last}")


if __name__ == "__main__":
    main()
