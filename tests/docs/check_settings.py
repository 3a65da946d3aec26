#!/usr/bin/python3
"""Compares the table of settings, as `ulmo-setting --list` prints it, with the manual page and the
example file, in all directions: names, defaults, ranges, words, when a change holds and what fails
with a bad value.

Usage: check_settings.py ULMO_SETTING
"""

import re
import subprocess
import sys
from pathlib import Path
from typing import NamedTuple

ROOT = Path(__file__).resolve().parents[2]
MANUAL = ROOT / "docs/man/platform.conf.5"
EXAMPLE = ROOT / "platform/host/platform.conf.example"


class Setting(NamedTuple):
    name: str
    kind: str
    default: str
    least: str
    most: str
    words: str
    fails: str
    read: str


def of_table(program):
    output = subprocess.run([program, "--list"], stdout=subprocess.PIPE, text=True,
                            check=True).stdout
    return [Setting(*line.split("\t")) for line in output.splitlines()]


def plain(text):
    """Text without macros, on one line."""
    text = re.sub(r"^\.\\\".*$|^\.(?:[A-Z][a-z]|It Cm)\b *", "", text, flags=re.M)
    return re.sub(r"\s+([.,:;)])", r"\1", re.sub(r"\s+", " ", text))


def of_manual():
    """The settings' defaults and texts; the text at the top of a section belongs to each of its
    settings."""
    found = {}
    for section in re.split(r"^\.S[sh]\b", MANUAL.read_text(), flags=re.M):
        above, *entries = re.split(r"^\.It Cm (\w+) =", section, flags=re.M)
        for name, entry in zip(entries[::2], entries[1::2]):
            default, _, text = entry.partition("\n")
            found[name] = (default.strip(),
                           plain(above + re.split(r"^\.El\b", text, flags=re.M)[0]))
    return found


def of_example():
    """The same. A setting's text is the comment above its line, or above its group of lines."""
    found, comment, is_open = {}, [], False
    for line in EXAMPLE.read_text().splitlines():
        if match := re.match(r"#(\w+) =(?: (.*))?$", line):
            found[match[1]] = (match[2] or "", " ".join(comment))
            is_open = False
        elif line.startswith("# "):
            comment = [*(comment if is_open else []), line[2:]]
            is_open = True
        elif line:
            raise SystemExit(
                f"FAILED: {EXAMPLE.name} has a line that is neither comment nor setting: {line}")
        else:
            comment, is_open = [], False
    return found


def phrases_of(setting):
    """The regular expressions that each text must match, by setting."""
    is_small = setting.kind == "number" and int(setting.most) < 10**8
    if is_small or setting.kind == "list" and setting.most != "0":
        yield rf"\b{setting.least} to {setting.most}\b"
    if setting.words:
        yield from (rf"\b{word}\b" for word in setting.words.split(", "))
    if setting.kind == "yes_no":
        yield from (r"\byes\b", r"\bno\b")


READ = {
    "at once": "", "within a second": r"\bwithin a second\b",
    "when a transfer begins": r"\bwhen (?:a transfer|it) begins\b",
    "when the agent loads the module": r"\bwhen the agent loads the module\b"
}


def problems_of(setting, place, default, text):
    # The example of fabric_member is not its default.
    if default != setting.default and setting.name != "fabric_member":
        yield f"{setting.name}: the default is '{setting.default}' and in {place} '{default}'"
    for phrase in phrases_of(setting):
        if not re.search(phrase, text):
            yield f"{setting.name}: {place} does not say '{phrase}'"
    for when, phrase in READ.items():
        if phrase and bool(re.search(phrase, text, re.I)) != (when == setting.read):
            yield f"{setting.name}: a change holds {setting.read}, and {place} says otherwise"
    if setting.fails and not re.search(rf"with a bad value\b[^.]*\b{setting.fails}", text, re.I):
        yield f"{setting.name}: {place} does not say that with a bad value {setting.fails}"
    if not setting.fails and re.search(r"\bbad value\b", text, re.I):
        yield f"{setting.name}: {place} tells of a bad value, and the default holds then"


def main():
    table, manual, example = of_table(sys.argv[1]), of_manual(), of_example()
    names = {setting.name for setting in table}
    problems = []
    for place, found in (("platform.conf.5", manual), ("platform.conf.example", example)):
        problems += [f"{name} is not in {place}" for name in sorted(names - found.keys())]
        problems += [f"{name} of {place} is no setting" for name in sorted(found.keys() - names)]
    for setting in table:
        if setting.name in manual:
            problems += problems_of(setting, "platform.conf.5", *manual[setting.name])
        if setting.name in example:
            problems += problems_of(setting, "platform.conf.example", *example[setting.name])
    for problem in problems:
        print(f"FAILED: {problem}", file=sys.stderr)
    if not problems:
        print(f"{len(table)} settings as documented")
    return 1 if problems or not table else 0


sys.exit(main())
