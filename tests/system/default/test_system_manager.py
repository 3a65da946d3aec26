"""Saves of the running configuration by the real system manager."""

import itertools
import os
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

import pytest
from copy_numbers import ROOT
from copy_table import (
    ACTIVE, ALL_STARTUP, FABRIC_STARTUP, FAIL_CAUSE, FALSE, GENERAL, NOT_READY, ROW_STATUS, SERVER4,
    STATE, STATE_DIRECTORY, STATE_FAILED, STATE_RUNNING, STATE_SUCCESSFUL, STATE_WAITING, History,
    Request, SnmpError, completions, lab_ctl, run, upload, wait_for,
)
from saves import (
    SAVES, SYSTEM_MANAGER_FAILED, SYSTEM_MANAGER_REFUSED, busy_device, change_times,
    damaged_running_configuration, error_rows, logged, running, save, startup, system_manager_pid,
)

vlans = itertools.count(100)
TO = pytest.mark.parametrize("destination", SAVES, ids=["startup", "fabric", "all"])


@pytest.fixture(autouse=True)
def served():
    yield
    lab_ctl("start-system-manager")


@pytest.fixture
def changed(lines_of):
    """The running configuration differs from the startup configuration."""
    path = Path("/tmp/changed.cfg")
    path.write_text(lines_of(f"vlan {next(vlans)}"))
    run("cmdshell", "-c", f"configure {path}")
    assert running() != startup()


@TO
def test_save(manager, changed, destination):
    began = int(time.time())
    with busy_device():
        request = save(manager, destination)
        request.activate()
        assert request.get(STATE, ROW_STATUS) == [STATE_RUNNING, ACTIVE]
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert startup() == running()
    assert {2, 3} <= set(change_times())
    assert all(began <= when <= time.time() for when in change_times().values())
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert dict(bindings)[request.oid(STATE)] == STATE_SUCCESSFUL
    assert error_rows(manager) == []
    if destination == ALL_STARTUP:
        assert (STATE_DIRECTORY / "backup.cfg").read_bytes() == running()


def test_no_notification_unless_asked(operator):
    request = save(operator, notify=FALSE)
    request.activate()
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    marker = save(operator)
    marker.activate()
    wait_for(lambda: completions(marker.index), what="the notification of the later save")
    assert completions(request.index) == []


def next_copy_works(manager):
    request = save(manager)
    request.activate()
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    Request(manager).create(*upload(SERVER4, "next.cfg")).copied()


@TO
def test_no_system_manager(operator, destination):
    """The SET succeeds, and the platform ends the save, as no system manager will."""
    lab_ctl("stop-system-manager")
    request = save(operator, destination)
    request.activate()
    assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert dict(bindings)[request.oid(STATE)] == STATE_FAILED
    lab_ctl("start-system-manager")
    next_copy_works(operator)


@pytest.mark.parametrize("killed", [True, False], ids=["killed", "silent"])
def test_no_answer(operator, changed, killed):
    """The agent stops waiting by itself, and the failed save is not made later."""
    before, refused = startup(), logged("not begun: the requester is gone")
    pid = system_manager_pid()
    os.kill(pid, signal.SIGSTOP)
    history = History()
    request = save(operator)
    setting = threading.Thread(target=request.activate)
    began = time.monotonic()
    setting.start()
    if killed:
        wait_for(lambda: history.has("Sending request to warden"), what="the request")
        lab_ctl("kill-system-manager")
    setting.join()
    assert time.monotonic() - began < 1
    assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    if killed:
        lab_ctl("start-system-manager")
    else:
        os.kill(pid, signal.SIGCONT)
        # It now finds a request whose requester is gone.
        wait_for(lambda: logged("not begun: the requester is gone") > refused,
                 what="the line in the log")
    assert startup() == before
    next_copy_works(operator)


def test_killed_while_it_saves(operator, changed):
    before = startup()
    with busy_device():
        request = save(operator)
        request.activate()
        assert request.get(STATE) == STATE_RUNNING
        lab_ctl("kill-system-manager")
        assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    assert startup() == before
    lab_ctl("start-system-manager")
    next_copy_works(operator)


def test_restarted_after_a_save_was_cut_short(operator, changed):
    """The restarted system manager sends nothing that ends the next save."""
    with busy_device():
        first = save(operator)
        first.activate()
        lab_ctl("kill-system-manager")
        lab_ctl("start-system-manager")
        assert first.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
        second = save(operator)
        second.activate()
        assert second.get(STATE) == STATE_RUNNING
    assert second.finished() == (STATE_SUCCESSFUL, GENERAL)


def test_refused(manager, changed):
    """The command line's save is in progress."""
    before = startup()
    with busy_device():
        other = subprocess.Popen(["cmdshell", "-c", "copy running-config startup-config"])
        wait_for(lambda: logged(f"process {other.pid}"), what="the other save")
        request = save(manager)
        request.activate()
        assert request.get(STATE, FAIL_CAUSE) == [STATE_FAILED, SYSTEM_MANAGER_REFUSED]
        assert startup() == before
    assert other.wait(10) == 0
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert dict(bindings)[request.oid(FAIL_CAUSE)] == SYSTEM_MANAGER_REFUSED
    next_copy_works(manager)


@TO
def test_unreadable_running_configuration(manager, destination):
    before = startup()
    with damaged_running_configuration():
        request = save(manager, destination)
        assert request.fails() == SYSTEM_MANAGER_FAILED
        wait_for(lambda: completions(request.index), what="the notification")
        assert startup() == before
        texts = [row[3] for _, row in error_rows(manager)]
        assert len(texts) == (destination == FABRIC_STARTUP)
        assert all(b"running.cfg is not valid" in text for text in texts)
    next_copy_works(manager)


@TO
def test_destroy_aborts(manager, changed, destination):
    before = startup()
    given_up = logged("to be given up on request")
    with busy_device():
        request = save(manager, destination)
        request.activate()
        request.destroy()
        wait_for(lambda: logged("to be given up on request") > given_up, what="the abort")
        following = save(manager)
        following.activate()
        assert following.get(STATE) == STATE_RUNNING
        assert startup() == before
    assert following.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert startup() == running()


def shell_saves():
    run("cmdshell", "-c", "copy running-config startup-config")


def test_save_outside_snmp_leaves_all_requests_alone(operator, broken_link):
    waiting = Request(operator).create(*upload(SERVER4, "waiting.cfg"))
    waiting_save = save(operator)
    copying = Request(operator).create(*upload(SERVER4, "other.cfg")).activate()
    for _ in range(3):
        shell_saves()
    assert waiting.get(STATE, ROW_STATUS) == [STATE_WAITING, NOT_READY]
    assert waiting_save.get(STATE) == STATE_WAITING
    assert copying.get(STATE) == STATE_RUNNING
    broken_link()
    assert copying.finished(within=45) == (STATE_SUCCESSFUL, GENERAL)
    waiting_save.copied()
    waiting.copied()


def test_save_outside_snmp_does_not_end_ours(operator, changed):
    """The shell's save is refused while the manager's waits for the device."""
    with busy_device():
        request = save(operator).activate()
        busy = subprocess.run(["cmdshell", "-c", "copy running-config startup-config"],
                              stderr=subprocess.PIPE, check=False)
        assert b"another configuration action is in progress" in busy.stderr
        assert request.get(STATE) == STATE_RUNNING
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)


def test_a_half_made_request_and_saves(operator, changed):
    """Neither a manager's save nor the shell's starts a request that was not activated."""
    half_made = Request(operator).create(*upload(SERVER4, "half.cfg"))
    for _ in range(5):
        save(operator).copied()
        shell_saves()
    assert half_made.get(STATE) == STATE_WAITING
    half_made.copied()


def test_backups_and_saves_side_by_side(operator):
    """Managers activate their requests while other saves begin and end."""
    ended = []

    def manage(make):
        for number in range(15):
            request = make(number)
            while True:
                try:
                    request.activate()
                    break
                except SnmpError:  # another copy is in progress
                    time.sleep(0.02)
            ended.append(request.finished())
            request.destroy()

    managers = [
        threading.Thread(target=manage, args=(make,)) for make in (
            lambda number: Request(operator).create(*upload(SERVER4, f"side{number}.cfg")),
            lambda _: save(operator))
    ]
    for each in managers:
        each.start()
    while any(each.is_alive() for each in managers):
        shell = subprocess.run(["cmdshell", "-c", "copy running-config startup-config"],
                               stderr=subprocess.DEVNULL, check=False)
        assert shell.returncode in (0, 1)
    for each in managers:
        each.join()
    refused = (STATE_FAILED, SYSTEM_MANAGER_REFUSED)
    assert len(ended) == 30 and set(ended) <= {(STATE_SUCCESSFUL, GENERAL), refused}, ended


def test_a_begin_is_announced_under_the_setting(operator):
    settings = Path(os.environ["ULMO_CONF"])
    before = settings.read_text()
    settings.write_text(f"{before}announce_begin = yes\n")
    try:
        waiting = Request(operator, index=1).create(*upload(SERVER4, "waiting.cfg"))
        shell_saves()
        assert waiting.get(STATE) == STATE_WAITING
        with busy_device():
            request = save(operator, index=2).activate()
            wait_for(lambda: waiting.get(STATE) == STATE_RUNNING, what="the begin")
            waiting.destroy()
        assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    finally:
        settings.write_text(before)


def test_save_outside_snmp_and_an_empty_table(operator):
    run("cmdshell", "-c", "copy running-config startup-config")
    assert startup() == running()
    assert run("cmdshell", "-c", "show last-save") == "saved\n"
    assert operator.walk(ROOT) == []


def test_agent_restarted_during_a_save(operator, changed):
    """The system manager completes the save although the agent that asked for it has ended."""
    with busy_device():
        save(operator).activate()
        lab_ctl("restart-agent")
    wait_for(lambda: startup() == running(), what="the end of the save")
    next_copy_works(operator)


def test_configuration_of_the_start(operator, changed):
    """The startup configuration is loaded when the switch starts, not when its system manager
    does."""
    before = running()
    lab_ctl("restart-system-manager")
    assert running() == before
    (Path(os.environ["ULMO_RUN_DIR"]) / "started").unlink()
    lab_ctl("restart-system-manager")
    assert running() == startup() != before


KNOCK = """
import socket, sys
socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET).connect(sys.argv[1])
"""
SYSTEM_MANAGER, SNMP_AGENT = 3, 28


def access_point(point):
    return str(Path(os.environ["ULMO_RUN_DIR"]) / "msgbus" / str(point))


def packet(opcode, payload):
    return struct.pack("=5I", 0x6D736762, 1, opcode, 1, len(payload)) + payload


@pytest.fixture
def undisturbed(operator, broken_link):
    """Runs a copy during the test, whose end only its own worker may report."""
    copying = Request(operator).create(*upload(SERVER4, "mine.cfg")).activate()
    yield
    assert copying.get(STATE) == STATE_RUNNING
    broken_link()
    assert copying.finished(within=45) == (STATE_SUCCESSFUL, GENERAL)


def test_another_user_can_not_connect(undisturbed):
    """Neither the agent's nor the system manager's access point lets another user connect."""
    for point in (SYSTEM_MANAGER, SNMP_AGENT):
        knock = subprocess.run(["setpriv", "--reuid", "nobody", "--clear-groups",
                                "/usr/bin/python3", "-c", KNOCK, access_point(point)],
                               stderr=subprocess.PIPE, check=False)
        assert b"PermissionError" in knock.stderr


def test_messages_that_mean_nothing_are_dropped_with_a_line(undisturbed):
    for point, opcode, payload in ((SYSTEM_MANAGER, 1381, b""), (SYSTEM_MANAGER, 1381, bytes(139)),
                                   (SYSTEM_MANAGER, 1381, bytes(141)), (SYSTEM_MANAGER, 1383,
                                                                        bytes(4)),
                                   (SYSTEM_MANAGER, 1383, struct.pack(
                                       ">II", 4711,
                                       0)), (SYSTEM_MANAGER, 77, b""), (SNMP_AGENT, 10273,
                                                                        struct.pack("=i", 0)),
                                   (SNMP_AGENT, 77, bytes(140)), (SNMP_AGENT, 1381, bytes(4))):
        history = History("--errors")
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
            connection.connect(access_point(point))
            connection.sendall(packet(opcode, payload))
            connection.settimeout(5)
            assert connection.recv(100) == b""
        wait_for(lambda: history.has("dropped"),
                 what=f"the line about {opcode} with {len(payload)} octets")
