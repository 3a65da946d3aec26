#!/usr/bin/python3
"""Checks which folders of the C++ sources include which.

The main header of each folder begins with what the folder is for, which folders use it and which it
may use. Errors are an include that is not announced there, an announced one that no source makes,
and one of a room that is not above in the table of docs/architecture.md. `platform` is the folder
of the contracts in C, which include no other folder."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
HOST = "platform/host"
ROOMS = {name: name for name in ("base", "tftp", "receiver", "copy_client")} | {
    path.name: f"{HOST}/{path.name}" for path in (ROOT / HOST).iterdir() if any(path.glob("*.cpp"))
}
TOP = "programs"  # one source a program, without a header: may use every room
# Used by no room.
ALONE = {
    "infra": {"platform"}, "config-copy": {"base", "copy_client", "platform", "receiver"}
}
LINE = r"([^\n]+(?:\n//  +[^\n]+)*)\.\n"  # of a head; continuation lines are indented
HEAD = re.compile(rf"\A// Room: {LINE}// Used by: {LINE}// May use: {LINE}")
INCLUDE = re.compile(r'^#include "([^"]+/[^"]+)"', re.MULTILINE)


def sources(folder):
    return [path for path in sorted((ROOT / folder).rglob("*")) if path.suffix in (".cpp", ".h")]


def room_of(path):
    """The room of an included file; None for a header of a library."""
    if path.startswith(f"{HOST}/"):
        return path.split("/")[2]
    first = path.split("/")[0]
    return first if first in (*ROOMS, *ALONE, "platform") else None


def used_by(name, folder):
    found = {}
    for source in sources(folder):
        for included in INCLUDE.findall(source.read_text()):
            room = room_of(included)
            if room is not None and room != name:
                found.setdefault(room, f"{source.relative_to(ROOT)} includes {included}")
    return found


def head_of(name, folder):
    heads = [
        match for match in (HEAD.match(source.read_text()) for source in sources(folder)) if match
    ]
    if len(heads) != 1:
        raise SystemExit(
            f"{folder}: {len(heads)} headers begin with what the folder is for, "
            "what uses it and what it may use"
        )
    users, allowed = (set(re.split(r",\s+(?:// +)?", text)) for text in heads[0].groups()[1:])
    return users & {*ROOMS}, allowed


def rooms_in_order():
    """The rooms in the table of docs/architecture.md."""
    page = (ROOT / "docs/architecture.md").read_text()
    table = page.split("| room | its header |")[1].split("\n\n")[0]
    return [Path(folder).name for folder in re.findall(r"^\| `([\w/]+)/` \|", table, re.MULTILINE)]


def main():
    problems = []
    uses = {
        name: used_by(name, folder)
        for name, folder in {**ROOMS, **{name: name for name in ALONE}}.items()
    }
    for name, folder in ROOMS.items():
        if name == TOP:
            continue
        users, allowed = head_of(name, folder)
        problems += [
            f"{place}: {folder} may not use {used}" for used, place in uses[name].items()
            if used not in allowed
        ]
        problems += [
            f"{folder} may use {room}, but does not" for room in sorted(allowed - set(uses[name]))
        ]
        actual = {user for user in ROOMS if name in uses[user]}
        problems += [
            f"{folder} is used by {user}, but does not say so" for user in sorted(actual - users)
        ]
        problems += [f"{folder} is not used by {user}" for user in sorted(users - actual)]
    for name, allowed in ALONE.items():
        problems += [
            f"{place}: {name} may not use {used}" for used, place in uses[name].items()
            if used not in allowed
        ]
    order = rooms_in_order()
    if sorted(order) != sorted(ROOMS):
        raise SystemExit(f"docs/architecture.md: the rooms are not {', '.join(sorted(ROOMS))}")
    problems += [
        f"{place}: {used} is not above {name} in docs/architecture.md" for name in order
        for used, place in uses[name].items() if used in order[order.index(name):]
    ]
    problems += [
        f"{header.relative_to(ROOT)} is a contract and includes {included}"
        for header in sorted((ROOT / "platform").glob("*.h"))
        for included in INCLUDE.findall(header.read_text())
    ]
    print(*problems, sep="\n", end="\n" if problems else "")
    return 1 if problems else 0


sys.exit(main())
