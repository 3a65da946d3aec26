"""Saves to the startup configuration of every switch of a fabric of three."""

import ipaddress
import itertools
import os
import re
import subprocess
import time
from pathlib import Path

import pytest
from copy_numbers import COPY_ENTRY, ERROR_ENTRY, ROOT
from copy_table import (
    CREATE_AND_GO, DESTINATION, DESTROY, FABRIC_STARTUP, GENERAL, IPV4, IPV6, LOGS, ROW_STATUS,
    RUNNING, SOURCE, STARTUP, STATE, STATE_FAILED, STATE_RUNNING, STATE_SUCCESSFUL, address_octets,
    completions, lab_ctl, run, wait_for,
)
from saves import (
    DAEMON_LOG, ERROR_TEXT, SYSTEM_MANAGER_FAILED, busy_device, change_times,
    damaged_running_configuration, error_rows, full_disk, outcomes, running, save, startup,
)

HERE, SECOND, THIRD = 1, 2, 3
AGENTS = dict(enumerate(os.environ["LAB_AGENTS"].split(), start=1))
STATES = {number: Path(f"/lab/switch{number}/disk/state") for number in AGENTS}
SETTINGS = Path("/lab/switch1/platform.conf")
vlans = itertools.count(100)
LIMIT = 2  # seconds that a member has in these tests
SAVED = "saved"


def cmdshell(number, command):
    return run("lab-ctl", "switch-exec", number, "cmdshell", "-c", command)


@pytest.fixture(autouse=True)
def whole_fabric():
    """Gives every switch an unsaved change. Afterwards all agents and system managers run again,
    with their settings as before."""
    settings, vlan = SETTINGS.read_text(), next(vlans)
    SETTINGS.write_text(f"{settings}fabric_time_limit = {LIMIT}\n")
    for number, state in STATES.items():
        change = Path(f"/tmp/change{number}.cfg")
        change.write_text(f"vlan {vlan}\n")
        cmdshell(number, f"configure {change}")
        assert running(state) != startup(state)
    yield
    SETTINGS.write_text(settings)
    for number in AGENTS:
        lab_ctl("start-system-manager", number)
        lab_ctl("start-agent", number)


@pytest.fixture
def saved_before():
    return {number: startup(state) for number, state in STATES.items()}


def which_saved():
    return {number for number, state in STATES.items() if startup(state) == running(state)}


def rows_on(number):
    """The members' agents accept the same user as the first one."""
    done = subprocess.run(["snmpwalk", "-On", "-r0", "-t2", AGENTS[number], ROOT],
                          stdout=subprocess.PIPE, text=True, check=True)
    return [line for line in done.stdout.splitlines() if "No " not in line]


def fabric_save(manager, **index):
    request = save(manager, FABRIC_STARTUP, **index)
    request.activate()
    return request


def failed(manager, **index):
    request = fabric_save(manager, **index)
    assert request.finished(within=LIMIT + 10) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    wait_for(lambda: completions(request.index), what="the notification")
    return request


def works_again(manager):
    request = fabric_save(manager)
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert which_saved() == set(AGENTS)


def test_every_switch_saves(manager):
    began = time.monotonic()
    with busy_device(STATES[SECOND]):
        request = fabric_save(manager)
        assert request.get(STATE) == STATE_RUNNING
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert time.monotonic() - began < LIMIT
    assert which_saved() == set(AGENTS)
    assert error_rows(manager) == []
    assert {2, 3} <= set(change_times())
    wait_for(lambda: completions(request.index), what="the notification")
    assert rows_on(SECOND) == rows_on(THIRD) == []


def test_a_save_of_one_switch_is_no_matter_of_the_others(operator):
    request = save(operator, STARTUP)
    request.activate()
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert which_saved() == {HERE}


def test_member_down(manager):
    lab_ctl("stop-agent", SECOND)
    request = failed(manager)
    assert outcomes(manager,
                    request) == {HERE: SAVED, SECOND: f"no answer in {LIMIT} s", THIRD: SAVED}
    assert which_saved() == {HERE, THIRD}
    lab_ctl("start-agent", SECOND)
    works_again(manager)


def test_addresses_of_both_families(operator):
    lab_ctl("stop-agent", SECOND)
    request = failed(operator)
    rows = error_rows(operator, request.index)
    assert [key for key, _ in rows] == [(request.index, error) for error in (1, 2, 3)]
    assert [row[:3] for _, row in rows] == [
        (IPV4, address_octets(AGENTS[HERE]), bytes.fromhex("2000000000000001")),
        (IPV4, address_octets(AGENTS[SECOND]), bytes.fromhex("2000000000000002")),
        (IPV6, ipaddress.ip_address("2001:db8::12").packed, bytes.fromhex("2000000000000003"))]


@pytest.mark.parametrize("key, outcome", [("auth-passphrase", "authentication failed"),
                                          ("priv-passphrase", "wrong privacy key"),
                                          ("user", "authentication failed")])
def test_member_with_wrong_credentials(operator, key, outcome):
    SETTINGS.write_text(
        re.sub(r"(?m)^(fabric_member = \S+:02 .*)$", rf"\1 {key}=not-the-right-one",
               SETTINGS.read_text()))
    request = failed(operator)
    assert outcomes(operator, request) == {HERE: SAVED, SECOND: outcome, THIRD: SAVED}
    assert "not-the-right-one" not in DAEMON_LOG.read_text()


def test_member_out_of_space(operator, saved_before):
    with full_disk(STATES[THIRD]):
        request = failed(operator)
    assert outcomes(operator, request) == {HERE: SAVED, SECOND: SAVED, THIRD: "no space on device"}
    assert startup(STATES[THIRD]) == saved_before[THIRD]
    works_again(operator)


def test_this_switch_fails(operator):
    with damaged_running_configuration():
        request = failed(operator)
        reported = outcomes(operator, request)
    assert "is not valid" in reported.pop(HERE) and reported == {SECOND: SAVED, THIRD: SAVED}
    works_again(operator)


def test_member_with_a_copy_in_progress(operator):
    with busy_device(STATES[SECOND]):
        other = f"{COPY_ENTRY}.{{}}.9"
        triples = [(ROW_STATUS, CREATE_AND_GO), (SOURCE, RUNNING), (DESTINATION, STARTUP)]
        run("snmpset", AGENTS[SECOND],
            *[word for column, value in triples for word in (other.format(column), "i", value)])
        request = failed(operator)
        assert outcomes(operator, request)[SECOND] == "another copy is in progress"
    wait_for(
        lambda: run("snmpget", "-Oqv", AGENTS[SECOND], other.format(STATE)).strip() == str(
            STATE_SUCCESSFUL), what="the member's own save")
    run("snmpset", AGENTS[SECOND], other.format(ROW_STATUS), "i", DESTROY)
    works_again(operator)


def test_member_whose_system_manager_refuses(operator):
    with busy_device(STATES[SECOND]):
        own = subprocess.Popen([
            "lab-ctl", "switch-exec",
            str(SECOND), "cmdshell", "-c", "copy running-config startup-config"
        ])
        wait_for(
            lambda: "asked by user" in Path(LOGS / "wardend2.log").read_text().splitlines()[-1],
            what="the member's own save")
        request = failed(operator)
        assert outcomes(operator, request)[SECOND] == "refused by its system manager"
    assert own.wait(10) == 0


def test_member_that_takes_too_long(operator, saved_before):
    with busy_device(STATES[SECOND]):
        request = failed(operator)
        assert outcomes(operator, request)[SECOND] == f"not saved in {LIMIT} s"
        wait_for(lambda: rows_on(SECOND) == [], what="the end of the row on the member")
    assert startup(STATES[SECOND]) == saved_before[SECOND]
    works_again(operator)


def test_bad_settings_save_nowhere(operator, saved_before):
    SETTINGS.write_text(f"{SETTINGS.read_text()}fabric_member = nonsense\n")
    request = failed(operator)
    assert [*outcomes(operator, request)] == [HERE]
    assert "fabric_member" in outcomes(operator, request)[HERE]
    assert {number: startup(state) for number, state in STATES.items()} == saved_before


def test_destroy_gives_the_fabric_save_up(operator, saved_before):
    with busy_device(STATES[SECOND]):
        request = fabric_save(operator)
        wait_for(lambda: rows_on(SECOND), what="the row on the member")
        request.destroy()
        wait_for(lambda: rows_on(SECOND) == rows_on(THIRD) == [],
                 what="the end of the members' rows")
        assert startup(STATES[SECOND]) == saved_before[SECOND]
    assert startup() == saved_before[HERE]
    works_again(operator)


def test_error_table_in_order_over_several_requests(operator):
    lab_ctl("stop-agent", SECOND)
    requests = {index: failed(operator, index=index) for index in (700, 70, 7000)}
    keys = [(index, error) for index in (70, 700, 7000) for error in (1, 2, 3)]
    assert [key for key, _ in error_rows(operator)] == keys
    oid, walked = f"{ERROR_ENTRY}.{ERROR_TEXT}", []
    while (found := operator.get_next(oid))[0].startswith(f"{ERROR_ENTRY}.{ERROR_TEXT}."):
        oid = found[0]
        walked.append(tuple(map(int, oid.split(".")[-2:])))
    assert walked == keys
    requests[700].destroy()
    assert [key for key, _ in error_rows(operator)] == [key for key in keys if key[0] != 700]


def test_killed_while_the_fabric_saves(operator, saved_before):
    with busy_device(STATES[SECOND]):
        request = fabric_save(operator)
        wait_for(lambda: rows_on(SECOND), what="the row on the member")
        lab_ctl("kill-system-manager", HERE)
        # The process of the save outlives the daemon to destroy the row: nothing would do so later.
        wait_for(lambda: rows_on(SECOND) == [], what="the end of the row on the member")
    assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    assert startup() == saved_before[HERE]
    lab_ctl("start-system-manager", HERE)
    works_again(operator)
