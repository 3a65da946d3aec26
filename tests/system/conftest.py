"""Fixtures of the system tests. They run inside the lab: scripts/run-system-tests.sh."""

import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

pytest.register_assert_rewrite("copy_table", "saves", "transfers", "protocols")

import copy_table as ct

if not ct.AGENT:
    pytest.exit("these tests run in the lab: scripts/run-system-tests.sh", 2)

import protocols


def pytest_collection_modifyitems(items):
    for item in items:
        for marker in item.iter_markers():
            assert marker.name not in ("skip", "skipif",
                                       "xfail"), f"{item.nodeid}: every test of the lab runs"


@pytest.fixture(params=["v3", "v2c"])
def manager(request):
    """The stock tools, over SNMPv3 authPriv and then over v2c."""
    return ct.Manager(request.param)


@pytest.fixture
def place():
    """Where the transfers run. A folder whose lab has VRFs overrides it."""
    return protocols.Place()


@pytest.fixture
def operator(place):
    """The stock tools over SNMPv3 authPriv, for tests in which the version does not matter."""
    return place.manager()


@pytest.fixture(autouse=True)
def quiet_switch():
    """Every test begins with an empty table, no copy and a known configuration, and leaves the
    agent alive and without zombies."""
    yield
    manager = ct.Manager("v3")
    for oid, _ in manager.walk(f"{ct.COPY_ENTRY}.{ct.ROW_STATUS}"):
        try:
            manager.set((oid, "i", ct.DESTROY))
        except ct.SnmpError as error:
            # A refused write to RowStatus leaves its saved copy in the undo list, and the row takes
            # no other until it ages out.
            assert error.status == "genErr"
            ct.lab_ctl("restart-agent")
            break
    assert manager.walk(ct.ROOT) == []
    ct.wait_for(lambda: not ct.children(ct.agent_pid()), 45, "the end of the agent's children")
    for file in ct.SERVER_ROOT.iterdir():
        file.unlink()
    assert [*ct.WORK.glob("*"), *ct.work_directory().iterdir()] == []


@pytest.fixture
def lines_of():
    """Makes configuration lines of statements, which are taken out of the running configuration at
    the end of the test."""
    added = []

    def add(*statements):
        added.extend(statements)
        return "".join(f"{statement}\n" for statement in statements)

    yield add
    if added:
        path = Path("/tmp/take-back.cfg")
        path.write_text("".join(f"no {statement}\n" for statement in reversed(added)))
        ct.run("cmdshell", "-c", f"configure {path}")


@pytest.fixture
def broken_link():
    """No frame passes between switch and server, until the test mends the link or ends."""
    ct.lab_ctl("break-link")
    yield lambda: ct.lab_ctl("mend-link")
    ct.lab_ctl("mend-link")


@pytest.fixture
def unchanged():
    """Checks that the configuration does not change and that nothing of a transfer is left."""
    switch = protocols.Switch()
    before = ct.show("running"), switch.running()
    yield
    assert (ct.show("running"), switch.running()) == before
    protocols.left_clean()


@pytest.fixture
def startup():
    """Gives the switch a startup configuration of any content, until the end of the test."""
    file = ct.STATE_DIRECTORY / "system.cfg"
    before = file.read_bytes()
    yield file.write_bytes
    file.write_bytes(before)


@pytest.fixture
def traps_for_names():
    """Provides a program that a hostile name could run. Checks that none did."""
    mark, program = Path("/tmp/owned"), Path("/ulmo/bin/owned")
    program.write_text(f"#!/bin/sh\ntouch {mark}\n")
    program.chmod(0o755)
    yield
    program.unlink()
    assert not mark.exists()


@pytest.fixture
def other_server(place):
    """Starts a program on the second address of the server's host, which nothing else uses."""
    ct.run("lab-ctl", "server-exec", "ip", "address", "add", f"{protocols.OTHER_SERVER}/24", "dev",
           "br0")
    started = []

    def start(*words):
        started.append(
            subprocess.Popen(["lab-ctl", "server-exec", *words], stdin=subprocess.DEVNULL))

    yield start
    for process in started:
        process.kill()
        process.wait()
    ct.run("lab-ctl", "server-exec", "ip", "address", "del", f"{protocols.OTHER_SERVER}/24", "dev",
           "br0")
