"""Copies from and to a server that takes keys only."""

import itertools
import shutil
from pathlib import Path

import pytest
import ssh_server
from command import DONE, FAILED, config_copy
from copy_table import (
    ACCOUNT, AGENT, GENERAL, SCP, SECRET, SERVER_ROOT, SFTP, Request, download, run, serve, show,
    upload,
)
from protocols import KNOWN_HOSTS, OTHER_SERVER, settings

PROTOCOLS = pytest.mark.parametrize("protocol", ["sftp", "scp"])
NUMBERS = {"sftp": SFTP, "scp": SCP}
vlans = itertools.count(3000)


@pytest.fixture
def key(other_server):
    """The switch's key, and the server that takes it."""
    folder = Path("/tmp/ssh-server")
    folder.mkdir()
    key = ssh_server.identity()
    ssh_server.authorize(folder, key)
    ssh_server.ssh_server(other_server, OTHER_SERVER, folder, *ssh_server.KEYS_ONLY)
    with settings(ssh_identity=key):
        yield key
    ssh_server.remove(key)
    shutil.rmtree(folder)
    KNOWN_HOSTS.unlink(missing_ok=True)


def last_copy():
    return run("cmdshell", "-c", "show copies").splitlines()[0]


@PROTOCOLS
def test_there_and_back(protocol, key, lines_of):
    """SCP needs no password. SFTP needs some password in the request, and does not use it."""
    serve("new.cfg", lines_of(f"vlan {next(vlans)}"))
    url = f"{protocol}://{ACCOUNT}@{OTHER_SERVER}"
    password = "" if protocol == "scp" else "unused\n"
    for words in ((f"{url}/new.cfg", "running"), ("running", f"{url}/back.cfg")):
        done = config_copy(AGENT, *words, stdin=password)
        assert done.status == DONE and done.err == "", done
    assert (SERVER_ROOT / "new.cfg").read_text() in show("running")
    assert (SERVER_ROOT / "back.cfg").read_text() == show("running")


def test_scp_request_without_a_password(key, manager, lines_of):
    serve("new.cfg", lines_of(f"vlan {next(vlans)}"))
    Request(manager).create(
        *download(OTHER_SERVER, "new.cfg", protocol=SCP, password="")).copied()
    Request(manager).create(*upload(OTHER_SERVER, "back.cfg", protocol=SCP, password="")).copied()
    assert (SERVER_ROOT / "new.cfg").read_text() in show("running")
    assert (SERVER_ROOT / "back.cfg").read_text() == show("running")


@PROTOCOLS
def test_key_that_the_server_refuses(protocol, key, operator, unchanged):
    ssh_server.remove(key)
    ssh_server.identity()
    request = Request(operator).create(
        *upload(OTHER_SERVER, "x.cfg", protocol=NUMBERS[protocol]))
    assert request.fails() == GENERAL
    assert f' reason="login refused for {ACCOUNT}" ' in last_copy()
    done = config_copy(AGENT, "running", f"{protocol}://{ACCOUNT}@{OTHER_SERVER}/x.cfg",
                       stdin=f"{SECRET}\n")
    assert done.status == FAILED and f"login refused for {ACCOUNT}" in done.out + done.err, done
    assert not (SERVER_ROOT / "x.cfg").exists()


@PROTOCOLS
def test_key_that_others_may_read(protocol, key, operator, unchanged):
    key.chmod(0o644)
    request = Request(operator).create(
        *upload(OTHER_SERVER, "x.cfg", protocol=NUMBERS[protocol]))
    assert request.fails() == GENERAL
    assert (f"ssh_identity = {key}: must be the absolute path of a file that belongs to the "
            "agent's user, with mode 0600; copies by SFTP and SCP fail") in last_copy()
    assert not KNOWN_HOSTS.exists() and not (SERVER_ROOT / "x.cfg").exists()
    assert "ssh_identity = (bad: copies by SFTP and SCP fail)\n" in run("cmdshell", "-c",
                                                                        "show settings")
