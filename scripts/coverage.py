#!/usr/bin/python3
"""Prints how many lines of each room the unit tests of a build run, and fails below the floor.

usage: coverage.py BUILD

BUILD was configured with CCM_COVERAGE, and its tests ran with
LLVM_PROFILE_FILE=BUILD/coverage/%m.profraw, which gathers all processes of a program in one file. A
process that ends by _exit(), or that a signal kills, writes nothing: what only workers and killed
children run counts as not run, and so does what only the system tests and the programs under Expect
do.
"""

import collections
import json
import subprocess
import sys
from pathlib import Path

FLOOR = 81.0  # percent of all lines; about one below the value when it was set
ROOT = Path(__file__).resolve().parent.parent
PRODUCT = ("base", "copy_client", "config-copy", "infra", "platform", "receiver", "tftp")


def in_repository(name):
    """The file of the repository that the compiler has recorded under this name. How the name
    begins depends on the compiler's folder and on what shortens names for it."""
    parts = Path(name).parts
    for first in range(len(parts)):
        file = ROOT.joinpath(*parts[first:]).resolve()
        if file.is_file():
            return file
    return None


def room_of(name):
    """base, platform/host/agent …; an empty text for files outside the repository."""
    file = in_repository(name)
    parts = file.relative_to(ROOT).parts[:-1] if file and file.is_relative_to(ROOT) else ("",)
    return "/".join(parts[:3] if parts[:2] == ("platform", "host") else parts[:1])


def programs(build):
    """The product and its tests as built; neither fuzzers nor scripts."""
    for file in sorted((*build.glob("lib/*.so"), *build.glob("bin/*"))):
        if not file.name.startswith("fuzz_") and file.read_bytes()[:4] == b"\x7fELF":
            yield file


def counts(build):
    """For each room, how many lines it has and how many of them ran."""
    profile = build / "coverage.profdata"
    raw = sorted((build / "coverage").glob("*.profraw"))
    subprocess.run(["llvm-profdata", "merge", "-sparse", "-o", profile, *raw], check=True)
    objects = [word for program in programs(build) for word in ("-object", program)]
    export = ["llvm-cov", "export", "-summary-only", "-instr-profile", profile, *objects]
    # llvm-cov warns of functions that several programs have, such as main().
    output = subprocess.run(export, check=True, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL).stdout
    rooms = collections.defaultdict(lambda: [0, 0])
    for file in json.loads(output)["data"][0]["files"]:
        room = room_of(file["filename"])
        if room.split("/")[0] in PRODUCT:
            rooms[room][0] += file["summary"]["lines"]["count"]
            rooms[room][1] += file["summary"]["lines"]["covered"]
    return rooms


def print_line(name, lines, ran):
    print(f"{name:<30}{ran:>6} of {lines:>6} lines  {100 * ran / lines:5.1f} %")


def main(build):
    rooms = counts(Path(build).resolve())
    for room, (lines, ran) in sorted(rooms.items()):
        if lines > 0:
            print_line(room, lines, ran)
    lines, ran = (sum(numbers) for numbers in zip(*rooms.values()))
    print_line("in all", lines, ran)
    if 100 * ran / lines < FLOOR:
        raise SystemExit(f"fewer than the floor of {FLOOR} %: test what is new, see {__file__}")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
