"""The agent's side of a copy to the startup configuration, with a system manager that does what the
test wants."""

import os
import struct
import time
from pathlib import Path

import pytest
from copy_numbers import COPY_ENTRY, ERROR_ENTRY, ROOT
from copy_table import (
    AGENT, ALL_STARTUP, COLUMNS, FABRIC_STARTUP, FAIL_CAUSE, GENERAL, IPV4, IPV6, SERVER4, STARTUP,
    STATE, STATE_FAILED, STATE_RUNNING, STATE_SUCCESSFUL, History, Request, address_octets,
    completions, octets, server_columns, upload, wait_for,
)
from saves import (
    DEVICE_ADDRESS_TYPE, ERROR_TEXT, SYSTEM_MANAGER_FAILED, SYSTEM_MANAGER_REFUSED, change_times,
    save,
)
from stand_in import ABORT, ACTION, BEGUN, DONE, INITIATED, REFUSED, SystemManager


OUTCOMES = Path(os.environ.get("ULMO_RUN_DIR", ""), "fabric-status")


def write_outcomes():
    """Writes how a save went in a fabric of three, as the system manager does before it tells that
    the save has ended. The local switch's address comes from its management port."""
    OUTCOMES.write_text("20:00:00:00:00:00:00:01 local - saved\n"
                        "20:00:00:00:00:00:00:02 remote 192.0.2.77 no answer in 10 s\n"
                        "ff:00:00:00:00:00:00:03 remote 2001:db8::77 no space on device\n")


@pytest.fixture
def earlier_outcomes():
    write_outcomes()
    yield
    OUTCOMES.unlink()


@pytest.mark.parametrize("destination", [STARTUP, FABRIC_STARTUP, ALL_STARTUP])
def test_save_that_succeeds(manager, destination):
    began = int(time.time())
    with SystemManager(INITIATED) as system_manager:
        request = save(manager, destination)
        request.activate()
        assert request.get(STATE) == STATE_RUNNING
        ((opcode, _, payload),) = system_manager.requests
        assert (opcode, len(payload)) == (ACTION, 140)
        fabric, everything = struct.unpack_from(">I", payload,
                                                28)[0], struct.unpack_from(">I", payload, 40)[0]
        assert (fabric, everything) == (destination == FABRIC_STARTUP, destination == ALL_STARTUP)
        system_manager.ended(0)
        assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    wait_for(lambda: completions(request.index), what="the notification")
    assert set(change_times()) >= {2, 3} and all(when >= began for when in change_times().values())


def test_begun_makes_a_waiting_row_run(manager):
    with SystemManager(INITIATED) as system_manager:
        request = save(manager)
        system_manager.tell(BEGUN)
        wait_for(lambda: request.get(STATE) == STATE_RUNNING, what="the running row")
        system_manager.ended(0)
        assert request.finished() == (STATE_SUCCESSFUL, GENERAL)


def test_refused_save(manager):
    with SystemManager(REFUSED):
        request = save(manager)
        request.activate()
        assert request.get(STATE, FAIL_CAUSE) == [STATE_FAILED, SYSTEM_MANAGER_REFUSED]
    wait_for(lambda: completions(request.index), what="the notification")


def test_answer_done_leaves_the_row_running(manager):
    with SystemManager(DONE):
        request = save(manager)
        request.activate()
        assert request.get(STATE) == STATE_RUNNING
        request.destroy()
    Request(manager).create(*upload(SERVER4, "next.cfg")).copied()


def test_no_answer_fails_the_save(manager):
    """A system manager that goes away without an answer does not hold up the agent."""
    with SystemManager(None):
        request = save(manager)
        request.activate()
        assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    wait_for(lambda: completions(request.index), what="the notification")
    Request(manager).create(*upload(SERVER4, "next.cfg")).copied()


def test_destroy_aborts_and_the_next_copy_starts(manager):
    with SystemManager(INITIATED) as system_manager:
        request = save(manager)
        request.activate()
        request.destroy()
        wait_for(lambda: len(system_manager.requests) == 2, what="the abort")
        (_, token, _), (opcode, _, payload) = system_manager.requests
        assert (opcode, payload) == (ABORT, struct.pack(">II", token, 0))
    Request(manager).create(*upload(SERVER4, "next.cfg")).copied()


def test_message_of_another_save_is_ignored(manager, broken_link):
    """A save that nobody asked for over SNMP does not end a network copy."""
    history = History()
    with SystemManager(INITIATED) as system_manager:
        request = Request(manager).create(*upload(SERVER4, "other.cfg"))
        request.activate()
        system_manager.ended(0)
        wait_for(lambda: history.has("copy run2start not initiated by us. ignore it"),
                 what="the line in the history")
        assert request.get(STATE) == STATE_RUNNING
        broken_link()
        assert request.finished(within=45) == (STATE_SUCCESSFUL, GENERAL)


@pytest.mark.parametrize("tool", ["snmpwalk", "snmpbulkwalk"])
def test_failed_fabric_saves_fill_the_error_table(manager, earlier_outcomes, tool):
    """Two failed requests and a walk over all 19 columns of both tables."""
    with SystemManager(INITIATED) as system_manager:
        requests = []
        for index in (70, 7):
            requests.append(save(manager, FABRIC_STARTUP, index=index))
            requests[-1].set(*server_columns(SERVER4))
            requests[-1].activate()
            assert OUTCOMES.read_text() == ""
            write_outcomes()
            system_manager.ended(1)
            assert requests[-1].finished() == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    walked = manager.walk(ROOT, tool)
    rows = [(7, 1), (7, 2), (7, 3), (70, 1), (70, 2), (70, 3)]
    assert [oid for oid, _ in walked
            ] == ([f"{COPY_ENTRY}.{column}.{index}" for column in COLUMNS for index in (7, 70)] + [
                f"{ERROR_ENTRY}.{column}.{index}.{error}"
                for column in range(DEVICE_ADDRESS_TYPE, ERROR_TEXT + 1) for index, error in rows
            ])
    values = dict(walked)

    def error_row(index, error):
        return [
            values[f"{ERROR_ENTRY}.{column}.{index}.{error}"]
            for column in range(DEVICE_ADDRESS_TYPE, ERROR_TEXT + 1)
        ]

    assert error_row(
        7, 1) == [IPV4,
                  address_octets(AGENT),
                  bytes.fromhex("2000000000000001"),
                  octets("saved")]
    assert error_row(70, 2) == [
        IPV4,
        address_octets("192.0.2.77"),
        bytes.fromhex("2000000000000002"),
        octets("no answer in 10 s")
    ]
    assert error_row(70, 3) == [
        IPV6,
        address_octets("2001:db8::77"),
        bytes.fromhex("ff00000000000003"),
        octets("no space on device")
    ]
    requests[1].destroy()
    left = [oid for oid, _ in manager.walk(f"{ERROR_ENTRY}.{ERROR_TEXT}")]
    assert left == [f"{ERROR_ENTRY}.{ERROR_TEXT}.70.{error}" for error in (1, 2, 3)]
