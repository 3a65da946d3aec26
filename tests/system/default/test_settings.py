"""The effect of platform.conf while the switch runs: mistakes in it, and what fails if it can't be
read."""

import os
import re
import time
from pathlib import Path

import pytest
from copy_table import (
    DESTINATION, FTP, GENERAL, LOGS, RUNNING, SCP, SECRET, SERVER4, SFTP, SOURCE, STARTUP,
    STATE_DIRECTORY, STATE_FAILED, TFTP, History, Request, download, lab_ctl, run, upload,
)
from saves import SYSTEM_MANAGER_FAILED, save

SETTINGS = Path(os.environ.get("ULMO_CONF", "/nonexistent"))
UNREADABLE = f"{SETTINGS} can't be read: Is a directory; copies and saves fail"


@pytest.fixture
def settings():
    """Adds lines to the file and takes out the history's, or with None replaces the file by a
    folder, until the end of the test."""
    before = SETTINGS.read_bytes()

    def put(text):
        SETTINGS.unlink()
        if text is None:
            SETTINGS.mkdir()
        else:
            SETTINGS.write_bytes(before.replace(b"history = all\n", b"") + text.encode())

    yield put
    if SETTINGS.is_dir():
        SETTINGS.rmdir()
    SETTINGS.write_bytes(before)


def contacts():
    """What the servers have logged about their clients. The TFTP server logs each request."""
    return {
        log.name: log.read_text() for log in LOGS.iterdir()
        if re.match(r"(ssh|vsftpd|tftp)", log.name)
    }


@pytest.mark.parametrize("protocol", [TFTP, FTP, SFTP, SCP], ids=["tftp", "ftp", "sftp", "scp"])
def test_copies_fail_while_the_settings_cant_be_read(manager, settings, protocol):
    settings(None)
    history, before = History(), contacts()
    for request in (Request(manager).create(*upload(SERVER4, "never.cfg", protocol=protocol)),
                    Request(manager).create(*download(SERVER4, "never.cfg", protocol=protocol))):
        request.activate()
        assert request.finished() == (STATE_FAILED, GENERAL)
        assert UNREADABLE in run("cmdshell", "-c", "show copies").splitlines()[0]
    assert contacts() == before
    assert len([
        line for line in history.lines()
        if line.endswith(f" error worker: the copy is refused: {UNREADABLE}")
    ]) == 2
    assert len([
        line for line in history.lines() if line.endswith(f" error settings: {UNREADABLE}")
    ]) == 1, "reported by a worker, too"


def test_local_copies_and_saves_fail_while_the_settings_cant_be_read(manager, settings):
    log = LOGS / "wardend1.log"
    startup = (STATE_DIRECTORY / "system.cfg").read_bytes()
    settings(None)
    history, logged = History(), len(log.read_text())
    request = Request(manager).create((SOURCE, STARTUP), (DESTINATION, RUNNING))
    request.activate()
    assert request.finished() == (STATE_FAILED, GENERAL)
    request = save(manager)
    request.activate()
    assert request.finished() == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    assert (STATE_DIRECTORY / "system.cfg").read_bytes() == startup
    assert re.search(
        r"not saved to the startup configuration of this switch, \d+ ms: "
        rf"{re.escape(UNREADABLE)}\n",
        log.read_text()[logged:])
    assert any(UNREADABLE in line and "not saved" in line for line in history.lines())


def test_bad_kind_of_switch_refuses_copies(manager, settings):
    """Otherwise the copy would be made outside the VRF that such a switch requires."""
    settings("chassis_type = 1O\n")
    lines, history, before = len(SETTINGS.read_text().splitlines()), History(), contacts()
    request = Request(manager).create(*upload(SERVER4, "never.cfg", protocol=TFTP))
    request.activate()
    assert request.finished() == (STATE_FAILED, GENERAL)
    reason = (f"{SETTINGS} line {lines}: chassis_type = 1O: must be a number from 0 to 2147483647; "
              "copies fail")
    assert any(
        line.endswith(f" error worker: the copy is refused: {reason}") for line in history.lines())
    assert contacts() == before


def test_what_is_wrong_is_told_once_by_the_agent(manager, settings):
    settings("msgbus_answer_limit = 2s\nhistroy = all\n")
    lines, agent, history = len(SETTINGS.read_text().splitlines()), lab_ctl("agent-pid",
                                                                            1), History()
    for _ in range(3):
        Request(manager).create(*upload(SERVER4, "copied.cfg", protocol=TFTP)).copied()
    expected = [
        f"{SETTINGS} line {lines - 1}: msgbus_answer_limit = 2s: must be a number from 1 to 60000; "
        "the default 250 is used",
        f"{SETTINGS} line {lines}: histroy: unknown setting; the line is ignored"
    ]
    reported = [
        line.partition(" error settings: ")[2] for line in history.lines()
        if f" {agent} error settings: " in line
    ]
    assert reported == expected


def test_history_holds_no_password_by_default(manager, settings):
    settings("")
    # The change takes effect within a second. Until then every step is recorded.
    time.sleep(1.1)
    history = History()
    for protocol in (FTP, SFTP, SCP):
        Request(manager).create(*upload(SERVER4, "copied.cfg", protocol=protocol)).copied()
        request = Request(manager).create(*upload(SERVER4, "no/such/folder.cfg", protocol=protocol))
        request.activate()
        request.finished()
    lines = history.lines()
    assert any(" error " in line for line in lines)
    assert [line for line in lines if " error " not in line or SECRET in line] == []
