#!/usr/bin/python3
"""Compares the settings that the sources ask for with those of the manual page and of the example file, in all directions, and the defaults."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
HOST = ROOT / "platform/host"

# A setting with its default, or None where the source gives none as a text.
LITERAL = re.compile(r'\bsettings?\(\s*"([^"]+)"(?:,\s*"([^"]*)")?\s*\)')
TCL = re.compile(r"\[(?:seconds_)?setting\s+([a-z]\w*)\s+([^\s\]]+)\]")
# Where the name is not written at the call: the file, and how it writes its names and defaults.
INDIRECT = {
    "evtrace.cpp": re.compile(r'\bwanted_by\("([^"]+)"()'),
    "fabric_members.cpp": re.compile(r'\{"[a-z-]+", "([^"]+)", "([^"]*)", &'),
}
CALL = re.compile(r'(?<![\w"])settings?\(\s*([^)\s][^)]*)\)')
COMMENT = re.compile(r"^\s*(//|\*|/\*|#).*$", re.M)


def of_sources():
    found, problems = {}, []
    for path in sorted(HOST.rglob("*")):
        if path.suffix not in (".cpp", ".h", ".tcl", ".expect") or path.name in ("host_config.h", "host_config.cpp"):
            continue
        text = COMMENT.sub("", path.read_text())
        if path.suffix in (".tcl", ".expect"):
            found |= dict(TCL.findall(text))
            continue
        for name, default in LITERAL.findall(text):
            found[name] = default or found.get(name)
        if path.name in INDIRECT:
            indirect = INDIRECT[path.name].findall(text)
            if not indirect:
                problems.append(f"{path.name}: the names of its settings are not found any more")
            found |= {name: default or None for name, default in indirect}
        elif unread := [argument for argument in CALL.findall(text) if not argument.startswith('"')]:
            problems.append(f"{path.name}: a setting whose name this check can't read: {unread}")
    return found, problems


def of_manual():
    return dict(re.findall(r"^\.It Cm (\w+) =(?: (.*))?$", (ROOT / "docs/man/platform.conf.5").read_text(), re.M))


def of_example():
    return dict(re.findall(r"^#(\w+) =(?: (.*))?$", (HOST / "platform.conf.example").read_text(), re.M))


def main():
    sources, problems = of_sources()
    places = {"the sources": sources, "platform.conf.5": of_manual(), "platform.conf.example": of_example()}
    for place, settings in places.items():
        for other, theirs in places.items():
            problems += [f"{name} is in {place} and not in {other}" for name in sorted(settings.keys() - theirs.keys())]
    manual, example = places["platform.conf.5"], places["platform.conf.example"]
    for name in sorted(manual.keys() & example.keys() - {"fabric_member"}):  # whose example is no default
        if manual[name] != example[name]:
            problems.append(f"{name}: the default is '{manual[name]}' in platform.conf.5 and '{example[name]}' in platform.conf.example")
        if sources.get(name) and sources[name] != manual[name]:
            problems.append(f"{name}: the default is '{manual[name]}' in platform.conf.5 and '{sources[name]}' in the source")
    for problem in problems:
        print(f"FAILED: {problem}", file=sys.stderr)
    if not problems:
        print(f"{len(sources)} settings as documented")
    return 1 if problems else 0


sys.exit(main())
