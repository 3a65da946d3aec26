"""The switch's disk can't be written. Copies fail with a reason in words and leave nothing behind,
and the next one that can be made is made."""

import contextlib
import os

import pytest
from copy_table import (
    GENERAL, SERVER4, SERVER_ROOT, STATE_DIRECTORY, STATE_FAILED, TIMEOUT, WORK, Request, agent_pid,
    download, lab_ctl, run, serve, upload, wait_for,
)
from protocols import EVERY_PROTOCOL, EVERY_SCRIPT, family, settings
from saves import full_disk

DIRECTIONS = pytest.mark.parametrize("columns", [upload, download])


@contextlib.contextmanager
def read_only_disk():
    disk = STATE_DIRECTORY.parent
    run("mount", "-o", "remount,ro", disk)
    try:
        yield
    finally:
        run("mount", "-o", "remount,rw", disk)


def waiting_download(operator, protocol):
    """Its client waits for the server on a broken link."""
    request = Request(operator).create(*download(SERVER4, "there.cfg", protocol=protocol))
    request.activate()
    wait_for(lambda: family(agent_pid())[3:], what="the client")
    return request


def next_copy(operator, protocol):
    """Leaves nothing, of itself or of those before."""
    Request(operator).create(*upload(SERVER4, "next.cfg", protocol=protocol)).copied()
    wait_for(lambda: os.listdir(WORK) == [], what="an empty folder")


@EVERY_PROTOCOL
@DIRECTIONS
def test_copy_on_a_read_only_disk(operator, columns, protocol, unchanged):
    there = serve("there.cfg", "hostname changed\n", mode=0o666)
    with read_only_disk():
        request = Request(operator).create(*columns(SERVER4, "there.cfg", protocol=protocol))
        assert request.activate().finished() == (STATE_FAILED, GENERAL)
        line = run("cmdshell", "-c", "show copies").splitlines()[0]
        assert 'reason="no private directory: ' in line and ": Read-only file system" in line
        assert os.listdir(WORK) == []
    assert there.read_text() == "hostname changed\n"
    next_copy(operator, protocol)


@EVERY_SCRIPT
def test_disk_that_becomes_read_only(operator, protocol, broken_link, unchanged):
    """What can't be removed now is removed before the next copy."""
    with settings(transfer_idle_limit=3):
        request = waiting_download(operator, protocol)
        with read_only_disk():
            assert request.finished() == (STATE_FAILED, TIMEOUT)
            assert len(os.listdir(WORK)) == 1
    broken_link()
    next_copy(operator, protocol)


@EVERY_SCRIPT
def test_agent_that_is_killed_while_the_disk_is_read_only(operator, protocol, broken_link,
                                                          unchanged):
    waiting_download(operator, protocol)
    with read_only_disk():
        lab_ctl("kill-agent")
        broken_link()
        lab_ctl("start-agent")
        assert len(os.listdir(WORK)) == 1
    next_copy(operator, protocol)


@EVERY_PROTOCOL
@DIRECTIONS
def test_agent_that_is_killed_while_the_disk_is_full(operator, columns, protocol, broken_link,
                                                     unchanged):
    request = Request(operator).create(*columns(SERVER4, "there.cfg", protocol=protocol))
    request.activate()
    wait_for(lambda: [*WORK.glob("*/*")], what="a file of the copy")
    with full_disk(STATE_DIRECTORY):
        lab_ctl("kill-agent")
        broken_link()
        lab_ctl("start-agent")
        assert os.listdir(WORK) == []
    assert os.listdir(SERVER_ROOT) == []
    next_copy(operator, protocol)
