"""Rows age out. The tests move the agent's clock; the next request wakes the agent, which then runs
its alarm."""

import pytest
from copy_numbers import ROOT
from copy_table import (
    BAD_FILE_NAME, FABRIC_STARTUP, NOTIFY, SERVER4, STATE, STATE_RUNNING, TIME_COMPLETED,
    TIME_STARTED, TRUE, Request, completions, download, lab_ctl, upload, wait_for,
)
from protocols import settings
from saves import SYSTEM_MANAGER_FAILED, damaged_running_configuration, error_rows, save


@pytest.fixture
def later():
    """Moves the agent's clock on, in seconds from the start of the test."""
    moved = 0

    def move(seconds):
        nonlocal moved
        moved = seconds
        lab_ctl("agent-clock", f"+{seconds}")

    yield move
    lab_ctl("stop-agent")
    lab_ctl("agent-clock", "+0")
    lab_ctl("start-agent")


def test_rows_age_out_but_not_before_their_time(operator, later):
    waiting = Request(operator).create(*upload(SERVER4, "waiting.cfg"))
    finished = Request(operator).create(*upload(SERVER4, "finished.cfg")).copied()
    failed = Request(operator).create(*download(SERVER4, "absent.cfg"))
    assert failed.fails() == BAD_FILE_NAME
    rows = (waiting, finished, failed)
    later(300)
    # The pass of this moment finds them 300 seconds old and keeps them.
    for _ in range(20):
        assert all(row.exists() for row in rows)
    later(420)
    wait_for(lambda: not any(row.exists() for row in rows), what="the rows' end")
    assert operator.walk(ROOT) == []
    # The next row begins with an age of its own.
    fresh = Request(operator).create(*upload(SERVER4, "fresh.cfg")).copied()
    later(700)
    assert fresh.exists()
    later(900)
    wait_for(lambda: not fresh.exists(), what="the fresh row's end")


def test_running_copy_stays_until_it_has_ended(operator, later, broken_link):
    with settings(transfer_idle_limit=3600):
        request = Request(operator).create(*upload(SERVER4, "long.cfg")).activate()
        later(420)
        for _ in range(20):
            assert request.get(STATE) == STATE_RUNNING
        broken_link()
        wait_for(lambda: request.get(STATE) != STATE_RUNNING, 45, "the end of the copy")
    later(900)
    wait_for(lambda: not request.exists(), what="the row's end")


def test_error_rows_go_with_their_request(operator, later):
    with damaged_running_configuration():
        request = save(operator, FABRIC_STARTUP)
        assert request.fails() == SYSTEM_MANAGER_FAILED
    assert [key for key, _ in error_rows(operator)] == [(request.index, 1)]
    later(420)
    wait_for(lambda: not request.exists(), what="the row's end")
    assert operator.walk(ROOT) == []


DAY = 24 * 60 * 60


@pytest.mark.parametrize("days", [300, 600])
def test_times_of_an_agent_that_has_run_for_long(operator, later, days):
    """TimeTicks pass the end of 31 bits after 248 days and start again after 497."""
    later(days * DAY)
    before = days * DAY * 100 % 2**32
    request = Request(operator).create(*upload(SERVER4, "late.cfg"), (NOTIFY, TRUE)).copied()
    started, completed = request.get(TIME_STARTED, TIME_COMPLETED)
    assert before < started <= completed < before + 10 * 60 * 100
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert (request.oid(TIME_STARTED), started) in bindings
    assert (request.oid(TIME_COMPLETED), completed) in bindings
