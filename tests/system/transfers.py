"""The copies that must work with every TFTP server, collected by the folders of the labs that they
run in."""

import pytest
from copy_table import (
    BAD_FILE_NAME, SERVER4, SERVER6, SERVER_ROOT, STARTUP, TIME_COMPLETED, TIME_STARTED, Request,
    download, serve, show, upload,
)

SERVERS = pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])


@SERVERS
def test_running_to_server(manager, server):
    request = Request(manager).create(*upload(server, "running.txt")).copied()
    assert (SERVER_ROOT / "running.txt").read_text() == show("running")
    started, completed = request.get(TIME_STARTED, TIME_COMPLETED)
    assert 0 < started <= completed


@SERVERS
def test_startup_to_server(manager, server):
    Request(manager).create(*upload(server, "startup.txt", STARTUP)).copied()
    assert (SERVER_ROOT / "startup.txt").read_text() == show("startup")


@SERVERS
def test_server_to_running(manager, server, lines_of):
    serve("new.cfg", lines_of("vlan 77", "ntp server 192.0.2.99"))
    before = show("running")
    Request(manager).create(*download(server, "new.cfg")).copied()
    after = show("running")
    assert "vlan 77\n" in after and "ntp server 192.0.2.99\n" in after
    assert set(before.splitlines()) < set(after.splitlines())


def test_upload_replaces_a_longer_file(manager):
    path = serve("again.cfg", "x" * 100_000, mode=0o666)
    Request(manager).create(*upload(SERVER4, "again.cfg")).copied()
    assert path.read_text() == show("running")


def test_large_file_to_running_and_back(operator, lines_of):
    """Many blocks and windows, each way."""
    serve("large.cfg", lines_of(*(f"vlan {number}" for number in range(100, 4000))))
    Request(operator).create(*download(SERVER4, "large.cfg")).copied()
    Request(operator).create(*upload(SERVER4, "large-back.cfg")).copied()
    back = (SERVER_ROOT / "large-back.cfg").read_text()
    assert back == show("running") and back.count("vlan ") >= 3900


@SERVERS
def test_no_such_file(manager, server):
    before = show("running")
    assert Request(manager).create(*download(server, "absent.cfg")).fails() == BAD_FILE_NAME
    assert show("running") == before
