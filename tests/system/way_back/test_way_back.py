"""A restore under confirm_limit: it must be saved in time, or the configuration before it comes
back. And the exact restore, which leaves nothing else."""

import contextlib
import re
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest
from copy_table import (
    BAD_LINE, GENERAL, LOCAL_STARTUP_TO_RUNNING, SERVER4, STATE, STATE_DIRECTORY, STATE_FAILED,
    STATE_SUCCESSFUL, Manager, Request, SnmpError, download, lab_ctl, run, serve, show, wait_for,
)
from protocols import settings
from saves import logged, running, save, startup

CAMPAIGN = Path(__file__).parents[2] / "campaign" / "way_back.py"
NOTHING_WAITS = "no change waits to be saved\n"
CUT_OFF = b"interface mgmt0\n shutdown\n"


def pending():
    return run("cmdshell", "-c", "show pending")


def last_line():
    return run("cmdshell", "-c", "show copies").splitlines()[0]


def restore(manager, name):
    return Request(manager).create(*download(SERVER4, name))


def reaches(manager, request):
    try:
        manager.tool("snmpget", request.oid(STATE), options=("-r0", "-t0.4"))
        return True
    except SnmpError as error:
        assert error.status == "noResponse"
        return False


@pytest.fixture
def distant():
    """A manager on the file server's host."""
    return Manager("v3", within=("lab-ctl", "server-exec"))


@pytest.fixture(autouse=True)
def same_switch():
    """Each test leaves the configurations as they were, and nothing that waits."""
    before, saved = running(), startup()
    yield
    run("lab-ctl", "mend-link")
    wait_for(lambda: pending() == NOTHING_WAITS, what="the way back")
    (STATE_DIRECTORY / "running.cfg").write_bytes(before)
    (STATE_DIRECTORY / "system.cfg").write_bytes(saved)


@contextlib.contextmanager
def link_of_the_device():
    """The link is up as long as the running configuration does not shut the interface down."""
    is_over = threading.Event()

    def follow():
        was_up = True
        while not is_over.wait(0.02):
            is_up = b"shutdown" not in running()
            if is_up != was_up:
                lab_ctl("mend-link" if is_up else "break-link")
                was_up = is_up

    follower = threading.Thread(target=follow)
    follower.start()
    try:
        yield
    finally:
        is_over.set()
        follower.join()


def test_a_restore_that_cuts_the_manager_off_comes_back(distant):
    before = running()
    serve("cut.cfg", CUT_OFF)
    with settings(confirm_limit=3), link_of_the_device():
        request = restore(distant, "cut.cfg")
        request.activate()
        wait_for(lambda: b"shutdown" in running(), what="the restore")
        changed = time.monotonic()
        waiting = pending()
        assert re.fullmatch(
            r"the change of \S+Z must be saved within 3 s, of which [123] s are left: otherwise "
            r"the configuration before it comes back\n", waiting), waiting

        wait_for(lambda: not reaches(distant, request), 2, "the end of the link")
        wait_for(lambda: running() == before, what="the way back")
        assert time.monotonic() - changed > 2
        wait_for(lambda: pending() == NOTHING_WAITS, what="the end of the wait")
        # The manager reaches the switch again, and its restore was done.
        wait_for(lambda: reaches(distant, request), what="the link")
        assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert re.search(r"Z from=former to=running outcome=successful "
                     r'reason="the change of \S+Z was not saved within 3 s"$', last_line())
    assert logged("the former configuration is in force again: the change of ") >= 1


def test_a_save_in_time_keeps_it(operator):
    serve("new.cfg", "vlan 77\n")
    with settings(confirm_limit=2):
        restore(operator, "new.cfg").copied()
        save(operator).copied()
        assert pending() == NOTHING_WAITS
        time.sleep(2.7)
    assert b"vlan 77\n" in running()
    assert startup() == running()


def test_a_save_by_the_command_line_keeps_it(operator):
    serve("new.cfg", "vlan 78\n")
    with settings(confirm_limit=2):
        restore(operator, "new.cfg").copied()
        run("cmdshell", "-c", "copy running-config startup-config")
        assert pending() == NOTHING_WAITS
        time.sleep(2.7)
    assert b"vlan 78\n" in running()


def test_startup_to_running_and_the_command_line_wait_as_well(operator, tmp_path):
    before = running()
    file = tmp_path / "change.cfg"
    (STATE_DIRECTORY / "system.cfg").write_text("vlan 79\n")
    file.write_text("vlan 80\n")
    with settings(confirm_limit=2):
        Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
        time.sleep(1.2)
        run("cmdshell", "-c", f"configure {file}")
        assert b"vlan 79\nvlan 80\n" in running()
        time.sleep(1.2)
        assert b"vlan 79\nvlan 80\n" in running(), "the second one began the time again"
        wait_for(lambda: running() == before, what="the way back")


def test_the_time_runs_on_without_the_daemons(operator):
    before = running()
    serve("new.cfg", "vlan 81\n")
    with settings(confirm_limit=1):
        restore(operator, "new.cfg").copied()
        lab_ctl("kill-system-manager")
        lab_ctl("kill-agent")
        assert b"vlan 81\n" in running()
        time.sleep(1.5)
        lab_ctl("start-system-manager")
        wait_for(lambda: running() == before, 2, what="the way back")
        lab_ctl("start-agent")


def test_no_restore_without_a_system_manager(operator, unchanged):
    serve("new.cfg", "vlan 82\n")
    with settings(confirm_limit=60):
        lab_ctl("stop-system-manager")
        try:
            assert restore(operator, "new.cfg").fails() == BAD_LINE
        finally:
            lab_ctl("start-system-manager")
    assert ('cause=configNotApplied reason="confirm_limit is set, and the system manager, which '
            'would undo the change, is not running"') in last_line()


def test_a_bad_limit_refuses_restores(operator, unchanged):
    serve("new.cfg", "vlan 82\n")
    with settings(confirm_limit="soon"):
        assert restore(operator, "new.cfg").fails() == BAD_LINE
    assert "changes of the running configuration fail" in last_line()


# --- configuration replace ---


def test_an_exact_restore_leaves_nothing_else(operator):
    before = show("running")
    serve("merged.cfg", "vlan 83\n")
    serve("backup.cfg", "configuration replace\n" + before)
    restore(operator, "merged.cfg").copied()
    assert "vlan 83\n" in show("running")
    restore(operator, "backup.cfg").copied()
    assert show("running") == before


@pytest.mark.parametrize("text, reason", [
    ("configuration replace\n", "nothing follows 'configuration replace'"),
    ("configuration replace\nhostname x\nbogus\n", "line 3: unknown statement 'bogus'"),
    ("vlan 84\nconfiguration replace\n", "line 2: unknown statement 'configuration'"),
])
def test_an_exact_restore_that_is_refused_changes_nothing(operator, unchanged, text, reason):
    serve("bad.cfg", text)
    request = restore(operator, "bad.cfg")
    request.activate()
    assert request.finished()[0] == STATE_FAILED
    assert f'reason="{reason}"' in last_line()


# --- kills ---


def test_kills_at_any_moment():
    """Twenty rounds of the campaign: each process is killed at a random moment of the restore, of
    the wait and of the way back."""
    done = subprocess.run([sys.executable, "-B", CAMPAIGN, "--seed", "14", "--count", "20"],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=150)
    assert done.returncode == 0, done.stdout
    assert "rounds 1-20" in done.stdout and "; 0 violations" in done.stdout, done.stdout
