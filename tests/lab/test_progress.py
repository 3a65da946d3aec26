"""scripts/progress.sh, which shows the progress of a long command."""

import os
import pty
import re
import subprocess
from pathlib import Path

import pytest

PROGRESS = Path(__file__).resolve().parents[2] / "scripts" / "progress.sh"
# Lines as the three tools print them, with a pause, after which progress is shown on a terminal.
NINJA = "echo '[1/92] Building CXX object a.o'; sleep 1.1; echo '[2/92] Linking b'"
CTEST = ("echo '  1/791 Test  #1: A.B ...   Passed'; sleep 1.1; echo '        Start   3: A.C'; "
         "echo '  2/791 Test  #3: A.C ...   Passed'")
APT = ("echo 'dlstatus:1:4.5:Retrieving file 1 of 9'; sleep 1.1; "
       "echo 'pmstatus:libc6:37.5:Unpacking libc6'")


def shown_by(script, *options):
    done = subprocess.run([PROGRESS, *options, "the build", "sh", "-c", script],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def shown_on_terminal(script):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(PROGRESS, [PROGRESS, "the build", "sh", "-c", script])
    shown = b""
    try:
        while data := os.read(terminal, 4096):
            shown += data
    except OSError:  # the terminal's end
        pass
    assert os.waitpid(pid, 0)[1] == 0
    return shown.decode()


@pytest.mark.parametrize("script, far", [(NINJA, "2 of 92"), (CTEST, "2 of 791"),
                                         (APT, "37 % installed")])
def test_how_far_it_is(script, far):
    shown = shown_on_terminal(script)
    assert f"the build: {far}" in shown and re.search(r"the build: done in \d+ s", shown), shown


def test_of_a_success_only_the_time_is_shown():
    status, shown = shown_by("echo noise; echo '[1/2] a'")
    assert status == 0 and re.fullmatch(r"the build: done in \d+ s\n", shown), shown


def test_of_a_failure_all_is_shown():
    status, shown = shown_by("echo this is why; echo and this >&2; exit 3")
    assert status == 3 and shown.startswith("this is why\nand this\nthe build: failed after ")


def test_output_in_a_file(tmp_path):
    log = tmp_path / "log"
    status, shown = shown_by("echo this is $((40 + 2)); exit 3", "--log", log)
    assert status == 3 and "42" not in shown and log.read_text() == "this is 42\n"
