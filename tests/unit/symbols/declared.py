#!/usr/bin/python3
"""Prints the names of the functions and variables that the headers of platform/ declare, sorted."""

import re
from pathlib import Path

NOTHING_OF_OURS = (
    r"/\*.*?\*/",  # comments
    r"^\s*#(?:.*\\\n)*.*$",  # the preprocessor's
    r'extern "C" \{',
    r"\b(?:static_assert|__attribute__)\s*\((?:[^;]|\n)*?\)(?=;)",
)


def names_in(text):
    for pattern in NOTHING_OF_OURS:
        flags = re.DOTALL if pattern.startswith("/") else re.MULTILINE
        text = re.sub(pattern, "", text, flags=flags)
    text = re.sub(r"\{[^{}]*\}", "", text)  # members, enumerators
    for statement in text.split(";"):
        if "typedef" in statement:
            continue
        if function := re.search(r"(\w+)\s*\(", statement):
            yield function[1]
        elif variable := re.search(r"\bextern\b.*?(\w+)\s*$", statement):
            yield variable[1]


if __name__ == "__main__":
    headers = (Path(__file__).resolve().parents[3] / "platform").glob("*.h")
    print(*sorted(name for header in headers for name in names_in(header.read_text())), sep="\n")
