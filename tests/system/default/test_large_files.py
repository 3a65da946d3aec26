"""Files that are larger than a configuration may be: nothing of them stays on the switch, and
nothing comes into force."""

import os

import pytest
from copy_table import (
    BAD_FILE, FAIL_CAUSE, FTP, GENERAL, SCP, SERVER4, SFTP, STATE, STATE_FAILED,
    STATE_SUCCESSFUL, TFTP, WORK, Request, download, run, serve, show, wait_for,
)
from protocols import OTHER_SERVER

LARGEST = 128 * 1024 * 1024
PROTOCOLS = pytest.mark.parametrize("protocol", [TFTP, FTP, SFTP, SCP],
                                    ids=["tftp", "ftp", "sftp", "scp"])

# A TFTP server whose file has no end and no announced size.
ENDLESS = f"""
import socket
def opened(port):
    opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    opened.bind(("{OTHER_SERVER}", port))
    return opened
_, client = opened(69).recvfrom(65536)
transfer = opened(0)
transfer.settimeout(0.2)
options = b"blksize", b"1428", b"windowsize", b"16", b""
transfer.sendto(b"\\0\\6" + b"\\0".join(options), client)
acknowledged = sent = 0
block = b"! more\\n" * 204
while True:
    try:
        packet = transfer.recv(65536)
    except TimeoutError:
        sent = acknowledged
    else:
        if packet[1] == 5:
            break
        acknowledged += (int.from_bytes(packet[2:4], "big") - acknowledged) % 65536
        sent = acknowledged
    while sent < acknowledged + 16:
        sent += 1
        transfer.sendto(b"\\0\\3" + (sent % 65536).to_bytes(2, "big") + block, client)
"""


def fails_by_its_size(request):
    before = show("running"), show("startup")
    request.activate().finished(60)
    line = run("cmdshell", "-c", "show copies").splitlines()[0]
    assert request.get(STATE, FAIL_CAUSE) == [STATE_FAILED, BAD_FILE], line
    assert "outcome=failed cause=badConfig reason=" in line
    assert f"more than {LARGEST} octets, the most that is taken" in line
    assert (show("running"), show("startup")) == before
    wait_for(lambda: os.listdir(WORK) == [], what="an empty folder")


@PROTOCOLS
def test_file_that_is_too_large(operator, protocol):
    os.truncate(serve("huge.cfg", ""), LARGEST + 1)
    fails_by_its_size(Request(operator).create(*download(SERVER4, "huge.cfg", protocol=protocol)))


def test_tftp_file_without_an_end(operator, other_server):
    other_server("/usr/bin/python3", "-c", ENDLESS)
    wait_for(lambda: run("lab-ctl", "server-exec", "ss", "-Hlnu", f"src {OTHER_SERVER}:69"),
             what="the server")
    fails_by_its_size(Request(operator).create(*download(OTHER_SERVER, "endless.cfg")))


@PROTOCOLS
def test_file_of_the_largest_size(operator, protocol, lines_of):
    text = lines_of("vlan 77").encode()
    os.truncate(serve("large.cfg", text + b"! a comment\n" * (LARGEST // 12)), LARGEST)
    request = Request(operator).create(*download(SERVER4, "large.cfg", protocol=protocol))
    assert request.activate().finished(60) == (STATE_SUCCESSFUL, GENERAL)
    assert "vlan 77\n" in show("running")
    assert f"bytes={LARGEST} " in run("cmdshell", "-c", "show copies").splitlines()[0]
