"""The agent around the copies: signals, restarts, its children, its resources."""

import os
import re
import signal
import subprocess
from pathlib import Path

import pytest
from copy_numbers import ROOT
from copy_table import (
    COLUMNS, GENERAL, NOTIFY, SERVER4, SERVER_ROOT, STATE, STATE_FAILED, STATE_RUNNING,
    STATE_SUCCESSFUL, TIME_COMPLETED, TIME_STARTED, TRUE, USER_NAME, WORK, Request, SnmpError,
    agent_pid, children, completions, lab_ctl, process_state, run, show, upload, wait_for, zombies,
)

# NsExtendOutput1Line."greeting".
EXTEND_OUTPUT = '.1.3.6.1.4.1.8072.1.3.2.3.1.1.8.103.114.101.101.116.105.110.103'
# DlmodStatus: 1 loaded, 2 unloaded; writing 4 loads, 5 unloads.
DLMOD_STATUS = ".1.3.6.1.4.1.2021.13.14.2.1.5"
NOTIFICATION_LOG_LIMIT = ".1.3.6.1.2.1.92.1.1.1.0"  # nlmConfigGlobalEntryLimit, RFC 3014

SILENT = "192.0.2.66"


@pytest.fixture
def silent_server():
    """A host on the link with a TFTP server that receives every request and answers none."""
    run("lab-ctl", "server-exec", "ip", "address", "add", f"{SILENT}/24", "dev", "br0")
    program = (f"import socket; s = socket.socket(type=socket.SOCK_DGRAM); s.bind(('{SILENT}', "
               "69)); print('ready', flush=True)\nwhile True: s.recv(9)")
    server = subprocess.Popen(["lab-ctl", "server-exec", "/usr/bin/python3", "-c", program],
                              stdout=subprocess.PIPE)
    assert server.stdout.readline() == b"ready\n"
    yield
    server.terminate()
    server.wait()
    server.stdout.close()
    run("lab-ctl", "server-exec", "ip", "address", "delete", f"{SILENT}/24", "dev", "br0")


def running_copy(manager, name, server=SERVER4):
    """A copy that waits for a server: behind a broken link, or a silent one."""
    request = Request(manager).create(*upload(server, name), (NOTIFY, TRUE)).activate()
    assert request.get(STATE) == STATE_RUNNING
    return request


def worker():
    """The copy's process: the agent's one child."""
    (child,) = wait_for(lambda: children(agent_pid()), what="the worker")
    return child


def test_reload_keeps_rows(manager):
    request = Request(manager).create(*upload(SERVER4, "reloaded.cfg"))
    before = request.columns()
    lab_ctl("reload-agent")
    assert request.columns() == before
    assert [oid for oid, _ in manager.walk(ROOT)] == [request.oid(column) for column in COLUMNS]
    request.copied()


def test_reload_during_a_copy(manager, broken_link):
    request = running_copy(manager, "during.cfg")
    process = worker()
    for _ in range(2):
        lab_ctl("reload-agent")
        assert children(agent_pid()) == [process]
        assert request.get(STATE) == STATE_RUNNING
    broken_link()
    assert request.finished(45) == (STATE_SUCCESSFUL, GENERAL)
    wait_for(lambda: completions(request.index), what="the notification")
    later = Request(manager).create(*upload(SERVER4, "later.cfg"), (NOTIFY, TRUE)).copied()
    wait_for(lambda: completions(later.index), what="the later notification")
    assert (len(completions(request.index)), len(completions(later.index))) == (1, 1)


def test_unload_and_load(manager):
    request = Request(manager).create(*upload(SERVER4, "unloaded.cfg"))
    before = request.columns()
    # Each reload of the agent gives the module a new number there.
    ((status, loaded),) = manager.walk(DLMOD_STATUS)
    assert loaded == 1
    for _ in range(3):
        manager.set((status, "i", 5))
        assert set(request.columns().values()) == {None}
        assert manager.walk(ROOT) == []
        with pytest.raises(SnmpError) as refusal:
            request.set((USER_NAME, "nobody"))
        assert refusal.value.status == "notWritable"
        manager.set((status, "i", 4))
        assert request.columns() == before
    request.copied()


def test_restart_during_a_copy_binds_the_port(manager, broken_link):
    running_copy(manager, "orphan.cfg")
    process = worker()
    lab_ctl("restart-agent")
    assert manager.walk(ROOT) == []
    wait_for(lambda: process_state(process) is None, 5, "the end of the old agent's worker")
    broken_link()
    Request(manager).create(*upload(SERVER4, "next.cfg")).copied()
    assert (SERVER_ROOT / "next.cfg").read_text() == show("running")
    # The old agent was gone before it could remove its worker's folder.
    wait_for(lambda: list(WORK.glob("*")) == [], what="the removal of the folders")


def test_killed_worker_fails_its_row_and_no_other(manager, silent_server):
    request = running_copy(manager, "killed.cfg", SILENT)
    process = worker()
    os.kill(process, signal.SIGKILL)
    assert request.finished(5) == (STATE_FAILED, GENERAL)
    assert request.get(TIME_COMPLETED) >= request.get(TIME_STARTED) > 0
    wait_for(lambda: completions(request.index), what="the notification")
    wait_for(lambda: process_state(process) is None, 5, "the worker's reaping")
    Request(manager).create(*upload(SERVER4, "after-kill.cfg")).copied()
    assert len(completions(request.index)) == 1


def test_extend_script_works_before_during_and_after_a_copy(manager, broken_link):
    """The script prints its process id, so each answer comes from a run of its own. The agent reaps
    every run."""

    def greeting():
        output = manager.get(EXTEND_OUTPUT).decode()
        assert re.fullmatch(r"hello from \d+", output)
        return output

    def another_run_than(*earlier):
        """The agent caches an output for a second."""
        return wait_for(lambda: (output := greeting()) not in earlier and output, 5,
                        "another run of the script")

    before = greeting()
    request = running_copy(manager, "extended.cfg")
    during = another_run_than(before)
    assert request.get(STATE) == STATE_RUNNING
    broken_link()
    assert request.finished(45) == (STATE_SUCCESSFUL, GENERAL)
    another_run_than(before, during)
    assert zombies(agent_pid()) == []


def private_memory_kib(pid):
    """Only pages that the process itself has written: pages of its libraries come and go with the
    free memory of the machine."""
    status = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^RssAnon:\s+(\d+)", status, re.MULTILINE)[1])


def descriptors(pid):
    return {name: os.readlink(f"/proc/{pid}/fd/{name}") for name in os.listdir(f"/proc/{pid}/fd")}


def test_two_hundred_copies_cost_nothing(operator):
    """They leave no descriptor, no zombie and no memory. What the first copies take once and for
    all is not counted."""

    def copies(count):
        for _ in range(count):
            Request(operator).create(*upload(SERVER4, "many.cfg"),
                                     (NOTIFY, TRUE)).copied().destroy()

    # The agent keeps the last notifications, by default 1000. That memory is the agent's own.
    operator.set((NOTIFICATION_LOG_LIMIT, "u", 10))
    pid = agent_pid()
    copies(30)
    memory, open_before = private_memory_kib(pid), descriptors(pid)
    copies(200)
    assert zombies(pid) == [] and agent_pid() == pid
    assert len(descriptors(pid)) == len(open_before), (open_before, descriptors(pid))
    # Half a KiB a copy: a leaked row or notification list would be larger.
    assert private_memory_kib(pid) - memory < 100
    operator.set((NOTIFICATION_LOG_LIMIT, "u", 1000))
