"""Each test begins with the configurations of a new FRR, and ends with all daemons working."""

import os

import pytest
import vty

NEW_RUNNING, NEW_STARTUP = vty.running(), vty.FILE.read_bytes()


@pytest.fixture(autouse=True)
def new_frr(quiet_switch):
    status = os.stat(vty.FILE)
    yield
    if not vty.all_up():
        vty.restart()
    if vty.running() != NEW_RUNNING:
        assert vty.configure(f"configuration replace\n{NEW_RUNNING}") == (0, "")
    assert vty.running() == NEW_RUNNING
    now = os.stat(vty.FILE)
    assert (now.st_uid, now.st_gid, now.st_mode) == (status.st_uid, status.st_gid, status.st_mode)
    vty.FILE.write_bytes(NEW_STARTUP)


@pytest.fixture
def device_unchanged():
    before = vty.running(), vty.startup()
    yield
    assert (vty.running(), vty.startup()) == before
