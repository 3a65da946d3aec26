"""What a copy does in addition to moving a file: states, the notification, causes of failure, one
at a time."""

from pathlib import Path

import pytest
from copy_table import (
    ADDRESS, ADDRESS_TYPE, ALL_STARTUP, BAD_FILE, BAD_FILE_NAME, BAD_LINE, COMPLETION,
    CREATE_AND_GO, DESTINATION, FABRIC_STARTUP, FAIL_CAUSE, FILE_NAME, GENERAL, KEX, LEGACY_ADDRESS,
    LOCAL_STARTUP_TO_RUNNING, NETWORK, NOTIFY, ROW_STATUS, RUNNING, SERVER4, SERVER6, SERVER_ROOT,
    SOURCE, STARTUP, STATE, STATE_DIRECTORY, STATE_FAILED, STATE_RUNNING, STATE_SUCCESSFUL,
    STATE_WAITING, TIMEOUT, TIME_COMPLETED, TIME_STARTED, TRUE, TYPE5, USER_NAME, Request,
    SnmpError, address_octets, completions, download, lab_ctl, run, serve, show, upload, wait_for,
)
from saves import SYSTEM_MANAGER_FAILED

SERVERS = pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])


def test_state_goes_waiting_running_successful(manager, broken_link):
    request = Request(manager).create(*upload(SERVER4, "states.cfg"))
    assert request.get(STATE, TIME_STARTED, TIME_COMPLETED) == [STATE_WAITING, 0, 0]
    request.activate()
    state, started, completed = request.get(STATE, TIME_STARTED, TIME_COMPLETED)
    assert state == STATE_RUNNING and started > 0 and completed == 0
    broken_link()
    assert request.finished(45) == (STATE_SUCCESSFUL, GENERAL)
    assert request.get(TIME_STARTED) == started
    assert request.get(TIME_COMPLETED) > started
    assert (SERVER_ROOT / "states.cfg").read_text() == show("running")


def test_second_activation_while_a_copy_runs(manager, broken_link):
    first = Request(manager).create(*upload(SERVER4, "first.cfg"))
    second = Request(manager).create(*upload(SERVER4, "second.cfg"))
    first.activate()
    before = second.columns()
    third = (ROW_STATUS, CREATE_AND_GO), *upload(SERVER4, "third.cfg")
    for refused in (second.activate, lambda: Request(manager).set(*third)):
        with pytest.raises(SnmpError) as refusal:
            refused()
        assert refusal.value.status == "genErr"
    assert second.columns() == before
    assert first.get(STATE) == STATE_RUNNING
    broken_link()
    assert first.finished(45) == (STATE_SUCCESSFUL, GENERAL)
    assert (SERVER_ROOT / "first.cfg").read_text() == show("running")
    assert not (SERVER_ROOT / "second.cfg").exists() and not (SERVER_ROOT / "third.cfg").exists()
    second.copied()


def test_columns_of_a_running_copy_cannot_be_written(manager, broken_link):
    request = Request(manager).create(*upload(SERVER4, "fixed.cfg")).activate()
    before = request.columns()
    with pytest.raises(SnmpError) as refusal:
        request.set((USER_NAME, "other"))
    assert refusal.value.status == "inconsistentValue"
    assert request.columns() == before


def test_startup_to_running(manager, lines_of):
    statement = "vlan 88"
    Path("/tmp/plus.cfg").write_text(lines_of(statement))
    startup = show("startup")
    assert statement not in startup
    run("cmdshell", "-c", "configure /tmp/plus.cfg")
    run("cmdshell", "-c", "copy running-config startup-config")
    try:
        Path("/tmp/minus.cfg").write_text(f"no {statement}\n")
        run("cmdshell", "-c", "configure /tmp/minus.cfg")
        assert statement not in show("running")
        Request(manager).create(*LOCAL_STARTUP_TO_RUNNING).copied()
        assert statement in show("running")
    finally:
        (STATE_DIRECTORY / "system.cfg").write_text(startup)


@SERVERS
def test_notification_has_its_bindings_in_order(manager, server):
    request = Request(manager).create(*upload(server, "told.cfg"), (NOTIFY, TRUE)).copied()
    wait_for(lambda: completions(request.index), what="the notification")
    row = request.columns()
    address = address_octets(server)
    expected = [(request.oid(ADDRESS), address.ljust(16, b"\0")),
                (request.oid(FILE_NAME), b"told.cfg")]
    if ":" not in server:
        expected.insert(0, (request.oid(LEGACY_ADDRESS), server))
    expected += [(request.oid(column), row[column])
                 for column in (STATE, TIME_STARTED, TIME_COMPLETED, FAIL_CAUSE, ADDRESS_TYPE)]
    # A second notification would come the same way, and be here before the answer to the next
    # copy's request.
    Request(manager).create(*upload(server, "untold.cfg")).copied()
    (bindings,) = completions(request.index)
    assert bindings[0][0] == ".1.3.6.1.2.1.1.3.0" and bindings[0][1] >= row[TIME_COMPLETED]
    assert bindings[1] == (".1.3.6.1.6.3.1.1.4.1.0", f"{COMPLETION}.{request.index}")
    assert bindings[2:] == expected


def test_notification_of_a_failure(manager):
    request = Request(manager).create(*download(SERVER4, "absent.cfg"), (NOTIFY, TRUE))
    assert request.fails() == BAD_FILE_NAME
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert (request.oid(STATE), STATE_FAILED) in bindings
    assert (request.oid(FAIL_CAUSE), BAD_FILE_NAME) in bindings


def test_no_notification_when_none_is_asked_for(manager):
    quiet = Request(manager).create(*upload(SERVER4, "quiet.cfg")).copied()
    # What the quiet copy would have sent arrives before what a later one sends.
    later = Request(manager).create(*upload(SERVER4, "told.cfg"), (NOTIFY, TRUE)).copied()
    wait_for(lambda: completions(later.index), what="the notification")
    assert completions(quiet.index) == []


@pytest.mark.parametrize("content, cause", [(b"hostname good\nvlan 5000\n", BAD_LINE),
                                            (b"no such statement\n", BAD_LINE),
                                            (b"\x7fELF\0\1\2\3", BAD_FILE),
                                            (b"hostname caf\xe9\n", BAD_FILE)],
                         ids=["bad value", "unknown statement", "binary", "not UTF-8"],
                         )
def test_bad_configuration_file_changes_nothing(manager, content, cause):
    serve("bad.cfg", content)
    before = show("running")
    assert Request(manager).create(*download(SERVER4, "bad.cfg")).fails() == cause
    assert show("running") == before


def test_server_without_a_route(manager):
    assert Request(manager).create(*upload("198.51.100.1", "nowhere.cfg")).fails() == TIMEOUT


def test_server_that_is_not_there(manager):
    """An unused address in the server's own network."""
    assert Request(manager).create(*upload("192.0.2.99", "nowhere.cfg")).fails() == TIMEOUT


@pytest.fixture
def no_system_manager():
    lab_ctl("stop-system-manager")
    yield
    lab_ctl("start-system-manager")


def test_running_to_startup_without_a_system_manager(manager, no_system_manager):
    """The request can't be sent: the platform ends the row as failed, and the next copy starts."""
    request = Request(manager).create((SOURCE, RUNNING), (DESTINATION, STARTUP), (NOTIFY, TRUE))
    request.activate()
    assert request.finished(within=2) == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    wait_for(lambda: completions(request.index), what="the notification")
    Request(manager).create(*upload(SERVER4, "after.cfg")).copied()


def test_server_that_never_answers(operator, broken_link):
    """The client waits about 20 seconds for an answer."""
    before = show("running")
    assert Request(operator).create(*download(SERVER4, "silent.cfg")).fails(within=45) == TIMEOUT
    assert show("running") == before


def test_row_of_a_finished_copy_can_be_activated_again(manager):
    request = Request(manager).create(*upload(SERVER4, "twice.cfg")).copied()
    (SERVER_ROOT / "twice.cfg").unlink()
    request.activate()
    wait_for((SERVER_ROOT / "twice.cfg").exists, what="the second file")
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)


def test_refused_validation_keeps_the_row(manager):
    """Every pair of file types that is refused, with its error."""
    for source, destination, status in ((STARTUP, FABRIC_STARTUP,
                                         "genErr"), (NETWORK, ALL_STARTUP,
                                                     "genErr"), (KEX, NETWORK, "wrongValue"),
                                        (RUNNING, TYPE5, "wrongValue"), (NETWORK, NETWORK,
                                                                         "genErr"),
                                        (NETWORK, STARTUP, "genErr"), (RUNNING, RUNNING, "genErr")):
        request = Request(manager).create(*upload(SERVER4, "refused.cfg"), (SOURCE, source),
                                          (DESTINATION, destination))
        with pytest.raises(SnmpError) as refusal:
            request.activate()
        assert (source, destination, refusal.value.status) == (source, destination, status)
        assert request.get(STATE, TIME_STARTED) == [STATE_WAITING, 0]


def test_refused_addresses(manager):
    for address in ("127.0.0.1", "0.0.0.0"):
        request = Request(manager).create(*upload(address, "loop.cfg"))
        before = request.columns()
        with pytest.raises(SnmpError) as refusal:
            request.activate()
        assert refusal.value.status == "wrongValue"
        assert request.get(STATE, TIME_STARTED, ROW_STATUS)[:2] == [before[STATE], 0]


@pytest.mark.parametrize("missing", [FILE_NAME, ADDRESS])
def test_incomplete_request_is_refused(manager, missing):
    request = Request(manager).create(*(pair for pair in upload(SERVER4, "part.cfg")
                                        if pair[0] != missing))
    with pytest.raises(SnmpError) as refusal:
        request.activate()
    assert refusal.value.status == "inconsistentValue"
    assert request.get(STATE) == STATE_WAITING
