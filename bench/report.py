#!/usr/bin/python3
"""Makes the report of a fleet with a history, and prints how long that took, the most memory, and
the size of the report. Git's own part is measured, too: it prints the same differences.

bench/report.py [--switches N] [--versions N] [--keep FOLDER]"""

import argparse
import json
import os
import random
import subprocess
import tempfile
import time
from pathlib import Path

PROGRAM = Path(__file__).resolve().parents[1] / "config-copy/report/config-copy-report"
DAY = 86400


def configuration(number, choice):
    lines = [f"hostname switch{number}", "ip domain-name example.net"]
    lines += [f"vlan {vlan}\n name floor-{vlan}" for vlan in range(2, 12)]
    for port in range(1, 25):
        lines.append(f"interface Ethernet1/{port}\n description desk {choice.randrange(1000)}\n"
                     f" switchport access vlan {choice.randrange(2, 12)}\n no shutdown")
    return "\n".join(lines).split("\n")


def changed(lines, choice):
    lines = list(lines)
    for _ in range(choice.randrange(1, 4)):
        at = choice.randrange(13, len(lines))
        if choice.random() < 0.3:
            lines.insert(at, f" description room {choice.randrange(1000)}")
        else:
            lines[at] = f" switchport access vlan {choice.randrange(2, 4000)}"
    return lines


def make_fleet(folder, switches, versions):
    """A repository in which each switch changes in each run, and the outcomes of these runs. One
    switch in twenty does not answer."""
    choice = random.Random(1)
    repository = folder / "switches"
    subprocess.run(["git", "init", "-q", "-b", "main", repository], check=True)
    now = int(time.time())
    contents = [configuration(number, choice) for number in range(switches)]
    (folder / "outcomes").mkdir()
    stream = subprocess.Popen(["git", "-C", repository, "fast-import", "--quiet"],
                              stdin=subprocess.PIPE)

    def put(text):
        stream.stdin.write(text.encode())

    for version in range(versions):
        moment = now - (versions - version) * DAY
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(moment))
        put(f"commit refs/heads/main\ncommitter config-copy <c@m> {moment} +0000\ndata 1\nn\n")
        with (folder / f"outcomes/{stamp[:7]}.jsonl").open("a") as outcomes:
            for number in range(switches):
                name = f"switch{number}"
                record = {"time": stamp, "agent": name, "ending": "done", "attempts": 1,
                          "from": "running", "to": f"./{name}.cfg"}
                if number % 20 == 0 and version > versions // 2:
                    record.update(ending="not_reachable",
                                  text=f"no answer from {name} in 6 s: check the address")
                else:
                    if version:
                        contents[number] = changed(contents[number], choice)
                    text = "\n".join(contents[number]) + "\n"
                    record.update(seconds=1.25, bytes=len(text), unchanged=False)
                    put(f"M 644 inline {name}.cfg\ndata {len(text)}\n{text}\n")
                outcomes.write(json.dumps(record, separators=(",", ":")) + "\n")
    stream.stdin.close()
    assert stream.wait() == 0
    subprocess.run(["git", "-C", repository, "reset", "-q", "--hard"], check=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--switches", type=int, default=10000)
    parser.add_argument("--versions", type=int, default=30)
    parser.add_argument("--keep", help="the folder for the fleet and its report, which stay")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir="/var/tmp") as scratch:
        folder = Path(options.keep or scratch) / "nightly"
        if not folder.exists():
            folder.mkdir(parents=True)
            make_fleet(folder, options.switches, options.versions)
        log = ["git", "-C", folder / "switches", "log", "-p", "--raw"]
        began = time.monotonic()
        subprocess.run(log, stdout=subprocess.DEVNULL, check=True)
        print(f"git log -p alone: {time.monotonic() - began:.1f} s")
        began = time.monotonic()
        process = subprocess.Popen([PROGRAM, folder, "-o", folder.parent / "report"])
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        took = time.monotonic() - began
        size = sum(path.stat().st_size for path in (folder.parent / "report").rglob("*.html"))
        print(f"report: {took:.1f} s, {usage.ru_utime + usage.ru_stime:.1f} s of a processor with "
              f"git, {usage.ru_maxrss >> 10} MiB at most, pages of {size >> 20} MiB")
        assert process.returncode == 0


if __name__ == "__main__":
    main()
