"""Copies that the switch gives up: all their processes end, and the next copy begins at once."""

import json
import os
import re
import signal
import time
from pathlib import Path

import pytest
from copy_table import (
    FTP, LOCAL_STARTUP_TO_RUNNING, SCP, SERVER4, SFTP, STATE_FAILED, TFTP, TIMEOUT, WORK,
    Request, agent_pid, children, download, lab_ctl, process_state, run, serve, show, upload,
    wait_for,
)
from protocols import OTHER_SERVER, settings
from test_settings import SETTINGS

PROTOCOLS = pytest.mark.parametrize("protocol", [TFTP, FTP, SFTP, SCP],
                                    ids=["tftp", "ftp", "sftp", "scp"])


@pytest.fixture(autouse=True)
def known_server():
    """The server's address stays known while the link is cut, as if the cut were behind a router:
    otherwise the switch reports the server as unreachable after some seconds."""
    [bridge] = json.loads(lab_ctl("server-exec", "ip", "-j", "link", "show", "br0"))
    entry = (SERVER4, "dev", "mgmt0")
    run("ip", "neigh", "replace", *entry, "lladdr", bridge["address"], "nud", "permanent")
    yield
    run("ip", "neigh", "del", *entry)


def descendants(pid):
    pids = children(pid)
    for each in pids:
        try:
            pids += children(each)
        except (FileNotFoundError, ProcessLookupError):
            pass
    return pids


def client_runs(protocol, pids):
    """Whether the client is among them and, if it is one of SSH, its connection. Before that, the
    script runs other programs, which end by themselves."""
    if protocol == TFTP:
        return bool(pids)
    name = {FTP: "ftp", SFTP: "sftp", SCP: "scp"}[protocol]
    return any(children(pid) or protocol == FTP for pid in pids if comm(pid) == name)


def comm(pid):
    try:
        return Path(f"/proc/{pid}/comm").read_text().strip()
    except (FileNotFoundError, ProcessLookupError):
        return None


def hanging(operator, protocol, columns):
    """Starts a copy over a cut link. Returns its request and its processes."""
    request = Request(operator).create(*columns(SERVER4, "given-up.cfg", protocol=protocol))
    request.activate()
    wait_for(lambda: client_runs(protocol, descendants(agent_pid())), what="the client")
    return request, descendants(agent_pid())


def wait_for_end(pids):
    wait_for(lambda: all(process_state(pid) in (None, "Z") for pid in pids), 5, "their end")


@PROTOCOLS
@pytest.mark.parametrize("columns", [upload, download])
@pytest.mark.parametrize("is_stopped", [False, True], ids=["", "stopped"])
def test_destroyed_request(operator, broken_link, protocol, columns, is_stopped):
    following = Request(operator).create(*LOCAL_STARTUP_TO_RUNNING)
    request, pids = hanging(operator, protocol, columns)
    if is_stopped:
        for pid in pids:
            os.kill(pid, signal.SIGSTOP)
    request.destroy()
    following.copied()
    wait_for_end(pids)
    wait_for(lambda: os.listdir(WORK) == [], what="an empty folder")


@PROTOCOLS
@pytest.mark.parametrize("is_stopped", [False, True], ids=["", "stopped"])
def test_time_limit(operator, broken_link, protocol, is_stopped):
    before = SETTINGS.read_bytes()
    try:
        SETTINGS.write_bytes(before + b"copy_time_limit = 2\n")
        began = time.monotonic()
        request, pids = hanging(operator, protocol, upload)
        if is_stopped:
            for pid in pids:
                os.kill(pid, signal.SIGSTOP)
        assert request.finished() == (STATE_FAILED, TIMEOUT)
        assert 2 <= time.monotonic() - began < 6
    finally:
        SETTINGS.write_bytes(before)
    assert ("cause=timeout reason=\"not finished within copy_time_limit, 2 seconds\""
            in run("cmdshell", "-c", "show copies").splitlines()[0])
    wait_for_end(pids)
    Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    assert os.listdir(WORK) == []


@PROTOCOLS
def test_killed_agent(operator, broken_link, protocol, lines_of):
    """The file that was on its way is not applied later, and nothing stays on the disk."""
    serve("given-up.cfg", lines_of("vlan 77"))
    _, pids = hanging(operator, protocol, download)
    agent = agent_pid()
    lab_ctl("kill-agent")
    try:
        wait_for_end([agent, *pids])
        broken_link()
    finally:
        lab_ctl("start-agent")
    assert "vlan 77" not in show("running")
    Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    assert os.listdir(WORK) == []


# A TFTP server that is never silent and comes to no end: 8 octets every second.
TRICKLE = f"""
import socket, time
def opened(port):
    opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    opened.bind(("{OTHER_SERVER}", port))
    return opened
requests = opened(69)
while True:
    request, client = requests.recvfrom(65536)
    if request[1] == 5:
        continue
    transfer = opened(0)
    transfer.sendto(b"\\0\\6blksize\\08\\0", client)
    for number in range(1, 60):
        packet = transfer.recv(65536)
        if packet[1] == 5:
            break
        time.sleep(1)
        data = b"\\0\\3" + number.to_bytes(2, "big") + b"! slow\\r\\n"
        transfer.sendto(data if request[1] == 1 else b"\\0\\4" + data[2:4], client)
"""


@pytest.mark.parametrize("columns", [upload, download])
def test_server_that_sends_a_few_octets_now_and_then(operator, columns, other_server):
    other_server("/usr/bin/python3", "-c", TRICKLE)
    wait_for(lambda: run("lab-ctl", "server-exec", "ss", "-Hlnu", f"src {OTHER_SERVER}:69"),
             what="the server")
    with settings(transfer_idle_limit=4):
        request = Request(operator).create(*columns(OTHER_SERVER, "slow.cfg"))
        began = time.monotonic()
        assert request.activate().finished() == (STATE_FAILED, TIMEOUT)
        assert 3 < time.monotonic() - began < 8
    line = run("cmdshell", "-c", "show copies").splitlines()[0]
    assert re.search(r'cause=timeout reason="Connection timed out .only \d+ octets have moved in 4 '
                     r'seconds', line), line
    Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    assert os.listdir(WORK) == []
