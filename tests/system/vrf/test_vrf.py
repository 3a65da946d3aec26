"""A chassis whose management traffic uses a VRF: TFTP goes through the program brix-tftp."""

import hashlib
import os

import pytest
from copy_table import (
    GENERAL, SERVER4, SERVER6, SERVER_ROOT, WORK, Request, download, run, serve, show, upload,
)


def newest_line():
    """The line of the last copy, which is written before the row shows the end."""
    return run("cmdshell", "-c", "show copies").splitlines()[0]


SERVERS = pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])


@SERVERS
def test_running_to_server(manager, server):
    Request(manager).create(*upload(server, "vrf.cfg")).copied()
    assert (SERVER_ROOT / "vrf.cfg").read_text() == show("running")
    digest = hashlib.sha256((SERVER_ROOT / "vrf.cfg").read_bytes()).hexdigest()
    assert f" sha256={digest} " in newest_line()


@SERVERS
def test_server_to_running(manager, server, lines_of):
    serve("vrf-down.cfg", lines_of("vlan 66"))
    Request(manager).create(*download(server, "vrf-down.cfg")).copied()
    assert "vlan 66\n" in show("running")


def test_every_failure_of_the_program_is_a_general_one(manager):
    assert Request(manager).create(*download(SERVER4, "absent.cfg")).fails() == GENERAL
    assert 'reason="File not found (' in newest_line()
    assert Request(manager).create(*upload("198.51.100.1", "nowhere.cfg")).fails() == GENERAL


@pytest.mark.parametrize("name", [
    "$(touch owned)", "`touch owned`", '"; touch owned; "', "&touch owned", 'a"b', "a  b", "$HOME",
    "a\\b", "-x", "x\ny", "!!", "*"
])
def test_file_name_reaches_the_server_as_it_is(manager, name):
    request = Request(manager).create(*upload(SERVER4, name))
    request.copied()
    assert os.listdir(SERVER_ROOT) == [name]
    assert os.listdir(WORK) == []
