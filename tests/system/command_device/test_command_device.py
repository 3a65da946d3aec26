"""A device of programs: docs/examples/tiny-switch.sh with the settings of docs/porting.md. Copies
and saves work as with any device; a program that misbehaves fails them with one reason, and leaves
the device as it was."""

import os
import re
import signal
import time
from pathlib import Path

import pytest
from copy_table import (
    BAD_FILE, BAD_LINE, GENERAL, LOCAL_STARTUP_TO_RUNNING, LOGS, SERVER4, SERVER_ROOT, STARTUP,
    STATE_SUCCESSFUL, History, Request, agent_pid, children, download, run, serve, show, upload,
    wait_for,
)
from protocols import EVERY_PROTOCOL, family, left_clean, settings
from saves import (
    DAEMON_LOG, SAVES, SYSTEM_MANAGER_FAILED, busy_device, save, system_manager_pid,
)

REPOSITORY = Path(__file__).resolve().parents[3]
PROGRAM = "docs/examples/tiny-switch.sh"
BEFORE = "hostname tiny\nvlan 7\n"
STORED = "hostname tiny\n"


class Device:
    """The device in a folder, and the settings that make it the switch's."""

    def __init__(self, folder):
        self.folder = folder / "configurations"
        self.folder.mkdir()
        self.program = folder / "tiny-switch.sh"
        self.program.symlink_to(REPOSITORY / PROGRAM)
        page = (REPOSITORY / "docs/porting.md").read_text()
        (block,) = re.findall(r"^```\n(device_backend = command\n.*?)^```$", page, re.M | re.S)
        self.settings = dict(
            line.replace("/usr/local/sbin/tiny-switch.sh", str(self.program)).replace(
                "/var/lib/tiny-switch", str(self.folder)).split(" = ", 1)
            for line in block.splitlines())
        (self.folder / "running").write_text(BEFORE)
        (self.folder / "startup").write_text(STORED)

    def running(self):
        return (self.folder / "running").read_text()

    def startup(self):
        return (self.folder / "startup").read_text()

    def broken(self, task, line):
        """A setting: the task's program does its work, unless that is to show or to save, and then
        runs a line of shell."""
        program = self.folder.parent / f"broken-{task}"
        begin = "true" if task in ("show_running", "save") else self.settings[f"command_{task}"]
        program.write_text(f"#!/bin/sh\n{begin} || exit\n{line}\n")
        program.chmod(0o755)
        return {f"command_{task}": program}


@pytest.fixture(autouse=True)
def device(tmp_path):
    tmp_path.chmod(0o755)
    device = Device(tmp_path)
    with settings(**device.settings):
        yield device


def reason_of(request):
    """The reason in the copy's line, which is in the system's log, too."""
    def newest():
        return [
            line for line in run("cmdshell", "-c", "show copies").splitlines()
            if f" request={request.index} " in line
        ]

    (line,) = wait_for(newest, what="the copy's line")
    wait_for(lambda: line in (LOGS / "system").read_text(), what="the log's line")
    return re.search(r' reason="((?:[^"\\]|\\.)*)"', line)[1]


def test_settings_of_the_example_are_in_force(device):
    lines = run("cmdshell", "-c", "show settings").splitlines()
    assert len(device.settings) == 8
    assert [text for text in map(" = ".join, device.settings.items()) if text not in lines] == []


@EVERY_PROTOCOL
def test_restore_and_backup(operator, device, protocol):
    serve("new.cfg", "vlan 12\nno vlan 7\n")
    Request(operator).create(*download(SERVER4, "new.cfg", protocol=protocol)).copied()
    assert device.running() == show("running") == "hostname tiny\nvlan 12\n"
    Request(operator).create(*upload(SERVER4, "running.cfg", protocol=protocol)).copied()
    assert (SERVER_ROOT / "running.cfg").read_text() == device.running()
    Request(operator).create(
        *upload(SERVER4, "startup.cfg", source=STARTUP, protocol=protocol)).copied()
    assert (SERVER_ROOT / "startup.cfg").read_text() == STORED
    left_clean()


def test_exact_restore(operator, device):
    serve("whole.cfg", "configuration replace\nhostname other\nvlan 3\n")
    Request(operator).create(*download(SERVER4, "whole.cfg")).copied()
    assert device.running() == "hostname other\nvlan 3\n"


@pytest.mark.parametrize("is_destroyed", [False, True], ids=["worker killed", "row destroyed"])
def test_change_that_is_killed_half_way(operator, device, is_destroyed):
    serve("new.cfg", "vlan 12\n")
    with settings(**device.broken("apply", "sleep 60")):
        request = Request(operator).create(*download(SERVER4, "new.cfg")).activate()
        wait_for(lambda: device.running() == BEFORE + "vlan 12\n", what="the half of the change")
        if is_destroyed:
            request.destroy()
        else:
            os.kill(children(agent_pid())[0], signal.SIGKILL)
        wait_for(lambda: device.running() == BEFORE, 5, "the way back")
    wait_for(lambda: " from=former to=running outcome=successful " in run(
        "cmdshell", "-c", "show copies").splitlines()[0], what="its line")
    assert show("running") == BEFORE


def test_restore_that_is_not_saved_in_time(operator, device):
    serve("new.cfg", "configuration replace\nhostname other\n")
    with settings(confirm_limit=1):
        Request(operator).create(*download(SERVER4, "new.cfg")).copied()
        assert device.running() == "hostname other\n"
        wait_for(lambda: device.running() == BEFORE, 5, "the way back")
        Request(operator).create(*download(SERVER4, "new.cfg")).copied()
        save(operator).copied()
        time.sleep(1.7)
        assert device.running() == device.startup() == "hostname other\n"


def test_startup_to_running(operator, device):
    (device.folder / "startup").write_text("vlan 9\n")
    Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    assert device.running() == "hostname tiny\nvlan 7\nvlan 9\n"
    (device.folder / "startup").unlink()
    request = Request(operator).create(*LOCAL_STARTUP_TO_RUNNING)
    assert request.fails() == BAD_FILE
    assert reason_of(request) == "there is no startup configuration"


@pytest.mark.parametrize("destination", SAVES, ids=["startup", "fabric", "all"])
def test_save(manager, device, destination):
    request = save(manager, destination)
    request.activate()
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert device.startup() == show("startup") == BEFORE


def test_save_by_the_command_line(device):
    run("cmdshell", "-c", "copy running-config startup-config")
    assert device.startup() == BEFORE


def test_refused_line(manager, device):
    serve("bad.cfg", "vlan 12\nfrobnicate 1\n")
    history = History()
    request = Request(manager).create(*download(SERVER4, "bad.cfg"))
    assert request.fails() == BAD_LINE
    assert reason_of(request) == "line 2: unknown statement 'frobnicate'"
    assert history.has("line 2: unknown statement 'frobnicate'")
    assert device.running() == BEFORE


def test_file_that_is_not_text(operator, device):
    serve("bad.cfg", b"vlan 12\nvlan\0 13\n")
    request = Request(operator).create(*download(SERVER4, "bad.cfg"))
    assert request.fails() == BAD_FILE
    assert reason_of(request) == "line 2 has a control character: this is not text"
    assert device.running() == BEFORE


FAULTS = {
    "hangs": ("trap '' TERM HUP; (trap '' TERM; while :; do sleep 60; done) & "
              "while :; do sleep 60; done", "it did not end within 1 second and was killed"),
    "floods": ("exec head -c 1000000000 /dev/zero",
               "it printed more than 134217728 octets and was killed"),
    "crashes": ("kill -SEGV $$", "signal 11 ended it"),
    "fails": ("printf '\\n the daemon\\033 is down \\nmore\\n' >&2; exit 3",
              "the daemon? is down"),
    "fails-silently": ("exit 3", "it ended with status 3 and gave no reason"),
}
EVERY_FAULT = pytest.mark.parametrize("line, reason", FAULTS.values(), ids=FAULTS)


def named(task, reason):
    """A reason that the program itself gives for refusing a text needs no name of a setting."""
    is_refusal = task in ("check", "apply", "replace") and reason == FAULTS["fails"][1]
    return reason if is_refusal else f"command_{task}: {reason}"


@EVERY_FAULT
def test_backup_from_a_program_that(operator, device, line, reason):
    with settings(device_time_limit=1, **device.broken("show_running", line)):
        request = Request(operator).create(*upload(SERVER4, "never.cfg"))
        assert request.fails() == GENERAL
        assert reason_of(request) == named("show_running", reason)
    assert not (SERVER_ROOT / "never.cfg").exists()
    left_clean()


def test_backup_from_a_program_that_prints_what_is_not_text(operator, device):
    with settings(**device.broken("show_running", "printf 'vlan 1\\n\\0'")):
        request = Request(operator).create(*upload(SERVER4, "never.cfg"))
        assert request.fails() == GENERAL
        assert reason_of(request) == ("command_show_running: line 2 of what it printed has a "
                                      "control character: this is not text")
    assert not (SERVER_ROOT / "never.cfg").exists()


@EVERY_FAULT
@pytest.mark.parametrize("task", ["check", "apply"])
def test_restore_by_a_program_that(operator, device, task, line, reason):
    serve("new.cfg", "vlan 12\n")
    history = History()
    with settings(device_time_limit=1, **device.broken(task, line)):
        request = Request(operator).create(*download(SERVER4, "new.cfg"))
        assert request.fails() == BAD_LINE
        assert reason_of(request) == named(task, reason)
        assert history.has(named(task, reason))
    assert device.running() == BEFORE, "what was applied is undone"
    left_clean()


@EVERY_FAULT
def test_save_by_a_program_that(operator, device, line, reason):
    logged = len(DAEMON_LOG.read_text())
    with settings(device_time_limit=1, **device.broken("save", line)):
        request = save(operator)
        assert request.fails() == SYSTEM_MANAGER_FAILED
        assert reason_of(request) == named("save", reason)
        assert run("cmdshell", "-c", "show last-save") == named("save", reason) + "\n"
        assert named("save", reason) + "\n" in DAEMON_LOG.read_text()[logged:]
    assert (device.running(), device.startup()) == (BEFORE, STORED)
    wait_for(lambda: family(system_manager_pid())[1:] == [], what="the end of the programs")


@pytest.mark.parametrize("value", ["tiny-switch.sh", "/nowhere/tiny-switch.sh", "/etc/passwd"])
def test_setting_that_names_no_program(operator, device, value):
    """Relative, missing, not executable."""
    wrong = ("must begin with the absolute path of a program that exists and that this user may "
             "run; copies and saves fail")
    serve("new.cfg", "vlan 12\n")
    with settings(command_verify=value):
        lines = run("cmdshell", "-c", "show settings").splitlines()
        assert "command_verify = (bad: copies and saves fail)" in lines
        for request, cause in ((Request(operator).create(*download(SERVER4, "new.cfg")), BAD_LINE),
                               (Request(operator).create(*upload(SERVER4, "never.cfg")), GENERAL),
                               (save(operator), SYSTEM_MANAGER_FAILED)):
            assert request.fails() == cause
            assert re.fullmatch(rf".*platform\.conf line \d+: command_verify = {value}: {wrong}",
                                reason_of(request))
    assert (device.running(), device.startup()) == (BEFORE, STORED)
    assert not (SERVER_ROOT / "never.cfg").exists()


def test_tasks_without_a_program(operator, device):
    serve("whole.cfg", "configuration replace\nvlan 12\n")
    with settings(command_replace="", command_show_startup="", command_save=""):
        for request, reason in (
            (Request(operator).create(*download(SERVER4, "whole.cfg")),
             "command_replace is not set: this device can't replace its configuration"),
            (Request(operator).create(*upload(SERVER4, "never.cfg", source=STARTUP)),
             "command_show_startup is not set: this device can't show its startup configuration"),
            (save(operator), "command_save is not set: this device can't save its configuration"),
        ):
            request.fails()
            assert reason_of(request) == reason
    assert (device.running(), device.startup()) == (BEFORE, STORED)


def test_copy_that_is_destroyed(operator, device):
    """Its programs end with it."""
    serve("new.cfg", "vlan 12\n")
    begun = device.folder.parent / "begun"
    line = f"trap '' TERM; echo $$ >{begun}.new; mv {begun}.new {begun}; while :; do sleep 60; done"
    with settings(**device.broken("check", line)):
        request = Request(operator).create(*download(SERVER4, "new.cfg"))
        request.activate()
        pid = int(wait_for(lambda: begun.exists() and begun.read_text(), what="the program"))
        request.destroy()
        wait_for(lambda: not Path(f"/proc/{pid}").exists(), what="the end of the program")
    left_clean()
    assert device.running() == BEFORE
    with busy_device():
        pass  # the lock is free
