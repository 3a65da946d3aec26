"""The message bus: access by other users, deleted sockets, and a restarting peer."""

import contextlib
import os
import subprocess
import time
from pathlib import Path

from copy_table import (
    GENERAL, SERVER4, STATE_SUCCESSFUL, Request, lab_ctl, upload, wait_for,
)
from saves import save

# Connects to an access point as often as it can and keeps the connections. At its end it prints how
# many it has.
FILL = """
import contextlib, os, signal, socket, sys
signal.signal(signal.SIGTERM, lambda *_: os._exit(print(len(kept), flush=True) or 0))
kept = []
print("ready", flush=True)
while True:
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_NONBLOCK)
    with contextlib.suppress(OSError):
        connection.connect(sys.argv[1])
        kept = [*kept[-200:], connection]
"""
SYSTEM_MANAGER, SNMP_AGENT = 3, 28


def access_point(point):
    return Path(os.environ["ULMO_RUN_DIR"]) / "msgbus" / str(point)


@contextlib.contextmanager
def crowd(point):
    """Has another user of the machine try to fill the queue. Checks that it never got through."""
    process = subprocess.Popen(
        ["setpriv", "--reuid", "nobody", "--clear-groups", "/usr/bin/python3", "-c", FILL,
         str(access_point(point))], stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    try:
        yield
    finally:
        process.terminate()
        output, _ = process.communicate()
    assert output == "0\n"


def test_another_user_can_not_keep_outcomes_from_the_agent(operator):
    with crowd(SNMP_AGENT), crowd(SYSTEM_MANAGER):
        for number in range(10):
            Request(operator).create(*upload(SERVER4, f"crowd{number}.cfg")).copied().destroy()
            save(operator).copied().destroy()


def test_a_socket_that_is_deleted_is_served_again(operator):
    for point in (SNMP_AGENT, SYSTEM_MANAGER):
        began = time.monotonic()
        access_point(point).unlink()
        wait_for(access_point(point).is_socket, what=f"access point {point}")
        assert time.monotonic() - began < 3
    Request(operator).create(*upload(SERVER4, "again.cfg")).copied()
    save(operator).copied()


def test_a_copy_reports_though_the_socket_was_deleted(operator, broken_link):
    copying = Request(operator).create(*upload(SERVER4, "deleted.cfg")).activate()
    access_point(SNMP_AGENT).unlink()
    broken_link()
    assert copying.finished(within=45) == (STATE_SUCCESSFUL, GENERAL)


def test_a_save_waits_for_a_system_manager_that_restarts(operator):
    lab_ctl("restart-system-manager")
    save(operator).copied()
