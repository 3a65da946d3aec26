"""Shared by the benchmarks that run in the lab: commands that must succeed, time taken, and a table
of the results."""

import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests"))  # copy_numbers


def lab(variable):
    """A variable of the lab. Without it the program ends with the command that makes a lab."""
    value = os.environ.get(variable)
    if not value:
        sys.exit(
            f"{variable} is not set: run this inside the lab, as in scripts/lab.sh exec -- "
            f"{sys.argv[0]}"
        )
    return value


def run(*command):
    """Runs a command and returns (seconds, standard output). Ends the program when the command
    fails."""
    command = [str(word) for word in command]
    begin = time.monotonic()
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          check=False)
    seconds = time.monotonic() - begin
    if done.returncode != 0:
        shown = " ".join(command)
        sys.exit(
            f"{shown[:500]}: exit status {done.returncode}\n"
            f"{done.stdout[-2000:]}{done.stderr[-2000:]}"
        )
    return seconds, done.stdout


def print_table(unit, columns, rates):
    """Prints one line for each name in `rates`: its text in `columns`, and the least, median and
    greatest rate of its runs."""
    print(f"{'':36} {'size':>16} {'min':>12} {'median':>12} {'max':>12}  {unit}")
    for name, values in rates.items():
        low, middle, high = min(values), statistics.median(values), max(values)
        print(f"{name:36} {columns[name]:>16} {low:12,.3f} {middle:12,.3f} {high:12,.3f}")
