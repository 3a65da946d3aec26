"""scripts/count-tests.py, which counts the tests of several reports."""

import subprocess
from pathlib import Path

import pytest

COUNT = Path(__file__).resolve().parents[2] / "scripts" / "count-tests.py"


def counted(*reports):
    done = subprocess.run([COUNT, *reports], stdout=subprocess.PIPE, text=True, check=False)
    return done.returncode, done.stdout


@pytest.fixture
def report(tmp_path):
    def write(name, *cases):
        path = tmp_path / f"{name}.xml"
        path.write_text(f"<testsuites><testsuite>{''.join(cases)}</testsuite></testsuites>")
        return path
    return write


PASSED = '<testcase classname="a" name="passed" status="run"/>'


def test_reports_are_added_up(report):
    one, two = report("one", PASSED), report("two", PASSED, PASSED)
    assert counted(one, two) == (0, "3 passed, 0 failed\n")


@pytest.mark.parametrize("case", [
    '<testcase classname="a" name="bad"><failure message="no"/></testcase>',
    '<testcase classname="a" name="bad"><error message="no"/></testcase>',
    '<testcase classname="a" name="bad" status="run" result="skipped"><skipped/></testcase>',
    '<testcase classname="a" name="bad" status="notrun" result="suppressed"/>',
    '<testcase classname="a" name="bad" status="fail"/>',
    '<testcase classname="a" name="bad" status="disabled"/>',
])
def test_whatever_did_not_pass_is_a_failure(report, case):
    expected = "failed or not run: a.bad\n1 passed, 1 failed\n"
    assert counted(report("one", PASSED, case)) == (1, expected)


def test_missing_report_is_a_failure(report, tmp_path):
    missing = tmp_path / "missing.xml"
    expected = f"failed or not run: {missing}: no report\n1 passed, 1 failed\n"
    assert counted(report("one", PASSED), missing) == (1, expected)


def test_nothing_at_all_is_no_success(report):
    assert counted(report("one")) == (1, "0 passed, 0 failed\n")


def test_program_with_a_report_of_its_own_counts_by_that(report):
    programs = report("ctest", '<testcase classname="tests.0" name="tests.0" status="run"/>')
    assert counted(programs, report("tests.0", PASSED, PASSED)) == (0, "2 passed, 0 failed\n")


def test_program_that_ends_badly_after_its_last_test_is_a_failure(report):
    programs = report("ctest", '<testcase classname="tests.0" name="tests.0" status="fail"/>')
    assert counted(programs, report("tests.0", PASSED)) == (
        1, "failed or not run: tests.0.tests.0\n1 passed, 1 failed\n")


def test_program_that_died_before_its_report_is_a_failure(report):
    died = report("ctest", '<testcase classname="tests.0" name="tests.0" status="fail"/>')
    assert counted(died) == (1, "failed or not run: tests.0.tests.0\n0 passed, 1 failed\n")
