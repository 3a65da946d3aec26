#!/usr/bin/python3
"""The numbers in platform/copy_table.h against CONFIG-COPY-MIB: columns by name, the longest texts,
and the values of each enumeration."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
MIB = (ROOT / "mibs/CONFIG-COPY-MIB.txt").read_text()
HEADER = (ROOT / "platform/copy_table.h").read_text()

# An enumeration of the header, and where the MIB module has its values.
VALUES = {
    "copy_protocol": "ConfigCopyProtocol", "copy_file_type": "ConfigCopyFileType",
    "copy_state": "ConfigCopyState", "copy_fail_cause": "ConfigCopyFailCause"
}
LONGEST = {
    "ccCopyFileName": "CC_FILE_NAME_MAX", "ccCopyUserName": "CC_CREDENTIAL_SIZE",
    "ccCopyUserPassword": "CC_CREDENTIAL_SIZE"
}
# The names of a few values are not the MIB module's in other letters.
OTHER_NAMES = {"WARDEN_REFUSED": "SYSTEM_MANAGER_REFUSED", "WARDEN_FAILED": "SYSTEM_MANAGER_FAILED"}
SUFFIXES = {"copy_file_type": ("_FILE", "_CONFIG")}


def upper(name):
    """fileName or fileNAME2 as FILE_NAME, FILE_NAME2."""
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).upper()


def of_header(enumeration, prefix):
    (body,) = re.findall(rf"enum {enumeration} \{{(.*?)\}};", HEADER, re.DOTALL)
    return {name: int(number) for name, number in re.findall(rf"{prefix}(\w+) = (\d+)", body)}


def columns_of_mib(entry, prefix):
    found = re.findall(
        rf"^{prefix}(\w+)\s+OBJECT-TYPE(?:(?!OBJECT-TYPE).)*?::= \{{ {entry} (\d+) \}}", MIB,
        re.DOTALL | re.MULTILINE)
    return {upper(name): int(number) for name, number in found
            if int(number) > 1}  # the first is the index


def values_of_mib(convention, suffixes):
    (body,) = re.findall(rf"^{convention} ::= TEXTUAL-CONVENTION.*?SYNTAX\s+INTEGER \{{(.*?)\}}",
                         MIB, re.DOTALL | re.MULTILINE)
    found = {}
    for name, number in re.findall(r"(\w+)\((\d+)\)", body):
        name = upper(name)
        for suffix in suffixes:
            name = name.removesuffix(suffix)
        found[name] = int(number)
    return found


def main():
    root = re.findall(r"#define CC_ROOT_OID ([\d, ]+)", HEADER)
    expected = re.findall(r"^configCopyMIB (\S+)", (ROOT / "tests/mib/objects.txt").read_text(),
                          re.MULTILINE)
    pairs = [("CC_ROOT_OID", ["." + number.replace(", ", ".") for number in root], expected),
             ("enum cc_column", of_header("cc_column", "CC_COLUMN_"),
              columns_of_mib("ccCopyEntry", "ccCopy")),
             ("enum cc_error_column", of_header("cc_error_column", "CC_ERROR_COLUMN_"),
              columns_of_mib("ccCopyErrorEntry", "ccCopyError"))]
    for column, constant in LONGEST.items():
        pairs.append((constant, re.findall(rf"#define {constant} (\d+)", HEADER),
                      re.findall(rf"^{column} OBJECT-TYPE\s+SYNTAX \s*\S+ \(SIZE \(0\.\.(\d+)\)\)",
                                 MIB, re.MULTILINE)))
    for enumeration, convention in VALUES.items():
        actual = {
            OTHER_NAMES.get(name, name): number
            for name, number in of_header(enumeration, r"COPY_[A-Z]+?_").items()
        }
        expected = values_of_mib(convention, SUFFIXES.get(enumeration, ()))
        pairs.append((f"enum {enumeration}", actual, expected))
    bad = [
        f"{what}: {actual} in the header, {mib} in the MIB module" for what, actual, mib in pairs
        if actual != mib or not actual
    ]
    print(*bad, sep="\n", end="\n" if bad else "")
    return 1 if bad else 0


sys.exit(main())
