#!/usr/bin/python3
"""Counts the tests of reports in JUnit's form, as pytest, GoogleTest and ctest write them.

usage: count-tests.py REPORT…

Names each test that failed or did not run, and each report that is missing; a skipped test is a
failure. The last line is "N passed, M failed". A test with the name of another report is a program
that reported its own tests. If it passed, it is not counted in addition to them; if it failed, it
is, as a program may end badly after its last test.
"""

import sys
import xml.etree.ElementTree as xml
from pathlib import Path


def is_bad(case):
    return case.get("status") in ("fail", "notrun", "disabled") or any(
        case.find(outcome) is not None for outcome in ("failure", "error", "skipped"))


def main():
    reports = [Path(name) for name in sys.argv[1:]]
    counted_there = {report.stem for report in reports if report.exists()}
    passed, bad = 0, []
    for report in reports:
        if not report.exists():
            bad.append(f"{report}: no report")
            continue
        for case in xml.parse(report).iter("testcase"):
            if is_bad(case):
                bad.append(f"{case.get('classname')}.{case.get('name')}")
            elif case.get("name") not in counted_there:
                passed += 1
    for name in bad:
        print(f"failed or not run: {name}")
    print(f"{passed} passed, {len(bad)} failed")
    return 1 if bad or not passed else 0


sys.exit(main())
