"""A change of FRR's configuration that is killed half-way, or not saved in time: the configuration
before it comes back, exactly."""

import os
import signal
import time

import vty
from copy_table import SERVER4, Request, agent_pid, children, download, run, serve, wait_for
from protocols import settings

LINES = "".join(f"ip route 10.50.{i // 256}.{i % 256}/32 blackhole\n" for i in range(3000))
ROUTE = "ip route 10.60.0.0/16 blackhole\n"
NOTHING_WAITS = (0, "no change waits to be saved\n")


def came_back():
    return " from=former to=running outcome=successful " in run(
        "cmdshell", "-c", "show copies").splitlines()[0]


def test_killed_at_some_moment_of_the_change(operator):
    before = vty.running()
    serve("many.cfg", LINES)
    halves = 0
    for delay in (0.05, 0.1, 0.2, 0.3, 0.5):
        request = Request(operator).create(*download(SERVER4, "many.cfg")).activate()
        worker = wait_for(lambda: children(agent_pid()), what="the worker")[0]
        time.sleep(delay)
        os.kill(worker, signal.SIGKILL)
        halves += before != vty.running() != before + LINES
        request.finished()
        assert vty.cmdshell("show running-config")[1] == before
        wait_for(lambda: vty.running() == before, what="the way back")
    assert halves and came_back()


def test_not_saved_in_time(operator):
    before = vty.running()
    serve("route.cfg", ROUTE)
    with settings(confirm_limit=1):
        Request(operator).create(*download(SERVER4, "route.cfg")).copied()
        assert ROUTE in vty.running()
        wait_for(lambda: vty.running() == before, what="the way back")
    wait_for(lambda: vty.cmdshell("show pending") == NOTHING_WAITS, what="the end of the wait")
    assert came_back()


def test_saved_by_its_own_shell(operator):
    serve("route.cfg", ROUTE)
    with settings(confirm_limit=3):
        Request(operator).create(*download(SERVER4, "route.cfg")).copied()
        assert vty.cmdshell("show pending") != NOTHING_WAITS
        vty.vtysh("write integrated")
        wait_for(lambda: vty.cmdshell("show pending") == NOTHING_WAITS, 2, "the confirmation")
        vty.vtysh("configure terminal", "no " + ROUTE.strip())
        vty.vtysh("configure terminal", ROUTE.strip())
        time.sleep(3.5)
    assert ROUTE in vty.running()
