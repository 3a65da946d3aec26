"""The documented ways to send and receive the notification, with the agent and the receiver as the
documents say."""

import os
import re
import subprocess
import threading
import time
from pathlib import Path

import pytest
from copy_table import (
    COMPLETION, LOGS, NOTIFY, SERVER4, TRUE, Manager, Request, agent_pid, lab_ctl, upload, wait_for,
)

DOCUMENTS = Path(__file__).resolve().parents[3] / "docs"
PAGES = ("operations.md", "man/config_copy_mib.5")
AGENT_SETTINGS = Path("/lab/switch1/agent/snmpd.conf")
AGENT_LOG = LOGS / "snmpd1.log"
UP_TIME = ".1.3.6.1.2.1.1.3.0"
RECEIVER = f"{SERVER4}:1162"


def lines_of_page(page, *tokens):
    """The configuration lines in the page that begin with one of these tokens. In a manual page a
    backslash joins lines."""
    text = (DOCUMENTS / page).read_text().replace("\\\n", "")
    return "".join(re.findall(rf"^(?:{'|'.join(tokens)}) .*\n", text, re.MULTILINE))


@pytest.fixture
def sends_to():
    """Makes the agent send its notifications as a page says, but to this receiver."""
    before = AGENT_SETTINGS.read_text()

    def send(page, receiver):
        (line,) = lines_of_page(page, "trapsess").splitlines()
        AGENT_SETTINGS.write_text(f"{before}{line.rpartition(' ')[0]} {receiver}\n")
        said = len(AGENT_LOG.read_text())
        lab_ctl("restart-agent")
        assert "error" not in AGENT_LOG.read_text()[said:]

    yield send
    AGENT_SETTINGS.write_text(before)
    lab_ctl("restart-agent")


def slowest_answer(manager, request):
    """The longest time, in seconds, that the agent takes for an answer, from the activation of a
    copy until two seconds after its end."""
    slowest, ended = [0.0], threading.Event()

    def ask():
        while not ended.is_set():
            began = time.monotonic()
            manager.tool("snmpget", UP_TIME, options=("-r0", "-t20"))
            slowest.append(time.monotonic() - began)

    asking = threading.Thread(target=ask)
    asking.start()
    try:
        request.copied()
        time.sleep(2)
    finally:
        ended.set()
        asking.join()
    return max(slowest)


@pytest.mark.parametrize("page", PAGES)
@pytest.mark.parametrize("receiver", ["192.0.2.77", RECEIVER],
                         ids=["no such host", "nobody listens"])
def test_agent_does_not_wait_for_a_receiver_that_is_down(sends_to, page, receiver):
    sends_to(page, receiver)
    manager = Manager("v2c")
    # A busy machine may be slow once. An agent that waits is slow each time.
    slowest = []
    while not slowest or min(slowest) > 0.1:
        assert len(slowest) < 3, f"the slowest answers took {slowest} s"
        request = Request(manager).create(*upload(SERVER4, "down.cfg"), (NOTIFY, TRUE))
        slowest.append(slowest_answer(manager, request))


@pytest.fixture
def receiver(tmp_path):
    """Runs a receiver with a page's lines on the file server's host, in the place of the previous
    one, and returns its log."""
    program = Path(
        os.readlink(f"/proc/{agent_pid()}/exe")).parents[3] / "root-snmptrapd/usr/sbin/snmptrapd"
    log = tmp_path / "log"
    running = []

    def stop():
        for process in running:
            process.terminate()
            process.wait()
        running.clear()

    def start(page):
        stop()
        (tmp_path / "snmptrapd.conf").write_text(
            lines_of_page(page, "exactEngineID", "createUser notices", "authUser"))
        with log.open("wb") as output:
            running.append(
                subprocess.Popen([
                    "lab-ctl", "server-exec", "env", f"SNMPCONFPATH={tmp_path}",
                    f"SNMP_PERSISTENT_DIR={tmp_path}", "MIBS=", program, "-f", "-Lo", "-n", "-On",
                    f"udp:{RECEIVER}"
                ], stdout=output, stderr=output))
        wait_for(lambda: "NET-SNMP version" in log.read_text(), what="the receiver")
        return log

    yield start
    stop()


@pytest.mark.parametrize("page", PAGES)
def test_notification_is_received_and_acknowledged(operator, sends_to, receiver, page):
    sends_to(page, RECEIVER)
    for _ in range(2):  # again after the receiver's restart, which changes its engine time
        log = receiver(page)
        request = Request(operator).create(*upload(SERVER4, "told.cfg"), (NOTIFY, TRUE)).copied()
        wait_for(lambda: f"{COMPLETION}.{request.index}" in log.read_text(),
                 what="the notification")
        time.sleep(3)  # without an acknowledgment it comes again after a second
        assert log.read_text().count(f"{COMPLETION}.{request.index}") == 1


def test_memory_does_not_grow_with_notifications(manager):
    """The lines of the package keep the agent from retaining each notification: 36 KiB."""

    def resident():
        status = Path(f"/proc/{agent_pid()}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+) kB$", status, re.MULTILINE)[1])

    def copies(number):
        for _ in range(number):
            request = Request(manager).create(*upload(SERVER4, "memory.cfg"), (NOTIFY, TRUE))
            request.copied().destroy()

    copies(5)
    before = resident()
    copies(20)
    assert resident() - before < 200
