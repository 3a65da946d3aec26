"""The numbers of platform/copy_table.h for tests and benchmarks: OIDs, and every value under its
name in C."""

import re
from pathlib import Path
from types import SimpleNamespace

HEADER = (Path(__file__).resolve().parents[1] / "platform/copy_table.h").read_text()


(_root,) = re.findall(r"^#define CC_ROOT_OID (.+)$", HEADER, re.MULTILINE)


def _entry(macro):
    (words,) = re.findall(rf"^#define {macro}\(column\) CC_ROOT_OID, (.+), \(column\)$", HEADER,
                          re.MULTILINE)
    return _oid(f"{_root}, {words}")


def _oid(words):
    return "." + words.replace(", ", ".")


ROOT = _oid(_root)
COPY_ENTRY = _entry("CC_COPY_COLUMN_OID")
ERROR_ENTRY = _entry("CC_ERROR_COLUMN_OID")
C = SimpleNamespace(
    **{name: int(number) for name, number in re.findall(r"\b([A-Z][A-Z0-9_]*) = (\d+)", HEADER)})
