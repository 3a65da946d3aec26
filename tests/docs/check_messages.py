#!/usr/bin/python3
"""Compares docs/messages.md with the messages of error level in the sources, both ways. The
variable parts of a message are `…` there."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGE = "docs/messages.md"
# A call that logs an error, up to its format.
CALL = re.compile(
    r"\b(?:cc_log\(\s*EVTRACE_ERROR\s*,|snmp_log\(\s*LOG_ERR\s*,|LOG_FAILURE\("
    r"|(?<!void )log_(?:error|failure)\()\s*"
)
LITERAL = re.compile(r'(?:"(?:[^"\\]|\\.)*"\s*)+')
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z)?[diouxXsc]")
ROW = re.compile(r"^\| `([^`]+)` \|(.*)\|$", re.M)


def message_of(literals):
    text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals))
    text = text.replace(r"\"", '"').removesuffix(r"\n")
    return CONVERSION.sub("…", text).strip()


def of_sources(problems):
    """The messages, each with the files that log it."""
    found = {}
    for path in sorted(path for folder in ("base", "infra", "platform", "tftp")
                       for path in (ROOT / folder).rglob("*") if path.suffix in (".cpp", ".h")):
        text = path.read_text()
        for call in CALL.finditer(text):
            literals = LITERAL.match(text, call.end())
            if literals:
                why = ": …" if "log_failure" in call[0] else ""
                found.setdefault(message_of(literals[0]) + why, set()).add(path.name)
            elif not re.match(r"format\b",
                              text[call.end():]):  # in a macro that passes a message on
                line = text.count("\n", 0, call.start()) + 1
                problems.append(f"{path.name}:{line}: a message that this check can't read")
    return found


def of_page(problems):
    found = {}
    for message, cells in ROW.findall((ROOT / PAGE).read_text()):
        if message in found:
            problems.append(f"'{message}' is in {PAGE} twice")
        if [cell.strip() for cell in cells.split(" | ")].count("") or cells.count(" | ") != 1:
            problems.append(f"'{message}' lacks in {PAGE} what it means or what to do")
        found[message] = cells
    return found


def main():
    problems = []
    sources, page = of_sources(problems), of_page(problems)
    problems += [
        f"'{message}' of {', '.join(sorted(sources[message]))} is not in {PAGE}"
        for message in sources if message not in page
    ]
    problems += [
        f"'{message}' of {PAGE} is in no source" for message in page if message not in sources
    ]
    for problem in problems:
        print(f"FAILED: {problem}", file=sys.stderr)
    if not problems:
        print(f"{len(page)} messages as documented")
    return 1 if problems else 0


sys.exit(main())
